#include "Device.h"

#include <fitsio.h>
#include <stream/streammanager.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "Devices.h"
#include "MainThread.h"
#include "common/Doctor.h"
#include "common/FitsHeader.h"

namespace kovindi {

using std::chrono::steady_clock;

namespace {

constexpr const char* CONTROLS_TAB = "Controls";
constexpr const char* DARKS_TAB = "Darks";
constexpr uint32_t LOOK_MS = 250;
constexpr auto UPLOAD_PATIENCE = std::chrono::minutes(2);
constexpr double WARM = 20;  // degrees at which a sensor may be left alone

struct FormatName {
    IMG_TYPE type;
    const char *name, *label;
    uint8_t bits;
};
constexpr FormatName FORMATS[] = {
    { IMG_RAW8, "INDI_RAW8", "RAW 8", 8 },
    { IMG_RAW16, "INDI_RAW16", "RAW 16", 16 },
    { IMG_RGB24, "INDI_RGB", "RGB 24", 8 },
    { IMG_Y8, "INDI_MONO", "Luminance 8", 8 },
};
const FormatName& NameOf(IMG_TYPE type)
{
    return *std::find_if(std::begin(FORMATS), std::end(FORMATS), [=](const FormatName& f) { return f.type == type; });
}

// These have a property of their own, where clients look for them.
bool StandsElsewhere(KOV_CONTROL_TYPE type)
{
    return type == CTRL_TEMPERATURE || type == CTRL_COOL_POWER_PERC || type == CTRL_TARGET_TEMP || type == CTRL_COOLER_ON ||
           type == CTRL_HARDWARE_BIN;
}

// As the property's own search, which complains to the log when there is none.
template <class Property>
auto* FindElement(Property& property, const std::string& name)
{
    for (size_t i = 0; i < property.size(); ++i)
        if (property[i].isNameMatch(name))
            return &property[i];
    return static_cast<std::remove_reference_t<decltype(property[0])>*>(nullptr);
}

int NextSerial()
{
    static int last = 0;
    return ++last;
}

bool IsOn(const char* wanted, ISState* states, char* names[], int n)
{
    for (int i = 0; i < n; ++i)
        if (std::strcmp(names[i], wanted) == 0)
            return states[i] == ISS_ON;
    return false;
}

void SetOnOff(INDI::PropertySwitch& s, bool on)
{
    s[0].setState(on ? ISS_ON : ISS_OFF);
    s[1].setState(on ? ISS_OFF : ISS_ON);
}

}  // namespace

Device::Device(const KOV_CAMERA_INFO& info, const std::string& id, int ordinal)
    : m_name(DeviceName(info.Name, id, ordinal)), m_model(info.Name), m_id(id), m_ordinal(ordinal), m_serial(NextSerial()),
      m_info(info), m_camera(std::make_unique<Camera>(info.Name, id, ordinal, static_cast<Listener&>(*this)))
{
    setDeviceName(m_name.c_str());
    setVersion(1, 0);
}

Device::~Device() = default;

const char* Device::getDefaultName() { return "KOV CCD"; }

KnownCamera Device::Known() const
{
    return { m_id, m_ordinal, const_cast<Device*>(this)->isConnected(), m_camera->HasFailed(), m_verified };
}

// --- properties ---

bool Device::initProperties()
{
    INDI::CCD::initProperties();
    uint32_t capability = CCD_CAN_BIN | CCD_CAN_SUBFRAME | CCD_CAN_ABORT | CCD_HAS_ST4_PORT | CCD_HAS_STREAMING;
    if (m_info.IsCooled)
        capability |= CCD_HAS_COOLER;
    if (m_info.IsColorCam)
        capability |= CCD_HAS_BAYER;
    SetCCDCapability(capability);
    Streamer->setStreamingExposureEnabled(true);

    const IMG_TYPE* types = m_info.SupportedImgTypes;
    const bool has16 = std::find(types, types + 8, IMG_RAW16) != types + 8;
    for (; *types != IMG_END; ++types) {
        const FormatName& f = NameOf(*types);
        addCaptureFormat({ f.name, f.label, f.bits, *types == (has16 ? IMG_RAW16 : IMG_RAW8), true });
    }
    const int* bin = std::max_element(std::begin(m_info.SupportedBins), std::end(m_info.SupportedBins));
    for (const char* element : { "HOR_BIN", "VER_BIN" })
        PrimaryCCD.setMinMaxStep("CCD_BINNING", element, 1, *bin, 1, false);

    const char* dev = getDeviceName();
    m_facts[0].fill("MODEL", "Model", m_model);
    m_facts[1].fill("CAMERA_ID", "User ID", m_id);
    m_facts[2].fill("USB_LINK", "USB link", "");
    m_facts[3].fill("FIRMWARE", "Firmware version", "");
    m_facts.fill(dev, "CAMERA_FACTS", "Camera", INFO_TAB, IP_RO, 0, IPS_IDLE);
    m_cooler[0].fill("COOLER_ON", "On", ISS_OFF);
    m_cooler[1].fill("COOLER_OFF", "Off", ISS_ON);
    m_cooler.fill(dev, "CCD_COOLER", "Cooler", MAIN_CONTROL_TAB, IP_RW, ISR_1OFMANY, 0, IPS_IDLE);
    m_coolerPower[0].fill("CCD_COOLER_VALUE", "Power (%)", "%.0f", 0, 100, 1, 0);
    m_coolerPower.fill(dev, "CCD_COOLER_POWER", "Cooler power", MAIN_CONTROL_TAB, IP_RO, 0, IPS_IDLE);
    m_warmUpSwitch[0].fill("WARM_UP_ON", "On", ISS_OFF);
    m_warmUpSwitch[1].fill("WARM_UP_OFF", "Off", ISS_ON);
    m_warmUpSwitch.fill(dev, "WARM_UP", "Warm up before disconnect", OPTIONS_TAB, IP_RW, ISR_1OFMANY, 0, IPS_IDLE);
    m_hardwareBin[0].fill("HARDWARE_BIN_ON", "On", ISS_OFF);
    m_hardwareBin[1].fill("HARDWARE_BIN_OFF", "Off", ISS_ON);
    m_hardwareBin.fill(dev, "CCD_HARDWARE_BIN", "Hardware bin", IMAGE_SETTINGS_TAB, IP_RW, ISR_1OFMANY, 0, IPS_IDLE);
    m_videoCount[0].fill("FRAMES_PER_SECOND", "From the camera (1/s)", "%.2f", 0, 10000, 0, 0);
    m_videoCount[1].fill("DROPPED", "Dropped", "%.0f", 0, 2147483647, 0, 0);
    m_videoCount.fill(dev, "VIDEO_COUNT", "Camera frames", "Streaming", IP_RO, 0, IPS_IDLE);
    m_dark[0].fill("DARK_TAKE", "Take", ISS_OFF);
    m_dark[1].fill("DARK_LOAD", "Load", ISS_OFF);
    m_dark[2].fill("DARK_CLEAR", "Clear", ISS_ON);
    m_dark.fill(dev, "DARK_FRAME", "Dark frame (8 bit)", DARKS_TAB, IP_RW, ISR_1OFMANY, 0, IPS_IDLE);
    m_darkFrames[0].fill("FRAMES", "Frames to average", "%.0f", 1, 1000, 1, 10);
    m_darkFrames.fill(dev, "DARK_FRAMES", "Dark frames", DARKS_TAB, IP_RW, 0, IPS_IDLE);
    const char* home = std::getenv("HOME");
    m_darkFile[0].fill("PATH", "Path", std::string(home != nullptr ? home : "/tmp") + "/.indi/" + m_name + "_dark.bmp");
    m_darkFile.fill(dev, "DARK_FILE", "Dark file", DARKS_TAB, IP_RW, 0, IPS_IDLE);
    IUSaveText(&BayerT[0], "0");
    IUSaveText(&BayerT[1], "0");

    addAuxControls();
    setDefaultPollingPeriod(LOOK_MS);
    return true;
}

void Device::ISGetProperties(const char* dev)
{
    if (!m_leaving && (dev == nullptr || m_name == dev))
        INDI::CCD::ISGetProperties(dev);
}

bool Device::updateProperties()
{
    INDI::CCD::updateProperties();
    const bool on = isConnected();
    const auto show = [&](INDI::Property& p, bool has = true) {
        if (!has)
            return;
        if (on)
            defineProperty(p);
        else
            deleteProperty(p);
    };
    const bool cooled = m_info.IsCooled != KOV_FALSE;
    show(m_controls);
    show(m_modes, m_modes.size() > 0);
    show(m_cooler, cooled);
    show(m_coolerPower, cooled);
    show(m_warmUpSwitch, cooled);
    show(m_hardwareBin, Lists(CTRL_HARDWARE_BIN));
    show(m_videoCount);
    show(m_dark);
    show(m_darkFrames);
    show(m_darkFile);
    show(m_facts);
    if (!cooled && Lists(CTRL_TEMPERATURE)) {
        TemperatureNP.p = IP_RO;
        if (on)
            defineProperty(&TemperatureNP);
        else
            deleteProperty(TemperatureNP.name);
    }
    if (on)
        SetTimer(getCurrentPollingPeriod());
    return true;
}

bool Device::saveConfigItems(FILE* file)
{
    INDI::CCD::saveConfigItems(file);
    m_controls.save(file);
    if (m_modes.size() > 0)
        m_modes.save(file);
    if (Lists(CTRL_HARDWARE_BIN))
        m_hardwareBin.save(file);
    if (m_info.IsCooled)
        m_warmUpSwitch.save(file);
    m_darkFrames.save(file);
    m_darkFile.save(file);
    return true;
}

void Device::MakeControls(const Opened& facts)
{
    const char* dev = getDeviceName();
    m_controls.resize(0);
    m_modes.resize(0);
    for (const KOV_CONTROL_CAPS& c : facts.controls) {
        const ControlState* state = kovindi::Find(facts.states, c.ControlType);
        const std::string name = ElementName(c);
        if (StandsElsewhere(c.ControlType))
            continue;
        m_controls.resize(m_controls.size() + 1);
        m_controls[m_controls.size() - 1].fill(name, c.Name, "%.0f", c.MinValue, c.MaxValue, 1, state->value);
        if (!c.IsAutoSupported)
            continue;
        m_modes.resize(m_modes.size() + 1);
        m_modes[m_modes.size() - 1].fill(name, std::string(c.Name) + " automatic", state->automatic ? ISS_ON : ISS_OFF);
    }
    m_controls.fill(dev, "CCD_CONTROLS", "Controls", CONTROLS_TAB, IP_RW, 0, IPS_IDLE);
    m_modes.fill(dev, "CCD_CONTROLS_MODE", "Automatic", CONTROLS_TAB, IP_RW, ISR_NOFMANY, 0, IPS_IDLE);
}

bool Device::Lists(KOV_CONTROL_TYPE type) const
{
    return std::any_of(m_caps.begin(), m_caps.end(), [=](const KOV_CONTROL_CAPS& c) { return c.ControlType == type; });
}

bool Device::TakesBin(int bin) const
{
    return bin > 0 &&
           std::find(std::begin(m_info.SupportedBins), std::end(m_info.SupportedBins), bin) != std::end(m_info.SupportedBins);
}

IMG_TYPE Device::ChosenType() const
{
    const int chosen = CaptureFormatSP.findOnSwitchIndex();
    return chosen < 0 ? IMG_RAW8 : m_info.SupportedImgTypes[chosen];
}

// --- requests of clients ---

// A request that would change the picture which the upload thread reads is taken up when that has ended.
template <class Value>
bool Device::Defer(bool (Device::*handler)(const char*, const char*, Value*, char**, int), const char* name, Value* values,
                   char** names, int n)
{
    if (!m_uploads)
        return false;
    m_deferred.push_back([this, handler, property = std::string(name), v = std::vector<Value>(values, values + n),
                          elements = std::vector<std::string>(names, names + n)]() mutable {
        std::vector<char*> pointers;
        for (std::string& e : elements)
            pointers.push_back(e.data());
        (this->*handler)(getDeviceName(), property.c_str(), v.data(), pointers.data(), static_cast<int>(v.size()));
    });
    return true;
}

bool Device::ISNewNumber(const char* dev, const char* name, double values[], char* names[], int n)
{
    if (dev == nullptr || m_name != dev || m_leaving)
        return false;
    if (m_controls.isNameMatch(name))
        return NewControls(values, names, n);
    if (m_darkFrames.isNameMatch(name)) {
        m_darkFrames.setState(m_darkFrames.update(values, names, n) ? IPS_OK : IPS_ALERT);
        m_darkFrames.apply();
        return true;
    }
    static constexpr const char* OF_A_PICTURE[] = { "CCD_EXPOSURE", "CCD_FRAME", "CCD_BINNING" };
    if (std::any_of(std::begin(OF_A_PICTURE), std::end(OF_A_PICTURE), [=](const char* p) { return std::strcmp(p, name) == 0; }) &&
        Defer(&Device::ISNewNumber, name, values, names, n))
        return true;
    if (std::strcmp(name, "CCD_TEMPERATURE") == 0 && n > 0) {
        if (!m_info.IsCooled)
            return false;
        values[0] = std::round(values[0]);  // the cooler regulates to whole degrees
    }
    return INDI::CCD::ISNewNumber(dev, name, values, names, n);
}

bool Device::ISNewSwitch(const char* dev, const char* name, ISState* states, char* names[], int n)
{
    if (dev == nullptr || m_name != dev || m_leaving)
        return false;
    const auto is = [=](const char* other) { return std::strcmp(name, other) == 0; };
    if (is("CONNECTION"))
        return NewConnection(states, names, n);
    if (m_modes.isNameMatch(name))
        return NewModes(states, names, n);
    if (m_cooler.isNameMatch(name)) {
        m_warmUp.runs = false;
        m_camera->SetControl(CTRL_COOLER_ON, IsOn("COOLER_ON", states, names, n), false);
        m_cooler.setState(IPS_BUSY);
        m_cooler.apply();
        return true;
    }
    if (m_warmUpSwitch.isNameMatch(name)) {
        m_warmUpSwitch.update(states, names, n);
        m_warmUpSwitch.setState(IPS_OK);
        m_warmUpSwitch.apply();
        return true;
    }
    if (m_hardwareBin.isNameMatch(name)) {
        if (IsBusy("The hardware bin is set")) {
            m_hardwareBin.setState(IPS_ALERT);
            m_hardwareBin.apply();
            return true;
        }
        m_camera->SetControl(CTRL_HARDWARE_BIN, IsOn("HARDWARE_BIN_ON", states, names, n), false);
        AskFormat();
        m_hardwareBin.setState(IPS_BUSY);
        m_hardwareBin.apply();
        return true;
    }
    if (m_dark.isNameMatch(name)) {
        m_dark.update(states, names, n);
        m_dark.setState(IPS_BUSY);
        m_dark.apply();
        if (m_dark.findOnSwitchIndex() == 0) {
            std::error_code ec;
            std::filesystem::create_directories(std::filesystem::path(m_darkFile[0].getText()).parent_path(), ec);
            m_camera->TakeDark(static_cast<int>(m_darkFrames[0].getValue()), m_darkFile[0].getText());
            LOG_INFO("Taking a dark frame with the exposure and gain in force. Is the cap on?");
        } else if (m_dark.findOnSwitchIndex() == 1) {
            m_camera->LoadDark(m_darkFile[0].getText());
        } else {
            m_camera->ClearDark();
        }
        return true;
    }
    if (is("CCD_CAPTURE_FORMAT")) {  // the framework trusts the name
        for (int i = 0; i < n; ++i)
            if (FindElement(CaptureFormatSP, names[i]) == nullptr)
                return false;
    }
    const bool waitsForUpload =
        is("CCD_CAPTURE_FORMAT") || is("CCD_FRAME_RESET") || is("CCD_VIDEO_STREAM") || is("RECORD_STREAM");
    if (waitsForUpload && Defer(&Device::ISNewSwitch, name, states, names, n))
        return true;
    const bool handled = INDI::CCD::ISNewSwitch(dev, name, states, names, n);
    if (is("CCD_TRANSFER_FORMAT"))  // the framework keeps the extension of the last native picture
        PrimaryCCD.setImageExtension(EncodeFormatSP[FORMAT_FITS].getState() == ISS_ON ? "fits" : "bin");
    return handled;
}

bool Device::ISNewText(const char* dev, const char* name, char* texts[], char* names[], int n)
{
    if (dev == nullptr || m_name != dev || m_leaving)
        return false;
    if (m_darkFile.isNameMatch(name)) {
        m_darkFile.update(texts, names, n);
        m_darkFile.setState(IPS_OK);
        m_darkFile.apply();
        return true;
    }
    return INDI::CCD::ISNewText(dev, name, texts, names, n);
}

// Clients send the whole vector when one value changes: what is as it was shown is no request.
bool Device::NewControls(double values[], char* names[], int n)
{
    struct Request {
        KOV_CONTROL_TYPE type;
        int32_t value;
    };
    std::vector<Request> requests;
    for (int i = 0; i < n; ++i) {
        const auto cap =
            std::find_if(m_caps.begin(), m_caps.end(), [&](const KOV_CONTROL_CAPS& c) { return ElementName(c) == names[i]; });
        const auto* shown = FindElement(m_controls, names[i]);
        if (cap == m_caps.end() || shown == nullptr || !cap->IsWritable || values[i] == shown->getValue())
            continue;
        if (!(values[i] >= cap->MinValue && values[i] <= cap->MaxValue)) {
            LOGF_ERROR("%s takes %d to %d; nothing was changed", names[i], cap->MinValue, cap->MaxValue);
            m_controls.setState(IPS_ALERT);
            m_controls.apply();
            return true;
        }
        requests.push_back({ cap->ControlType, static_cast<int32_t>(std::lround(values[i])) });
    }
    for (const Request& r : requests)
        m_camera->SetControl(r.type, r.value, false);
    m_controls.setState(requests.empty() ? IPS_OK : IPS_BUSY);
    m_controls.apply();
    return true;
}

bool Device::NewModes(ISState* states, char* names[], int n)
{
    bool asked = false;
    for (int i = 0; i < n; ++i) {
        const auto cap =
            std::find_if(m_caps.begin(), m_caps.end(), [&](const KOV_CONTROL_CAPS& c) { return ElementName(c) == names[i]; });
        const auto* shown = FindElement(m_modes, names[i]);
        if (cap == m_caps.end() || shown == nullptr || states[i] == shown->getState())
            continue;
        const ControlState* state = kovindi::Find(m_states, cap->ControlType);
        m_camera->SetControl(cap->ControlType, state->value, states[i] == ISS_ON);
        asked = true;
    }
    m_modes.setState(asked ? IPS_BUSY : IPS_OK);
    m_modes.apply();
    return true;
}

// Opening takes up to seconds, so it is not done here: the switch is busy until the worker tells the outcome.
bool Device::NewConnection(ISState* states, char* names[], int n)
{
    if (IsOn("CONNECT", states, names, n)) {
        m_warmUp.runs = false;
        if (isConnected()) {
            setConnected(true, IPS_OK);
        } else {
            setConnected(false, IPS_BUSY);
            m_camera->Open();
        }
    } else if (IsOn("DISCONNECT", states, names, n)) {
        const ControlState* cooler = kovindi::Find(m_states, CTRL_COOLER_ON);
        if (!isConnected())
            setConnected(false, IPS_IDLE);
        else if (m_warmUpSwitch[0].getState() == ISS_ON && cooler != nullptr && cooler->value != 0 && !m_warmUp.runs)
            BeginWarmUp();
        else
            DisconnectNow();
    }
    return true;
}

void Device::DisconnectNow()
{
    m_warmUp.runs = false;
    StopAll("disconnected");
    setConnected(false, IPS_BUSY);
    m_camera->Close();
}

void Device::StopAll(const char* why)
{
    if (m_exposing.exchange(false)) {
        LOGF_WARN("The exposure ends unfinished: %s", why);
        PrimaryCCD.setExposureFailed();
        InExposure = false;
    }
    if (m_streaming && Streamer != nullptr)
        Streamer->setStream(false);
}

bool Device::IsBusy(const char* what)
{
    if (!m_exposing && !m_streaming)
        return false;
    LOGF_ERROR("%s between captures. %s", what,
               m_exposing ? "Wait for the exposure to end, or abort it" : "Stop the stream first");
    return true;
}

// --- exposures ---

bool Device::StartExposure(float duration)
{
    if (m_streaming || (Streamer != nullptr && Streamer->isBusy())) {
        LOG_ERROR("The camera streams. Stop the stream or the recording, then expose");
        return false;
    }
    m_exposureSeconds = duration;
    m_exposureBegan = steady_clock::now();
    PrimaryCCD.setExposureDuration(duration);
    InExposure = true;
    m_exposing = true;
    m_camera->StartExposure(duration, ++m_tag);
    return true;
}

bool Device::AbortExposure()
{
    m_exposing = false;
    InExposure = false;
    ++m_tag;
    m_camera->StopExposure();
    return true;
}

void Device::ShowImage(int tag, const Format& format)
{
    if (!m_exposing || tag != m_tag || m_leaving)
        return;
    if (format != m_format)
        ShowFormat(format);
    m_exposing = false;
    InExposure = false;
    m_uploads = true;
    m_uploadBegan = steady_clock::now();
    m_shot.states = m_states;
    m_shot.format = format;
    m_shot.dark = m_dark[1].getState() == ISS_ON;
    PrimaryCCD.setExposureLeft(0);
    if (Devices::Instance().TakeTurn(m_serial))
        UploadTurn();
}

void Device::UploadTurn()
{
    m_uploadBegan = steady_clock::now();
    ExposureComplete(&PrimaryCCD);
}

void Device::UploadComplete(INDI::CCDChip*)
{
    ToMain([](Device& d) { d.EndUpload(); });
}

void Device::EndUpload()
{
    if (!m_uploads)
        return;
    m_uploads = false;
    Devices::Instance().GiveTurn();
    if (m_leaving && m_ended) {
        Devices::Instance().Remove(m_serial);
        return;
    }
    std::vector<std::function<void()>> requests;
    requests.swap(m_deferred);
    for (const auto& r : requests)
        r();
}

void Device::addFITSKeywords(INDI::CCDChip* chip)
{
    INDI::CCD::addFITSKeywords(chip);
    fitsfile* file = *chip->fitsFilePointer();
    kovtools::FitsNotes notes;
    notes.software = "indi_kov_ccd";
    if (!m_id.empty())
        notes.more.push_back({ "CAMID", m_id, "user ID in the camera's flash" });
    if (m_firmware)
        notes.more.push_back({ "FWVERS", int64_t{ *m_firmware }, "version of the camera's firmware" });
    if (const ControlState* s = kovindi::Find(m_shot.states, CTRL_HIGH_SPEED_MODE))
        notes.more.push_back({ "READOUT", std::string(s->value != 0 ? "high speed" : "normal"), "readout mode" });
    kovtools::CameraState shot = StateOf(m_shot.format, m_shot.states);
    shot.exposure = m_exposureSeconds;
    shot.darkSubtracted = m_shot.dark && m_shot.format.type != IMG_RAW16;
    for (const kovtools::FitsCard& card : MakeFitsCards(shot, {}, notes)) {
        const char *key = card.key.c_str(), *comment = card.comment.c_str();
        int status = 0;
        char present[FLEN_CARD];
        const bool oneOfMany = card.key == "HISTORY";
        if (!oneOfMany && (fits_read_card(file, key, present, &status) == 0 || card.key.starts_with("DATE-")))
            continue;  // the framework has told it
        status = 0;
        if (const auto* text = std::get_if<std::string>(&card.value))
            oneOfMany ? fits_write_history(file, text->c_str(), &status)
                      : fits_update_key_str(file, key, text->c_str(), comment, &status);
        else if (const auto* number = std::get_if<double>(&card.value))
            fits_update_key_fixdbl(file, key, *number, std::max(card.decimals, 0), comment, &status);
        else if (const auto* integer = std::get_if<int64_t>(&card.value))
            fits_update_key_lng(file, key, *integer, comment, &status);
        else
            fits_update_key_log(file, key, std::get<bool>(card.value), comment, &status);
    }
}

kovtools::CameraState Device::StateOf(const Format& f, const ControlStates& states) const
{
    const auto value = [&](KOV_CONTROL_TYPE type, int neutral) {
        const ControlState* s = kovindi::Find(states, type);
        return s != nullptr ? s->value : neutral;
    };
    kovtools::CameraState state;
    state.info = m_info;
    state.gain = value(CTRL_GAIN, 0);
    state.offset = value(CTRL_BRIGHTNESS, 0);
    state.gamma = value(CTRL_GAMMA, 50);
    state.flip = value(CTRL_FLIP, 0);
    state.width = f.Width();
    state.height = f.Height();
    state.bin = f.bin;
    state.startX = f.region.x / f.bin;
    state.startY = f.region.y / f.bin;
    state.type = f.type;
    state.hardwareBin = value(CTRL_HARDWARE_BIN, 0) != 0;
    state.highSpeed = value(CTRL_HIGH_SPEED_MODE, 0) != 0;
    if (m_info.IsCooled && value(CTRL_COOLER_ON, 0) != 0) {
        state.target = value(CTRL_TARGET_TEMP, 0);
        state.coolerPower = value(CTRL_COOL_POWER_PERC, 0);
    }
    return state;
}

// --- region, bin, format ---

bool Device::UpdateCCDFrame(int x, int y, int w, int h)
{
    if (IsBusy("The region is set")) {
        const Region& r = m_format.region;
        PrimaryCCD.setFrame(static_cast<uint32_t>(r.x), static_cast<uint32_t>(r.y), static_cast<uint32_t>(r.width),
                            static_cast<uint32_t>(r.height));
        return false;
    }
    m_wish.region = { x, y, w, h };
    AskFormat();
    return true;
}

bool Device::UpdateCCDBin(int hor, int ver)
{
    const auto restore = [this] { PrimaryCCD.setBin(static_cast<uint8_t>(m_format.bin), static_cast<uint8_t>(m_format.bin)); };
    if (hor != ver || !TakesBin(hor)) {
        std::string list;
        for (const int* bin = m_info.SupportedBins; *bin != 0; ++bin)
            list += (list.empty() ? "" : ", ") + std::to_string(*bin);
        LOGF_ERROR("The camera bins by %s, the same in both directions", list.c_str());
        restore();
        return false;
    }
    if (IsBusy("The bin is set")) {
        restore();
        return false;
    }
    m_wish.bin = hor;
    AskFormat();
    return true;
}

bool Device::UpdateCCDFrameType(INDI::CCDChip::CCD_FRAME type)
{
    PrimaryCCD.setFrameType(type);  // there is no shutter: the type is told in the file
    return true;
}

bool Device::SetCaptureFormat(uint8_t index)
{
    if (IsBusy("The format is set"))
        return false;
    m_wish.type = m_info.SupportedImgTypes[index];
    AskFormat();
    return true;
}

void Device::AskFormat()
{
    ++m_formatsAsked;
    m_camera->SetFormat(m_wish);
}

void Device::ShowFormat(const Format& f)
{
    if (!m_streaming && (f.Width() != m_format.Width() || f.Height() != m_format.Height()))
        Streamer->setSize(static_cast<uint16_t>(f.Width()), static_cast<uint16_t>(f.Height()));
    m_format = f;
    const Region& r = f.region;
    PrimaryCCD.setBin(static_cast<uint8_t>(f.bin), static_cast<uint8_t>(f.bin));
    PrimaryCCD.setFrame(static_cast<uint32_t>(r.x), static_cast<uint32_t>(r.y), static_cast<uint32_t>(r.width),
                        static_cast<uint32_t>(r.height));
    PrimaryCCD.setBPP(f.type == IMG_RAW16 ? 16 : 8);
    PrimaryCCD.setNAxis(f.type == IMG_RGB24 ? 3 : 2);
    const uint32_t without = GetCCDCapability() & ~uint32_t{ CCD_HAS_BAYER };
    const kovtools::CameraState state = StateOf(f, m_states);
    const uint32_t with = without | (kovtools::IsMosaic(state) ? uint32_t{ CCD_HAS_BAYER } : 0u);
    if (with != GetCCDCapability()) {
        SetCCDCapability(with);
        if (isConnected() && HasBayer())
            defineProperty(&BayerTP);
        else if (isConnected())
            deleteProperty(BayerTP.name);
    }
    const char* cell = kovtools::PatternName(kovtools::DeliveredPattern(state));
    if (HasBayer() && (BayerT[2].text == nullptr || std::strcmp(BayerT[2].text, cell) != 0)) {
        IUSaveText(&BayerT[2], cell);
        IDSetText(&BayerTP, nullptr);
    }
}

// --- cooler ---

int Device::SetTemperature(double temperature)
{
    m_warmUp.runs = false;
    const auto target = static_cast<int32_t>(std::lround(temperature));
    const auto cap =
        std::find_if(m_caps.begin(), m_caps.end(), [](const KOV_CONTROL_CAPS& c) { return c.ControlType == CTRL_TARGET_TEMP; });
    if (cap == m_caps.end() || target < cap->MinValue || target > cap->MaxValue) {
        LOGF_ERROR("The cooler takes targets from %d to %d degrees", cap == m_caps.end() ? 0 : cap->MinValue,
                   cap == m_caps.end() ? 0 : cap->MaxValue);
        return -1;
    }
    m_camera->SetControl(CTRL_TARGET_TEMP, target, false);
    m_camera->SetControl(CTRL_COOLER_ON, 1, false);
    return 0;
}

void Device::BeginWarmUp()
{
    StopAll("warming up");
    m_warmUp = { TemperatureN[0].value, steady_clock::now(), true };
    LOG_INFO("Warming up before the disconnect. Disconnect again to skip that");
}

void Device::StepWarmUp()
{
    const double slope = TemperatureRampNP[RAMP_SLOPE].getValue() > 0 ? TemperatureRampNP[RAMP_SLOPE].getValue() : 5;
    const double minutes = std::chrono::duration<double, std::ratio<60>>(steady_clock::now() - m_warmUp.began).count();
    const int target = WarmUpTarget(m_warmUp.start, minutes, slope);
    const ControlState *set = kovindi::Find(m_states, CTRL_TARGET_TEMP), *power = kovindi::Find(m_states, CTRL_COOL_POWER_PERC);
    if (target >= WARM || (minutes > 1 && power != nullptr && power->value == 0)) {
        m_camera->SetControl(CTRL_COOLER_ON, 0, false);
        DisconnectNow();
    } else if (set != nullptr && set->value != target) {
        m_camera->SetControl(CTRL_TARGET_TEMP, target, false);
    }
}

// --- guide port ---

IPState Device::Guide(int pin, uint32_t ms)
{
    m_camera->Pulse(pin, std::chrono::milliseconds(ms));
    return IPS_BUSY;
}

// --- video ---

bool Device::StartStreaming()
{
    if (m_exposing) {
        LOG_ERROR("An exposure runs. Wait for its end or abort it, then stream");
        return false;
    }
    static constexpr INDI_PIXEL_FORMAT MOSAICS[] = { INDI_BAYER_RGGB, INDI_BAYER_BGGR, INDI_BAYER_GRBG, INDI_BAYER_GBRG };
    const kovtools::CameraState state = StateOf(m_wish, m_states);
    const INDI_PIXEL_FORMAT pixels = kovtools::IsMosaic(state)  ? MOSAICS[kovtools::DeliveredPattern(state)]
                                     : m_wish.type == IMG_RGB24 ? INDI_RGB
                                                                : INDI_MONO;
    if (!Streamer->setPixelFormat(pixels, m_wish.type == IMG_RAW16 ? 16 : 8)) {
        LOG_ERROR("The stream's encoder does not take this format. Choose RAW 8 or RGB 24");
        return false;
    }
    m_streamExposure = Streamer->getTargetExposure();
    if (const ControlState* e = kovindi::Find(m_states, CTRL_EXPOSURE); e != nullptr && !e->automatic)
        m_camera->SetControl(CTRL_EXPOSURE, static_cast<int32_t>(std::lround(m_streamExposure * 1e6)), false);
    m_streamBegins = true;
    m_streaming = true;
    m_camera->StartVideo();
    return true;
}

bool Device::StopStreaming()
{
    m_streaming = false;
    m_camera->StopVideo();
    return true;
}

// --- what the camera tells ---

void Device::ToMain(std::function<void(Device&)> work)
{
    OnMainThread([serial = m_serial, work = std::move(work)] {
        if (Device* d = Devices::Instance().Find(serial))
            work(*d);
    });
}

namespace {

std::string Line(const kovtools::Finding& f)
{
    std::string line = f.text + (f.command.empty() ? "" : ". To mend it: " + f.command);
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

// What keeps cameras from working well, or at all, on this machine, with what mends it.
std::vector<std::string> Advice(bool opened)
{
    std::vector<std::string> advice;
    for (const kovtools::Finding& f : kovtools::Examine({ "/", false })) {
        const bool concerns = opened ? f.check == "memory" : f.severity == kovtools::Finding::Severity::Problem;
        if (concerns && f.severity != kovtools::Finding::Severity::Good)
            advice.push_back(Line(f));
    }
    return advice;
}

}  // namespace

void Device::OnOpened(const Opened& facts)
{
    ToMain([facts, advice = Advice(true)](Device& d) { d.ShowOpened(facts, advice); });
}

void Device::ShowOpened(const Opened& facts, const std::vector<std::string>& advice)
{
    if (m_leaving)
        return;
    m_info = facts.info;
    m_caps = facts.controls;
    m_states = facts.states;
    MakeControls(facts);
    for (const KOV_CONTROL_CAPS& c : m_caps)
        if (c.ControlType == CTRL_EXPOSURE)
            PrimaryCCD.setMinMaxStep("CCD_EXPOSURE", "CCD_EXPOSURE_VALUE", c.MinValue / 1e6, c.MaxValue / 1e6, 1e-6, false);
    const bool slow = m_info.IsUSB3Camera && !m_info.IsUSB3Host;
    m_facts[2].setText(slow ? "USB 2, where the camera could do USB 3" : m_info.IsUSB3Host ? "USB 3" : "USB 2");
    m_firmware = facts.firmware;
    m_facts[3].setText(m_firmware ? std::to_string(*m_firmware) : "");
    SetDark(facts.dark);
    m_formatsAsked = 0;
    m_wish = { { 0, 0, m_info.MaxWidth, m_info.MaxHeight }, 1, ChosenType() };
    SetCCDParams(m_info.MaxWidth, m_info.MaxHeight, m_wish.type == IMG_RAW16 ? 16 : 8, static_cast<float>(m_info.PixelSize),
                 static_cast<float>(m_info.PixelSize));
    ShowFormat({ m_wish.region, 1, m_wish.type });
    setConnected(true, IPS_OK);
    updateProperties();
    ShowControls(m_states);
    AskFormat();
    for (const std::string& line : advice)
        LOGF_WARN("%s", line.c_str());
    if (slow)
        LOGF_WARN("%s", Line(kovtools::SlowLink(m_model)).c_str());
}

void Device::OnOpenFailed(const std::string& why)
{
    ToMain([why, advice = Advice(false)](Device& d) {
        if (d.m_leaving)
            return;
        DEBUGFDEVICE(d.getDeviceName(), INDI::Logger::DBG_ERROR, "%s", why.c_str());
        for (const std::string& line : advice)
            DEBUGFDEVICE(d.getDeviceName(), INDI::Logger::DBG_WARNING, "%s", line.c_str());
        const bool wasConnected = d.isConnected();
        d.setConnected(false, IPS_ALERT);
        if (wasConnected)
            d.updateProperties();
        LookAgain();
    });
}

void Device::OnClosed()
{
    ToMain([](Device& d) {
        if (d.m_leaving)
            return;
        d.setConnected(false, IPS_IDLE);
        d.updateProperties();
    });
}

void Device::OnFormat(const Format& inForce)
{
    ToMain([inForce](Device& d) {
        if (d.m_leaving || !d.isConnected() || --d.m_formatsAsked > 0)
            return;  // more than one was asked for: the last answer counts
        d.m_formatsAsked = 0;
        if (inForce.region.width != d.m_wish.region.width || inForce.region.height != d.m_wish.region.height)
            DEBUGFDEVICE(d.getDeviceName(), INDI::Logger::DBG_SESSION, "The camera takes %d x %d at %d, %d", inForce.region.width,
                         inForce.region.height, inForce.region.x, inForce.region.y);
        d.ShowFormat(inForce);
    });
}

void Device::OnControls(const ControlStates& states)
{
    ToMain([states](Device& d) {
        d.m_states = states;
        if (!d.m_leaving && d.isConnected())
            d.ShowControls(states);
    });
}

void Device::ShowControls(const ControlStates& states)
{
    const IPState state = std::exchange(m_refused, false) ? IPS_ALERT : IPS_OK;
    for (const KOV_CONTROL_CAPS& c : m_caps) {
        const ControlState* s = kovindi::Find(states, c.ControlType);
        if (s == nullptr)
            continue;
        if (auto* number = FindElement(m_controls, ElementName(c)))
            number->setValue(s->value);
        if (auto* mode = FindElement(m_modes, ElementName(c)))
            mode->setState(s->automatic ? ISS_ON : ISS_OFF);
    }
    const auto apply = [&](auto& property, bool has) {
        if (!has)
            return;
        property.setState(state);
        property.apply();
    };
    apply(m_controls, true);
    apply(m_modes, m_modes.size() > 0);
    if (const ControlState* s = kovindi::Find(states, CTRL_HARDWARE_BIN)) {
        SetOnOff(m_hardwareBin, s->value != 0);
        apply(m_hardwareBin, true);
    }
    if (const ControlState* s = kovindi::Find(states, CTRL_COOLER_ON); s != nullptr && m_info.IsCooled) {
        SetOnOff(m_cooler, s->value != 0);
        apply(m_cooler, true);
    }
    if (const ControlState* s = kovindi::Find(states, CTRL_COOL_POWER_PERC); s != nullptr && m_info.IsCooled) {
        m_coolerPower[0].setValue(s->value);
        apply(m_coolerPower, true);
    }
    if (const ControlState* s = kovindi::Find(states, CTRL_TEMPERATURE)) {
        TemperatureN[0].value = s->value / 10.0;
        IDSetNumber(&TemperatureNP, nullptr);
    }
    ShowFormat(m_format);  // a flip moves the colour cell
}

void Device::OnRefused(const std::string& why)
{
    ToMain([why](Device& d) {
        d.m_refused = true;
        if (!d.m_leaving)
            DEBUGFDEVICE(d.getDeviceName(), INDI::Logger::DBG_ERROR, "%s", why.c_str());
    });
}

void Device::OnExposed(int tag, const Format& format, const std::vector<uint8_t>& image)
{
    if (tag == m_tag) {
        const std::unique_lock guard(ccdBufferLock);
        if (PrimaryCCD.getFrameBufferSize() != static_cast<int>(image.size()))
            PrimaryCCD.setFrameBufferSize(static_cast<uint32_t>(image.size()));
        if (format.type == IMG_RGB24)
            ToPlanes(image.data(), format.Pixels(), PrimaryCCD.getFrameBuffer());
        else
            std::memcpy(PrimaryCCD.getFrameBuffer(), image.data(), image.size());
    }
    ToMain([tag, format](Device& d) { d.ShowImage(tag, format); });
}

void Device::OnExposureFailed(int tag, const std::string& why)
{
    ToMain([tag, why](Device& d) {
        if (!d.m_exposing || tag != d.m_tag || d.m_leaving)
            return;
        d.m_exposing = false;
        d.InExposure = false;
        d.PrimaryCCD.setExposureFailed();
        DEBUGFDEVICE(d.getDeviceName(), INDI::Logger::DBG_ERROR, "The exposure failed: %s", why.c_str());
        LookAgain();
    });
}

void Device::OnFrame(const Format& format, std::vector<uint8_t>& image)
{
    if (!m_streaming)
        return;
    if (m_streamBegins.exchange(false) || format != m_streamFormat) {
        m_streamFormat = format;  // only now it is sure what the camera made of the client's wish
        Streamer->setSize(static_cast<uint16_t>(format.Width()), static_cast<uint16_t>(format.Height()));
    }
    if (format.type == IMG_RGB24)
        SwapRedBlue(image.data(), format.Pixels());
    const std::unique_lock guard(ccdBufferLock);
    Streamer->newFrame(image.data(), static_cast<uint32_t>(format.Bytes()));
}

void Device::OnVideoCount(const VideoCount& count)
{
    ToMain([count](Device& d) {
        if (d.m_leaving || !d.isConnected())
            return;
        d.m_videoCount[0].setValue(count.frames / count.seconds);
        d.m_videoCount[1].setValue(count.dropped);
        d.m_videoCount.setState(d.m_streaming ? IPS_BUSY : IPS_IDLE);
        d.m_videoCount.apply();
    });
}

void Device::OnVideoEnded(const std::string& why)
{
    ToMain([why](Device& d) {
        if (d.m_leaving || !d.m_streaming)
            return;
        DEBUGFDEVICE(d.getDeviceName(), INDI::Logger::DBG_ERROR, "The stream has ended: %s", why.c_str());
        d.Streamer->setStream(false);
        LookAgain();
    });
}

void Device::OnPulseDone(int axis)
{
    ToMain([axis](Device& d) {
        if (!d.m_leaving && d.isConnected())
            d.GuideComplete(axis == 0 ? AXIS_DE : AXIS_RA);
    });
}

void Device::SetDark(bool inUse)
{
    for (size_t i = 0; i < 3; ++i)
        m_dark[i].setState(i == (inUse ? 1u : 2u) ? ISS_ON : ISS_OFF);
}

void Device::OnDark(bool done, bool inUse, const std::string& what)
{
    ToMain([done, inUse, what](Device& d) {
        if (d.m_leaving || !d.isConnected())
            return;
        d.SetDark(inUse);
        d.m_dark.setState(done ? IPS_OK : IPS_ALERT);
        d.m_dark.apply();
        DEBUGFDEVICE(d.getDeviceName(), done ? INDI::Logger::DBG_SESSION : INDI::Logger::DBG_ERROR, "%s", what.c_str());
    });
}

void Device::Leave()
{
    if (m_leaving)
        return;
    LOG_ERROR("The camera was unplugged");
    StopAll("the camera was unplugged");
    if (isConnected()) {
        setConnected(false, IPS_IDLE);
        updateProperties();
    }
    m_leaving = true;
    deleteProperty(nullptr);
    m_camera->End();
}

void Device::OnVerified()
{
    ToMain([](Device& d) {
        d.m_verified = !d.m_camera->HasFailed();
        LookAgain();
    });
}

void Device::OnEnded()
{
    m_ended = true;
    ToMain([](Device& d) {
        if (!d.m_uploads)
            Devices::Instance().Remove(d.m_serial);
    });
}

void Device::TimerHit()
{
    if (m_leaving || !isConnected())
        return;
    if (m_exposing) {
        const std::chrono::duration<double> gone = steady_clock::now() - m_exposureBegan.load();
        PrimaryCCD.setExposureLeft(std::max(0.0, m_exposureSeconds - gone.count()));
    }
    if (m_streaming && Streamer->getTargetExposure() != m_streamExposure) {
        m_streamExposure = Streamer->getTargetExposure();
        m_camera->SetControl(CTRL_EXPOSURE, static_cast<int32_t>(std::lround(m_streamExposure * 1e6)), false);
    }
    if (m_uploads && steady_clock::now() - m_uploadBegan > UPLOAD_PATIENCE)
        EndUpload();
    if (m_warmUp.runs)
        StepWarmUp();
    SetTimer(getCurrentPollingPeriod());
}

}  // namespace kovindi

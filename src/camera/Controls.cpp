// The list of controls and the three operations on them. No device logic: a write goes to an operation of the model or
// lands in a field.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/Arithmetic.h"
#include "camera/CCameraBase.h"

namespace {

struct ControlText {
    const char *name, *description;
    bool isWritable;
};

constexpr ControlText g_Text[] = {
    { "Gain", "Gain", true },
    { "Exposure", "Exposure Time(us)", true },
    { "Gamma", "Gamma", true },
    { "WB_R", "White balance: Red", true },
    { "WB_B", "White balance: Blue", true },
    { "Brightness", "Brightness", true },
    { "BandWidth", "USB bandwidth percentage", true },
    { "OverCLK", "Set over clocking percentage", true },
    // QUIRK: a host reads "degrees Celsius" here while limits and value are tenths of a degree.
    { "Temperature", "Sensor temperature(degrees Celsius)", false },
    { "Flip", "Flip: 0->None 1->Horiz 2->Vert 3->Both", true },
    { "AutoExpMaxGain", "Auto exposure maximum gain value", true },
    { "AutoExpMaxExp", "Auto exposure maximum exposure value(unit second)", true },
    { "AutoExpMaxBrightness", "Auto exposure maximum brightness value", true },
    { "HardwareBin", "Is hardware bin2:0->No 1->Yes", true },
    { "HighSpeedMode", "Is high speed mode:0->No 1->Yes", true },
    { "CoolPowerPerc", "Cooler power percent", false },
    { "TargetTemp", "Target temperature(cool camera only)", true },
    { "Cooler on", "turn on/off cooler(cool camera only)", true },
};
static_assert(std::size(g_Text) == CTRL_COOLER_ON + 1);

KOV_BOOL AsKovBool(bool b) { return b ? KOV_TRUE : KOV_FALSE; }
KOV_ERROR_CODE Tested(bool ok) { return ok ? KOV_SUCCESS : KOV_ERROR_GENERAL; }

// An identifier as hosts pass it may be any number; compared unsigned, so that negative ones are too large.
uint32_t Number(KOV_CONTROL_TYPE control) { return static_cast<uint32_t>(control); }

}  // namespace

bool CCameraBase::GetControlCaps(int index, KOV_CONTROL_CAPS* caps)
{
    // QUIRK: the identifier is written before the index is checked: a host with a wrong index sees what lies in that
    // place of the list, or the field beside it. Places further off, which are not this object's to read, give 0.
    const int32_t id = index >= 0 && index < static_cast<int>(std::size(m_ControlList)) ? m_ControlList[index]
                       : index == -1                                                    ? m_iFPSPercUSB3
                       : index == static_cast<int>(std::size(m_ControlList))            ? m_iNumOfControls
                                                                                        : 0;
    static_assert(sizeof caps->ControlType == sizeof id);
    std::memcpy(&caps->ControlType, &id, sizeof id);  // any number, also none of the enumeration

    if (index >= m_iNumOfControls || index < 0 || static_cast<uint32_t>(id) >= std::size(g_Text))
        return false;
    const ControlText& text = g_Text[id];
    // What follows the text in the caller's arrays stays as the caller had it.
    std::memcpy(caps->Name, text.name, std::strlen(text.name) + 1);
    std::memcpy(caps->Description, text.description, std::strlen(text.description) + 1);
    caps->IsWritable = AsKovBool(text.isWritable);

    const auto fill = [caps](int32_t max, int32_t min, int32_t def, bool isAuto = false) {
        caps->MaxValue = max;
        caps->MinValue = min;
        caps->DefaultValue = def;
        caps->IsAutoSupported = AsKovBool(isAuto);
    };
    switch (id) {
    case CTRL_GAIN: fill(m_iGainMax, m_iGainMin, m_iGainDef, true); break;
    case CTRL_EXPOSURE: fill(m_iExpMax, m_iExpMin, m_iExpDef, true); break;
    case CTRL_GAMMA: fill(m_iGammaMax, m_iGammaMin, m_iGammaDef); break;
    case CTRL_WB_R: fill(m_iWBMax, m_iWBMin, m_iWB_RDef, true); break;
    case CTRL_WB_B: fill(m_iWBMax, m_iWBMin, m_iWB_BDef, true); break;
    case CTRL_BRIGHTNESS: fill(m_iBrightMax, m_iBrightMin, m_iBrightDef); break;
    // QUIRK: the default is 50 whatever the model starts with.
    case CTRL_BANDWIDTH: fill(m_iBandwidthMax, m_iBandwidthMin, 50, m_bBandwidthAuto); break;
    case CTRL_OVERCLK: fill(30, 0, 0); break;
    case CTRL_TEMPERATURE: fill(1000, -500, 20); break;
    case CTRL_FLIP: fill(3, 0, 0); break;
    case CTRL_AUTOEXP_MAX_GAIN: fill(m_iGainMax, m_iGainMin, (m_iGainMin + m_iGainMax) / 2); break;
    case CTRL_AUTOEXP_MAX_EXP: fill(std::min(60, m_iExpMax / 1000 / 1000), 1, 30); break;
    case CTRL_AUTOEXP_MAX_BRIGHTNESS: fill(160, 50, 100); break;
    case CTRL_HARDWARE_BIN:
    case CTRL_HIGH_SPEED_MODE: fill(1, 0, 0); break;
    case CTRL_COOL_POWER_PERC: fill(100, 0, 0); break;
    case CTRL_TARGET_TEMP: fill(30, -40, 0); break;
    case CTRL_COOLER_ON: fill(1, 0, 0); break;
    }
    return true;
}

bool CCameraBase::GetControlValue(KOV_CONTROL_TYPE control, int32_t* value, KOV_BOOL* autoMode)
{
    *autoMode = KOV_FALSE;  // also for an identifier that does not exist
    bool isAuto = false;
    switch (Number(control)) {
    case CTRL_GAIN: *value = GetGain(&isAuto); break;
    case CTRL_EXPOSURE: *value = static_cast<int32_t>(GetExp(&isAuto)); break;
    case CTRL_GAMMA: *value = GetGamma(); break;
    case CTRL_WB_R:
        *value = m_iWB_R;
        isAuto = m_bAutoWB;
        break;
    case CTRL_WB_B:
        *value = m_iWB_B;
        isAuto = m_bAutoWB;
        break;
    case CTRL_BRIGHTNESS: *value = m_iBrightness; break;
    // QUIRK: a camera without bandwidth control leaves the caller's value alone and reports success.
    case CTRL_BANDWIDTH: GetFPSPerc(value, &isAuto); break;
    case CTRL_OVERCLK: *value = m_iOverCLKPerc; break;
    case CTRL_TEMPERATURE: *value = TruncToInt32(GetTemp() * 10.0f); break;
    case CTRL_FLIP: *value = (m_bFlipColumn ? 2 : 0) + (m_bFlipRow ? 1 : 0); break;
    case CTRL_AUTOEXP_MAX_GAIN: *value = m_iAutoGainMax; break;
    case CTRL_AUTOEXP_MAX_EXP: *value = m_iAutoExpMax; break;
    case CTRL_AUTOEXP_MAX_BRIGHTNESS: *value = m_iDestBrightness; break;
    case CTRL_HARDWARE_BIN: *value = m_bHardwareBin; break;
    case CTRL_HIGH_SPEED_MODE: *value = m_bHighSpeed; break;
    case CTRL_COOL_POWER_PERC:
    case CTRL_TARGET_TEMP:
    case CTRL_COOLER_ON:
        if (!m_bIsCooler)
            return false;
        *value = Number(control) == CTRL_COOL_POWER_PERC ? TruncToInt32(m_fCoolPowerPerc)
                 : Number(control) == CTRL_TARGET_TEMP   ? m_iTargetTemp.Get()
                                                         : m_bAutoTemp.Get();
        break;
    default: return false;
    }
    *autoMode = AsKovBool(isAuto);
    return true;
}

KOV_ERROR_CODE CCameraBase::SetControlValue(KOV_CONTROL_TYPE control, int32_t value, bool autoMode)
{
    // QUIRK: no value is refused for its size, and none for a control that this camera does not list: the model clamps,
    // and what lands in a field is taken as it is.
    switch (Number(control)) {
    case CTRL_GAIN: return Tested(SetGain(value, autoMode));
    case CTRL_EXPOSURE: return Tested(SetExp(static_cast<uint64_t>(int64_t{ value }), autoMode));
    case CTRL_GAMMA: return Tested(SetGamma(value));
    case CTRL_WB_R: SetRGBBalance(value, m_iWB_B, autoMode); return KOV_SUCCESS;
    case CTRL_WB_B: SetRGBBalance(m_iWB_R, value, autoMode); return KOV_SUCCESS;
    case CTRL_BRIGHTNESS: return Tested(SetBrightness(value));
    case CTRL_BANDWIDTH: return Tested(ChangeFPSPerc(value, autoMode, "set by the host"));
    case CTRL_OVERCLK: return Tested(SetOverCLKPerc(value));
    case CTRL_FLIP:  // QUIRK: other values than 0 to 3 change nothing and succeed
        if (value >= 0 && value <= 3)
            SetMisc((value & 1) != 0, (value & 2) != 0);
        return KOV_SUCCESS;
    case CTRL_AUTOEXP_MAX_GAIN: m_iAutoGainMax = value; return KOV_SUCCESS;
    case CTRL_AUTOEXP_MAX_EXP: m_iAutoExpMax = value; return KOV_SUCCESS;
    case CTRL_AUTOEXP_MAX_BRIGHTNESS: m_iDestBrightness = value; return KOV_SUCCESS;
    case CTRL_HARDWARE_BIN: return Tested(SetHardwareBin(value > 0));
    case CTRL_HIGH_SPEED_MODE: return Tested(SetHighSpeedMode(value > 0));
    // QUIRK: writes to the read-only controls are accepted and ignored. The target temperature is set by the C
    // interface before it comes here.
    case CTRL_TEMPERATURE:
    case CTRL_COOL_POWER_PERC:
    case CTRL_TARGET_TEMP: return KOV_SUCCESS;
    default: return KOV_ERROR_BAD_CONTROL;
    }
}

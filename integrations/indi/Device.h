// A camera as a device of the framework: translates properties into calls of Camera, and what Camera tells into
// properties. Everything runs on the event loop but what is marked.
#pragma once
#include <indiccd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Camera.h"
#include "Finder.h"
#include "common/Frame.h"

namespace kovindi {

class Device : public INDI::CCD, private Listener {
public:
    Device(const KOV_CAMERA_INFO& info, const std::string& id, int ordinal);
    ~Device() override;

    const char* getDefaultName() override;
    bool initProperties() override;
    bool updateProperties() override;
    void ISGetProperties(const char* dev) override;
    bool ISNewNumber(const char* dev, const char* name, double values[], char* names[], int n) override;
    bool ISNewSwitch(const char* dev, const char* name, ISState* states, char* names[], int n) override;
    bool ISNewText(const char* dev, const char* name, char* texts[], char* names[], int n) override;

    const std::string& Model() const { return m_model; }
    KnownCamera Known() const;
    int Serial() const { return m_serial; }
    bool HasEnded() const { return m_ended; }  // any thread
    void UploadTurn();                         // this device may upload its picture now
    bool HasLeft() const { return m_leaving; }
    void Verify() { m_camera->Verify(); }
    void ForgetVerified() { m_verified = false; }
    void Leave();  // the camera is gone: clients lose the device at once, the object goes when its threads have ended
    void EndCamera() { m_camera->End(); }

protected:
    bool Connect() override { return isConnected(); }
    bool Disconnect() override { return !isConnected(); }
    bool StartExposure(float duration) override;  // also on the upload thread, with fast exposures
    bool AbortExposure() override;
    bool UpdateCCDFrame(int x, int y, int w, int h) override;
    bool UpdateCCDBin(int hor, int ver) override;
    bool UpdateCCDFrameType(INDI::CCDChip::CCD_FRAME type) override;
    bool SetCaptureFormat(uint8_t index) override;
    int SetTemperature(double temperature) override;
    IPState GuideNorth(uint32_t ms) override { return Guide(0, ms); }
    IPState GuideSouth(uint32_t ms) override { return Guide(1, ms); }
    IPState GuideEast(uint32_t ms) override { return Guide(2, ms); }
    IPState GuideWest(uint32_t ms) override { return Guide(3, ms); }
    bool StartStreaming() override;
    bool StopStreaming() override;                       // also on the recorder's thread
    void addFITSKeywords(INDI::CCDChip* chip) override;  // upload thread
    void UploadComplete(INDI::CCDChip* chip) override;   // upload thread
    bool saveConfigItems(FILE* file) override;
    void TimerHit() override;

private:
    // What the camera tells, on its own threads.
    void OnOpened(const Opened& facts) override;
    void OnOpenFailed(const std::string& why) override;
    void OnClosed() override;
    void OnFormat(const Format& inForce) override;
    void OnControls(const ControlStates& states) override;
    void OnRefused(const std::string& why) override;
    void OnExposed(int tag, const Format& format, const std::vector<uint8_t>& image) override;
    void OnExposureFailed(int tag, const std::string& why) override;
    void OnFrame(const Format& format, std::vector<uint8_t>& image) override;
    void OnVideoCount(const VideoCount& count) override;
    void OnVideoEnded(const std::string& why) override;
    void OnPulseDone(int axis) override;
    void OnDark(bool done, bool inUse, const std::string& what) override;
    void OnVerified() override;
    void OnEnded() override;
    void ToMain(std::function<void(Device&)> work);

    void ShowOpened(const Opened& facts, const std::vector<std::string>& advice);
    void AskFormat();
    void ShowFormat(const Format& inForce);
    void ShowControls(const ControlStates& states);
    void ShowImage(int tag, const Format& format);
    void EndUpload();
    void DefineOwn();
    void MakeControls(const Opened& facts);
    bool NewControls(double values[], char* names[], int n);
    bool NewModes(ISState* states, char* names[], int n);
    bool NewConnection(ISState* states, char* names[], int n);
    void DisconnectNow();
    void StopAll(const char* why);
    void BeginWarmUp();
    void StepWarmUp();
    template <class Value>
    bool Defer(bool (Device::*handler)(const char*, const char*, Value*, char**, int), const char* name, Value* values,
               char** names, int n);
    bool IsBusy(const char* what);
    IPState Guide(int pin, uint32_t ms);
    bool Lists(KOV_CONTROL_TYPE type) const;
    bool TakesBin(int bin) const;
    kovtools::CameraState StateOf(const Format& format, const ControlStates& states) const;
    void SetDark(bool inUse);
    IMG_TYPE ChosenType() const;

    const std::string m_name, m_model, m_id;
    const int m_ordinal, m_serial;
    KOV_CAMERA_INFO m_info;
    std::optional<int> m_firmware;  // version
    std::vector<KOV_CONTROL_CAPS> m_caps;
    ControlStates m_states;
    Format m_wish, m_format;  // asked for, in force
    int m_formatsAsked = 0;   // that no answer has come to
    std::atomic<bool> m_ended{ false };
    bool m_leaving = false, m_verified = false;

    std::atomic<bool> m_exposing{ false }, m_streaming{ false };
    std::atomic<int> m_tag{ 0 };
    std::atomic<double> m_exposureSeconds{ 0 };
    std::atomic<std::chrono::steady_clock::time_point> m_exposureBegan;
    bool m_uploads = false;  // from the arrival of a picture until it is with the clients
    std::chrono::steady_clock::time_point m_uploadBegan;
    std::vector<std::function<void()>> m_deferred;  // requests that would change a picture on its way to the clients
    std::atomic<bool> m_streamBegins{ false };
    Format m_streamFormat;  // the worker's
    double m_streamExposure = 0;
    bool m_refused = false;
    struct {
        double start = 0;
        std::chrono::steady_clock::time_point began;
        bool runs = false;
    } m_warmUp;

    struct {
        ControlStates states;
        Format format;
        bool dark = false;
    } m_shot;  // of the picture that is uploaded

    INDI::PropertyNumber m_controls{ 0 }, m_coolerPower{ 1 }, m_videoCount{ 2 }, m_darkFrames{ 1 };
    INDI::PropertySwitch m_modes{ 0 }, m_cooler{ 2 }, m_hardwareBin{ 2 }, m_warmUpSwitch{ 2 }, m_dark{ 3 };
    INDI::PropertyText m_darkFile{ 1 }, m_facts{ 4 };
    std::unique_ptr<Camera> m_camera;  // last: it calls into all others
};

}  // namespace kovindi

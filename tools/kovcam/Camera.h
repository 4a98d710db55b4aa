// What the commands share: finding and opening a camera, options of a picture, errors for people.
#pragma once
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "KOVCamera2.h"
#include "common/Frame.h"

class CCameraBase;

namespace kovcam {

// An error that is told to the user as it stands; the exit code of the program.
class UserError : public std::runtime_error {
public:
    UserError(const std::string& text, int code = 1) : std::runtime_error(text), iExit(code) {}
    int iExit;
};

// Throws a UserError that names the call and what to do when the code is no success.
void Check(KOV_ERROR_CODE code, const std::string& what);

// All controls by the names that users type: "gain", "exposure", "wb-r"...
struct ControlName {
    KOV_CONTROL_TYPE type;
    const char* szName;
};
extern const std::vector<ControlName> g_Controls;
KOV_CONTROL_TYPE ParseControl(const std::string& name);
const char* NameOf(KOV_CONTROL_TYPE type);

// kovtools::ParseDuration with its complaint as a UserError.
std::chrono::microseconds ParseTime(const std::string& text);
double ParseSeconds(const std::string& text);
int32_t ParseExposure(const std::string& text);  // in the library's microseconds; at most what those hold
std::string ExposureText(int64_t us);

// How a picture is to be taken. A negative number or an empty text leaves the camera's own setting.
struct PictureOptions {
    std::string sExposure;
    int iGain = -1, iBrightness = -1, iGamma = -1, iBandwidth = -1, iFlip = -1, iBin = 1;
    std::string sRegion;  // "WxH" or "WxH+X+Y", output pixels
    std::string sFormat;  // raw8, raw16, rgb24, y8; empty: the command's choice
    std::string sDark;    // BMP file
    bool bAutoExposure = false, bAutoGain = false, bAutoBalance = false, bTimeMark = false, bDefaults = false;
    std::optional<bool> bHardwareBin, bHighSpeed;
    int whiteRed = -1, whiteBlue = -1;
    std::optional<int> iCool;  // target of the cooler, degrees

    // What a command takes, so that its help lists nothing else.
    enum Group : unsigned { Exposure = 1, Cooler = 2, Geometry = 4, Format = 8, Automation = 16, Finish = 32 };
    void AddTo(CLI::App& app, unsigned groups);
    std::vector<std::string> Given() const;  // names of the controls that this command sets
};

// Index of the camera that a user means: "" for the only one, an index, or a part of a name.
int FindCamera(const std::string& which);

// How many times faster than real time the library's clock runs: 1, but for virtual cameras that ask for more.
double ClockRate();
// Seconds of the library's clock, in which cameras expose and cool.
class Stopwatch {
public:
    double Seconds() const
    {
        return ClockRate() * std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};
// Sleeps on that clock; returns early when interrupted.
void Sleep(double seconds);

// An open camera; closed on destruction.
class Camera {
public:
    explicit Camera(const std::string& which);
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    int Id() const { return m_iId; }
    const KOV_CAMERA_INFO& Info() const { return m_info; }
    CCameraBase& Object() const;  // for what the C interface does not reach

    bool Has(KOV_CONTROL_TYPE type) const;
    int32_t Get(KOV_CONTROL_TYPE type, bool* pAuto = nullptr) const;
    void Set(KOV_CONTROL_TYPE type, int32_t value, bool automatic = false);
    void Apply(const PictureOptions& o, IMG_TYPE defaultType);
    void SetDefaults();   // of every control that can be written
    void KeepSettings();  // stores the controls as the end of a capture does
    std::vector<KOV_CONTROL_CAPS> Controls() const;
    // The control's limits; a control that the camera lacks is a UserError with the list of those that it has.
    KOV_CONTROL_CAPS Caps(KOV_CONTROL_TYPE type) const;
    // Controls whose value is not the default, or that the camera regulates itself; read-only ones left out.
    struct Deviation {
        std::string name;
        int32_t value, standard;
        bool automatic;
    };
    std::vector<Deviation> Deviations() const;

    // The format in force.
    int Width() const { return m_iWidth; }
    int Height() const { return m_iHeight; }
    int Bin() const { return m_iBin; }
    IMG_TYPE Type() const { return m_type; }
    int ImageBytes() const;

private:
    int m_iId = -1;
    KOV_CAMERA_INFO m_info{};
    int m_iWidth = 0, m_iHeight = 0, m_iBin = 1;
    IMG_TYPE m_type = IMG_RAW8;
    Stopwatch m_opened;
};

// Number of cameras; none is a UserError that says what was looked for, what to check and how to try a virtual one.
int CountCameras();
KOV_CAMERA_INFO InfoOf(int index);

// Set by Ctrl-C: long work stops soon, captures are stopped and cameras closed.
bool Interrupted();
void CatchInterrupts();

// A line that is redrawn on a terminal; elsewhere a line now and then.
class Progress {
public:
    explicit Progress(std::string label);
    ~Progress();
    void Show(double done, const std::string& text);  // done from 0 to 1, below 0: unknown
    void End();

private:
    std::string m_sLabel;
    bool m_bTerminal, m_bShown = false;
    std::chrono::steady_clock::time_point m_last{};
};

}  // namespace kovcam

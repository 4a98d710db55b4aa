// What the driver computes. Pure functions: no camera, no framework.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KOVCamera2.h"

namespace kovindi {

// --- names ---

// The user ID of a camera's flash as text: its characters up to the first zero where all can be printed, else
// hexadecimal.
std::string IdText(const KOV_ID& id);
// "Model", or "Model (ID)", or "Model 2" for a second one without ID that nothing else tells apart.
std::string DeviceName(const std::string& model, const std::string& id, int ordinal);
// The name that clients look for ("Gain", "Offset"), else the control's own without blanks.
std::string ElementName(const KOV_CONTROL_CAPS& caps);

// --- cameras that come and go ---

struct KnownCamera {
    std::string id;  // empty: none
    int ordinal = 1;
    bool open = false;
    bool failed = false;    // nothing good came from it since a failure
    bool verified = false;  // it answered after a camera of its model had gone
};
// What is to be done about the cameras of one model, when so many are on the bus.
struct Changes {
    std::vector<KnownCamera> appeared;  // id and ordinal
    std::vector<size_t> gone;           // places in the list of the known
    std::vector<size_t> doubtful;       // one of these has gone: ask each whether it is still there, then look again
};
// `ids` has an entry for each camera on the bus: no value where it was not looked at, empty where it keeps no ID.
Changes Compare(const std::vector<KnownCamera>& known, const std::vector<std::optional<std::string>>& ids);

// --- regions ---

struct Region {
    int x = 0, y = 0, width = 0, height = 0;
    friend bool operator==(const Region&, const Region&) = default;
};
// Sizes in output pixels for a wish in unbinned ones, in the order in which a camera is to be asked for them: cameras
// differ in what they align to, and only the camera itself tells.
std::vector<std::pair<int, int>> SizesToTry(const Region& wish, int bin, int maxWidth, int maxHeight);
// The start that is in force, in unbinned pixels. A value far from what was asked for is not believed: cameras whose
// rows count from the bottom report it unscaled when binned.
int StartInForce(int asked, int reported, int bin, int size, int max);

// --- pixels ---

// Blue, green, red of each pixel to a plane of red, one of green, one of blue.
void ToPlanes(const uint8_t* bgr, size_t pixels, uint8_t* planes);
// Blue, green, red to red, green, blue, in place.
void SwapRedBlue(uint8_t* bgr, size_t pixels);

// --- dark frames ---

// The mean of 8-bit frames, and the file that the library reads.
class DarkMean {
public:
    DarkMean(int width, int height);
    void Add(const uint8_t* frame);
    int Count() const { return m_count; }
    std::vector<uint8_t> Bmp() const;  // an 8-bit BMP, rows in the order of memory

private:
    int m_width, m_height, m_count = 0;
    std::vector<uint32_t> m_sum;
};

// --- cooler ---

// The next target on the way to warm, a minute later at most `slope` degrees higher; whole degrees.
int WarmUpTarget(double start, double minutes, double slope);

}  // namespace kovindi

// The keywords of a picture, as data: for files, for drivers that write their own FITS, for servers.
#pragma once
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "common/Frame.h"

namespace kovtools {

// A HISTORY card has its text as value and no comment.
struct FitsCard {
    std::string key;
    std::variant<std::string, double, int64_t, bool> value;
    std::string comment;
    int decimals = 6;  // of a double; below 0: as many as it needs
};

// What a person tells of the picture.
struct FitsNotes {
    std::string imageType = "Light Frame", object, telescope, software;
    std::optional<double> focalLength;  // mm
    std::optional<double> ra, dec;      // degrees
    std::vector<std::string> history;
    std::vector<FitsCard> more;  // come last and replace cards of the same key
};

struct FrameTimes {
    std::chrono::system_clock::time_point start, end;
};  // of the exposure

// All but what the image itself needs (SIMPLE, BITPIX, NAXIS...).
std::vector<FitsCard> MakeFitsCards(const CameraState& state, const FrameTimes& times, const FitsNotes& notes);

// "KEY=VALUE" of a command line; numbers, T and F become such. Throws std::invalid_argument for a key that FITS does not
// allow or that the image itself needs.
FitsCard ParseFitsCard(const std::string& text);

}  // namespace kovtools

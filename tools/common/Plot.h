// Plots and picture sheets as PNG files, drawn with Cairo where it is to be had.
#pragma once
#include <string>
#include <vector>

namespace kovtools {

extern const bool DRAWS_PLOTS;  // whether this build can; where it cannot, the functions throw

// Roles; what they look like depends on the ground.
enum class Ink { Blue, Red, Green, Grey };

// Each curve runs against the left or the right axis.
struct Curve {
    std::string name;  // in the legend; empty: not listed
    Ink ink = Ink::Blue;
    bool right = false;
    std::vector<double> x, y;
    enum class Form { Line, Steps, Dashes, Points } form = Form::Line;  // Steps holds each value until the next
};
struct Plot {
    std::string title, x, left, right;  // titles of plot and axes
    std::vector<Curve> curves;          // later ones lie over earlier ones
    bool logLeft = false, logX = false;
    double rightMin = 0, rightMax = 0;  // equal: from the data
};
// One plot below the other. An existing file is replaced. Throws std::runtime_error.
void DrawPlots(const std::string& path, const std::vector<Plot>& plots, bool dark = false);

struct Sheet {
    struct Picture {
        std::string file, caption;
    };  // of a PNG
    std::vector<Picture> pictures;
    int columns = 3, tileWidth = 320, tileHeight = 240;       // a picture keeps its shape
    int cropX = 0, cropY = 0, cropWidth = 0, cropHeight = 0;  // the part that is shown; no width: all
    bool dark = false;
    bool keepStars = false;  // shrinks by the brightest spot instead of the mean, which swallows stars
};
void DrawSheet(const std::string& path, const Sheet& sheet);  // throws std::runtime_error

}  // namespace kovtools

// A small drawing surface with a pixel font, for plots and picture sheets. Origin at the top left; what falls outside is cut.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kovtools {

struct Colour { uint8_t r, g, b; };
constexpr Colour WHITE{ 255, 255, 255 }, BLACK{ 0, 0, 0 }, GREY{ 120, 120, 120 }, PALE{ 225, 225, 225 }, RED{ 200, 40, 40 },
    BLUE{ 30, 90, 190 }, GREEN{ 20, 130, 60 };

class Canvas {
public:
    Canvas(int width, int height, Colour ground);
    static Canvas Load(const std::string& png);  // throws std::runtime_error
    void Save(const std::string& png) const;     // throws std::runtime_error

    int Width() const { return m_iWidth; }
    int Height() const { return m_iHeight; }
    Colour At(int x, int y) const;
    void Set(int x, int y, Colour c, double cover = 1);
    void Box(int x, int y, int w, int h, Colour c);
    void Line(double x0, double y0, double x1, double y1, Colour c, double width = 1);  // with smooth edges
    // The character cell is 6 x 9 times scale.
    void Text(int x, int y, const std::string& text, Colour c, int scale = 2);
    void TextDown(int x, int y, const std::string& text, Colour c, int scale = 2);  // reads from top to bottom
    static int TextWidth(const std::string& text, int scale = 2) { return static_cast<int>(text.size()) * 6 * scale; }

    Canvas Part(int x, int y, int w, int h) const;
    // Shrunk with the mean of what falls on a pixel, enlarged by repeating.
    Canvas Resized(int w, int h) const;
    void Paste(const Canvas& other, int x, int y);

private:
    int m_iWidth, m_iHeight;
    std::vector<uint8_t> m_Rgb;
};

// Curves over a common x, each against the left or the right axis.
struct Curve {
    std::string sName;
    Colour colour;
    bool bRight = false;
    std::vector<double> x, y;
    bool bSteps = false;   // holds each value until the next
};
struct PlotOptions {
    std::string sTitle, sX, sLeft, sRight;
    bool bLogLeft = false;
    double dRightMin = 0, dRightMax = 0;  // equal: from the data
    int iWidth = 900, iHeight = 500;
};
Canvas Plot(const PlotOptions& o, const std::vector<Curve>& curves);

}  // namespace kovtools

// Picture files: FITS, PNG, SER.
#pragma once
#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "KOVCamera2.h"

namespace kovcam {

// One delivered image with what a file should say about it.
struct Picture {
    std::vector<uint8_t> data;
    int iWidth = 0, iHeight = 0;
    IMG_TYPE type = IMG_RAW8;
    bool bColor = false;
    BayerPattern pattern = BAYER_RG;  // of the delivered mosaic
    std::string sCamera, sImageType = "Light Frame";
    double dExposure = 0;             // s
    int iGain = 0, iOffset = 0, iBin = 1;
    double dElecPerADU = 0, dPixelUm = 0;
    bool bHasTemp = false, bHasTarget = false;
    double dTemp = 0, dTarget = 0;    // degrees Celsius
    std::chrono::system_clock::time_point start, end;
};

// Rows from the top. Colour images become three planes, red first. An existing file is replaced.
void WriteFits(const std::string& path, const Picture& p);

enum class Stretch { None, Auto };
// Auto lifts the faint end so that a sky shows its stars. A mosaic is shown in colour.
void WritePng(const std::string& path, const Picture& p, Stretch stretch);

// SER version 3 with a time stamp a frame.
class SerWriter {
public:
    SerWriter(const std::string& path, const Picture& first);
    ~SerWriter();
    void Add(const Picture& p);
    int Frames() const { return static_cast<int>(m_Times.size()); }
    void Finish();  // writes the count and the time stamps

private:
    void Header(int frames);
    std::ofstream m_File;
    std::string m_sPath;
    Picture m_Shape;
    std::vector<int64_t> m_Times;
};

}  // namespace kovcam

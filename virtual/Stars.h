// The star catalogue of data/stars, compiled in.
#pragma once
#include <string>
#include <vector>

namespace kovsim {

struct Star {
    int iHip;
    double dRa, dDec;  // degrees
    double dMag;       // V
    double dBV;
};

// Every star once. Reads the built-in files at the first call.
const std::vector<Star>& Stars();

// Lines "hip,ra,dec,mag,bv" with # comments; broken lines are skipped.
std::vector<Star> ParseStars(const char* pText);

// The files' texts, ended by a null pointer; made by the build from data/stars/*.csv.
extern const char* const g_StarFiles[];

}  // namespace kovsim

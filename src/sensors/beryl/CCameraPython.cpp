#include "sensors/CCameraPython.h"

#include <cstdint>
#include <span>

#include "RegisterTables.h"
#include "sensors/RegisterTable.h"

namespace {

// One field write: bits first to last of a register. Register numbers are decimal, as in the sensor's register map.
struct Field {
    uint16_t reg;
    uint8_t first, last;
    uint16_t wValue;
};

void Run(CCameraBase& cam, std::span<const Field> fields)
{
    for (const Field& f : fields)
        cam.WriteCameraRegister_B(f.reg, f.first, f.last, f.wValue);
}

// One row a readout mode.
struct Program {
    std::span<const RegEntry> words;  // registers 384 and up
    uint8_t mode;                     // 194[0] and [1]
    uint8_t b215, b65;                // 215[10], 65[12-15]
    bool second;                      // MSC and MSL: a second integration program
    uint8_t integration;              // offsets of the parts, from register 384
    uint8_t secondA, secondB;
    uint8_t readout1, readout2, readout3;
    bool zeroRot;
};
constexpr Program g_CdsNrot = { g_PythonCdsNrot, 0, 0, 3, false, 32, 0, 0, 40, 57, 74, false };
constexpr Program g_CdsZrot = { g_PythonCdsZrot, 0, 0, 3, false, 32, 0, 0, 40, 58, 77, true };
constexpr Program g_UdsNrot = { g_PythonUdsNrot, 0, 1, 7, false, 19, 0, 0, 47, 64, 81, false };
constexpr Program g_UdsZrot = { g_PythonUdsZrot, 0, 1, 7, false, 19, 0, 0, 47, 65, 84, true };
constexpr Program g_CdsNrotLtn = { g_PythonCdsNrotLtn, 0, 1, 7, false, 19, 0, 0, 47, 64, 81, false };
constexpr Program g_MscNrot = { g_PythonMscNrot, 1, 0, 5, true, 13, 21, 50, 59, 76, 93, false };
constexpr Program g_MscZrot = { g_PythonMscZrot, 1, 0, 5, true, 13, 21, 50, 59, 77, 96, true };
constexpr Program g_MslNrot = { g_PythonMslNrot, 1, 0, 5, true, 13, 40, 50, 59, 76, 93, false };

constexpr size_t PROGRAM = 384;  // register of the first word

void Words(CCameraBase& cam, const Program& p, size_t from, size_t to)
{
    for (size_t i = from; i < to; ++i)  // consecutive registers, also for words that are not known
        cam.WriteCameraRegister(static_cast<uint16_t>(PROGRAM + i), p.words[i].wValue);
}

void Load(CCameraBase& cam, const Program& p)
{
    const auto field = [&](uint16_t reg, uint8_t first, uint8_t last, uint16_t value) {
        cam.WriteCameraRegister_B(reg, first, last, value);
    };
    const Field setup[] = {
        { 192, 0, 0, 0 }, { 192, 1, 1, 0 },  { 194, 0, 0, p.mode },   { 194, 1, 1, p.mode }, { 42, 12, 15, 4 },
        { 43, 0, 0, 0 },  { 42, 8, 10, 1 },  { 42, 4, 6, 1 },         { 43, 4, 6, 0 },       { 72, 4, 6, 1 },
        { 72, 8, 10, 0 }, { 72, 12, 14, 0 }, { 215, 10, 10, p.b215 }, { 41, 0, 3, 15 },
    };
    Run(cam, setup);
    if (p.second)
        field(41, 4, 7, 11);
    field(65, 12, 15, p.b65);

    Words(cam, p, 0, p.integration);
    field(216, 0, 6, 0);
    Words(cam, p, p.integration, p.second ? p.secondA : p.readout1);
    field(219, 0, 6, p.integration);
    if (p.second) {
        Words(cam, p, p.secondA, p.readout1);
        field(217, 0, 6, p.secondA);
        field(217, 8, 14, p.secondB);
    }

    field(192, 2, 2, p.zeroRot ? 1 : 0);
    field(192, 3, 3, p.zeroRot ? 1 : 0);
    field(204, 0, 4, p.zeroRot ? 1 : 3);
    field(65, 4, 7, p.zeroRot ? 2 : 8);

    Words(cam, p, p.readout1, p.readout2);
    field(220, 0, 6, p.readout1);
    Words(cam, p, p.readout2, p.readout3);
    field(220, 8, 14, p.readout2);
    Words(cam, p, p.readout3, p.words.size());
    field(221, 0, 6, p.readout3);
    field(222, 0, 6, p.readout3);
    field(192, 0, 0, 1);
}

}  // namespace

void CCameraPython::EnableClockMngmnt1()
{
    static constexpr Field fields[] = {
        { 2, 0, 0, 0 },  { 2, 1, 1, 0 },  { 32, 3, 3, 0 }, { 32, 2, 2, 0 }, { 32, 12, 14, 0 }, { 32, 12, 14, 2 },
        { 32, 4, 5, 0 }, { 20, 0, 0, 1 }, { 16, 2, 2, 1 }, { 16, 0, 0, 1 }, { 16, 1, 1, 1 },
    };
    Run(*this, fields);
}

void CCameraPython::EnableClockMngmnt2()
{
    static constexpr Field fields[] = { { 9, 0, 3, 0 }, { 32, 1, 1, 1 }, { 34, 0, 0, 1 }, { 128, 15, 15, 0 } };
    Run(*this, fields);
}

void CCameraPython::RequiredUploads()
{
    static constexpr Field fields[] = {
        { 65, 0, 0, 1 },    { 129, 13, 13, 0 }, { 211, 4, 6, 4 },  { 192, 15, 15, 0 }, { 194, 6, 7, 0 },   { 197, 0, 7, 6 },
        { 197, 8, 12, 3 },  { 224, 0, 3, 14 },  { 224, 4, 7, 5 },  { 129, 1, 9, 0 },   { 129, 0, 0, 1 },   { 211, 3, 3, 1 },
        { 207, 0, 7, 0 },   { 129, 15, 15, 1 }, { 128, 0, 7, 20 }, { 128, 8, 10, 7 },  { 128, 11, 14, 8 }, { 204, 0, 4, 3 },
        { 204, 5, 12, 15 }, { 41, 8, 10, 0 },   { 41, 11, 12, 1 }, { 42, 4, 6, 1 },    { 211, 1, 1, 0 },   { 215, 1, 1, 1 },
        { 215, 2, 2, 1 },   { 215, 3, 3, 1 },   { 215, 4, 4, 1 },  { 215, 9, 9, 0 },   { 215, 11, 11, 0 }, { 215, 12, 12, 1 },
        { 227, 4, 4, 0 },   { 43, 1, 1, 0 },    { 43, 2, 2, 0 },   { 43, 3, 3, 1 },    { 43, 0, 0, 0 },    { 70, 0, 3, 1 },
        { 70, 4, 7, 1 },    { 70, 8, 11, 1 },   { 70, 12, 15, 1 }, { 67, 0, 3, 5 },    { 67, 4, 7, 6 },    { 67, 8, 11, 6 },
        { 67, 12, 15, 0 },  { 66, 0, 3, 6 },    { 66, 4, 7, 12 },  { 68, 0, 3, 5 },    { 194, 9, 9, 1 },   { 192, 11, 13, 1 },
    };
    Run(*this, fields);
}

void CCameraPython::SoftPowerUp()
{
    static constexpr Field fields[] = {
        { 32, 0, 0, 1 }, { 10, 0, 3, 0 }, { 10, 4, 7, 0 }, { 10, 8, 11, 0 }, { 64, 0, 0, 1 },
        { 72, 0, 0, 1 }, { 72, 1, 1, 1 }, { 72, 2, 2, 1 }, { 42, 0, 0, 1 },  { 42, 1, 1, 1 },
        { 40, 0, 0, 1 }, { 40, 1, 1, 1 }, { 40, 2, 2, 0 }, { 48, 0, 0, 1 },  { 112, 0, 2, 7 },
    };
    Run(*this, fields);
}

void CCameraPython::SoftPowerDown()
{
    static constexpr Field fields[] = {
        { 192, 0, 0, 0 }, { 32, 0, 0, 0 }, { 10, 0, 3, 9 }, { 10, 4, 7, 9 },  { 10, 8, 11, 9 }, { 64, 0, 0, 0 },
        { 72, 0, 0, 0 },  { 72, 1, 1, 0 }, { 72, 2, 2, 0 }, { 42, 0, 0, 0 },  { 42, 1, 1, 0 },  { 40, 0, 0, 0 },
        { 40, 1, 1, 0 },  { 40, 2, 2, 0 }, { 48, 0, 0, 0 }, { 112, 0, 2, 0 },
    };
    Run(*this, fields);
}

void CCameraPython::InitializeCDSwithNROT() { Load(*this, g_CdsNrot); }
void CCameraPython::InitializeCDSwithZROT() { Load(*this, g_CdsZrot); }
void CCameraPython::InitializeUDSwithNROT() { Load(*this, g_UdsNrot); }
void CCameraPython::InitializeUDSwithZROT() { Load(*this, g_UdsZrot); }
void CCameraPython::InitializeCDSwithNROT_LTN() { Load(*this, g_CdsNrotLtn); }
void CCameraPython::InitializeMSCwithNROT() { Load(*this, g_MscNrot); }
void CCameraPython::InitializeMSCwithZeroROT() { Load(*this, g_MscZrot); }
void CCameraPython::InitializeMSLwithNROT() { Load(*this, g_MslNrot); }

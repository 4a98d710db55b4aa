// The models: fixed facts, and which profile plays each.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "virtual/BaseProfile.h"

namespace kovsim {
namespace {

// Facts that a family shares.
struct Family {
    const char* szName;
    int iWidth, iHeight;
    double dPixelUm;
    Cfa cfa;  // of the colour models
    bool bUSB3;
    int iAdcBits;
    double dFullWell;   // electrons at full scale, unity gain; where electrons per ADU are published, those times 2^bits
    double dReadNoise;  // electrons; typical of such sensors, not measured
    Marks marks;
    ModelFacts::Temp temp;
    std::unique_ptr<Profile> (*Make)(const ModelFacts&, uint8_t);
};

using Temp = ModelFacts::Temp;
constexpr Family g_Families[] = {
    { "Garnet_S", 1280, 960, 3.75, Cfa::GR, true, 12, 3.520 * 4096, 6, Marks::BTail, Temp::Register, MakeGarnet },
    { "Garnet", 1280, 960, 3.75, Cfa::GR, false, 12, 3.712 * 4096, 6, Marks::B, Temp::Register, MakeGarnet },
    { "Agate", 640, 480, 6.00, Cfa::BG, false, 10, 15000, 20, Marks::B, Temp::None, MakeDunite },
    { "Cobalt", 728, 512, 5.60, Cfa::GR, false, 12, 15000, 15, Marks::B, Temp::None, MakeCobalt },
    { "Dunite", 752, 480, 6.00, Cfa::BG, false, 10, 15000, 20, Marks::B, Temp::None, MakeDunite },
    { "Iolite", 1280, 1024, 5.20, Cfa::RG, false, 10, 30000, 25, Marks::B, Temp::None, MakeIolite },
    { "BerylCol", 640, 480, 3.75, Cfa::RG, true, 10, 10000, 10, Marks::A, Temp::Digital, MakeBeryl },
    { "BerylMono", 640, 480, 4.80, Cfa::RG, true, 10, 10000, 10, Marks::A, Temp::Digital, MakeBeryl },
    { "Jasper", 1944, 1224, 2.80, Cfa::GB, true, 12, 4.000 * 4096, 3.5, Marks::A, Temp::Digital, MakeSony },
    { "Nephrite", 1944, 1224, 3.75, Cfa::RG, true, 12, 5.584 * 4096, 3, Marks::A, Temp::Digital, MakeSony },
    { "Onyx", 1304, 976, 3.75, Cfa::RG, true, 12, 4.688 * 4096, 3, Marks::A, Temp::Digital, MakeSony },
    { "Pyrite", 1304, 976, 3.75, Cfa::RG, true, 12, 19200, 3, Marks::A, Temp::Digital, MakeSony },
    { "Quartz", 1936, 1096, 3.75, Cfa::RG, true, 12, 3.584 * 4096, 3.2, Marks::A, Temp::Digital, MakeSony },
    { "Lapis", 1936, 1216, 5.86, Cfa::RG, true, 12, 7.920 * 4096, 6, Marks::A, Temp::Digital, MakeSony },
    { "Marble", 3096, 2080, 2.40, Cfa::RG, true, 14, 0.916 * 16384, 2.2, Marks::A, Temp::Digital, MakeSony },
    { "Kyanite", 4656, 3520, 3.75, Cfa::GR, true, 12, 4.960 * 4096, 3, Marks::A, Temp::Digital, MakeKyanite },
    { "Ebony", 4944, 3284, 4.86, Cfa::RG, true, 14, 40000, 4, Marks::A, Temp::Thermistor, MakeEbonyGroup },
    { "Flint", 7380, 4928, 5.97, Cfa::RG, true, 14, 60000, 5, Marks::A, Temp::Thermistor, MakeEbonyGroup },
    { "Halite", 6036, 4032, 5.97, Cfa::RG, true, 14, 60000, 5, Marks::A, Temp::Thermistor, MakeEbonyGroup },
};

constexpr struct {
    uint16_t wProductId;
    const char* szToken;
} g_Ids[] = {
    { 0xC01A, "AgateCol" },     { 0xC02A, "BerylCol" },     { 0xC02B, "BerylMono" },     { 0xC03A, "CobaltCol-A" },
    { 0xC03B, "CobaltCol" },    { 0xC03C, "CobaltCol-B" },  { 0xC04A, "DuniteMono" },    { 0xC04B, "DuniteCol" },
    { 0xC04C, "DuniteMono-A" }, { 0xC04D, "DuniteMono-B" }, { 0xC04E, "DuniteCol-A" },   { 0xC04F, "DuniteCol-B" },
    { 0xC05A, "EbonyCol" },     { 0xC06A, "FlintCol" },     { 0xC07A, "GarnetMono" },    { 0xC07B, "GarnetCol" },
    { 0xC07D, "GarnetMono_S" }, { 0xC07E, "GarnetCol_S" },  { 0xC08A, "HaliteCol" },     { 0xC09A, "IoliteMono" },
    { 0xC0AA, "JasperCol" },    { 0xC0AC, "JasperCol-A" },  { 0xC0AD, "JasperCol-B" },   { 0xC0B0, "KyaniteCol" },
    { 0xC0B1, "KyaniteCol_C" }, { 0xC0B2, "KyaniteMono" },  { 0xC0B3, "KyaniteMono_C" }, { 0xC0CA, "LapisCol" },
    { 0xC0CB, "LapisMono" },    { 0xC0CC, "LapisCol_C" },   { 0xC0CD, "LapisMono_C" },   { 0xC0CE, "LapisMono-A" },
    { 0xC0CF, "LapisMono-B" },  { 0xC0DA, "MarbleCol" },    { 0xC0DB, "MarbleCol_C" },   { 0xC0DC, "MarbleMono" },
    { 0xC0DD, "MarbleMono_C" }, { 0xC0EA, "NephriteCol" },  { 0xC0EB, "NephriteCol_C" }, { 0xC0FA, "OnyxCol" },
    { 0xC0FB, "OnyxCol_C" },    { 0xC10A, "PyriteCol" },    { 0xC11A, "QuartzCol" },     { 0xC11B, "QuartzMono" },
};
constexpr int MODELS = static_cast<int>(std::size(g_Ids));

const Family& FamilyOf(const std::string& sToken)
{
    for (const Family& family : g_Families) {
        const std::string sName = family.szName;
        if (sName == "Garnet_S" ? sToken.starts_with("Garnet") && sToken.ends_with("_S") : sToken.starts_with(sName))
            return family;
    }
    return g_Families[0];  // not reached: every token begins with a family
}

ModelFacts MakeFacts(uint16_t wProductId, const std::string& sToken)
{
    const Family& family = FamilyOf(sToken);
    ModelFacts facts;
    facts.wProductId = wProductId;
    facts.sToken = sToken;
    facts.iWidth = family.iWidth;
    facts.iHeight = family.iHeight;
    facts.dPixelUm = family.dPixelUm;
    facts.cfa = sToken.find("Mono") != std::string::npos ? Cfa::Mono : family.cfa;
    facts.bUSB3 = family.bUSB3;
    facts.bCooled = sToken.ends_with("_C") || family.temp == Temp::Thermistor;
    facts.iAdcBits = family.iAdcBits;
    facts.dFullWell = family.dFullWell;
    facts.dReadNoise = family.dReadNoise;
    facts.marks = family.marks;
    facts.temp = family.temp;
    return facts;
}

}  // namespace

const ModelFacts* AllModels(int* piCount)
{
    // Never destroyed: cameras live until the process has ended.
    static const auto* const models = [] {
        auto* const list = new std::vector<ModelFacts>;
        for (const auto& id : g_Ids)
            list->push_back(MakeFacts(id.wProductId, id.szToken));
        return list;
    }();
    if (piCount != nullptr)
        *piCount = MODELS;
    return models->data();
}

// No profile differs by the speed of the host: sensor and FPGA do as their registers say, the link is the camera's affair.
std::unique_ptr<Profile> MakeProfile(uint16_t wProductId, uint8_t bFirmware, bool /*bUSB3Host*/)
{
    int count = 0;
    const ModelFacts* models = AllModels(&count);
    const ModelFacts* it = std::find_if(models, models + count, [&](const ModelFacts& m) { return m.wProductId == wProductId; });
    return it == models + count ? nullptr : FamilyOf(it->sToken).Make(*it, bFirmware);
}

}  // namespace kovsim

// What the driver computes, without framework and camera.
#include "Logic.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace kovindi;

TEST(IndiLogic, CamerasThatComeAndGo)
{
    using Ids = std::vector<std::optional<std::string>>;
    const auto inUse = std::nullopt;
    const struct {
        const char* what;
        std::vector<KnownCamera> known;
        Ids ids;
        std::vector<std::string> appeared;  // device names of a model "M"
        std::vector<size_t> gone, doubtful;
    } rows[] = {
        { "first ones", {}, { "", "A", "" }, { "M (A)", "M", "M 2" }, {}, {} },
        { "an ID twice", {}, { "A", "A" }, { "M (A)", "M (A) 2" }, {}, {} },
        { "a new one beside a known closed one", { { "A" } }, { "A", "B" }, { "M (B)" }, {}, {} },
        { "the first place is free again", { { "", 2, true } }, { inUse, "" }, { "M" }, {}, {} },
        { "the only one goes", { { "", 1, true } }, {}, {}, { 0 }, {} },
        { "the one that failed goes", { { "", 1, true, true }, { "", 2, true } }, { inUse }, {}, { 0 }, {} },
        { "the ID tells which closed one is left", { { "A" }, { "B" } }, { "A" }, {}, { 1 }, {} },
        { "the open one has answered, so the closed one has gone",
          { { "", 1, true, false, true }, { "", 2 } },
          { inUse },
          {},
          { 1 },
          {} },
        { "two open ones, nothing known: both are asked", { { "", 1, true }, { "", 2, true } }, { inUse }, {}, {}, { 0, 1 } },
        { "an open and a closed one: the open one is asked first", { { "", 1, true }, { "", 2 } }, { inUse }, {}, {}, { 0 } },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const Changes c = Compare(row.known, row.ids);
        std::vector<std::string> names;
        for (const KnownCamera& k : c.appeared)
            names.push_back(DeviceName("M", k.id, k.ordinal));
        EXPECT_EQ(names, row.appeared);
        EXPECT_EQ(c.gone, row.gone);
        EXPECT_EQ(c.doubtful, row.doubtful);
    }
}

TEST(IndiLogic, RegionsThatCamerasTake)
{
    using Sizes = std::vector<std::pair<int, int>>;
    EXPECT_EQ(SizesToTry({ 0, 0, 728, 512 }, 1, 728, 512).front(), std::pair(728, 512)) << "the whole sensor as it is";
    EXPECT_EQ(SizesToTry({ 3, 3, 1000, 701 }, 3, 1280, 960), (Sizes{ { 328, 232 }, { 320, 224 } })) << "equal sizes once";
    EXPECT_TRUE(SizesToTry({ 0, 0, 5, 1 }, 1, 1280, 960).empty());
    EXPECT_EQ(StartInForce(101, 50, 2, 400, 1280), 100);
    EXPECT_EQ(StartInForce(100, 900, 2, 400, 1280), 100) << "a start that was not scaled is not believed";
}

TEST(IndiLogic, IdsAndPlanes)
{
    EXPECT_EQ(IdText({ { 'G', 'U', 'I', 'D', 'E', 0, 0, 0 } }), "GUIDE");
    EXPECT_EQ(IdText({ { 1, 2, 0, 0, 0, 0, 0, 0xAB } }), "01020000000000ab");
    const uint8_t bgr[] = { 1, 2, 3, 4, 5, 6 };
    uint8_t planes[6];
    ToPlanes(bgr, 2, planes);
    EXPECT_EQ(std::memcmp(planes, "\3\6\2\5\1\4", 6), 0);
}

#include "usb/Descriptors.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "tests/support/RecordingStack.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Exact-size copy on the heap, so that a sanitizer sees a read behind the end. Null when the parser threw.
std::unique_ptr<ConfigObject> Parse(const Bytes& b, bool bSuperSpeed)
{
    const std::unique_ptr<uint8_t[]> p(new uint8_t[b.size()]);
    std::copy(b.begin(), b.end(), p.get());
    try {
        return std::unique_ptr<ConfigObject>(ParseConfig(5, p.get(), uint32_t(b.size()), bSuperSpeed));
    } catch (const char*) {
        return nullptr;
    }
}

Bytes Config(std::initializer_list<Bytes> parts)
{
    Bytes b = { 9, 2, 0, 0, 1, 3, 4, 0x80, 50 };
    for (const Bytes& p : parts)
        b.insert(b.end(), p.begin(), p.end());
    b[2] = uint8_t(b.size());
    b[3] = uint8_t(b.size() >> 8);
    return b;
}
Bytes Interface(uint8_t number, uint8_t alt, uint8_t endpoints) { return { 9, 4, number, alt, endpoints, 0xFF, 1, 2, 3 }; }
Bytes EndPoint(uint8_t address, uint8_t attributes) { return { 7, 5, address, attributes, 0, 4, 0 }; }
const Bytes g_Companion = { 6, 0x30, 15, 0, 0, 0 };
const Bytes g_Foreign = { 3, 0x24, 0 };

TEST(Descriptors, EndpointClassesByTheWholeAttributeByte)
{
    const auto c = Parse(Config({ Interface(0, 0, 5), EndPoint(0x81, 0), g_Companion, EndPoint(0x82, 1), EndPoint(0x83, 2),
                                  g_Companion, EndPoint(0x84, 3), EndPoint(0x85, 6) }),
                         true);
    ASSERT_TRUE(c);
    const InterfaceObject& i = *c->interfaces[0];
    EXPECT_EQ(i.wTotalLength, 9 + 5 * 7 + 2 * 6);
    EXPECT_EQ(i.endPoints[0], nullptr);
    EXPECT_TRUE(dynamic_cast<CCyControlEndPoint*>(i.endPoints[1]));
    EXPECT_EQ(i.endPoints[1]->m_maxBurst, 0);  // a control endpoint never takes the companion
    EXPECT_TRUE(dynamic_cast<CCyIsocEndPoint*>(i.endPoints[2]));
    EXPECT_TRUE(dynamic_cast<CCyBulkEndPoint*>(i.endPoints[3]));
    EXPECT_EQ(i.endPoints[3]->m_iMaxPktSize, 16384);
    EXPECT_TRUE(dynamic_cast<CCyInterruptEndPoint*>(i.endPoints[4]));
    EXPECT_EQ(i.endPoints[5], nullptr);
}

TEST(Descriptors, HeadsAreKept)
{
    const auto c = Parse(Config({ Interface(7, 6, 5) }), true);
    ASSERT_TRUE(c && c->interfaces[0]);
    const InterfaceObject& i = *c->interfaces[0];
    EXPECT_EQ((Bytes{ c->bLength, c->bDescriptorType, uint8_t(c->wTotalLength), c->bNumInterfaces, c->bConfigurationValue,
                      c->iConfiguration, c->bmAttributes, c->bMaxPower }),
              (Bytes{ 9, 2, 18, 1, 3, 4, 0x80, 50 }));
    EXPECT_EQ((Bytes{ i.bLength, i.bDescriptorType, i.bInterfaceNumber, i.bAlternateSetting, i.bNumEndpoints, i.bInterfaceClass,
                      i.bInterfaceSubClass, i.bInterfaceProtocol, i.iInterface }),
              Interface(7, 6, 5));
}

TEST(Descriptors, PlainParserSkipsCompanionsAsForeign)
{
    const auto c = Parse(Config({ Interface(0, 0, 2), EndPoint(0x81, 2), g_Companion, EndPoint(0x82, 2) }), false);
    ASSERT_TRUE(c);
    const InterfaceObject& i = *c->interfaces[0];
    EXPECT_EQ(i.endPoints[1]->m_iMaxPktSize, 1024);
    ASSERT_TRUE(i.endPoints[2]);
    EXPECT_EQ(i.wTotalLength, 9 + 7 + 6 + 7);
}

TEST(Descriptors, ElevenForeignDescriptorsAreSkippedTheTwelfthUsesUpTheSlot)
{
    for (const int n : { 11, 12 }) {
        Bytes foreign;
        for (int k = 0; k < n; ++k)
            foreign.insert(foreign.end(), g_Foreign.begin(), g_Foreign.end());
        const auto c = Parse(Config({ Interface(0, 0, 1), foreign, EndPoint(0x82, 2) }), true);
        ASSERT_TRUE(c);
        EXPECT_EQ(c->interfaces[0]->endPoints[1] != nullptr, n == 11);
    }
}

TEST(Descriptors, AlternateSettingsCountOverAllObjectsOfTheNumber)
{
    const auto c = Parse(Config({ Interface(0, 0, 0), Interface(1, 0, 0), g_Foreign, Interface(0, 1, 0) }), true);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->altInterfaces, 3);
    EXPECT_EQ(c->interfaces[0]->altSettings, 2);
    EXPECT_EQ(c->interfaces[1]->altSettings, 1);
    EXPECT_EQ(c->interfaces[2]->altSettings, 2);
}

TEST(Descriptors, LimitsAreKept)
{
    // Ten interfaces: eight are kept.
    Bytes ten;
    for (uint8_t k = 0; k < 10; ++k) {
        const Bytes i = Interface(k, 0, 0);
        ten.insert(ten.end(), i.begin(), i.end());
    }
    EXPECT_EQ(Parse(Config({ ten }), true)->altInterfaces, 8);

    // Forty endpoints: the table takes entries 1 to 31.
    Bytes forty = Interface(0, 0, 40);
    for (int k = 0; k < 40; ++k) {
        const Bytes e = EndPoint(0x82, 2);
        forty.insert(forty.end(), e.begin(), e.end());
    }
    const auto c = Parse(Config({ forty }), true);
    ASSERT_TRUE(c && c->interfaces[0]->endPoints[31]);
    EXPECT_EQ(c->interfaces[0]->wTotalLength, 9 + 40 * 7);
}

TEST(Descriptors, WhatIsCutOffIsAbsentWhatCannotBeWalkedThrows)
{
    const Bytes whole = Config({ Interface(0, 0, 1), EndPoint(0x82, 2), g_Companion });
    for (size_t n = 0; n <= whole.size(); ++n) {
        const auto c = Parse(Bytes(whole.begin(), whole.begin() + ptrdiff_t(n)), true);
        EXPECT_EQ(c != nullptr, n >= 9) << n;
        if (c) {
            EXPECT_EQ(c->interfaces[0] != nullptr, n >= 18) << n;
            if (n >= 18) {
                EXPECT_EQ(c->interfaces[0]->endPoints[1] != nullptr, n >= 25) << n;
            }
        }
    }
    Bytes zero = whole;
    zero[18] = 0;  // endpoint of length 0
    EXPECT_EQ(Parse(zero, true), nullptr);
    zero = Config({ { 0, 0x24 } });
    EXPECT_EQ(Parse(zero, true), nullptr);
}

TEST(Descriptors, Bos)
{
    Bytes b = { 5,    15, 42, 0, 3, 7, 16, 2, 0x78, 0x56, 0x34, 0x12, 10, 16, 3,  1,  0x0E, 0x00, 2,  10, 0xFF,
                0x07, 20, 16, 4, 0, 1, 2,  3, 4,    5,    6,    7,    8,  9,  10, 11, 12,   13,   14, 15, 16 };
    const std::unique_ptr<BosObject> o(ParseBos(b.data(), uint32_t(b.size())));
    ASSERT_TRUE(o->usb20 && o->superSpeed && o->containerId);
    EXPECT_EQ((Bytes{ o->bLength, o->bDescriptorType, uint8_t(o->wTotalLength), o->bNumDeviceCaps }), (Bytes{ 5, 15, 42, 3 }));
    EXPECT_EQ(o->usb20->attributes, 0x12345678u);
    EXPECT_EQ(o->superSpeed->bmAttributes + 16 * o->superSpeed->bFunctionalitySupport + 256 * o->superSpeed->bU1DevExitLat,
              0xA21);
    EXPECT_EQ(o->superSpeed->bDescriptorType, 16);
    EXPECT_EQ(o->superSpeed->wSpeedsSupported, 14);
    EXPECT_EQ(o->superSpeed->wU2DevExitLat, 0x7FF);
    EXPECT_EQ(o->containerId->containerId[0], 1);
    EXPECT_EQ(o->containerId->containerId[15], 16);
    const std::unique_ptr<BosObject> cut(ParseBos(b.data(), 30));
    EXPECT_TRUE(cut->superSpeed);
    EXPECT_FALSE(cut->containerId);
    b[5] = 0;
    EXPECT_THROW(ParseBos(b.data(), uint32_t(b.size())), const char*);
    EXPECT_THROW(ParseBos(b.data(), 4), const char*);
}

}  // namespace

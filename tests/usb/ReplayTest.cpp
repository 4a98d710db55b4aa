// The traffic of a session, byte by byte: opening a camera of a USB 3 port, a read and a write of the control endpoint, a
// buffered and a direct read, and the requests around them. It was recorded over the adapter (KOV_RECORD=1 prints it
// anew); every platform has to send the same bytes and to make the same of the answers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "platform/InterfaceGuids.h"
#include "tests/usb/FakeDriver.h"
#include "usb/CUsbLink.h"

namespace {

// One request a line: code, "sync" or "later", bytes in, size of the output buffer, error, bytes out.
const char* const g_szTraffic =
#include "tests/usb/Traffic.inc"
    ;

// Hexadecimal, with "(n)" for n zeros.
std::string Hex(const void* pData, size_t n)
{
    const auto* const p = static_cast<const uint8_t*>(pData);
    std::string s;
    char sz[4];
    for (size_t i = 0; i < n; ++i) {
        size_t zeros = 0;
        while (i + zeros < n && p[i + zeros] == 0)
            ++zeros;
        if (zeros >= 4) {
            s += '(' + std::to_string(zeros) + ')';
            i += zeros - 1;
            continue;
        }
        std::snprintf(sz, sizeof sz, "%02x", p[i]);
        s += sz;
    }
    return n == 0 ? "-" : s;
}

std::vector<uint8_t> Unhex(const std::string& hex)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; hex != "-" && i + 1 < hex.size();) {
        if (hex[i] == '(') {
            out.insert(out.end(), size_t(std::stoi(hex.substr(i + 1))), uint8_t{ 0 });
            i = hex.find(')', i) + 1;
        } else {
            out.push_back(uint8_t(std::stoi(hex.substr(i, 2), nullptr, 16)));
            i += 2;
        }
    }
    return out;
}

std::string Asked(uint32_t dwCode, bool bLater, const void* pIn, uint32_t dwIn, uint32_t dwOut)
{
    std::ostringstream s;
    s << std::hex << dwCode << (bLater ? " later " : " sync ") << Hex(pIn, dwIn) << ' ' << dwOut;
    return s.str();
}

// Passes on to the adapter and writes down what went by.
class Recorder : public ForwardDriver {
public:
    std::string sText;
    bool IoControl(platform::DeviceHandle h, uint32_t c, void* pIn, uint32_t dwIn, void* pOut, uint32_t dwOut, uint32_t* pdwBytes,
                   platform::Overlapped* o) override
    {
        const std::string sAsked = Asked(c, o != nullptr, pIn, dwIn, dwOut);
        const bool bOk = ForwardDriver::IoControl(h, c, pIn, dwIn, pOut, dwOut, pdwBytes, o);
        const uint32_t dwError = platform::LastError();
        uint32_t dwDone = *pdwBytes;
        if (dwError == platform::ERROR_PENDING) {
            platform::WaitEvent(o->hEvent, 5000);
            ForwardDriver::GetResult(h, o, &dwDone, true);
        }
        // What the caller finds: in its record when that is the output too, else in its buffer.
        sText += sAsked + ' ' + std::to_string(dwError) + ' ' + Hex(pOut, dwDone) + '\n';
        m_dwDone = dwDone;
        if (o && o->hEvent)
            platform::SignalEvent(o->hEvent);
        platform::SetLastError(dwError);
        return bOk;
    }
    bool GetResult(platform::DeviceHandle, platform::Overlapped*, uint32_t* pdwBytes, bool) override
    {
        *pdwBytes = m_dwDone;
        return true;
    }

private:
    uint32_t m_dwDone = 0;
};

// Answers from the record and holds every call against it.
class Replay : public FakeDriver {
public:
    explicit Replay(const char* szText) : m_text(szText) {}
    DevInfo GetClassDevs(const platform::Guid&) override { return this; }
    bool EnumInterface(DevInfo, uint32_t i) override
    {
        platform::SetLastError(i == 0 ? 0 : platform::ERROR_NO_MORE);
        return i == 0;
    }
    bool GetInterfacePath(DevInfo, uint32_t, std::string* ps) override { return *ps = "recorded", true; }
    platform::DeviceHandle Open(const char*) override { return 0x77; }
    bool IoControl(platform::DeviceHandle, uint32_t c, void* pIn, uint32_t dwIn, void* pOut, uint32_t dwOut, uint32_t* pdwBytes,
                   platform::Overlapped* o) override
    {
        std::string sCode, sWhen, sIn, sSize, sError, sOut;
        m_text >> sCode >> sWhen >> sIn >> sSize >> sError >> sOut;
        EXPECT_EQ(Asked(c, o != nullptr, pIn, dwIn, dwOut), sCode + ' ' + sWhen + ' ' + sIn + ' ' + sSize)
            << "request " << iRequests;
        ++iRequests;
        const std::vector<uint8_t> out = Unhex(sOut);
        if (out.size() <= dwOut && !out.empty())
            std::memcpy(pOut, out.data(), out.size());
        const uint32_t dwError = uint32_t(std::atoi(sError.c_str()));
        *pdwBytes = dwError == 0 ? uint32_t(out.size()) : 0;
        dwBytes = uint32_t(out.size());
        if (o && o->hEvent)
            platform::SignalEvent(o->hEvent);
        platform::SetLastError(dwError);
        return dwError == 0;
    }
    bool AtEnd() { return (m_text >> std::ws).eof(); }
    int iRequests = 0;

private:
    std::istringstream m_text;
};

void Session()
{
    CUsbLink link(nullptr, platform::g_InterfaceGuids[9], true);
    ASSERT_TRUE(link.IsOpen());
    EXPECT_EQ(link.m_productId, 0xC11A);
    EXPECT_EQ(link.m_language, 1033);
    EXPECT_EQ(std::memcmp(link.m_product, "c\0a\0m\0e\0r\0a\0", 12), 0);
    EXPECT_TRUE(link.m_superSpeed);
    ASSERT_TRUE(link.m_pControl && link.m_pBulkIn);

    CCyControlEndPoint& control = *link.m_pControl;
    control.m_iDirection = 1;
    control.m_iReqCode = 0xAD;
    control.m_iValue = 0x1234;
    control.m_iIndex = 0x0506;
    control.m_iTimeOut = 500;
    uint8_t ab[64] = { 9, 9, 9, 9 };
    int32_t iLength = 4;
    EXPECT_TRUE(control.XferData(ab, &iLength, nullptr));
    EXPECT_EQ(iLength, 4);
    EXPECT_EQ(Hex(ab, 4), "a0a1a2a3");
    control.m_iDirection = 0;
    control.m_iReqCode = 0xB8;
    ab[0] = 0x5A;
    iLength = 1;
    EXPECT_TRUE(control.XferData(ab, &iLength, nullptr));

    CCyUSBEndPoint& bulk = *link.m_pBulkIn;
    bulk.SetXferSize(1000);
    bulk.m_bDirect = 0;
    iLength = 8;
    EXPECT_TRUE(bulk.XferData(ab, &iLength, nullptr));
    EXPECT_EQ(Hex(ab, size_t(iLength)), "1011121314151617");
    bulk.m_bDirect = 1;
    iLength = 12;
    EXPECT_TRUE(bulk.XferData(ab, &iLength, nullptr));
    EXPECT_EQ(Hex(ab, size_t(iLength)), "101112131415161718191a1b");
    EXPECT_TRUE(bulk.Abort());
    EXPECT_TRUE(bulk.Reset());
    EXPECT_TRUE(link.ResetParentPort());
    link.Close();
}

}  // namespace

TEST(Replay, TheSameBytesOnEveryPlatform)
{
    if (std::getenv("KOV_RECORD")) {
        StackScope s;
        FakeUsbDevice& dev = s.stack.Add(0xC11A);
        dev.OnIn = [](const RecordedRequest&, uint8_t* p, uint16_t n) {
            for (uint16_t i = 0; i < n; ++i)
                p[i] = uint8_t(0xA0 + i);
        };
        dev.OnBulk = [](uint8_t* p, uint32_t n) {
            for (uint32_t i = 0; i < n; ++i)
                p[i] = uint8_t(0x10 + i);
            return int(n);
        };
        Recorder recorder;
        Session();
        std::istringstream lines(recorder.sText);
        for (std::string line; std::getline(lines, line);)
            std::printf("    \"%s\\n\"\n", line.c_str());
        return;
    }
    Replay replay(g_szTraffic);
    Session();
    EXPECT_TRUE(replay.AtEnd()) << "fewer requests than recorded";
}

#include "base/Log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "base/Trace.h"
#include "platform/Platform.h"

namespace {

class LogTest : public ::testing::Test {
protected:
    ~LogTest() override
    {
        logging::Configure(nullptr, nullptr);
        std::filesystem::remove(m_path);
    }
    std::vector<std::string> Lines() const
    {
        std::ifstream in(m_path);
        std::vector<std::string> a;
        for (std::string s; std::getline(in, s);)
            a.push_back(s);
        return a;
    }
    const std::filesystem::path m_path = std::filesystem::temp_directory_path() / ("kovlog-" + std::to_string(::getpid()));
};

}  // namespace

TEST_F(LogTest, LevelsAndRoomsChooseTheLines)
{
    const struct {
        const char* szLog;
        size_t uLines;
    } rows[] = { { nullptr, 0 }, { "", 0 },      { "off", 0 },   { "error", 1 }, { "warn", 2 },
                 { "info", 3 },  { "debug", 4 }, { "trace", 5 }, { "loud", 0 },  { "trace:usb", 1 } };
    for (const auto& row : rows) {
        logging::Configure(nullptr, nullptr);  // an open file cannot be removed on Windows
        std::filesystem::remove(m_path);
        logging::Configure(row.szLog, m_path.string().c_str());
        int iEvaluated = 0;
        KOV_LOG(Error, "%d", ++iEvaluated);
        KOV_LOG(Warn, "%d", ++iEvaluated);
        KOV_LOG(Info, "%d", ++iEvaluated);
        if (logging::Enabled(LogLevel::Debug))
            logging::Write(LogLevel::Debug, logging::RoomOf("/any/src/usb/CUsbLink.cpp"), "%d", ++iEvaluated);
        TraceLine("%d\n", ++iEvaluated);
        EXPECT_EQ(Lines().size(), row.uLines) << (row.szLog ? row.szLog : "not set");
        if (!logging::Enabled(LogLevel::Trace)) {
            EXPECT_EQ(size_t(iEvaluated), row.uLines);
        }
    }
}

// A thread works for the camera of the thread that started it; lines of many threads never mix.
TEST_F(LogTest, LinesAreWholeAndNameThreadAndCamera)
{
    logging::Configure("info", m_path.string().c_str());
    {
        const logging::CameraScope scope({ 3, "QuartzCol" });
        platform::Thread a[4];
        for (auto& thread : a)
            thread.Start(
                [](void*) {
                    logging::SetThreadName("worker");
                    for (int i = 0; i < 200; ++i)
                        KOV_LOG(Info, "two\nparts %s\n", std::string(1200, 'x').c_str());
                },
                nullptr);
    }
    KOV_LOG(Info, "outside");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 801u);
    const std::regex form(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} info  worker-\d+ 3:QuartzCol \S+: two parts x{800,})");
    for (size_t i = 0; i < 800; ++i)
        ASSERT_TRUE(std::regex_match(lines[i], form)) << lines[i];
    EXPECT_NE(lines[800].find(" - "), std::string::npos);
}

#include "exchange/FrameExchange.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

bool Insert(FrameExchange& fx, const Bytes& b) { return fx.Insert(b.data(), int32_t(b.size())); }
Bytes Read(FrameExchange& fx, size_t n, uint32_t ms = 0)
{
    Bytes b(n);
    return fx.Read(b.data(), int32_t(n), ms) ? b : Bytes{};
}

TEST(FrameExchange, KeepsTheTwoOldestInOrder)
{
    FrameExchange fx(4);
    EXPECT_TRUE(Read(fx, 4).empty());
    EXPECT_FALSE(fx.Insert(nullptr, 4));
    for (uint8_t round = 0; round < 3; ++round) {
        EXPECT_TRUE(Insert(fx, Bytes(4, uint8_t(10 + round))));
        EXPECT_TRUE(Insert(fx, Bytes(4, uint8_t(20 + round))));
        EXPECT_FALSE(Insert(fx, Bytes(4, 99)));
        EXPECT_EQ(fx.Count(), 2);
        EXPECT_EQ(Read(fx, 4), Bytes(4, uint8_t(10 + round)));
        EXPECT_EQ(Read(fx, 4), Bytes(4, uint8_t(20 + round)));
        EXPECT_EQ(fx.Count(), 0);
        EXPECT_TRUE(Read(fx, 4).empty());
        EXPECT_EQ(fx.Count(), 0);
    }
}

TEST(FrameExchange, StaysInsideItsSlots)
{
    FrameExchange fx(8);
    EXPECT_TRUE(Insert(fx, Bytes(100, 5)));
    Bytes b(100, 1);
    EXPECT_TRUE(fx.Read(b.data(), 100, 0));
    EXPECT_EQ(b[7], 5);
    EXPECT_EQ(b[8], 1);
    EXPECT_TRUE(fx.Insert(b.data(), -1));
    EXPECT_TRUE(fx.Read(b.data(), -5, 0));
}

TEST(FrameExchange, StaleSignalCostsASecondWait)
{
    FrameExchange fx(4);
    EXPECT_TRUE(Insert(fx, Bytes(4, 1)));
    EXPECT_EQ(Read(fx, 4), Bytes(4, 1));  // without a wait: the signal stays behind
    const uint32_t dwStart = platform::Ticks();
    EXPECT_TRUE(Read(fx, 4, 300).empty());
    const uint32_t dwOnce = platform::Ticks() - dwStart;
    EXPECT_GE(dwOnce, 295u);
    EXPECT_LT(dwOnce, 590u);  // the first wait ended at once
    // Now the signal is gone, and one wait is all.
    EXPECT_TRUE(Read(fx, 4, 10).empty());

    EXPECT_TRUE(Insert(fx, Bytes(4, 2)));
    fx.Reset();
    EXPECT_EQ(fx.Count(), 0);
    std::thread producer([&] {
        platform::SleepMs(50);
        Insert(fx, Bytes(4, 3));
    });
    EXPECT_EQ(Read(fx, 4, 2000), Bytes(4, 3));  // arrives during the second wait
    producer.join();
}

TEST(FrameExchange, PeekHeadLeavesTheFrame)
{
    FrameExchange fx(8);
    EXPECT_FALSE(fx.PeekHead(0x04030201, 5));
    EXPECT_TRUE(Insert(fx, { 1, 2, 3, 4, 9, 9, 9, 9 }));
    EXPECT_TRUE(fx.PeekHead(0x04030201, 0));
    EXPECT_FALSE(fx.PeekHead(0x04030202, 0));
    EXPECT_EQ(fx.Count(), 1);
    EXPECT_EQ(Read(fx, 8), (Bytes{ 1, 2, 3, 4, 9, 9, 9, 9 }));
    // QUIRK: the signal that the reader left lets a peek answer for the frame that lay there before.
    EXPECT_FALSE(fx.PeekHead(0x04030201, 0));
}

TEST(FrameExchange, LeaseKeepsItsMemoryWhileTheRingGoesOn)
{
    auto fx = std::make_unique<FrameExchange>(8);
    EXPECT_FALSE(fx->Take(8, 0));
    EXPECT_TRUE(Insert(*fx, Bytes(8, 1)));
    FrameExchange::Lease a = fx->Take(8, 0);
    ASSERT_TRUE(a);
    for (uint8_t i = 2; i < 8; ++i) {
        EXPECT_TRUE(Insert(*fx, Bytes(3, i)));
        FrameExchange::Lease b = fx->Take(100, 0);  // no byte of an older frame behind a shorter one
        EXPECT_EQ(Bytes(b.Frame(), b.Frame() + 8), (Bytes{ i, i, i, 0, 0, 0, 0, 0 }));
        EXPECT_TRUE(Insert(*fx, Bytes(2, i)));
        EXPECT_EQ(Read(*fx, 4), (Bytes{ i, i, 0, 0 }));
    }
    EXPECT_EQ(Bytes(a.Frame(), a.Frame() + 8), Bytes(8, 1));
    // A block goes through as it is, and the producer gets another one each time, none of which anybody else holds.
    uint8_t* p = fx->MakeBlock();
    for (uint8_t i = 0; i < 6; ++i) {
        uint8_t* const pFrame = p;
        std::memset(p, 50 + i, 8);
        ASSERT_NE(p = fx->HandOver(pFrame, 6), nullptr);
        ASSERT_NE(p, pFrame);
        std::memset(p, 99, 8);
        const FrameExchange::Lease b = fx->Take(8, 0);
        ASSERT_TRUE(b);
        EXPECT_EQ(b.Frame(), pFrame);
        EXPECT_EQ(b.Frame()[5] * 256 + b.Frame()[6], (50 + i) * 256);
    }
    EXPECT_TRUE(Insert(*fx, Bytes(8, 1)) && Insert(*fx, Bytes(8, 1)));
    EXPECT_EQ(fx->HandOver(p, 8), nullptr);
    EXPECT_EQ(a.Frame()[0], 1);
    std::thread closer([&] { fx.reset(); });
    platform::SleepMs(20);
    a.Frame()[7] = 9;  // the exchange waits for its lease
    a = {};
    closer.join();
}

class AtFullSpeed : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(FrameExchange, AtFullSpeed, testing::Bool());

TEST_P(AtFullSpeed, ProducerAndConsumer)
{
    constexpr int N = 20000;
    const auto read = [](FrameExchange& fx, uint8_t* p) {
        if (!GetParam())
            return fx.Read(p, 256, 5000);
        const FrameExchange::Lease lease = fx.Take(256, 5000);
        if (lease)
            std::memcpy(p, lease.Frame(), 256);
        return bool(lease);
    };
    FrameExchange fx(256);
    std::atomic<bool> bStop{ false };
    std::thread producer([&] {
        Bytes b(256);
        for (int i = 1; i <= N && !bStop;) {
            std::memset(b.data(), i & 0xFF, b.size());
            std::memcpy(b.data(), &i, sizeof i);
            if (Insert(fx, b))
                ++i;
            else
                std::this_thread::yield();
        }
    });
    int iLast = 0, nMissed = 0;
    Bytes b(256);
    while (iLast < N && nMissed < 1000) {
        // Two late signals in a row wake a reader twice for nothing: it then gives up early, as told, and asks again.
        if (!read(fx, b.data())) {
            ++nMissed;
            continue;
        }
        int i;
        std::memcpy(&i, b.data(), sizeof i);
        if (i != iLast + 1 || b[255] != uint8_t(i))
            break;
        iLast = i;
    }
    bStop = true;
    producer.join();
    EXPECT_EQ(iLast, N);
    EXPECT_LT(nMissed, 1000);
}

TEST(FrameExchange, OneConsumerAtATimeAndNoneAfterTheEnd)
{
    auto fx = std::make_unique<FrameExchange>(16);
    {
        const FrameExchange::Turn first(*fx, 0);
        EXPECT_TRUE(first);
        std::thread([&] {
            const FrameExchange::Turn second(*fx, 20);
            EXPECT_FALSE(second);
        }).join();
    }
    std::atomic<bool> bResult{ true };
    FrameExchange* const p = fx.get();
    std::thread reader([p, &bResult] {
        const FrameExchange::Turn turn(*p, 0);
        uint8_t a[16];
        bResult = p->Read(a, 16, platform::WAIT_FOREVER);
    });
    platform::SleepMs(30);
    fx.reset();
    reader.join();
    EXPECT_FALSE(bResult);
}

}  // namespace

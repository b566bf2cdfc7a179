// hw_mp_setstate / BanSleep call log and the shared media-player record.
#include "host_platform.h"
#include "mp_state.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

std::vector<host_platform_call> Calls() {
    std::vector<host_platform_call> out(host_platform_calls(nullptr, 0));
    out.resize(host_platform_calls(out.data(), out.size()));
    return out;
}

class platform_calls : public ::testing::Test {
protected:
    void SetUp() override { host_platform_clear_calls(); }
    void TearDown() override { host_platform_clear_calls(); }
};

TEST_F(platform_calls, RecordedInOrder) {
    hw_mp_setstate(2);
    hw_mp_setstate(3);
    BanSleep(4);
    hw_mp_setstate(0);
    auto calls = Calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].kind, 'S');
    EXPECT_EQ(calls[0].value, 2);
    EXPECT_EQ(calls[1].kind, 'S');
    EXPECT_EQ(calls[1].value, 3);
    EXPECT_EQ(calls[2].kind, 'B');
    EXPECT_EQ(calls[2].value, 4);
    EXPECT_EQ(calls[3].kind, 'S');
    EXPECT_EQ(calls[3].value, 0);
}

TEST_F(platform_calls, ClearEmptiesTheLog) {
    hw_mp_setstate(2);
    host_platform_clear_calls();
    EXPECT_EQ(host_platform_calls(nullptr, 0), 0u);
    BanSleep(1);
    auto calls = Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, 'B');
}

TEST_F(platform_calls, CopiesAtMostMaxOldestFirst) {
    for (int i = 0; i < 5; i++)
        hw_mp_setstate(i);
    host_platform_call out[3];
    std::memset(out, 0x7F, sizeof out);
    EXPECT_EQ(host_platform_calls(out, 2), 5u);
    EXPECT_EQ(out[0].value, 0);
    EXPECT_EQ(out[1].value, 1);
    EXPECT_EQ(out[2].kind, 0x7F) << "wrote past max";
}

TEST_F(platform_calls, BoundedLogKeepsTheMostRecentCalls) {
    constexpr int kCapacity = 65536, kExtra = 1000;
    for (int i = 0; i < kCapacity + kExtra; i++)
        hw_mp_setstate(i);
    auto calls = Calls();
    ASSERT_EQ(calls.size(), static_cast<size_t>(kCapacity));
    EXPECT_EQ(calls.front().value, kExtra);
    EXPECT_EQ(calls.back().value, kCapacity + kExtra - 1);
    for (size_t i = 1; i < calls.size(); i++)
        ASSERT_EQ(calls[i].value, calls[i - 1].value + 1) << i;
}

TEST_F(platform_calls, ConcurrentCallsAreAllRecordedInEachThreadsOrder) {
    constexpr int kThreads = 4, kCalls = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < kCalls; i++) {
                if (t % 2)
                    BanSleep(t * kCalls + i);
                else
                    hw_mp_setstate(t * kCalls + i);
            }
        });
    for (auto &th : threads)
        th.join();
    auto calls = Calls();
    ASSERT_EQ(calls.size(), static_cast<size_t>(kThreads * kCalls));
    std::vector<int> next(kThreads);
    for (const auto &c : calls) {
        int t = c.value / kCalls;
        ASSERT_EQ(c.kind, t % 2 ? 'B' : 'S');
        ASSERT_EQ(c.value % kCalls, next[t]++);
    }
}

TEST(platform_record, VolumeAtOffset96RoundTrips) {
    ASSERT_NE(pkmpc, nullptr);
    auto *raw = reinterpret_cast<unsigned char *>(pkmpc);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(raw) % 8, 0u);
    for (std::int16_t v : {std::int16_t(73), std::int16_t(0), std::int16_t(100), std::int16_t(-1),
                           std::int16_t(0x1234)}) {
        mp_control_set_volume(v);
        std::int16_t at96;
        std::memcpy(&at96, raw + 96, sizeof at96);
        EXPECT_EQ(at96, v);
        EXPECT_EQ(mp_control_volume(), v);
    }
    std::int16_t direct = 55;
    std::memcpy(raw + 96, &direct, sizeof direct);
    EXPECT_EQ(mp_control_volume(), 55);
    mp_control_set_volume(0);
}

TEST(platform_record, RecordIsZeroedAroundTheVolume) {
    const auto *raw = reinterpret_cast<const unsigned char *>(pkmpc);
    for (int i = 0; i < 128; i++) {
        if (i != 96 && i != 97) {
            EXPECT_EQ(raw[i], 0) << "byte " << i;
        }
    }
}

TEST(platform_record, VolumeIsSafeAcrossThreads) {
    std::thread writer([] {
        for (int i = 0; i < 10000; i++)
            mp_control_set_volume(static_cast<std::int16_t>(i % 101));
    });
    int seen_bad = 0;
    for (int i = 0; i < 10000; i++) {
        int v = mp_control_volume();
        if (v < 0 || v > 100)
            seen_bad++;
    }
    writer.join();
    EXPECT_EQ(seen_bad, 0);
    mp_control_set_volume(0);
}

} // namespace

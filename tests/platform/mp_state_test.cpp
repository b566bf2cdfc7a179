// hw_mp_setstate / BanSleep call recording and the shared media-player record.
#include "host_platform.h"
#include "mp_state.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace {

TEST(platform_calls, RecordedInOrderCopiedUpToMaxAndCleared) {
    host_platform_clear_calls();
    hw_mp_setstate(2);
    hw_mp_setstate(3);
    BanSleep(4);
    hw_mp_setstate(0);
    hw_mp_setstate(2);
    // Five calls held; room for four: the first four are copied and nothing past them.
    host_platform_call out[5];
    std::memset(out, 0x7F, sizeof out);
    ASSERT_EQ(host_platform_calls(out, 4), 5u);
    std::string text;
    for (int i = 0; i < 4; ++i)
        text += std::string(1, out[i].kind) + std::to_string(out[i].value) + " ";
    EXPECT_EQ(text, "S2 S3 B4 S0 ");
    EXPECT_EQ(out[4].kind, 0x7F) << "wrote past max";
    std::memset(out, 0x7F, sizeof out);
    EXPECT_EQ(host_platform_calls(out, 1), 5u);
    EXPECT_EQ(out[0].kind, 'S');
    EXPECT_EQ(out[1].kind, 0x7F) << "wrote past max";
    host_platform_clear_calls();
    EXPECT_EQ(host_platform_calls(nullptr, 0), 0u);
}

TEST(platform_record, VolumeAtOffset96InAZeroedRecord) {
    ASSERT_NE(pkmpc, nullptr);
    auto *raw = reinterpret_cast<unsigned char *>(pkmpc);
    for (std::int16_t v : {std::int16_t(73), std::int16_t(-1), std::int16_t(0x1234)}) {
        mp_control_set_volume(v);
        std::int16_t at96;
        std::memcpy(&at96, raw + 96, sizeof at96);
        EXPECT_EQ(at96, v);
        EXPECT_EQ(mp_control_volume(), v);
    }
    mp_control_set_volume(0);
    for (int i = 0; i < 128; i++)
        EXPECT_EQ(raw[i], 0) << "byte " << i;
}

} // namespace

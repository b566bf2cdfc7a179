// Hardware volume: the 0..100 mapping onto the control's range both ways, and the ramp.
#include <string>
#include <utility>
#include <vector>

#include "output_fixture.h"

namespace {

class MixerTest : public OutputTest {
protected:
    static std::vector<long> writes() {
        std::vector<long> out(4096);
        out.resize(vcard_mixer_writes(out.data(), out.size()));
        return out;
    }

    long set_and_read_control(int volume) {
        EXPECT_EQ(AlsaMixerSetVolume(volume), 0);
        return vcard_mixer_value();
    }
};

// The 0..100 volume onto the control's range (capped and floored) and a control value back.
TEST_F(MixerTest, VolumeMapsOntoTheControlRangeAndBack) {
    const struct {
        long min, max;
        std::vector<std::pair<int, long>> sets; // volume set -> control value
        long value;
        long read; // volume read back from `value`
    } cases[] = {
        {0, 255, {{50, 127}, {100, 255}, {0, 0}, {101, 255}, {-1, 0}}, 127, 49},
        {10, 20, {{55, 15}, {100, 20}, {0, 10}}, 17, 70},
        {5, 5, {}, 5, 0}, // an empty range reads as 0
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.min) + ".." + std::to_string(c.max));
        vcard_setup();
        vcard_set_mixer_range(c.min, c.max);
        ASSERT_EQ(AlsaMixerInit("mpd_volume"), 0);
        for (const auto &set : c.sets)
            EXPECT_EQ(set_and_read_control(set.first), set.second) << "volume " << set.first;
        vcard_set_mixer_value(c.value);
        long volume = -5;
        ASSERT_EQ(AlsaMixerGetVolume(&volume), 0);
        EXPECT_EQ(volume, c.read);
        AlsaMixerDestroy();
    }
}

TEST_F(MixerTest, MissingControlOrMissingInit) {
    long volume = 42;
    EXPECT_EQ(AlsaMixerSetVolume(50), -1);
    EXPECT_EQ(AlsaMixerGetVolume(&volume), 2);
    EXPECT_EQ(volume, 42);
    EXPECT_EQ(AlsaMixerInit(nullptr), 2);

    ae_test::StderrCapture err;
    vcard_hide_mixer(1);
    EXPECT_EQ(AlsaMixerInit("mpd_volume"), 2);
    EXPECT_NE(err.text().find("Unable to find simple control 'mpd_volume',0"), std::string::npos)
        << err.text();
    EXPECT_EQ(AlsaMixerSetVolume(50), -1);
    EXPECT_EQ(AlsaMixerDestroy(), 1);
}

TEST_F(MixerTest, DirectSetWritesItsTraceToStandardError) {
    vcard_set_mixer_range(0, 255);
    ASSERT_EQ(AlsaMixerInit("mpd_volume"), 0);
    ae_test::StderrCapture err;
    ASSERT_EQ(AlsaMixerSetVolume(50), 0);
    std::string text = err.text();
    EXPECT_NE(text.find("AlsaMixerSetVolume(): Enter (50)\n"), std::string::npos) << text;
    EXPECT_NE(text.find("get_playback v = 127, vol = 50, min = 0, max = 255\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("snd_mixer_selem_set_playback_volume_all returns 0\n"), std::string::npos)
        << text;
}

TEST_F(MixerTest, RampMovesOneUnitPerStepUntilItReachesItsTarget) {
    // Range 3..103 maps volume v to 3 + v, so volume 100 is control value 103.
    vcard_set_mixer_range(3, 103);
    vcard_set_mixer_value(100);
    ASSERT_EQ(AlsaMixerInit("mpd_volume"), 0);
    ASSERT_EQ(AlsaMixerSetSoftVolume(100), 0);
    ASSERT_EQ(AlsaMixerDestroy(), 1); // joins the ramp
    EXPECT_EQ(writes(), (std::vector<long>{101, 102, 103}));
}

TEST_F(MixerTest, RampToTheCurrentValueStepsDownAndBack) {
    vcard_set_mixer_range(0, 100);
    vcard_set_mixer_value(50);
    ASSERT_EQ(AlsaMixerInit("mpd_volume"), 0);
    ASSERT_EQ(AlsaMixerSetSoftVolume(50), 0);
    ASSERT_EQ(AlsaMixerDestroy(), 1);
    EXPECT_EQ(writes(), (std::vector<long>{49, 50}));
}

TEST_F(MixerTest, SecondRampStartsWhenTheFirstHasArrived) {
    vcard_set_mixer_range(0, 100);
    vcard_set_mixer_value(0);
    ASSERT_EQ(AlsaMixerInit("mpd_volume"), 0);
    ASSERT_EQ(AlsaMixerSetSoftVolume(5), 0);
    ASSERT_EQ(AlsaMixerSetSoftVolume(2), 0);
    // A direct set waits for the running ramp too.
    ASSERT_EQ(AlsaMixerSetVolume(7), 0);
    AlsaMixerDestroy();
    EXPECT_EQ(writes(), (std::vector<long>{1, 2, 3, 4, 5, 4, 3, 2, 7}));
}

} // namespace

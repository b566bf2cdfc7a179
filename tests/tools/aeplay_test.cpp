// aeplay: option parsing, play-list building, and runs of the program into WAV files.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "aeplay_options.h"
#include "aeplay_output.h"
#include "aeplay_playlist.h"
#include "test_support.h"

namespace {

bool parse(std::vector<const char *> args, aeplay::Options *options, std::string *error) {
    args.insert(args.begin(), "aeplay");
    return aeplay::parse_options(static_cast<int>(args.size()), args.data(), options, error);
}

// A fresh scratch folder for one test.
std::string scratch(const std::string &name) {
    const std::string dir = ae_test::tmp_path("aeplay_" + name);
    std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
    return dir;
}

void touch(const std::string &path, const std::string &text = "x") {
    std::ofstream(path) << text;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs aeplay with the system's ALSA configuration (not the virtual card's) and no terminal;
// returns its exit status and what it wrote.
int run_aeplay(const std::string &args, const std::string &dir, std::string *out,
               std::string *err) {
    const std::string command = "env -u ALSA_CONFIG_PATH TMPDIR='" + dir + "' " AEPLAY_BIN " " +
                                args + " </dev/null >'" + dir + "/out.txt' 2>'" + dir + "/err.txt'";
    const int status = std::system(command.c_str());
    *out = read_file(dir + "/out.txt");
    *err = read_file(dir + "/err.txt");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

// --- Options ---------------------------------------------------------------------------------

TEST(AeplayOptions, DefaultsWithOneInput) {
    aeplay::Options o;
    std::string error;
    ASSERT_TRUE(parse({"book.mp3"}, &o, &error)) << error;
    EXPECT_EQ(o.inputs, std::vector<std::string>{"book.mp3"});
    EXPECT_DOUBLE_EQ(o.tempo, 1.0);
    EXPECT_DOUBLE_EQ(o.rate, 1.0);
    EXPECT_TRUE(o.eq.empty());
    EXPECT_EQ(o.mode, 2); // Sequential
    EXPECT_EQ(o.start, -1);
    EXPECT_FALSE(o.info);
    EXPECT_TRUE(o.device.empty());
    EXPECT_TRUE(o.wav.empty());
}

TEST(AeplayOptions, EveryOption) {
    aeplay::Options o;
    std::string error;
    ASSERT_TRUE(parse({"--tempo", "1.5", "--rate=0.75", "--eq", "100:-30,8000:30", "--mode",
                       "shuffle", "--start", "90", "--wav", "out.wav", "--info", "--cover", "c.png",
                       "--fallback-wav", "f.wav", "a.mp3", "--", "-odd name.mp3"},
                      &o, &error))
        << error;
    EXPECT_DOUBLE_EQ(o.tempo, 1.5);
    EXPECT_DOUBLE_EQ(o.rate, 0.75);
    EXPECT_EQ(o.eq, (std::vector<std::pair<int, int>>{{100, -30}, {8000, 30}}));
    EXPECT_EQ(o.mode, 3);
    EXPECT_EQ(o.start, 90);
    EXPECT_EQ(o.wav, "out.wav");
    EXPECT_TRUE(o.info);
    EXPECT_EQ(o.cover, "c.png");
    EXPECT_EQ(o.fallbackWav, "f.wav");
    EXPECT_EQ(o.inputs, (std::vector<std::string>{"a.mp3", "-odd name.mp3"}));
}

TEST(AeplayOptions, ModesByNameAndNumber) {
    EXPECT_EQ(aeplay::mode_from_name("repeat-track"), 0);
    EXPECT_EQ(aeplay::mode_from_name("repeat-list"), 1);
    EXPECT_EQ(aeplay::mode_from_name("sequential"), 2);
    EXPECT_EQ(aeplay::mode_from_name("3"), 3);
    EXPECT_EQ(aeplay::mode_from_name("loop"), -1);
    EXPECT_STREQ(aeplay::mode_name(1), "repeat-list");
    EXPECT_STREQ(aeplay::mode_name(42), "repeat-track");
}

TEST(AeplayOptions, HelpNeedsNoInput) {
    aeplay::Options o;
    std::string error;
    ASSERT_TRUE(parse({"--help"}, &o, &error)) << error;
    EXPECT_TRUE(o.help);
    EXPECT_NE(aeplay::usage_text().find("--wav"), std::string::npos);
}

TEST(AeplayOptions, BadArgumentsAreRefusedWithOneLine) {
    const std::vector<std::vector<const char *>> bad = {
        {},
        {"--tempo", "5", "a.mp3"},
        {"--tempo", "fast", "a.mp3"},
        {"--tempo=0.2", "a.mp3"},
        {"--rate", "2.5", "a.mp3"},
        {"--rate", "nan", "a.mp3"},
        {"--eq", "60", "a.mp3"},
        {"--eq", "60:3,x:1", "a.mp3"},
        {"--eq", "60:99", "a.mp3"},
        {"--eq", "0:3", "a.mp3"},
        {"--eq", "60:3,", "a.mp3"},
        {"--mode", "loop", "a.mp3"},
        {"--start", "-3", "a.mp3"},
        {"--start", "soon", "a.mp3"},
        {"--bogus", "a.mp3"},
        {"a.mp3", "--tempo"},
        {"--info=yes", "a.mp3"},
        {"--device", "hw:0", "--wav", "x.wav", "a.mp3"},
        {"--wav", "", "a.mp3"},
        {"--start", "2147484", "a.mp3"}, // beyond the player's 32-bit milliseconds
        {"--start", "1e10", "a.mp3"},
        {"--wav", "--info", "a.mp3"}, // a forgotten value must not swallow the next option
        {"--cover", "-c.png", "a.mp3"},
        {"--device", "-", "a.mp3"},
        {"--fallback-wav", "--tempo", "2", "a.mp3"},
    };
    for (const auto &args : bad) {
        aeplay::Options o;
        std::string error;
        std::string joined;
        for (const char *a : args)
            joined += std::string(a) + " ";
        EXPECT_FALSE(parse(args, &o, &error)) << joined;
        EXPECT_FALSE(error.empty()) << joined;
        EXPECT_EQ(error.find('\n'), std::string::npos) << joined;
    }
}

TEST(AeplayOptions, LargestStartAndNamesStartingWithADash) {
    aeplay::Options o;
    std::string error;
    ASSERT_TRUE(
        parse({"--start", "2147483", "--wav=-out.wav", "--cover=--c.png", "a.mp3"}, &o, &error))
        << error;
    EXPECT_EQ(o.start, 2147483);
    EXPECT_EQ(o.wav, "-out.wav");
    EXPECT_EQ(o.cover, "--c.png");
    ASSERT_FALSE(parse({"--wav", "--info", "a.mp3"}, &o, &error));
    EXPECT_NE(error.find("--wav=NAME"), std::string::npos) << error;
}

// --- Play list ---------------------------------------------------------------------------------

TEST(AeplayPlayList, FolderGivesItsAudioFilesSortedWithSubfolders) {
    const std::string dir = scratch("folder");
    for (const char *name :
         {"b.mp3", "a.flac", "notes.txt", "cover.jpg", ".hidden.mp3", "C.OGG", "list.m3u"})
        touch(dir + "/" + name);
    mkdir((dir + "/b2").c_str(), 0755);
    touch(dir + "/b2/inner.opus");
    const aeplay::PlayList list = aeplay::build_playlist({dir});
    EXPECT_TRUE(list.errors.empty());
    EXPECT_EQ(list.paths, (std::vector<std::string>{dir + "/C.OGG", dir + "/a.flac", dir + "/b.mp3",
                                                    dir + "/b2/inner.opus"}));
}

TEST(AeplayPlayList, M3uEntriesRelativeToThePlaylist) {
    const std::string dir = scratch("m3u");
    mkdir((dir + "/sub").c_str(), 0755);
    touch(dir + "/sub/one.mp3");
    touch(dir + "/two.wav");
    touch(dir + "/sub/list.m3u8", "\xEF\xBB\xBF#EXTM3U\r\n#EXTINF:3,One\r\none.mp3\r\n\r\n"
                                  "../two.wav\r\n" +
                                      dir + "/sub/one.mp3\nmissing.mp3\n");
    const aeplay::PlayList list = aeplay::build_playlist({dir + "/sub/list.m3u8"});
    EXPECT_EQ(list.paths, (std::vector<std::string>{dir + "/sub/one.mp3", dir + "/sub/../two.wav",
                                                    dir + "/sub/one.mp3"}));
    ASSERT_EQ(list.errors.size(), 1u);
    EXPECT_NE(list.errors[0].find("missing.mp3"), std::string::npos);
}

TEST(AeplayPlayList, PlaylistThatNamesItselfListsItsTracksOnce) {
    const std::string dir = scratch("m3u_loop");
    touch(dir + "/a.mp3");
    touch(dir + "/b.mp3");
    touch(dir + "/loop.m3u", "a.mp3\nloop.m3u\nb.mp3\n");
    const aeplay::PlayList list = aeplay::build_playlist({dir + "/loop.m3u"});
    EXPECT_EQ(list.paths, (std::vector<std::string>{dir + "/a.mp3", dir + "/b.mp3"}));
    ASSERT_EQ(list.errors.size(), 1u);
    EXPECT_NE(list.errors[0].find("includes itself"), std::string::npos) << list.errors[0];
}

TEST(AeplayPlayList, PlaylistsNamingEachOtherListEachTrackOnce) {
    const std::string dir = scratch("m3u_pair");
    touch(dir + "/a.mp3");
    touch(dir + "/b.mp3");
    touch(dir + "/one.m3u", "a.mp3\ntwo.m3u\n");
    touch(dir + "/two.m3u", "one.m3u\nb.mp3\n");
    const aeplay::PlayList list = aeplay::build_playlist({dir + "/one.m3u"});
    EXPECT_EQ(list.paths, (std::vector<std::string>{dir + "/a.mp3", dir + "/b.mp3"}));
    EXPECT_EQ(list.errors.size(), 1u);
}

TEST(AeplayPlayList, FolderLinkedIntoItselfListsEachFileOnce) {
    const std::string dir = scratch("folder_loop");
    touch(dir + "/a.mp3");
    mkdir((dir + "/sub").c_str(), 0755);
    touch(dir + "/sub/b.mp3");
    ASSERT_EQ(symlink(".", (dir + "/self").c_str()), 0);
    ASSERT_EQ(symlink("..", (dir + "/sub/up").c_str()), 0);
    const aeplay::PlayList list = aeplay::build_playlist({dir});
    EXPECT_EQ(list.paths, (std::vector<std::string>{dir + "/a.mp3", dir + "/sub/b.mp3"}));
    ASSERT_EQ(list.errors.size(), 2u);
    for (const std::string &e : list.errors)
        EXPECT_NE(e.find("leads back into itself"), std::string::npos) << e;
}

TEST(AeplayPlayList, TheSameFolderTwiceIsListedTwice) {
    const std::string dir = scratch("folder_twice");
    touch(dir + "/a.mp3");
    const aeplay::PlayList list = aeplay::build_playlist({dir, dir});
    EXPECT_EQ(list.paths, (std::vector<std::string>{dir + "/a.mp3", dir + "/a.mp3"}));
    EXPECT_TRUE(list.errors.empty());
}

TEST(AeplayPlayList, NestingLimitIsReported) {
    const std::string dir = scratch("folder_deep");
    std::string path = dir;
    for (int i = 0; i < 10; ++i) {
        path += "/d";
        mkdir(path.c_str(), 0755);
        touch(path + "/t.mp3");
    }
    const aeplay::PlayList list = aeplay::build_playlist({dir});
    EXPECT_EQ(list.paths.size(), 8u);
    ASSERT_EQ(list.errors.size(), 1u);
    EXPECT_NE(list.errors[0].find("nested too deeply"), std::string::npos) << list.errors[0];
}

TEST(AeplayPlayList, ZipArchiveGivesItsAudioMembersInOrder) {
    const std::string dir = scratch("zip");
    touch(dir + "/part02.mp3");
    touch(dir + "/part01.mp3");
    touch(dir + "/readme.txt");
    const std::string zip = dir + "/book.zip";
    ASSERT_EQ(std::system(("cd '" + dir +
                           "' && " AE_ZIP_TOOL " -q book.zip part02.mp3 readme.txt part01.mp3")
                              .c_str()),
              0);
    const aeplay::PlayList list = aeplay::build_playlist({zip});
    EXPECT_TRUE(list.errors.empty());
    EXPECT_EQ(list.paths,
              (std::vector<std::string>{zip + ":#zip(part02.mp3)", zip + ":#zip(part01.mp3)"}));
    EXPECT_EQ(aeplay::display_name(list.paths[1]), "part01.mp3");
}

TEST(AeplayPlayList, ZipArchiveLeavesOutHiddenMembers) {
    const std::string dir = scratch("zip_hidden");
    for (const char *sub : {"/__MACOSX", "/cd1", "/.trash"})
        mkdir((dir + sub).c_str(), 0755);
    for (const char *name : {"/part01.mp3", "/.part01.mp3", "/__MACOSX/._part01.mp3", "/cd1/.x.mp3",
                             "/cd1/part02.mp3", "/.trash/old.mp3"})
        touch(dir + name);
    ASSERT_EQ(std::system(("cd '" + dir +
                           "' && " AE_ZIP_TOOL " -q book.zip part01.mp3 .part01.mp3 "
                           "__MACOSX/._part01.mp3 cd1/.x.mp3 cd1/part02.mp3 .trash/old.mp3")
                              .c_str()),
              0);
    const std::string zip = dir + "/book.zip";
    const aeplay::PlayList list = aeplay::build_playlist({zip});
    EXPECT_TRUE(list.errors.empty());
    EXPECT_EQ(list.paths,
              (std::vector<std::string>{zip + ":#zip(part01.mp3)", zip + ":#zip(cd1/part02.mp3)"}));
}

TEST(AeplayPlayList, ZipMemberPathsAndMissingInputs) {
    const std::string dir = scratch("zip_member");
    touch(dir + "/book.zip", "not really a zip");
    const aeplay::PlayList list =
        aeplay::build_playlist({dir + "/book.zip:#zip(a.mp3)", dir + "/gone.zip:#zip(a.mp3)",
                                dir + "/gone.mp3", dir + "/book.zip"});
    EXPECT_EQ(list.paths, std::vector<std::string>{dir + "/book.zip:#zip(a.mp3)"});
    ASSERT_EQ(list.errors.size(), 3u);
    EXPECT_NE(list.errors[0].find("no such archive"), std::string::npos);
    EXPECT_NE(list.errors[1].find("no such file"), std::string::npos);
    EXPECT_NE(list.errors[2].find("cannot read archive"), std::string::npos);
}

TEST(AeplayPlayList, DisplayNames) {
    EXPECT_EQ(aeplay::display_name("/books/a/part1.mp3"), "part1.mp3");
    EXPECT_EQ(aeplay::display_name("plain.mp3"), "plain.mp3");
    EXPECT_EQ(aeplay::display_name("/b/book.zip:#zip(cd1/t01.mp3)"), "cd1/t01.mp3");
}

TEST(AeplayPlayList, PrintableTextHasNoControlCharacters) {
    EXPECT_EQ(aeplay::printable("Chapter\t1\r\nEnd"), "Chapter 1  End");
    EXPECT_EQ(aeplay::printable("a\033]0;title\007b\x7f"), "a?]0;title?b?");
    EXPECT_EQ(aeplay::printable("x\xC2\x9B"
                                "2Jy"),
              "x?2Jy");                                                               // U+009B
    EXPECT_EQ(aeplay::printable("Caf\xC3\xA9 \xC2\xA0ok"), "Caf\xC3\xA9 \xC2\xA0ok"); // kept
}

// --- WAV output ------------------------------------------------------------------------------

namespace {

// A 44-byte-header WAV file of 16-bit stereo samples, followed by `trailer` (another chunk).
void write_wav(const std::string &path, const std::vector<int16_t> &samples,
               const std::string &trailer = "") {
    auto le = [](std::string *out, uint32_t v, int bytes) {
        for (int i = 0; i < bytes; ++i)
            out->push_back(static_cast<char>(v >> (8 * i)));
    };
    const uint32_t data = static_cast<uint32_t>(samples.size() * 2);
    std::string b = "RIFF";
    le(&b, 36 + data + static_cast<uint32_t>(trailer.size()), 4);
    b += "WAVEfmt ";
    le(&b, 16, 4);
    le(&b, 1, 2);         // PCM
    le(&b, 2, 2);         // channels
    le(&b, 44100, 4);     // rate
    le(&b, 44100 * 4, 4); // bytes per second
    le(&b, 4, 2);         // bytes per frame
    le(&b, 16, 2);        // bits
    b += "data";
    le(&b, data, 4);
    for (int16_t v : samples)
        le(&b, static_cast<uint16_t>(v), 2);
    b += trailer;
    std::ofstream(path, std::ios::binary) << b;
}

} // namespace

TEST(AeplayOutput, NumberedPartsAreAppendedToTheWav) {
    const std::string dir = scratch("merge");
    const std::string wav = dir + "/out.wav";
    std::vector<int16_t> first(2 * 1000), second(2 * 300000), third(2 * 7);
    for (size_t i = 0; i < first.size(); ++i)
        first[i] = static_cast<int16_t>(i);
    for (size_t i = 0; i < second.size(); ++i)
        second[i] = static_cast<int16_t>(i * 7);
    for (size_t i = 0; i < third.size(); ++i)
        third[i] = static_cast<int16_t>(-1 - static_cast<int>(i));
    write_wav(wav, first, std::string("LIST\4\0\0\0abcd", 12)); // cut off by the merge
    write_wav(wav + ".0001", second);
    write_wav(wav + ".0002", third);
    aeplay::Output output;
    output.wavPath = wav;
    aeplay::finish_output(output);

    std::vector<int16_t> all(first);
    all.insert(all.end(), second.begin(), second.end());
    all.insert(all.end(), third.begin(), third.end());
    std::vector<int16_t> samples;
    int channels = 0;
    ASSERT_TRUE(ae_test::read_wav(wav, &samples, &channels));
    EXPECT_EQ(channels, 2);
    EXPECT_TRUE(samples == all) << samples.size() << " samples, expected " << all.size();
    struct stat st {};
    ASSERT_EQ(stat(wav.c_str(), &st), 0);
    EXPECT_EQ(static_cast<size_t>(st.st_size), 44 + all.size() * 2);
    EXPECT_NE(access((wav + ".0001").c_str(), F_OK), 0);
    EXPECT_NE(access((wav + ".0002").c_str(), F_OK), 0);
}

TEST(AeplayOutput, AWavWithoutPartsIsLeftAsItIs) {
    const std::string dir = scratch("merge_none");
    const std::string wav = dir + "/out.wav";
    write_wav(wav, std::vector<int16_t>(200, 5), std::string("LIST\4\0\0\0abcd", 12));
    const std::string before = read_file(wav);
    aeplay::Output output;
    output.wavPath = wav;
    aeplay::finish_output(output);
    EXPECT_TRUE(read_file(wav) == before);
}

// --- The program -----------------------------------------------------------------------------

// Runs aeplay into <dir>/out.wav; returns its exit status and the samples of the file.
static int play_to_wav(const std::string &dir, const std::string &inputs,
                       std::vector<int16_t> *samples, std::string *out, std::string *err) {
    const int status = run_aeplay("--wav '" + dir + "/out.wav' " + inputs, dir, out, err);
    int channels = 0, rate = 0;
    EXPECT_TRUE(ae_test::read_wav(dir + "/out.wav", samples, &channels, &rate)) << *out << *err;
    EXPECT_EQ(channels, 2);
    EXPECT_EQ(rate, 44100);
    return status;
}

static std::string quoted_media(const char *name) {
    return "'" + ae_test::media_path(name) + "' ";
}

TEST(AeplayProgram, PlaysIntoAWavFile) {
    const std::string dir = scratch("run_wav");
    std::string out, err;
    std::vector<int16_t> s;
    ASSERT_EQ(play_to_wav(dir, quoted_media("tone440_3s.mp3"), &s, &out, &err), 0) << out << err;
    EXPECT_NE(out.find("writing the audio to " + dir + "/out.wav"), std::string::npos) << out;
    EXPECT_NEAR(s.size() / 2 / 44100.0, 3.0, 0.25);
    EXPECT_NEAR(ae_test::zero_crossing_frequency(s, 2, 0, 44100), 440.0, 5.0);
    EXPECT_NEAR(ae_test::zero_crossing_frequency(s, 2, 1, 44100), 440.0, 5.0);
    EXPECT_GT(ae_test::rms_dbfs(s, 2, 0), -30.0);
}

TEST(AeplayProgram, SkipsAnUnplayableTrackAndPlaysTheRest) {
    const std::string dir = scratch("run_skip");
    std::string out, err;
    std::vector<int16_t> s;
    ASSERT_EQ(play_to_wav(dir,
                          quoted_media("tone440_3s.wav") + quoted_media("not_audio.mp3") +
                              quoted_media("tone1000_3s.wav"),
                          &s, &out, &err),
              0)
        << out << err;
    EXPECT_NE(err.find("cannot play " + ae_test::media_path("not_audio.mp3")), std::string::npos)
        << err;
    EXPECT_NEAR(s.size() / 2 / 44100.0, 6.0, 0.4);
    // First half 440 Hz, second half 1000 Hz.
    const int rate = 44100;
    const std::vector<int16_t> first(s.begin() + rate, s.begin() + 4 * rate);
    const std::vector<int16_t> last(s.end() - 4 * rate, s.end() - rate);
    EXPECT_NEAR(ae_test::zero_crossing_frequency(first, 2, 0, rate), 440.0, 5.0);
    EXPECT_NEAR(ae_test::zero_crossing_frequency(last, 2, 0, rate), 1000.0, 10.0);
}

TEST(AeplayProgram, ZipArchiveMembersPlayInOrder) {
    const std::string dir = scratch("run_zip");
    ASSERT_EQ(std::system(("cd '" + dir + "' && cp " + quoted_media("tone440_3s.wav") +
                           "a.wav && cp " + quoted_media("tone100_3s.wav") +
                           "b.wav && " AE_ZIP_TOOL " -q -0 book.zip a.wav b.wav")
                              .c_str()),
              0);
    std::string out, err;
    std::vector<int16_t> s;
    ASSERT_EQ(play_to_wav(dir, "'" + dir + "/book.zip'", &s, &out, &err), 0) << out << err;
    EXPECT_NE(out.find("track 2/2: b.wav"), std::string::npos) << out;
    EXPECT_NEAR(s.size() / 2 / 44100.0, 6.0, 0.4);
}

TEST(AeplayProgram, BadArgumentsAndUnplayableInputFailCleanly) {
    const std::string dir = scratch("run_bad");
    std::string out, err;
    EXPECT_EQ(run_aeplay("--tempo 9 x.mp3", dir, &out, &err), 2);
    EXPECT_EQ(err, "aeplay: bad tempo '9' (0.25..4.0)\n");
    const struct {
        std::string args, error;
    } failures[] = {{"'" + dir + "/nothing.mp3'", "no such file"},
                    {"--wav '" + dir + "/out.wav' " + quoted_media("empty.mp3"), "cannot play"},
                    {"--device no_such_pcm " + quoted_media("tone440_3s.wav"), "no_such_pcm"}};
    for (const auto &f : failures) {
        EXPECT_EQ(run_aeplay(f.args, dir, &out, &err), 1) << f.args;
        EXPECT_NE(err.find(f.error), std::string::npos) << err;
    }
}

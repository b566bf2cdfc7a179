// aeplay: runs of the program (options accepted and refused, WAV files checked by their
// sound) and play-list building.
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "aeplay_options.h"
#include "aeplay_playlist.h"
#include "test_support.h"

static std::vector<std::string> words(const std::string &text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// Runs a shell command in folder `dir` (made afresh when `fresh`); $ZIP: zip, $M: the media.
static int sh(const std::string &dir, const std::string &command, bool fresh = false) {
    const std::string script = (fresh ? "rm -rf '" + dir + "'; " : "") + "mkdir -p '" + dir +
                               "' && cd '" + dir + "' && ZIP=" AE_ZIP_TOOL " M='" +
                               ae_test::media_path(".") + "' && " + command;
    const int status = std::system(script.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Every row: arguments ($M: the media folder), a part of what aeplay printed, exit status, and
// for a run into out.wav its length in seconds and the tones of its first and last thirds.
TEST(Aeplay, ProgramRuns) {
    const std::string dir = ae_test::tmp_path("aeplay_run");
    ASSERT_FALSE(sh(
        dir, "cp $M/tone440_3s.wav a.wav; cp $M/tone100_3s.wav b.wav; $ZIP -q0 b.zip ?.wav", true));
    const struct {
        std::string args, printed;
        double status, seconds, first, last;
    } rows[] = {
        {"--wav out.wav $M/tone440_3s.mp3", "the audio to " + dir + "/out.wav", 0, 3, 440, 440},
        {"--wav out.wav $M/tone440_3s.wav $M/not_audio.mp3 $M/tone1000_3s.wav",
         "not_audio.mp3, skipped", 0, 6, 440, 1000},
        {"--wav out.wav b.zip", "track 2/2: b.wav", 0, 6, 440, 100},
        {"--wav=out.wav --start 1 b.zip", "track 2/2: b.wav", 0, 5, 440, 100},
        {"--start 1 --wav out.wav $M/tone440_3s.mp3", "wrote", 0, 2, 440, 440},
        {"--wav out.wav --tempo 2 $M/tone1000_3s.wav", "wrote", 0, 1.5, 1000, 1000},
        {"--wav out.wav --rate=2 --mode 2 $M/tone440_3s.wav", "wrote", 0, 1.5, 880, 880},
        {"--wav out.wav --eq 60:3,1000:-2 -- $M/tone440_3s.wav -x", "no such file: -x", 0, 3, 440,
         440},
        {"--wav out.wav --sleep=0.05 --sleep-fade=0 $M/tone440_10s.mp3",
         "sleep timer: paused at 0:03 of track 1", 0, 3, 440, 440},
        {"--wav out.wav --sleep=track $M/tone440_3s.wav $M/tone1000_3s.wav",
         "sleep timer: paused at 0:00 of track 2", 0, 3, 440, 440},
        {"--wav=-o.wav $M/empty.mp3", "cannot play", 1, 0, 0, 0},
        {"--device no_such_pcm $M/tone440_3s.wav", "no_such_pcm", 1, 0, 0, 0},
        {"--info $M/tags_chapters_80s.mka nothing.mp3", "no such file", 0, 0, 0, 0},
        {"--help", "--wav", 0, 0, 0, 0},
        {R"x("$(printf 'a\tb\r\nc\033]0;\007\177\302\233\303\251')")x", // no control characters
         "no such file: a b  c?]0;???\303\251\n", 1, 0, 0, 0},
        {"", "aeplay: nothing to play", 2, 0, 0, 0},
        {"--tempo 9 x.mp3", "aeplay: bad tempo '9' (0.25..4.0)\n", 2, 0, 0, 0},
        {"--eq 60:3, x.mp3", "bad equaliser point ''", 2, 0, 0, 0},
        {"--start 2147484 x.mp3", "bad start", 2, 0, 0, 0}, // beyond 32-bit milliseconds
        {"--bogus x.mp3", "unknown option '--bogus'", 2, 0, 0, 0},
        {"--wav --info x.mp3", "--wav=NAME", 2, 0, 0, 0}, // a forgotten value swallows nothing
    };
    const std::string aeplay = "rm -rf out.wav* st; env -u ALSA_CONFIG_PATH TMPDIR=\"$PWD\" "
                               "XDG_STATE_HOME=\"$PWD/st\" " AEPLAY_BIN " ";
    for (const auto &row : rows) {
        EXPECT_EQ(sh(dir, aeplay + row.args + " </dev/null >out.txt 2>&1"), row.status) << row.args;
        const std::vector<uint8_t> out = ae_test::read_file(dir + "/out.txt");
        const std::string printed(out.begin(), out.end());
        EXPECT_NE(printed.find(row.printed), std::string::npos) << row.args << ":\n" << printed;
        std::vector<int16_t> s;
        int channels = 0, rate = 0;
        if (!ae_test::read_wav(dir + "/out.wav", &s, &channels, &rate) || row.seconds == 0) {
            EXPECT_EQ(row.seconds, 0) << row.args << ": no WAV\n" << printed;
            continue;
        }
        EXPECT_EQ(channels * 100000 + rate, 244100) << row.args;
        EXPECT_NEAR(s.size() / 2 / 44100.0, row.seconds, 0.25) << row.args;
        EXPECT_GT(ae_test::rms_dbfs(s, 2, 0), -30.0) << row.args;
        const size_t third = s.size() / 6 * 2;
        for (int part = 0; part < 2; ++part) { // the first third on the left, the last on the right
            const auto from = part == 0 ? s.begin() : s.end() - third;
            EXPECT_NEAR(ae_test::zero_crossing_frequency({from, from + third}, 2, part, 44100),
                        part == 0 ? row.first : row.last, row.first / 50)
                << row.args;
        }
    }
}

// A run on a card at real time is ended by SIGTERM in the second of two tracks; every row then
// changes that saved place (or not) and plays into out.wav: a part of what aeplay printed, the
// length in seconds ('P': of the second track from the saved position on) and the first tone.
TEST(Aeplay, ResumesWhereTheBookWasLeft) {
    const std::string dir = ae_test::tmp_path("aeplay_resume");
    const std::string run = "XDG_STATE_HOME=\"$PWD/st\" TMPDIR=\"$PWD\" " AEPLAY_BIN " ";
    ASSERT_EQ(sh(dir,
                 "cp $M/tone1000_3s.wav a.wav && cp $M/tone440_10s.mp3 b.mp3; VCARD_SPEED=1 " +
                     run + "--device mpd_sm a.wav b.mp3 </dev/null >/dev/null 2>&1 & " +
                     "for i in $(seq 300); do grep -qs '^track 1$' st/aeplay/*.place && break; "
                     "sleep 0.1; done; sleep 2; kill -TERM $!; wait $! && cp st/aeplay/*.place "
                     "saved && basename st/aeplay/*.place >name && grep -q '^track 1$' saved",
                 true),
              0);
    const std::vector<uint8_t> saved = ae_test::read_file(dir + "/saved");
    const std::string text(saved.begin(), saved.end());
    const int p = std::atoi(text.substr(text.find("position ") + 9).c_str());
    ASSERT_TRUE(p >= 0 && p < 9) << text; // 0 only when the card was slow to start
    const struct {
        std::string change, args, printed;
        double seconds, first;
    } rows[] = {
        {"", "a.wav b.mp3", "resuming track 2/2 at 0:0" + std::to_string(p), 10.0 - p, 440},
        {"", "--no-resume a.wav b.mp3", "track 1/2", 13, 1000},
        {"", "--start 2 a.wav b.mp3", "track 1/2", 11, 1000},
        {"", "b.mp3 a.wav", "track 1/2", 13, 440}, // other inputs, another book
        {"sed -i 's/^tempo .*/tempo 2.0/' $F", "a.wav b.mp3", "at 0:0", (10.0 - p) / 2, 440},
        {"sed -i 's/^tempo .*/tempo 2.0/' $F", "--tempo 1 a.wav b.mp3", "at 0:0", 10.0 - p, 440},
        {"sed -i 's/^written .*/written 0/' $F", "a.wav b.mp3", "s back after", 10, 440},
        {"sed -i 's/^written .*/written 0/' $F", "--rewind=off a.wav b.mp3",
         "at 0:0" + std::to_string(p) + "\n", 10.0 - p, 440},
        {"sed -i 's/^track 1/track 0/' $F", "a.wav b.mp3", "at 0:0", 10.0 - p, 440},
        {"sed -i 's|^file \\(.*\\)b.mp3$|file \\1c.mp3|' $F", "a.wav b.mp3",
         "no longer among the inputs", 13, 1000},
        {"head -c 150 saved >$F", "a.wav b.mp3", "in " + dir + "/st/aeplay/", 13, 1000},
        {"head -c 150 saved >$F", "a.wav b.mp3", "cut short; starting from the beginning", 13,
         1000},
        {"sed -i 's/^position .*/position -1/' $F", "a.wav b.mp3", "a bad line 'position -1'", 13,
         1000},
        {"sed -i 's/^written/track 0\\nwritten/' $F", "a.wav b.mp3", "a bad line 'track 0'", 13,
         1000},
        {"printf '\\000\\377' >$F", "a.wav b.mp3", "not an aeplay state file", 13, 1000},
        {"rm -rf st && touch st", "a.wav b.mp3", "cannot keep the place in the book", 13, 1000},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(sh(dir, "rm -rf st out.wav && mkdir -p st/aeplay && F=st/aeplay/$(cat name) && "
                          "cp saved $F && " +
                              (row.change.empty() ? "true" : row.change)),
                  0)
            << row.change;
        EXPECT_EQ(sh(dir, "env -u ALSA_CONFIG_PATH " + run + "--wav out.wav " + row.args +
                              " </dev/null >out.txt 2>&1"),
                  0)
            << row.change;
        // Played to the end: the place is forgotten (that of other inputs stays).
        EXPECT_EQ(sh(dir, "exit $(ls st/aeplay/*.place 2>/dev/null | wc -l)"),
                  row.args == "b.mp3 a.wav")
            << row.change;
        const std::vector<uint8_t> out = ae_test::read_file(dir + "/out.txt");
        const std::string printed(out.begin(), out.end());
        EXPECT_NE(printed.find(row.printed), std::string::npos) << row.change << ":\n" << printed;
        std::vector<int16_t> s;
        ASSERT_TRUE(ae_test::read_wav(dir + "/out.wav", &s)) << row.change << "\n" << printed;
        EXPECT_NEAR(s.size() / 2 / 44100.0, row.seconds, 0.25) << row.change << "\n" << printed;
        const std::vector<int16_t> first(s.begin(), s.begin() + std::min<size_t>(s.size(), 44100));
        EXPECT_NEAR(ae_test::zero_crossing_frequency(first, 2, 0, 44100), row.first, row.first / 50)
            << row.change;
    }
}

// Every row: arguments, then the length of out.wav in seconds and the level difference of two
// seconds of it in dB, a quiet and a loud voice (12-13 s, 17-18 s; -1: not measured), each
// within a range. Pauses over half a second shrink to a quarter second at "natural", further at
// "strong", alike at any tempo; levelling brings voices 20 dB apart within 12 dB, 6 at "strong".
TEST(Aeplay, ListeningFlagsReachThePlayer) {
    const std::string dir = ae_test::tmp_path("aeplay_listening");
    const struct {
        std::string args;
        double shortest, longest, leastApart, mostApart;
    } rows[] = {
        {"--skip-silence $M/speech_pauses.mp3", 11.2, 12.2, -1, -1},
        {"--skip-silence=strong $M/speech_pauses.mp3", 8.5, 11.2, -1, -1},
        {"--skip-silence=strong --tempo 2 $M/speech_pauses.mp3", 4.25, 5.6, -1, -1},
        {"$M/voice_levels.mp3", 19.7, 20.3, 15, 25},
        {"--level $M/voice_levels.mp3", 19.7, 20.3, 0, 12},
        {"--level=strong $M/voice_levels.mp3", 19.7, 20.3, 0, 6},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(sh(dir,
                     "env -u ALSA_CONFIG_PATH TMPDIR=\"$PWD\" XDG_STATE_HOME=\"$PWD\" " AEPLAY_BIN
                     " --wav "
                     "out.wav " +
                         row.args + " </dev/null >out.txt 2>&1",
                     true),
                  0)
            << row.args;
        std::vector<int16_t> s;
        ASSERT_TRUE(ae_test::read_wav(dir + "/out.wav", &s)) << row.args;
        const double seconds = s.size() / 2 / 44100.0;
        EXPECT_TRUE(seconds >= row.shortest && seconds <= row.longest)
            << row.args << ": " << seconds;
        if (row.mostApart < 0 || seconds < 18)
            continue;
        auto level = [&](int second) {
            const auto from = s.begin() + second * 44100 * 2;
            return ae_test::rms_dbfs({from, from + 44100 * 2}, 2, 0);
        };
        const double apart = std::abs(level(17) - level(12));
        EXPECT_TRUE(apart >= row.leastApart && apart <= row.mostApart) << row.args << ": " << apart;
    }
}

// Every row: the arguments and the listening settings parsed from them, or the error.
TEST(Aeplay, ListeningOptions) {
    const struct {
        std::string args, expected;
    } rows[] = {
        {"x", "skip 0 level 0 sleep 0/0 fade -1 resume 1 rewind 1"},
        {"--skip-silence --level x", "skip 1 level 1 sleep 0/0 fade -1 resume 1 rewind 1"},
        {"--skip-silence=strong --level=strong --sleep 30 --sleep-fade=2.5 x",
         "skip 2 level 2 sleep 1/1800000 fade 2500 resume 1 rewind 1"},
        {"--skip-silence=off --level=off --sleep=0.5 --sleep-fade 0 --no-resume --rewind=off x",
         "skip 0 level 0 sleep 1/30000 fade 0 resume 0 rewind 0"},
        {"--sleep=chapter --rewind x", "skip 0 level 0 sleep 2/0 fade -1 resume 1 rewind 1"},
        {"--sleep=track x", "skip 0 level 0 sleep 3/0 fade -1 resume 1 rewind 1"},
        {"--skip-silence natural",
         "skip 1 level 0 sleep 0/0 fade -1 resume 1 rewind 1"}, // an input
        {"--skip-silence=loud x", "bad skip-silence level 'loud' (natural, strong or off)"},
        {"--level=3 x", "bad level '3' (gentle, strong or off)"},
        {"--sleep=0 x", "bad sleep '0' (minutes up to 1440, chapter, track or off)"},
        {"--sleep=1441 x", "bad sleep '1441' (minutes up to 1440, chapter, track or off)"},
        {"x --sleep", "option --sleep needs a value"},
        {"--sleep-fade=601 x", "bad sleep fade '601' (seconds, 0..600)"},
        {"--rewind=yes x", "bad rewind 'yes' (on or off)"},
        {"--no-resume=1 x", "option --no-resume takes no value"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> args = words("aeplay " + row.args);
        std::vector<const char *> argv;
        for (const std::string &arg : args)
            argv.push_back(arg.c_str());
        aeplay::Options o;
        std::string got;
        if (aeplay::parse_options(static_cast<int>(argv.size()), argv.data(), &o, &got))
            got = "skip " + std::to_string(o.skipSilence) + " level " + std::to_string(o.level) +
                  " sleep " + std::to_string(o.sleepMode) + "/" + std::to_string(o.sleepMs) +
                  " fade " + std::to_string(o.sleepFadeMs) + " resume " + std::to_string(o.resume) +
                  " rewind " + std::to_string(o.rewind);
        EXPECT_EQ(got, row.expected) << row.args;
    }
}

// Every row: shell commands making files, the inputs, then the paths listed and the first words
// of each problem reported, all relative to the row's folder ('@' when given in full).
TEST(Aeplay, PlayListsFromFoldersPlaylistsAndArchives) {
    std::string deep; // what a folder nested 10 deep gives: 8 levels, deepest first
    for (std::string p = "f/d/d/d/d/d/d/d/d/t.mp3 "; p.size() > 9; p.erase(2, 2))
        deep += p;
    const struct {
        std::string setup, inputs, expected;
    } rows[] = {
        {"mkdir -p f/b2 && cd f && touch b.mp3 a.flac x.txt .h.mp3 C.OGG l.m3u b2/i.opus", "f f",
         "f/C.OGG f/a.flac f/b.mp3 f/b2/i.opus f/C.OGG f/a.flac f/b.mp3 f/b2/i.opus "},
        {R"(mkdir s && touch s/a.mp3 b.wav && printf '\357\273\277#EXTM3U\r\n#EXTINF:3,A\r\n)"
         R"(a.mp3\r\n\r\n../b.wav\r\n%s/s/a.mp3\nno.mp3\n' "$PWD" >s/l.m3u8)",
         "s/l.m3u8", "s/a.mp3 s/../b.wav @/s/a.mp3 |no such file:"},
        {R"(touch a.mp3 b.mp3 && printf 'a.mp3\nb.m3u\n' >a.m3u && printf 'a.m3u\nb.mp3\n' >b.m3u)",
         "a.m3u b.m3u", "a.mp3 b.mp3 a.mp3 b.mp3 |skipped playlist a.m3u:|skipped playlist b.m3u:"},
        {"mkdir -p f/s && touch f/a.mp3 f/s/b.mp3 && ln -s . f/self && ln -s .. f/s/up", "f",
         "f/a.mp3 f/s/b.mp3 |skipped folder f/s/up:|skipped folder f/self:"},
        {"p=f; for i in 0 1 2 3 4 5 6 7 8 9; do p=$p/d; mkdir -p $p; touch $p/t.mp3; done", "f",
         deep + "|folders nested too"},
        {"mkdir M c .t && touch 2.mp3 1.mp3 r.txt .1.mp3 M/._1.mp3 c/.x.mp3 c/3.mp3 .t/o.mp3 && "
         "$ZIP -q b.zip 2.mp3 r.txt .1.mp3 M/._1.mp3 1.mp3 c/.x.mp3 c/3.mp3 .t/o.mp3",
         "b.zip", "b.zip:#zip(2.mp3) b.zip:#zip(1.mp3) b.zip:#zip(c/3.mp3) "},
        {"echo not a zip >b.zip", "b.zip:#zip(a.mp3) gone.zip:#zip(a.mp3) gone.mp3 b.zip",
         "b.zip:#zip(a.mp3) |no such archive:|no such file:|cannot read archive"},
    };
    for (const auto &row : rows) { // in the row's folder: the paths come relative to it
        const std::string dir = ae_test::tmp_path("aeplay_list");
        ASSERT_TRUE(sh(dir, row.setup, true) == 0 && chdir(dir.c_str()) == 0) << row.setup;
        const aeplay::PlayList list = aeplay::build_playlist(words(row.inputs));
        std::string got;
        for (const std::string &path : list.paths)
            got += (path.find(dir) == 0 ? "@" + path.substr(dir.size()) : path) + " ";
        for (const std::string &e : list.errors) // its first three words
            got += "|" + e.substr(0, e.find(' ', e.find(' ', e.find(' ') + 1) + 1));
        EXPECT_EQ(got, row.expected) << row.setup;
    }
}

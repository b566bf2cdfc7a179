// The corpus of real-world file shapes: each plays whole through the engine, and the card gets
// what the ffmpeg tool makes of the file through the chain the engine traces, byte for byte
// (joined files: the same length and each part's tone). Tags, chapters, cover, duration and a
// seek to the middle are checked too.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IAudioEngine.h"
#include "alsa_device.h"
#include "test_support.h"
#include "vcard.h"

namespace {

const int kRate = 44100;

struct Setting {
    const char *name;
    double tempo, multiplier;
    std::vector<std::pair<int, int>> equalizer;
};
const Setting kSettings[] = {{"tempo 1.0", 1.0, 1.0, {}},
                             {"tempo 1.5", 1.5, 1.0, {}},
                             {"tempo 0.3", 0.3, 1.0, {}},
                             {"rate 1.5", 1.0, 1.5, {}},
                             {"equaliser", 1.0, 1.0, {{60, 3}, {1000, -2}}}};
// A line of tests/media/corpus.txt, which says what each file of the corpus holds.
struct Shape {
    std::string file, settings;
    bool titled = false;
    int durationS = 0, chapters = 0, coverWidth = 0, coverHeight = 0, seekSlackMs = 0;
    double tone1 = 0, tone2 = 0; // joined files: the tone of each part
};

std::vector<Shape> corpus() {
    std::ifstream in(AE_CORPUS_LIST);
    std::vector<Shape> shapes;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        Shape s;
        if (line[0] != '#' && fields >> s.file >> s.settings >> s.titled >> s.durationS >>
                                  s.chapters >> s.coverWidth >> s.coverHeight >> s.seekSlackMs >>
                                  s.tone1 >> s.tone2)
            shapes.push_back(s);
    }
    return shapes;
}

// The argument string the engine traced as "<label>: <args>" when it created that filter.
std::string traced(const std::string &trace, const std::string &label) {
    const size_t at = trace.find("\n" + label + ": ");
    const size_t from = at + label.size() + 3;
    return at == std::string::npos ? "" : trace.substr(from, trace.find('\n', from) - from);
}

// What the ffmpeg tool writes for `path` through `chain`, as S16 samples.
std::vector<int16_t> toolOutput(const std::string &path, const std::string &chain) {
    const std::string command = std::string(AE_FFMPEG) + " -nostdin -v error -i '" + path +
                                "' -vn -sn -dn -af \"" + chain + "\" -f s16le -";
    std::vector<int16_t> out;
    FILE *pipe = popen(command.c_str(), "r");
    int16_t block[4096];
    for (size_t n; pipe && (n = fread(block, sizeof block[0], 4096, pipe)) > 0;)
        out.insert(out.end(), block, block + n);
    EXPECT_TRUE(pipe && pclose(pipe) == 0) << command;
    return out;
}

// Plays `shape` (from `seekMs` when not negative) and returns what the card got; `trace` gets
// what the engine wrote to standard error while opening.
std::vector<int16_t> play(const Shape &shape, const Setting &setting, int seekMs,
                          std::string *trace) {
    tavrel::utilities::IAudioEngine *engine = AudioEngine_CreateAudioEngine();
    engine->setTempo(setting.tempo);
    engine->setSampleRateMultiplier(setting.multiplier);
    engine->setEqualizerSettings(setting.equalizer);
    const size_t before = vcard_captured_frames();
    {
        ae_test::StderrCapture err;
        EXPECT_EQ(engine->openFile(ae_test::media_path(shape.file)), 0);
        *trace = "\n" + err.text();
    }
    EXPECT_EQ(engine->getDurationMs(), shape.durationS * 1000);
    const auto tags = engine->getMetadata();
    EXPECT_EQ(tags.count("title") ? tags.at("title") : "", shape.titled ? "Corpus" : "");
    const auto chapters = engine->getChapters();
    EXPECT_EQ(chapters.size(), static_cast<size_t>(shape.chapters));
    for (int64_t i = 0; i < static_cast<int64_t>(chapters.size()); ++i) {
        EXPECT_EQ(chapters[i].startMs, i * 1000);
        EXPECT_EQ(chapters[i].endMs, (i + 1) * 1000);
        EXPECT_EQ(chapters[i].metadata.at("title"), "Chapter " + std::to_string(i + 1));
    }
    const qz_bitmap *cover = engine->getCover();
    EXPECT_EQ(cover ? cover->width * 10000 + cover->height : 0,
              shape.coverWidth * 10000 + shape.coverHeight);
    if (seekMs >= 0)
        engine->seekStream(seekMs);
    EXPECT_EQ(engine->start(), 0);
    EXPECT_TRUE(ae_test::wait_until([&] { return engine->getState() == 3; }, 60000));
    // All the engine pushed has reached the card once the first of two empty pieces pushed
    // behind it has been released.
    for (int marker = 0; marker < 3; ++marker) {
        abuf_piece *piece = nullptr;
        EXPECT_TRUE(ae_test::wait_until([&] { return (piece = get_output_buffer()); }, 20000));
        if (piece && marker < 2) {
            piece->samplerate = kRate;
            piece->frames = 0;
            push_output_buffer(piece);
        }
    }
    engine->closeFile();
    AudioEngine_DestroyAudioEngine(engine);
    const std::vector<int16_t> all = ae_test::captured_samples();
    return std::vector<int16_t>(all.begin() + static_cast<long>(before * 2), all.end());
}

TEST(EngineCorpusTest, PlaysEveryShapeWholeAsTheToolDoes) {
    vcard_set_speed(0);
    const std::vector<Shape> shapes = corpus();
    ASSERT_EQ(shapes.size(), 29u);
    for (const Shape &shape : shapes) {
        for (size_t s = 0; s < sizeof kSettings / sizeof kSettings[0]; ++s) {
            if (s > 0 && shape.settings != "all")
                continue;
            SCOPED_TRACE(shape.file + ", " + kSettings[s].name);
            std::string trace;
            const std::vector<int16_t> got = play(shape, kSettings[s], -1, &trace);
            // Joined files change rate midway, and the engine's rate stage with it; the tool
            // would keep the first rate, so it runs without that stage (a no-op at 1.0).
            const std::string eq = traced(trace, "firequalizer");
            const std::string chain =
                "atempo=" + traced(trace, "atempo") + ",atempo=" + traced(trace, "atempo2") +
                (shape.tone1 > 0 ? "" : ",asetrate=" + traced(trace, "samplerate")) +
                (eq.empty() ? "" : ",firequalizer=" + eq) + ",aformat=" + traced(trace, "aformat");
            const std::vector<int16_t> want = toolOutput(ae_test::media_path(shape.file), chain);
            if (shape.tone1 > 0) {
                EXPECT_NEAR(got.size(), want.size(), want.size() / 100.0);
                // Away from the start and the change: each part keeps its encoder delay.
                const auto at = [&](double f) {
                    return got.begin() + long(got.size() / 2 * f) * 2;
                };
                EXPECT_NEAR(ae_test::zero_crossing_frequency({at(.05), at(.45)}, 2, 0, kRate),
                            shape.tone1, 5);
                EXPECT_NEAR(ae_test::zero_crossing_frequency({at(.55), at(.95)}, 2, 0, kRate),
                            shape.tone2, 5);
            } else {
                // How far apart the samples are, with the tool's shifted by `shift` samples.
                const auto apart = [&](long shift) {
                    int most = 0;
                    for (long i = 2; i + 2 < long(std::min(got.size(), want.size())); ++i)
                        most = std::max(most, std::abs(got[i] - want[i + shift]));
                    return most;
                };
#ifndef AE_TEST_EMULATED
                EXPECT_TRUE(got == want)
                    << chain << ": engine " << got.size() / 2 << " frames, tool " << want.size() / 2
                    << ", samples apart by " << apart(0);
#else
                // Under qemu the tool is the host's x86-64 build: FFmpeg's floating-point code
                // rounds there a unit apart, and a tempo stage may end a frame apart.
                EXPECT_NEAR(got.size(), want.size(), 2) << chain;
                EXPECT_LE(std::min({apart(-2), apart(0), apart(2)}), 4) << chain;
#endif
            }
            if (s != 0 || shape.durationS < 2)
                continue;
            // From the middle: what is left of the whole, give or take a block of the container
            // (Matroska lands 11 ms past the target) and at most the slack more.
            const int middleS = shape.durationS / 2;
            const long rest = play(shape, kSettings[0], middleS * 1000, &trace).size() / 2;
            const long left = static_cast<long>(got.size() / 2) - middleS * kRate;
            EXPECT_GE(rest, left - kRate / 50);
            EXPECT_LE(rest, left + shape.seekSlackMs * kRate / 1000);
        }
    }
}

} // namespace

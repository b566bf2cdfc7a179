// engine_bench: plays one media file through the engine's public interface into the PCM named
// "null" and prints the CPU time (user + system) and the peak resident memory of the process.
//
//   engine_bench FILE [--tempo T] [--rate R] [--eq] [--skip LEVEL] [--level LEVEL]
//
// --eq sets the ten-band equaliser that run.sh gives the ffmpeg tool as well; --skip and
// --level the skip-silence and voice-levelling levels (AudioEngineExtension.h). Output, one line:
//   cpu_s=<seconds> maxrss_kb=<kB> duration_s=<seconds of media>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AudioEngineExtension.h"
#include "IAudioEngine.h"
#include "alsa_device.h"
#include "host_platform.h"

namespace {

// Must match run.sh's firequalizer entries.
const std::vector<std::pair<int, int>> kBands = {{31, 3},   {62, 2},    {125, 1},   {250, 0},
                                                 {500, -1}, {1000, -2}, {2000, -1}, {4000, 0},
                                                 {8000, 2}, {16000, 3}};

void quiet(int, const char *, int, const char *, const char *, void *) {}

int usage() {
    fprintf(stderr,
            "usage: engine_bench FILE [--tempo T] [--rate R] [--eq] [--skip N] [--level N]\n");
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2)
        return usage();
    const std::string file = argv[1];
    double tempo = 1.0;
    double rate = 1.0;
    bool eq = false;
    int skip = 0;
    int level = 0;
    for (int i = 2; i < argc; ++i) {
        if (strcmp(argv[i], "--tempo") == 0 && i + 1 < argc)
            tempo = atof(argv[++i]);
        else if (strcmp(argv[i], "--rate") == 0 && i + 1 < argc)
            rate = atof(argv[++i]);
        else if (strcmp(argv[i], "--eq") == 0)
            eq = true;
        else if (strcmp(argv[i], "--skip") == 0 && i + 1 < argc)
            skip = atoi(argv[++i]);
        else if (strcmp(argv[i], "--level") == 0 && i + 1 < argc)
            level = atoi(argv[++i]);
        else
            return usage();
    }

    host_set_log_sink(quiet, nullptr, 0);
    set_alsa_device_name("null");

    tavrel::utilities::IAudioEngine *engine = AudioEngine_CreateAudioEngine();
    if (engine == nullptr)
        return 1;
    std::atomic<bool> failed{false};
    engine->setStateChangedCb([] {});
    engine->setErrorCallback([&](tavrel::utilities::IAudioEngine::ErrorType) { failed = true; });
    engine->setTempo(tempo);
    engine->setSampleRateMultiplier(rate);
    if (eq)
        engine->setEqualizerSettings(kBands);
    ae_ext *ext = AudioEngine_GetExtension(engine);
    if (ae_ext_set_skip_silence(ext, skip) != 0 || ae_ext_set_voice_level(ext, level) != 0)
        return usage();

    if (engine->openFile(file) != 0) {
        fprintf(stderr, "engine_bench: cannot open %s\n", file.c_str());
        return 1;
    }
    const int64_t durationMs = engine->getDurationMs();
    if (engine->start() != 0)
        return 1;
    while (engine->getState() == 1 && !failed)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const int state = engine->getState();
    engine->closeFile();
    AudioEngine_DestroyAudioEngine(engine);
    deinit_alsa_output();
    if (state != 3 || failed) {
        fprintf(stderr, "engine_bench: playback ended in state %d\n", state);
        return 1;
    }

    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const double cpu = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 +
                       usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
    printf("cpu_s=%.3f maxrss_kb=%ld duration_s=%.1f\n", cpu, usage.ru_maxrss, durationMs / 1000.0);
    return 0;
}

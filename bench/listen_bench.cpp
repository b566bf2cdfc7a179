// listen_bench: what a listener notices, measured at the virtual sound card (tests/vcard), which
// records when each write arrived and how long its paced clock ran dry before it.
//
//   listen_bench start RUNS FILE...          PlayTrack(i, 0, false) to the first write at the card
//   listen_bench seek RUNS TARGET_S FILE...  seekStream(TARGET_S) while playing to the first write
//                                            of audio from the target (the media must be silent
//                                            there and not silent at their start)
//   listen_bench pause RUNS FILE...         pause() while playing: the audio the card still played
//                                            after the call, by its clock
//   listen_bench change RUNS LATE_MS FILE... a player plays FILE... as one book (Sequential); the
//                                            silence the card got at each change of file (the
//                                            application moves on LATE_MS after each end)
//   listen_bench play SECONDS FILE [paused|skip=N|level=N]  plays SECONDS of FILE and stops
//                                            (for CPU time); paused: holds it paused as soon as
//                                            it started; skip, level: with skip silence or voice
//                                            levelling at that level
//   listen_bench underruns SECONDS TEMPO FILE plays SECONDS of FILE at TEMPO with two equaliser
//                                            points; the times the card ran dry
//   listen_bench tool-underruns CMD...       the same count for CMD
//   listen_bench tool-start RUNS CMD...      CMD (a program playing on the card through ALSA,
//   listen_bench tool-change CMD...          run with the preload library of $VCARD_PRELOAD) from
//                                            its start to its first write; its silences
//
// The card plays at real time. Lines printed, per file or program:
//   start|seek|pause <name> median_ms=<m> worst_ms=<w> runs=<n>
//   change <k> <from> -> <to> silence_ms=<median> worst_ms=<w> opens=<device opens> runs=<n>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AudioEngineExtension.h"
#include "IAudioEngine.h"
#include "IPlayer.h"
#include "alsa_device.h"
#include "host_platform.h"
#include "vcard.h"

using tavrel::utilities::IAudioEngine;
using tavrel::utilities::IPlayer;
using tavrel::utilities::PlayerCb;

namespace {

const size_t kMaxWrites = 65536;

int64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void quiet(int, const char *, int, const char *, const char *, void *) {}

std::string baseName(const std::string &path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::vector<vcard_write> cardWrites() {
    std::vector<vcard_write> writes(kMaxWrites);
    writes.resize(std::min(vcard_writes(writes.data(), kMaxWrites), kMaxWrites));
    return writes;
}

// A fresh card at real time, and an output layer that opens it anew (as after a second idle).
void freshCard() {
    deinit_alsa_output();
    vcard_setup();
    vcard_set_speed(1.0);
}

void printSummary(const char *what, const std::string &name, std::vector<double> ms) {
    if (ms.empty()) {
        printf("%s %s median_ms=nan worst_ms=nan runs=0\n", what, name.c_str());
        return;
    }
    std::sort(ms.begin(), ms.end());
    printf("%s %s median_ms=%.1f worst_ms=%.1f runs=%zu\n", what, name.c_str(), ms[ms.size() / 2],
           ms.back(), ms.size());
    fflush(stdout);
}

// The application side of a player, as the guide has it: callbacks only wake the app's thread.
class Events : public PlayerCb {
public:
    void OnTrackChanged() override {}
    void OnPositionChanged() override {}
    void OnStateChanged() override {
        std::lock_guard<std::mutex> lock(mutex_);
        changed_ = true;
        wake_.notify_one();
    }
    // Waits for a state change; false after `ms` without one.
    bool wait(int ms) {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool woke =
            wake_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return changed_; });
        changed_ = false;
        return woke;
    }

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool changed_ = false;
};

std::vector<IPlayer::Track> playlist(const std::vector<std::string> &files) {
    std::vector<IPlayer::Track> list(files.size());
    for (size_t i = 0; i < files.size(); ++i)
        list[i].filename = files[i];
    return list;
}

// Waits up to `ms` for the card's first write; its time, or -1.
int64_t firstWriteNs(int ms) {
    vcard_write first{};
    for (int waited = 0; waited < ms; ++waited) {
        if (vcard_writes(&first, 1) > 0)
            return first.ns;
        sleepMs(1);
    }
    return -1;
}

int startBench(int runs, const std::vector<std::string> &files) {
    IPlayer *player = AudioEngine_CreatePlayer();
    Events events;
    player->setCb(&events);
    player->SetPlayList(playlist(files));
    for (size_t i = 0; i < files.size(); ++i) {
        std::vector<double> ms;
        for (int r = 0; r < runs; ++r) {
            player->SetState(IPlayer::Stopped);
            freshCard();
            const int64_t t0 = nowNs();
            if (player->PlayTrack(static_cast<int>(i), 0, false) != 0)
                break;
            player->getCover(); // an application shows the cover as the track starts
            const int64_t first = firstWriteNs(5000);
            if (first > 0)
                ms.push_back((first - t0) / 1e6);
        }
        printSummary("start", baseName(files[i]), ms);
    }
    player->SetState(IPlayer::Stopped);
    player->setCb(nullptr);
    AudioEngine_DestroyPlayer(player);
    return 0;
}

// Index of the first frame that starts a run of `run` frames all below `level`, or -1.
long firstSilentFrame(const std::vector<int16_t> &pcm, long run, int level) {
    long quietFrames = 0;
    for (size_t f = 0; f * 2 + 1 < pcm.size(); ++f) {
        const bool silent = std::abs(pcm[2 * f]) < level && std::abs(pcm[2 * f + 1]) < level;
        quietFrames = silent ? quietFrames + 1 : 0;
        if (quietFrames == run)
            return static_cast<long>(f) - run + 1;
    }
    return -1;
}

// Time of the write that carried frame `frame`, or -1.
int64_t writeOfFrame(const std::vector<vcard_write> &writes, long frame) {
    long before = 0;
    for (const vcard_write &w : writes) {
        if (frame < before + w.frames)
            return w.ns;
        before += w.frames;
    }
    return -1;
}

// Plays `file` on a fresh card until it plays steadily (ring and device buffer full), at a
// different point of the output's 4,608-frame (105 ms) cycle in each of the `runs` runs.
bool playSteadily(IAudioEngine *engine, const std::string &file, int run, int runs) {
    freshCard();
    if (engine->openFile(file) != 0 || engine->start() != 0)
        return false;
    sleepMs(1500 + 105 * run / runs);
    return true;
}

int seekBench(int runs, int targetS, const std::vector<std::string> &files) {
    IAudioEngine *engine = AudioEngine_CreateAudioEngine();
    engine->setStateChangedCb([] {});
    for (const std::string &file : files) {
        std::vector<double> ms;
        for (int r = 0; r < runs; ++r) {
            if (!playSteadily(engine, file, r, runs))
                break;
            const int64_t t0 = nowNs();
            engine->seekStream(targetS * 1000);
            sleepMs(1000);
            engine->stop();
            engine->closeFile();
            std::vector<int16_t> pcm(vcard_captured_frames() * 2);
            pcm.resize(vcard_capture(pcm.data(), pcm.size() / 2) * 2);
            const long frame = firstSilentFrame(pcm, 2048, 64);
            const int64_t at = frame < 0 ? -1 : writeOfFrame(cardWrites(), frame);
            if (at > 0)
                ms.push_back((at - t0) / 1e6);
        }
        printSummary("seek", baseName(file), ms);
    }
    AudioEngine_DestroyAudioEngine(engine);
    return 0;
}

int pauseBench(int runs, const std::vector<std::string> &files) {
    IAudioEngine *engine = AudioEngine_CreateAudioEngine();
    engine->setStateChangedCb([] {});
    for (const std::string &file : files) {
        std::vector<double> ms;
        for (int r = 0; r < runs; ++r) {
            if (!playSteadily(engine, file, r, runs))
                break;
            const size_t before = vcard_heard_frames();
            engine->pause();
            sleepMs(1000);
            const size_t after = vcard_heard_frames();
            engine->stop();
            engine->closeFile();
            ms.push_back((after - before) * 1000.0 / 44100);
        }
        printSummary("pause", baseName(file), ms);
    }
    AudioEngine_DestroyAudioEngine(engine);
    return 0;
}

// Silence the card ran dry for in [from, to), not counting the first write (nothing played
// before it).
double silenceMs(const std::vector<vcard_write> &writes, int64_t from, int64_t to) {
    int64_t dry = 0;
    for (size_t i = 1; i < writes.size(); ++i) {
        if (writes[i].ns >= from && writes[i].ns < to)
            dry += writes[i].dry_ns;
    }
    return dry / 1e6;
}

int changeBench(int runs, int lateMs, const std::vector<std::string> &files) {
    const size_t changes = files.size() - 1;
    std::vector<std::vector<double>> silence(changes);
    int opens = 0;
    for (int r = 0; r < runs; ++r) {
        IPlayer *player = AudioEngine_CreatePlayer();
        Events events;
        player->setCb(&events);
        player->SetPlayList(playlist(files));
        player->SetMode(IPlayer::Sequential);
        freshCard();
        std::vector<int64_t> changedAt;
        if (player->PlayTrack(0, -1, false) != 0)
            return 1;
        // The application's thread: the guide's loop.
        while (events.wait(60000)) {
            const IPlayer::PlayState state = player->GetState();
            if (state == IPlayer::Finished) {
                sleepMs(lateMs);
                changedAt.push_back(nowNs());
                player->HandlePlayerStateChanged();
                if (player->GetState() == IPlayer::Finished)
                    break;
            }
            if (player->GetState() == IPlayer::Stopped)
                break;
        }
        sleepMs(700); // the card plays out what it holds
        player->SetState(IPlayer::Stopped);
        player->setCb(nullptr);
        AudioEngine_DestroyPlayer(player);
        const std::vector<vcard_write> writes = cardWrites();
        opens = vcard_count_events("open ");
        // Each change owns the writes from a second before the end of its file (the end of the
        // file's audio is still on its way to the card) up to that of the next change.
        for (size_t k = 0; k < changes && k < changedAt.size(); ++k) {
            const int64_t from = changedAt[k] - 1000000000;
            const int64_t to = k + 1 < changedAt.size() ? changedAt[k + 1] - 1000000000 : INT64_MAX;
            silence[k].push_back(silenceMs(writes, from, to));
        }
    }
    for (size_t k = 0; k < changes; ++k) {
        std::vector<double> &s = silence[k];
        std::sort(s.begin(), s.end());
        printf("change %zu %s -> %s silence_ms=%.1f worst_ms=%.1f opens=%d runs=%zu\n", k + 1,
               baseName(files[k]).c_str(), baseName(files[k + 1]).c_str(),
               s.empty() ? -1.0 : s[s.size() / 2], s.empty() ? -1.0 : s.back(), opens, s.size());
    }
    return 0;
}

int playBench(int seconds, const std::string &file, const std::string &option) {
    const bool paused = option == "paused";
    IAudioEngine *engine = AudioEngine_CreateAudioEngine();
    engine->setStateChangedCb([] {});
    ae_ext *ext = AudioEngine_GetExtension(engine);
    if (option.rfind("skip=", 0) == 0)
        ae_ext_set_skip_silence(ext, atoi(option.c_str() + 5));
    if (option.rfind("level=", 0) == 0)
        ae_ext_set_voice_level(ext, atoi(option.c_str() + 6));
    vcard_setup();
    vcard_set_speed(1.0);
    if (engine->openFile(file) != 0 || engine->start() != 0)
        return 1;
    if (paused)
        engine->pause();
    sleepMs(seconds * 1000);
    engine->stop();
    engine->closeFile();
    AudioEngine_DestroyAudioEngine(engine);
    deinit_alsa_output();
    return 0;
}

// Writes after the first one before which the card's clock had run dry: the underruns a
// listener heard, and how long they lasted.
void printUnderruns(const char *who, const std::vector<vcard_write> &writes) {
    int count = 0;
    int64_t dry = 0;
    for (size_t i = 1; i < writes.size(); ++i) {
        if (writes[i].dry_ns > 0) {
            ++count;
            dry += writes[i].dry_ns;
        }
    }
    printf("%s underruns=%d dry_ms=%.1f writes=%zu\n", who, count, dry / 1e6, writes.size());
}

int underrunBench(int seconds, double tempo, const std::string &file) {
    IAudioEngine *engine = AudioEngine_CreateAudioEngine();
    engine->setStateChangedCb([] {});
    vcard_setup();
    vcard_set_speed(1.0);
    engine->setTempo(tempo);
    engine->setEqualizerSettings({{60, 3}, {1000, -2}});
    if (engine->openFile(file) != 0 || engine->start() != 0)
        return 1;
    sleepMs(seconds * 1000);
    engine->stop();
    engine->closeFile();
    AudioEngine_DestroyAudioEngine(engine);
    deinit_alsa_output();
    printUnderruns("engine", cardWrites());
    return 0;
}

// Runs `argv` with the card's records dumped at its exit; its start time and records.
bool runTool(char **argv, int64_t &started, std::vector<vcard_write> &writes) {
    const char *preload = getenv("VCARD_PRELOAD");
    if (!preload) {
        fprintf(stderr, "listen_bench: set VCARD_PRELOAD to the vcard_dump library\n");
        return false;
    }
    char dump[] = "/tmp/listen_bench.XXXXXX";
    const int fd = mkstemp(dump);
    if (fd < 0)
        return false;
    close(fd);
    started = nowNs();
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("LD_PRELOAD", preload, 1);
        setenv("VCARD_DUMP", dump, 1);
        setenv("VCARD_SPEED", "1", 1);
        execvp(argv[0], argv);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    std::ifstream in(dump);
    writes.clear();
    vcard_write w{};
    while (in >> w.ns >> w.frames >> w.dry_ns)
        writes.push_back(w);
    unlink(dump);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 && !writes.empty();
}

int toolStart(int runs, char **argv) {
    std::vector<double> ms;
    for (int r = 0; r < runs; ++r) {
        int64_t started = 0;
        std::vector<vcard_write> writes;
        if (runTool(argv, started, writes))
            ms.push_back((writes.front().ns - started) / 1e6);
    }
    printSummary("start", "tool", ms);
    return 0;
}

int toolChange(char **argv) {
    int64_t started = 0;
    std::vector<vcard_write> writes;
    if (!runTool(argv, started, writes))
        return 1;
    int64_t worst = 0;
    for (size_t i = 1; i < writes.size(); ++i)
        worst = std::max(worst, writes[i].dry_ns);
    printf("tool-change silence_ms=%.1f worst_ms=%.1f\n", silenceMs(writes, 0, INT64_MAX),
           worst / 1e6);
    return 0;
}

int toolUnderruns(char **argv) {
    int64_t started = 0;
    std::vector<vcard_write> writes;
    if (!runTool(argv, started, writes))
        return 1;
    printUnderruns("tool", writes);
    return 0;
}

int usage() {
    fprintf(stderr, "usage: listen_bench start RUNS FILE... | seek RUNS TARGET_S FILE... |\n"
                    "       pause RUNS FILE... | change RUNS LATE_MS FILE... |\n"
                    "       play SECONDS FILE [paused|skip=N|level=N] |\n"
                    "       underruns SECONDS TEMPO FILE | tool-start RUNS CMD... |\n"
                    "       tool-change CMD... | tool-underruns CMD...\n");
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 3)
        return usage();
    host_set_log_sink(quiet, nullptr, 0);
    const std::string mode = argv[1];
    const int n = atoi(argv[2]);
    std::vector<std::string> rest(argv + 3, argv + argc);
    int rc;
    if (mode == "start" && !rest.empty())
        rc = startBench(n, rest);
    else if (mode == "seek" && rest.size() >= 2)
        rc = seekBench(n, atoi(rest[0].c_str()),
                       std::vector<std::string>(rest.begin() + 1, rest.end()));
    else if (mode == "pause" && !rest.empty())
        rc = pauseBench(n, rest);
    else if (mode == "change" && rest.size() >= 3)
        rc = changeBench(n, atoi(rest[0].c_str()),
                         std::vector<std::string>(rest.begin() + 1, rest.end()));
    else if (mode == "play" && (rest.size() == 1 || rest.size() == 2))
        rc = playBench(n, rest[0], rest.size() == 2 ? rest[1] : "");
    else if (mode == "tool-start" && !rest.empty())
        return toolStart(n, argv + 3);
    else if (mode == "underruns" && rest.size() == 2)
        rc = underrunBench(n, atof(rest[0].c_str()), rest[1]);
    else if (mode == "tool-change")
        return toolChange(argv + 2);
    else if (mode == "tool-underruns")
        return toolUnderruns(argv + 2);
    else
        return usage();
    deinit_alsa_output();
    return rc;
}

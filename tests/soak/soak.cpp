// Soak: plays a playlist on a fast virtual card for a given time while a driver thread makes
// random IPlayer calls, as an application would (one caller at a time: every call is made under
// one mutex; callbacks only read the state and post track ends to the main thread, which hands
// them back with HandlePlayerStateChanged). Every check period it verifies that the resident
// memory stays within a bound of what it was after the warm-up period, and after every call that
// the state machine is consistent (state 0..3, position within the track, current index within
// the list or -1). A call that does not return within the watchdog limit fails the run.
//
//   ae_soak [--minutes M] [--check-seconds S] [--speed X] [--growth-kb K] [--seed N]
// Exit status 0 when every check held.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "IPlayer.h"
#include "alsa_device.h"
#include "host_platform.h"
#include "vcard.h"

#ifndef AE_SOAK_ALSA_CONFIG
#define AE_SOAK_ALSA_CONFIG ""
#endif
#ifndef AE_SOAK_MEDIA
#define AE_SOAK_MEDIA "tests/media/files"
#endif

namespace {

using tavrel::utilities::IPlayer;
using Track = IPlayer::Track;
using Clock = std::chrono::steady_clock;

long rssKb() {
    long pages = 0, resident = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr)
        return -1;
    if (fscanf(f, "%ld %ld", &pages, &resident) != 2)
        resident = -1;
    fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void quietLog(int level, const char *, int, const char *function, const char *message, void *) {
    // Failures stay visible; progress lines would drown the report.
    static std::atomic<int> shown{0};
    if (level <= 2 && shown++ < 50)
        fprintf(stderr, "[log L%d] %s: %s\n", level, function, message);
}

class Events : public tavrel::utilities::PlayerCb {
public:
    explicit Events(IPlayer *p) : player_(p) {}
    void OnTrackChanged() override { ++trackChanged; }
    void OnStateChanged() override {
        ++stateChanged;
        const int s = player_->GetState(); // allowed from inside a callback
        if (s < 0 || s > 3)
            ++badCallbackStates;
        if (s == IPlayer::Finished) {
            std::lock_guard<std::mutex> lock(mutex_);
            ++pending_;
            wake_.notify_one();
        }
    }
    void OnPositionChanged() override { ++positionChanged; }

    // Waits up to `ms` for a posted track end; true when one was taken.
    bool take(int ms) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!wake_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return pending_ > 0; }))
            return false;
        pending_ = 0; // several notices of one end are handled once
        return true;
    }

    std::atomic<long> trackChanged{0}, stateChanged{0}, positionChanged{0};
    std::atomic<long> badCallbackStates{0};

private:
    IPlayer *player_;
    std::mutex mutex_;
    std::condition_variable wake_;
    int pending_ = 0;
};

struct Options {
    double minutes = 1.0;
    int checkSeconds = 60;
    double speed = 20.0;
    long growthKb = 16 * 1024;
    unsigned seed = 0;
};

std::vector<Track> playlist(const std::string &media) {
    static const char *const files[] = {"tone440_3s.wav",
                                        "tone440_3s.mp3",
                                        "tone440_3s.flac",
                                        "tone440_3s.ogg",
                                        "tone440_3s.opus",
                                        "tone440_3s.m4a",
                                        "marked_3s.mp3",
                                        "cover_jpeg_3s.mp3",
                                        "cover_png_3s.flac",
                                        "tone440_10s.mp3",
                                        "tags_chapters_80s.mka",
                                        "tone440_3s_mono.wav",
                                        "tone440_3s_8000.wav",
                                        "tone440_3s_48000.wav",
                                        "tone440_truncated.mp3",
                                        "tone440_corrupt.mp3",
                                        "not_audio.mp3",
                                        "no_such_file.mp3",
                                        "book_deflated.zip:#zip(steps_10s.mp3)",
                                        "book_stored.zip:#zip(sub/steps_10s.mp3)"};
    std::vector<Track> list;
    int id = 1;
    for (const char *f : files) {
        Track t;
        t.id = id++;
        t.filename = media + "/" + f;
        t.title = f;
        list.push_back(t);
    }
    return list;
}

} // namespace

int main(int argc, char **argv) {
    Options o;
    o.seed = static_cast<unsigned>(time(nullptr));
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--minutes")
            o.minutes = atof(argv[i + 1]);
        else if (a == "--check-seconds")
            o.checkSeconds = atoi(argv[i + 1]);
        else if (a == "--speed")
            o.speed = atof(argv[i + 1]);
        else if (a == "--growth-kb")
            o.growthKb = atol(argv[i + 1]);
        else if (a == "--seed")
            o.seed = static_cast<unsigned>(atol(argv[i + 1]));
        else {
            fprintf(stderr, "ae_soak: unknown option %s\n", a.c_str());
            return 2;
        }
    }
    if (AE_SOAK_ALSA_CONFIG[0] != '\0')
        setenv("ALSA_CONFIG_PATH", AE_SOAK_ALSA_CONFIG, 0);
    const char *mediaEnv = getenv("AE_TEST_MEDIA");
    const std::string media = mediaEnv ? mediaEnv : AE_SOAK_MEDIA;
    host_set_log_sink(quietLog, nullptr, 0);
    vcard_setup();
    vcard_set_speed(o.speed);
    set_alsa_device_name("");
    printf("soak: %.2f min, checks every %d s, card speed %.1f, growth bound %ld KiB, seed %u\n",
           o.minutes, o.checkSeconds, o.speed, o.growthKb, o.seed);
    fflush(stdout);

    IPlayer *player = AudioEngine_CreatePlayer();
    Events events(player);
    player->setCb(&events);
    std::vector<Track> list = playlist(media);
    std::mutex playerMutex; // IPlayer calls: one thread at a time
    std::atomic<long> ops{0}, violations{0};
    std::atomic<bool> running{true};
    std::atomic<long> lastOpStartMs{0};
    std::atomic<int> lastOp{-1};
    const Clock::time_point begin = Clock::now();
    auto nowMs = [&] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
    };
    size_t listSize = list.size();

    // Checks the state machine; called with playerMutex held.
    auto check = [&](const char *after) {
        const int state = player->GetState();
        const int pos = player->GetTrackPosition();
        const int size = player->GetTrackSize();
        const int current = player->GetCurrentTrack();
        bool ok = state >= 0 && state <= 3 && pos >= 0 && size >= 0 && (size == 0 || pos <= size) &&
                  current >= -1 && current < static_cast<int>(listSize);
        if (!ok && violations++ < 20)
            fprintf(stderr,
                    "soak: inconsistent after %s: state %d position %d size %d current %d "
                    "(list %zu)\n",
                    after, state, pos, size, current, listSize);
    };

    {
        std::lock_guard<std::mutex> lock(playerMutex);
        player->SetPlayList(list);
        player->SetMode(IPlayer::RepeatList);
        player->PlayTrack(0, -1, false);
    }

    std::thread driver([&] {
        std::mt19937 rng(o.seed);
        auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
        static const char *const names[] = {
            "PlayTrack", "NextTrack", "PreviousTrack", "SetMode",  "SetTrackPosition", "SetState",
            "Toggle",    "SetVolume", "Enqueue",       "Dequeue",  "setTempo",         "setRate",
            "setEq",     "info",      "SetPlayList",   "openFile", "pause-resume"};
        while (running) {
            const int op = pick(0, 16);
            std::this_thread::sleep_for(std::chrono::milliseconds(pick(0, 40)));
            std::lock_guard<std::mutex> lock(playerMutex);
            lastOp = op;
            lastOpStartMs = nowMs();
            const int n = static_cast<int>(listSize);
            switch (op) {
            case 0:
                player->PlayTrack(pick(-1, n), pick(-1, 12), pick(0, 5) == 0);
                break;
            case 1:
                player->NextTrack();
                break;
            case 2:
                player->PreviousTrack();
                break;
            case 3:
                player->SetMode(static_cast<IPlayer::PlayMode>(pick(0, 4)));
                break;
            case 4:
                player->SetTrackPosition(pick(-1, 15));
                break;
            case 5:
                player->SetState(static_cast<IPlayer::PlayState>(pick(0, 3)));
                break;
            case 6:
                player->TogglePlaying();
                break;
            case 7:
                player->SetVolume(pick(0, 100));
                break;
            case 8:
                player->EnqueueTrack(static_cast<unsigned>(pick(0, n)));
                break;
            case 9:
                player->DequeueTrack(static_cast<unsigned>(pick(0, n)));
                break;
            case 10:
                player->setTempo(pick(0, 9) == 0 ? 10.0 : 0.25 + pick(0, 375) / 100.0);
                break;
            case 11:
                player->setSampleRateMultiplier(pick(0, 9) == 0 ? 0.0 : 0.5 + pick(0, 150) / 100.0);
                break;
            case 12: {
                std::vector<std::pair<int, int>> eq;
                // Bands in ascending frequency, as an equaliser screen makes them.
                int frequency = 20;
                for (int i = pick(0, 6); i > 0; --i) {
                    frequency += pick(10, 3000);
                    eq.emplace_back(frequency, pick(-12, 12));
                }
                player->setEqualizerSettings(eq);
                break;
            }
            case 13: {
                const auto tags = player->getMetadata();
                const auto chapters = player->getChapters();
                const qz_bitmap *cover = player->getCover();
                (void)tags;
                (void)chapters;
                (void)cover;
                player->GetPlayingTrack();
                player->GetTrackEnqueueIndex(static_cast<unsigned>(pick(0, n)));
                player->GetVolume();
                break;
            }
            case 14: {
                if (pick(0, 4) != 0)
                    break;
                std::vector<Track> shuffled = list;
                std::shuffle(shuffled.begin(), shuffled.end(), rng);
                shuffled.resize(static_cast<size_t>(pick(0, n)));
                listSize = shuffled.size();
                player->SetPlayList(shuffled);
                if (listSize == 0) { // an empty list is legal, but put one back soon
                    listSize = list.size();
                    player->SetPlayList(list);
                }
                break;
            }
            case 15:
                player->openFile(list[static_cast<size_t>(pick(0, n - 1))].filename);
                break;
            case 16:
                player->SetState(IPlayer::Paused);
                player->SetState(IPlayer::Playing);
                break;
            }
            check(names[op]);
            lastOp = -1;
            ++ops;
        }
    });

    const long endMs = static_cast<long>(o.minutes * 60000);
    long nextCheck = o.checkSeconds * 1000L;
    long baseline = -1, peak = 0, ended = 0;
    const long startRss = rssKb();
    bool failed = false;
    const long watchdogMs = 30000;
    while (nowMs() < endMs && !failed) {
        if (events.take(20)) {
            std::lock_guard<std::mutex> lock(playerMutex);
            player->HandlePlayerStateChanged();
            ++ended;
            check("HandlePlayerStateChanged");
        }
        if (lastOp >= 0 && nowMs() - lastOpStartMs > watchdogMs) {
            fprintf(stderr, "soak: call %d has not returned for %ld ms\n", lastOp.load(),
                    watchdogMs);
            fflush(stderr);
            std::abort(); // a hung call cannot be joined
        }
        if (nowMs() >= nextCheck) {
            const long rss = rssKb();
            if (baseline < 0)
                baseline = rss; // after the warm-up period
            if (rss > peak)
                peak = rss;
            const bool grew = rss - baseline > o.growthKb;
            printf("soak: %4ld s  rss %ld KiB (start %ld, baseline %ld, %+ld)  calls %ld  "
                   "track ends %ld  state notices %ld  positions %ld  violations %ld%s\n",
                   static_cast<long>(nowMs() / 1000), rss, startRss, baseline, rss - baseline,
                   ops.load(), ended, events.stateChanged.load(), events.positionChanged.load(),
                   violations.load(), grew ? "  MEMORY GREW" : "");
            fflush(stdout);
            if (grew)
                failed = true;
            nextCheck += o.checkSeconds * 1000L;
        }
    }
    running = false;
    driver.join();
    {
        std::lock_guard<std::mutex> lock(playerMutex);
        player->SetState(IPlayer::Stopped);
        player->setCb(nullptr);
    }
    AudioEngine_DestroyPlayer(player);
    deinit_alsa_output();
    close_alsa_ex(0);

    if (violations > 0 || events.badCallbackStates > 0)
        failed = true;
    if (ops == 0 || events.positionChanged == 0) {
        fprintf(stderr, "soak: nothing played\n");
        failed = true;
    }
    printf("soak: %s after %ld s: %ld calls, %ld track ends, rss %ld KiB (baseline %ld, peak "
           "%ld), %ld violations\n",
           failed ? "FAILED" : "passed", static_cast<long>(nowMs() / 1000), ops.load(), ended,
           rssKb(), baseline, peak, violations.load());
    return failed ? 1 : 0;
}

// Soak: a playlist plays on the fast virtual card while another thread makes random IPlayer calls;
// the state must stay consistent and the memory within 16 MiB. ae_soak [MINUTES [CHECK_S [SEED]]]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "IPlayer.h"
#include "host_platform.h"
#include "vcard.h"

using tavrel::utilities::IPlayer;
using Clock = std::chrono::steady_clock;
using Tracks = std::vector<IPlayer::Track>;

struct Events : tavrel::utilities::PlayerCb {
    std::atomic<long> changes{0}, positions{0};
    void OnTrackChanged() override {}
    void OnStateChanged() override { ++changes; } // handed back on the main thread
    void OnPositionChanged() override { ++positions; }
    static void quiet(int, const char *, int, const char *, const char *, void *) {}
};

int main(int argc, char **argv) {
    const double minutes = argc > 1 ? atof(argv[1]) : 1, check_s = argc > 2 ? atof(argv[2]) : 60;
    const unsigned seed = argc > 3 ? atol(argv[3]) : static_cast<unsigned>(time(nullptr));
    setenv("ALSA_CONFIG_PATH", AE_SOAK_ALSA_CONFIG, 0);
    const std::string media = getenv("AE_TEST_MEDIA") ? getenv("AE_TEST_MEDIA") : AE_SOAK_MEDIA;
    host_set_log_sink(Events::quiet, nullptr, 0); // library lines would drown the report
    vcard_setup();
    vcard_set_speed(20);
    Tracks list;
    for (const char *f :
         {"tone440_3s.wav", "tone440_3s.flac", "tone440_3s.opus", "tone440_3s.m4a",
          "cover_jpeg_3s.mp3", "not_audio.mp3", "tags_chapters_80s.mka", "tone440_3s_8000.wav",
          "tone440_truncated.mp3", "no_such_file.mp3", "book_stored.zip:#zip(sub/steps_10s.mp3)"})
        list.emplace_back().filename = media + "/" + f;
    IPlayer *player = AudioEngine_CreatePlayer();
    Events events;
    player->setCb(&events);
    std::mutex calls;
    std::atomic<long> ops{0}, violations{0}, listed{static_cast<long>(list.size())};
    const auto end = Clock::now() + std::chrono::milliseconds(static_cast<long>(minutes * 60000));
    player->SetPlayList(list);
    player->PlayTrack(0, -1, false);
    std::thread driver([&] {
        std::mt19937 rng(seed);
        auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
        const int n = static_cast<int>(list.size());
        const std::function<void()> calls_made[] = {
            [&] { player->PlayTrack(pick(-1, n), pick(-1, 12), pick(0, 5) == 0); },
            [&] { player->NextTrack(), player->PreviousTrack(), player->TogglePlaying(); },
            [&] { player->SetState(static_cast<IPlayer::PlayState>(pick(0, 3))); },
            [&] { player->SetMode(static_cast<IPlayer::PlayMode>(pick(0, 4))); },
            [&] { player->SetTrackPosition(pick(-1, 15)), player->SetVolume(pick(0, 100)); },
            [&] { player->EnqueueTrack(pick(0, n)), player->DequeueTrack(pick(0, n)); },
            [&] { player->setTempo(pick(25, 400) / 100.0); },
            [&] { player->setSampleRateMultiplier(pick(50, 200) / 100.0); },
            [&] {
                player->setEqualizerSettings({{pick(20, 9000), pick(-9, 9)}});
            },
            [&] { player->getMetadata(), player->getChapters(), player->getCover(); },
            [&] { player->openFile(list[pick(0, n - 1)].filename); },
            [&] { player->SetPlayList(Tracks(list.end() - (listed = pick(1, n)), list.end())); },
        };
        for (; Clock::now() < end && violations == 0; ++ops) {
            std::this_thread::sleep_for(std::chrono::milliseconds(pick(0, 40)));
            std::lock_guard<std::mutex> lock(calls);
            calls_made[pick(0, 11)]();
        }
    });
    for (long baseline = -1, tick = 1; Clock::now() < end && violations == 0; ++tick) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the state every 20 ms

        std::lock_guard<std::mutex> lock(calls);
        if (events.changes.exchange(0) != 0)
            player->HandlePlayerStateChanged();
        const int state = player->GetState(), pos = player->GetTrackPosition();
        const int size = player->GetTrackSize(), current = player->GetCurrentTrack();
        if (state < 0 || state > 3 || pos < 0 || size < 0 || (size > 0 && pos > size) ||
            current < -1 || current >= listed)
            violations += fprintf(stderr, "soak: state %d position %d/%d track %d\n", state, pos,
                                  size, current) != 0;
        if (tick % static_cast<long>(check_s * 50 + 1) != 0)
            continue; // the memory every check period
        long pages = 0, rss = -1;
        std::ifstream("/proc/self/statm") >> pages >> rss;
        baseline = baseline < 0 ? rss : baseline;
        violations += rss - baseline > 4096; // 16 MiB of 4 KiB pages
        fprintf(stderr, "soak: resident %ld pages (%+ld), %ld calls, %ld violations\n", rss,
                rss - baseline, ops.load(), violations.load());
    }
    driver.join();
    AudioEngine_DestroyPlayer(player);
    const bool failed = violations > 0 || ops == 0 || events.positions == 0; // nothing played
    printf("soak: %s after %ld calls, seed %u\n", failed ? "FAILED" : "passed", ops.load(), seed);
    return failed ? 1 : 0;
}

// The listening features of the playlist player: plays a book with pauses shortened and the
// narrator levelled, and pauses after a playing time with a fade, as a bedside player would.
//
// The features are reached through the player's extension handle. Its functions are called on
// the application's thread like the player's own; the one notification, the sleep timer's, arrives
// on the engine's play thread and only wakes the application's thread.
//
//   ae_example_listening MINUTES book.m4b
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "AudioEngineExtension.h"
#include "IPlayer.h"
#include "alsa_device.h"

using tavrel::utilities::IPlayer;
using tavrel::utilities::PlayerCb;

// What the application's thread waits for: a state change or the sleep timer.
class Events : public PlayerCb {
public:
    void OnTrackChanged() override {}
    void OnPositionChanged() override {}
    void OnStateChanged() override { post(&stateChanged_); }
    // The sleep timer's notification (play thread): wake the application, nothing more.
    static void onSleep(void *user, int /*mode*/) {
        auto *self = static_cast<Events *>(user);
        self->post(&self->asleep_);
    }

    // Application thread: waits for an event; true when it was the sleep timer.
    bool wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return stateChanged_ || asleep_; });
        const bool asleep = asleep_;
        stateChanged_ = asleep_ = false;
        return asleep;
    }

private:
    void post(bool *flag) {
        std::lock_guard<std::mutex> lock(mutex_);
        *flag = true;
        wake_.notify_one();
    }
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stateChanged_ = false;
    bool asleep_ = false;
};

int main(int argc, char **argv) {
    if (argc != 3 || std::atof(argv[1]) <= 0) {
        std::fprintf(stderr, "usage: %s MINUTES MEDIA\n", argv[0]);
        return 2;
    }
    IPlayer *player = AudioEngine_CreatePlayer();
    if (player == nullptr)
        return 1;
    Events events;
    player->setCb(&events);

    // The handle lives as long as the player; the settings stay across tracks and opens.
    ae_ext *ext = AudioEngine_GetPlayerExtension(player);
    ae_ext_set_skip_silence(ext, AE_SKIP_SILENCE_NATURAL);
    ae_ext_set_voice_level(ext, AE_VOICE_LEVEL_GENTLE);
    ae_ext_set_rewind_after_pause(ext, 1);
    ae_ext_set_sleep_fade_ms(ext, 10000);
    ae_ext_set_sleep_callback(ext, &Events::onSleep, &events);

    IPlayer::Track track;
    track.id = 1;
    track.filename = argv[2];
    player->SetPlayList({track});
    int status = 0;
    if (player->PlayTrack(0, -1, false) != 0 || player->GetState() == IPlayer::Stopped) {
        std::fprintf(stderr, "cannot play %s\n", argv[2]);
        status = 1;
    } else {
        // Armed once playing: it counts playing time only.
        ae_ext_set_sleep_timer(ext, AE_SLEEP_AFTER_TIME,
                               static_cast<int64_t>(std::atof(argv[1]) * 60000));
    }

    while (status == 0) {
        if (events.wait()) {
            std::printf("asleep at %d s; skip silence saved %lld ms\n", player->GetTrackPosition(),
                        static_cast<long long>(ae_ext_silence_saved_ms(ext)));
            break; // paused by the timer: an application would keep the place here
        }
        if (player->GetState() == IPlayer::Finished)
            break;
        if (player->GetState() == IPlayer::Stopped)
            status = 1;
    }

    // Stop, then detach both notifications before they can outlive their objects.
    player->SetState(IPlayer::Stopped);
    player->setCb(nullptr);
    ae_ext_set_sleep_callback(ext, nullptr, nullptr);
    AudioEngine_DestroyPlayer(player);
    deinit_alsa_output();
    return status;
}

// The sleep timer of the listening features on a playlist player: plays the files given on the
// command line, pauses after SECONDS of playing time (fading out over the last 10 s), at the end
// of the chapter or at the end of the track, and exits when the timer has paused playback.
//
// The timer's notification arrives on the engine's play thread, like OnStateChanged: it only
// hands the event to the application's thread, which makes every call.
//
//   ae_example_sleep_timer 600 book.m4b        (ten minutes)
//   ae_example_sleep_timer chapter book.m4b
//   ae_example_sleep_timer track part01.mp3 part02.mp3
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "AudioEngineExtension.h"
#include "IPlayer.h"
#include "alsa_device.h"

using tavrel::utilities::IPlayer;
using tavrel::utilities::PlayerCb;

// State changes and the timer's notification, for the application's thread.
class Events : public PlayerCb {
public:
    void OnTrackChanged() override {}
    void OnPositionChanged() override {}
    void OnStateChanged() override { post(false); }
    static void onSleep(void *user, int /*mode*/) { static_cast<Events *>(user)->post(true); }

    // Application thread: waits up to a second; true when the timer has fired.
    bool wait(bool *stateChanged) {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait_for(lock, std::chrono::seconds(1), [this] { return changed_ || slept_; });
        *stateChanged = changed_;
        changed_ = false;
        return slept_;
    }

private:
    void post(bool slept) {
        std::lock_guard<std::mutex> lock(mutex_);
        (slept ? slept_ : changed_) = true;
        wake_.notify_one();
    }
    std::mutex mutex_;
    std::condition_variable wake_;
    bool changed_ = false, slept_ = false;
};

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s SECONDS|chapter|track FILE...\n", argv[0]);
        return 2;
    }
    const bool chapter = strcmp(argv[1], "chapter") == 0, track = strcmp(argv[1], "track") == 0;
    const int mode = chapter ? AE_SLEEP_END_OF_CHAPTER
                     : track ? AE_SLEEP_END_OF_TRACK
                             : AE_SLEEP_AFTER_TIME;
    std::vector<IPlayer::Track> tracks(static_cast<size_t>(argc - 2));
    for (int i = 2; i < argc; ++i)
        tracks[static_cast<size_t>(i - 2)].filename = argv[i];

    IPlayer *player = AudioEngine_CreatePlayer();
    ae_ext *ext = AudioEngine_GetPlayerExtension(player);
    Events events;
    player->setCb(&events);
    ae_ext_set_sleep_callback(ext, &Events::onSleep, &events);
    ae_ext_set_rewind_after_pause(ext, 1); // a resume next morning starts a little earlier
    int status = 0;
    if (ae_ext_set_sleep_timer(ext, mode, atoll(argv[1]) * 1000) != 0) {
        fprintf(stderr, "not a time in seconds: %s\n", argv[1]);
        status = 2;
    }
    player->SetPlayList(tracks);
    if (status == 0 && (player->PlayTrack(0, -1, false) != 0 || player->GetState() == 0))
        status = 1;
    bool stateChanged = false, slept = false;
    while (status == 0 && !slept) {
        slept = events.wait(&stateChanged);
        if (player->GetState() == IPlayer::Finished) {
            // The next track, on this thread; after a stop at a track's end it waits paused.
            player->HandlePlayerStateChanged();
            if (!slept && player->GetState() == IPlayer::Finished)
                break; // the list has ended before the timer
        }
        if (player->GetState() == IPlayer::Stopped)
            status = 1;
        printf("\rsleep in %lld s   ", static_cast<long long>(ae_ext_sleep_left_ms(ext) / 1000));
        fflush(stdout);
    }
    if (status == 0)
        printf("\nasleep; paused at %d s of track %d\n", player->GetTrackPosition(),
               player->GetCurrentTrack() + 1);
    player->SetState(IPlayer::Stopped);
    player->setCb(nullptr);
    AudioEngine_DestroyPlayer(player);
    deinit_alsa_output();
    return status;
}

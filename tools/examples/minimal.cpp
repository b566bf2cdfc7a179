// The smallest complete application of the playlist player: plays the media paths given on the
// command line one after another and exits when the last one has finished.
//
// It shows the one threading rule that matters: the callbacks only hand events to the
// application's thread (here through a mutex and a condition variable); that thread makes every
// player call, HandlePlayerStateChanged included.
//
//   ae_example_minimal book.mp3 "book.zip:#zip(part02.mp3)"
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <vector>

#include "IPlayer.h"
#include "alsa_device.h"

using tavrel::utilities::IPlayer;
using tavrel::utilities::PlayerCb;

// Events for the application's thread. The callbacks may run on the player's play thread, so
// they take the mutex only long enough to set a flag, and call nothing of the player's.
class Events : public PlayerCb {
public:
    void OnTrackChanged() override {}
    void OnPositionChanged() override {} // a real application would redraw its position here
    void OnStateChanged() override {
        std::lock_guard<std::mutex> lock(mutex_);
        stateChanged_ = true;
        wake_.notify_one();
    }

    // Application thread: waits for the next state change.
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return stateChanged_; });
        stateChanged_ = false;
    }

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stateChanged_ = false;
};

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s MEDIA...\n", argv[0]);
        return 2;
    }

    // 1. Create the player (it brings its own engine) and hand it the callbacks. The callback
    //    object must outlive the player or be detached with setCb(nullptr) first.
    IPlayer *player = AudioEngine_CreatePlayer();
    if (player == nullptr)
        return 1;
    Events events;
    player->setCb(&events);

    // 2. The playlist: the player reads only each track's file name.
    std::vector<IPlayer::Track> tracks;
    for (int i = 1; i < argc; ++i) {
        IPlayer::Track track;
        track.id = i;
        track.filename = argv[i];
        tracks.push_back(track);
    }
    player->SetPlayList(tracks);
    player->SetMode(IPlayer::Sequential);

    // 3. Play the first track from its start. PlayTrack returns 0 once the file has opened;
    //    whether playback then started shows in the state (Stopped: it did not).
    int status = 0;
    if (player->PlayTrack(0, -1, false) != 0 || player->GetState() == IPlayer::Stopped) {
        std::fprintf(stderr, "cannot play %s\n", argv[1]);
        status = 1;
    }

    // 4. The application's loop: every state change is handled here, never in the callback.
    //    HandlePlayerStateChanged starts the next track when the current one has finished; in
    //    Sequential mode the state stays Finished after the last one. Stopped means the player
    //    gave up (the sound output was lost, or the next track did not start): no further state
    //    change will come, so the loop must end rather than wait again.
    while (status == 0) {
        events.wait();
        if (player->GetState() == IPlayer::Finished) {
            player->HandlePlayerStateChanged();
            if (player->GetState() == IPlayer::Finished)
                break; // the end of the list
        }
        if (player->GetState() == IPlayer::Stopped) {
            std::fprintf(stderr, "playback stopped\n");
            status = 1;
        }
    }

    // 5. Stop (joins the play thread), detach the callbacks, destroy. Finally end the output
    //    layer's thread, which closes the sound device.
    player->SetState(IPlayer::Stopped);
    player->setCb(nullptr);
    AudioEngine_DestroyPlayer(player);
    deinit_alsa_output();
    return status;
}

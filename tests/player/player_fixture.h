// Shared set-up of the player's tests: a player on the virtual card and a callback object that
// counts events and hands track ends to the test's thread (the application's thread).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "IPlayer.h"
#include "alsa_device.h"
#include "test_support.h"
#include "vcard.h"

using tavrel::utilities::IPlayer;
using Track = IPlayer::Track;

// A track end seen on the play thread is posted to the application's thread, which hands it
// back with pump(). Events raised by the application's own calls are only counted.
class Recorder : public tavrel::utilities::PlayerCb {
public:
    explicit Recorder(IPlayer *p) : player(p) {}
    void OnTrackChanged() override { ++trackChanged; }
    void OnStateChanged() override {
        ++stateChanged;
        if (std::this_thread::get_id() != appThread && player->GetState() == IPlayer::Finished) {
            std::lock_guard<std::mutex> lock(mutex);
            ++posted;
            wake.notify_one();
        }
    }
    void OnPositionChanged() override { ++positionChanged; }

    // Waits for one posted track end and calls HandlePlayerStateChanged on this thread.
    bool pump(int timeout_ms = 5000) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (!wake.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                               [&] { return posted > 0; }))
                return false;
            --posted;
        }
        player->HandlePlayerStateChanged();
        return true;
    }

    IPlayer *player;
    const std::thread::id appThread = std::this_thread::get_id();
    std::atomic<int> trackChanged{0}, stateChanged{0}, positionChanged{0};

private:
    std::mutex mutex;
    std::condition_variable wake;
    int posted = 0;
};

inline Track track_of(const std::string &path) {
    Track t;
    t.filename = path;
    return t;
}

// Up to 14 tracks of distinct short files.
inline std::vector<Track> media_list(int n) {
    static const char *const names[] = {
        "tone440_3s.wav",      "tone440_3s.flac",      "tone440_3s.ogg",
        "tone440_3s.mp3",      "tone1000_3s.wav",      "tone100_3s.wav",
        "mix100_1000_3s.wav",  "known_pcm_1s.wav",     "tone440_3s_mono.wav",
        "tone440_3s_8000.wav", "tone440_3s_22050.wav", "tone440_3s_48000.wav",
        "tone440_3s.opus",     "tone440_3s.m4a"};
    std::vector<Track> list;
    for (int i = 0; i < n; ++i)
        list.push_back(track_of(ae_test::media_path(names[i])));
    return list;
}

class PlayerTest : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_set_speed(speed());
        player = AudioEngine_CreatePlayer();
        rec = std::make_unique<Recorder>(player);
        player->setCb(rec.get());
    }
    void TearDown() override {
        player->SetState(IPlayer::Stopped);
        AudioEngine_DestroyPlayer(player);
        deinit_alsa_output(); // the next test opens the device afresh, at its own speed
        close_alsa_ex(0);
    }
    virtual double speed() const { return 0; }
    std::string playing() { return player->GetPlayingTrack().filename; }

    IPlayer *player = nullptr;
    std::unique_ptr<Recorder> rec;
};

// Real-time playback, for tests that need a track to stay in a state.
class RealTimeTest : public PlayerTest {
    double speed() const override { return 1.0; }
};

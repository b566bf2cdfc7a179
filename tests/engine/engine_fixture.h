// Shared fixture of the engine tests: one engine on the virtual card, a recorder of every
// notification (which callback, on which thread, in which state), and byte streams that the
// tests hand to openWithStream.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "IAudioEngine.h"
#include "alsa_device.h"
#include "host_platform.h"
#include "memory_stream.h"
#include "test_support.h"
#include "vcard.h"

namespace engine_test {

using tavrel::utilities::IAudioEngine;

const int kRate = 44100;

// One notification: 'S' state, 'P' position, 'E' error; `caller` when it ran on the thread
// that created the fixture; `state` as getState() read it inside the callback.
struct Note {
    char kind;
    bool caller;
    int state;
};

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        vcard_set_speed(0);
        set_alsa_device_name("");
        caller_ = std::this_thread::get_id();
        engine_ = AudioEngine_CreateAudioEngine();
        ASSERT_NE(engine_, nullptr);
        engine_->setStateChangedCb([this] { record('S'); });
        engine_->setTrackPositionChangedCb([this] { record('P'); });
        engine_->setErrorCallback([this](IAudioEngine::ErrorType type) {
            EXPECT_EQ(type, IAudioEngine::NoOutputDevice);
            record('E');
        });
        host_platform_clear_calls();
    }

    void TearDown() override {
        if (engine_ != nullptr) {
            engine_->closeFile();
            AudioEngine_DestroyAudioEngine(engine_);
        }
        deinit_alsa_output();
        close_alsa_ex(0);
        AlsaMixerDestroy();
    }

    void record(char kind) {
        const int s = engine_->getState();
        std::lock_guard<std::mutex> lock(notesMutex_);
        notes_.push_back(Note{kind, std::this_thread::get_id() == caller_, s});
    }

    std::vector<Note> notes() {
        std::lock_guard<std::mutex> lock(notesMutex_);
        return notes_;
    }

    void clearNotes() {
        std::lock_guard<std::mutex> lock(notesMutex_);
        notes_.clear();
    }

    // The notifications of `kind` as a string of 'c' (caller) and 'p' (play thread).
    std::string threadsOf(char kind) {
        std::string out;
        for (const Note &n : notes())
            if (n.kind == kind)
                out += n.caller ? 'c' : 'p';
        return out;
    }

    // The notifications without the per-pass position updates, e.g. "S P S".
    std::string sequence(bool withPositions = false) {
        std::string out;
        for (const Note &n : notes())
            if (withPositions || n.kind != 'P' || n.state == 3)
                out += n.kind;
        return out;
    }

    // Ended Finished the usual way: the play thread reported the final position and state (per-pass
    // positions left out), and the caller's thread notified once, for start(). start() notifies
    // after launching the loop, so a loop that ends at once may notify first.
    void expectFinishedSequence() {
        std::string play;
        for (const Note &n : notes())
            if (!n.caller && (n.kind != 'P' || n.state == 3))
                play += n.kind;
        EXPECT_EQ(play, "PS");
        const std::string s = threadsOf('S');
        EXPECT_TRUE(s == "cp" || s == "pc") << s;
    }

    bool waitState(int state, int timeoutMs = 20000) {
        return ae_test::wait_until([&] { return engine_->getState() == state; }, timeoutMs);
    }

    // Plays the open media to Finished and waits until the output layer has played out and
    // closed the device, so the capture is complete.
    void playOpened() {
        ASSERT_EQ(engine_->start(), 0);
        ASSERT_TRUE(waitState(3)) << "state " << engine_->getState();
        ASSERT_TRUE(ae_test::wait_until([] { return vcard_is_open() == 0; }, 5000));
    }

    void playToEnd(const std::string &file) {
        ASSERT_EQ(engine_->openFile(ae_test::media_path(file)), 0) << file;
        playOpened();
    }

    // Platform calls as text: "S2 S3 B4 S0 ...".
    static std::string platformCalls() {
        std::vector<host_platform_call> calls(100000);
        const size_t n = host_platform_calls(calls.data(), calls.size());
        std::string out;
        for (size_t i = 0; i < std::min(n, calls.size()); ++i) {
            out += calls[i].kind;
            out += std::to_string(calls[i].value);
            out += ' ';
        }
        return out;
    }

    IAudioEngine *engine_ = nullptr;
    std::thread::id caller_;
    std::mutex notesMutex_;
    std::vector<Note> notes_;
};

using ae_test::MemoryStream;

} // namespace engine_test

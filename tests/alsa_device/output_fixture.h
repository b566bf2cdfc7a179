// Shared set-up for the output layer's tests: a fresh virtual card, captured log lines, and
// helpers to fill pieces with recognisable audio.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alsa_device.h"
#include "mp_state.h"
#include "test_support.h"
#include "vcard.h"

class OutputTest : public ::testing::Test {
protected:
    void SetUp() override {
        vcard_setup();
        set_alsa_device_name("");
        mp_control_set_volume(0);
    }
    void TearDown() override {
        deinit_alsa_output();
        close_alsa_ex(0);
        AlsaMixerDestroy();
    }

    // Fills `piece` with `frames` frames whose samples encode `seed` and the frame number, so
    // every piece of a test is different from every other.
    static void fill(abuf_piece *piece, int rate, int frames, int seed) {
        piece->samplerate = rate;
        piece->frames = frames;
        auto *samples = reinterpret_cast<int16_t *>(piece->data);
        for (int i = 0; i < frames * 2; ++i)
            samples[i] = static_cast<int16_t>(seed * 7919 + i * 31);
    }

    static std::vector<int16_t> samples_of(const abuf_piece *piece, int frames) {
        auto *samples = reinterpret_cast<const int16_t *>(piece->data);
        return std::vector<int16_t>(samples, samples + frames * 2);
    }

    // Takes the next free piece, waiting for the play thread to release one.
    static abuf_piece *next_piece() {
        abuf_piece *piece = nullptr;
        EXPECT_TRUE(
            ae_test::wait_until([&] { return (piece = get_output_buffer()) != nullptr; }, 5000));
        return piece;
    }

    // Pushes one piece and returns what it holds.
    static std::vector<int16_t> push(int rate, int frames, int seed) {
        abuf_piece *piece = next_piece();
        if (piece == nullptr)
            return {};
        fill(piece, rate, frames, seed);
        auto samples = samples_of(piece, frames);
        EXPECT_EQ(push_output_buffer(piece), 0);
        return samples;
    }

    static bool wait_captured(size_t frames, int timeout_ms = 5000) {
        return ae_test::wait_until([&] { return vcard_captured_frames() >= frames; }, timeout_ms);
    }

    static std::vector<int16_t> captured() {
        std::vector<int16_t> out(vcard_captured_frames() * 2);
        out.resize(vcard_capture(out.data(), out.size() / 2) * 2);
        return out;
    }

    static std::string events() {
        char *text = vcard_events();
        std::string out = text ? text : "";
        free(text);
        return out;
    }
};

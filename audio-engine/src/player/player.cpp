// Player: construction, destruction, forwarded engine events, transport, position, volume,
// filter settings and media information.
#include "Player.h"

#include <cstdint>

#include "mp_state.h"

namespace tavrel {
namespace player {

Player::Player()
    : playList(), engine(), currentTrack(0), mode(Sequential), randomSequence(), queue(),
      playingTrack(), cb(nullptr) {
    // Both events read the callback object when they fire, so setCb takes effect at the next
    // event. They run on the application's thread or on the engine's play thread.
    engine.setStateChangedCb([this] {
        if (PlayerCb *target = callbacks())
            target->OnStateChanged();
    });
    engine.setTrackPositionChangedCb([this] {
        if (PlayerCb *target = callbacks())
            target->OnPositionChanged();
    });
}

Player::~Player() {
    // Playback that still runs (or a play thread that ended by itself and was never joined) is
    // stopped here, silently, so that the engine is never destroyed with a joinable thread.
    cb.store(nullptr, std::memory_order_release);
    if (engine.getState() != Stopped || engine.playThread.joinable())
        engine.stop();
}

void Player::setCb(PlayerCb *target) {
    cb.store(target, std::memory_order_release);
}

// --- Transport -------------------------------------------------------------------------------

void Player::SetState(PlayState target) {
    switch (target) {
    case Stopped:
        engine.stop();
        break;
    case Paused:
        engine.pause();
        break;
    case Playing:
        if (engine.getState() != Stopped)
            engine.resume();
        else if (!engine.isFileOpened())
            NextTrack();
        break;
    default:
        break;
    }
}

Player::PlayState Player::GetState() {
    return static_cast<PlayState>(engine.getState());
}

void Player::TogglePlaying() {
    switch (engine.getState()) {
    case Paused:
        SetState(Playing);
        break;
    case Playing:
        SetState(Paused);
        break;
    case Stopped:
        PlayTrack(currentTrack, -1, false);
        break;
    default:
        break;
    }
}

// --- Position and duration, seconds here and milliseconds at the engine -----------------------

int Player::GetTrackSize() {
    return static_cast<int>(engine.getDurationMs() / 1000);
}

void Player::SetTrackPosition(int seconds) {
    // 32-bit arithmetic as the engine takes it; a negative value makes no seek.
    engine.seekStream(static_cast<int>(static_cast<uint32_t>(seconds) * 1000u));
}

int Player::GetTrackPosition() {
    return static_cast<int>(engine.getPosition() / 1000);
}

// --- Volume ------------------------------------------------------------------------------------

void Player::SetVolume(int volume) {
    // The shared record keeps the volume even when the mixer cannot be set; the output layer
    // applies it again whenever it reopens the device.
    mp_control_set_volume(static_cast<int16_t>(volume));
    engine.setVolume(volume);
}

int Player::GetVolume() {
    return mp_control_volume();
}

int Player::GetMaxVolume() {
    return 100;
}

// --- Filter settings ---------------------------------------------------------------------------

void Player::setTempo(double tempo) {
    if (tempo >= 0.25 && tempo <= 4.0) // false for NaN
        engine.setTempo(tempo);
}

double Player::getTempo() {
    return engine.getTempo();
}

void Player::setSampleRateMultiplier(double multiplier) {
    if (multiplier >= 0.5 && multiplier <= 2.0) // false for NaN
        engine.setSampleRateMultiplier(multiplier);
}

double Player::getSampleRateMultiplier() {
    return engine.getSampleRateMultiplier();
}

void Player::setEqualizerSettings(std::vector<std::pair<int, int>> settings) {
    engine.setEqualizerSettings(std::move(settings));
}

// --- Media information -------------------------------------------------------------------------

std::map<std::string, std::string> Player::getMetadata() {
    return engine.getMetadata();
}

std::vector<audio::AudioBook::Chapter> Player::getChapters() {
    std::vector<AudioEngine::Chapter> source = engine.getChapters();
    std::vector<audio::AudioBook::Chapter> chapters;
    chapters.reserve(source.size());
    int32_t index = 0;
    for (const AudioEngine::Chapter &chapter : source) {
        audio::AudioBook::Chapter entry;
        entry.index = index++;
        auto title = chapter.metadata.find("title");
        if (title != chapter.metadata.end())
            entry.title = title->second;
        // Low 32 bits of the millisecond times.
        entry.start = static_cast<int32_t>(static_cast<uint32_t>(chapter.startMs));
        entry.end = static_cast<int32_t>(static_cast<uint32_t>(chapter.endMs));
        chapters.push_back(std::move(entry));
    }
    return chapters;
}

qz_bitmap *Player::getCover() {
    return engine.getCover();
}

} // namespace player
} // namespace tavrel

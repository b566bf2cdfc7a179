// Player: the playlist player behind IPlayer, playing every track on one embedded engine.
//
// Sources by concern:
//   player.cpp       construction, destruction, engine events, transport, volume, settings,
//                    media information
//   navigation.cpp   playlist, starting a track, Next / Previous by mode, end of a track
//   shuffle.cpp      the shuffle order and its successor / predecessor
//   play_queue.cpp   the queue of files to play next, the playing track
//   factories.cpp    the exported C factories
//
// The player has no lock and no thread of its own: the application calls it from one thread at
// a time. Only `cb` is also read on the engine's play thread (by the forwarded engine events).
#ifndef AUDIO_ENGINE_PLAYER_PLAYER_H
#define AUDIO_ENGINE_PLAYER_PLAYER_H

#include <atomic>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "IPlayer.h"
#include "audio_engine/AudioEngine.h"

namespace tavrel {
namespace player {

class Player : public utilities::IPlayer {
public:
    using Track = utilities::MediaLibraryManager::Track;
    using PlayerCb = utilities::PlayerCb;

    Player();
    ~Player() override;
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;

    // --- IPlayer, in slot order ----------------------------------------------------------------
    void SetPlayList(const std::vector<Track> &list) override;
    int PlayTrack(int trackNum, int position, bool paused) override;
    int GetCurrentTrack() override;
    void PreviousTrack() override;
    void NextTrack() override;
    void SetMode(PlayMode mode) override;
    PlayMode GetMode() override;
    int GetTrackSize() override;
    void SetTrackPosition(int seconds) override;
    int GetTrackPosition() override;
    void SetState(PlayState state) override;
    PlayState GetState() override;
    void TogglePlaying() override;
    void SetVolume(int volume) override;
    int GetVolume() override;
    int GetMaxVolume() override;
    void HandlePlayerStateChanged() override;
    void EnqueueTrack(unsigned int trackNum) override;
    void DequeueTrack(unsigned int trackNum) override;
    int GetTrackEnqueueIndex(unsigned int trackNum) override;
    Track GetPlayingTrack() override;
    void setCb(PlayerCb *cb) override;
    void setTempo(double tempo) override;
    double getTempo() override;
    void setSampleRateMultiplier(double multiplier) override;
    double getSampleRateMultiplier() override;
    void setEqualizerSettings(std::vector<std::pair<int, int>> settings) override;
    std::map<std::string, std::string> getMetadata() override;
    std::vector<audio::AudioBook::Chapter> getChapters() override;
    qz_bitmap *getCover() override;
    int openFile(const std::string &path) override;

    // --- Playlist and shuffle order ----------------------------------------------------------
    // Brings queue, current index and shuffle order up to date after the playlist was replaced,
    // then tells the application.
    void PlayListChanged();
    // Index of the first playlist entry whose filename equals `filename`, or -1.
    int TrackNumByFilename(const std::string &filename);
    // A new random order of the playlist's indices (seeded with the calendar time).
    void GenerateRandomSequence();
    // The index after / before `currentTrack` in the random order, wrapping; 0 when the order
    // is empty or does not hold `currentTrack`.
    unsigned NextRandom();
    unsigned PrevRandom();

    // The embedded engine, for the extension handle (AudioEngineExtension.h).
    AudioEngine &embeddedEngine() { return engine; }

private:
    // Regenerates the random order when its length no longer matches the playlist.
    void syncRandomSequence();
    // Position of `currentTrack` in the random order, or -1.
    int randomPositionOfCurrent() const;
    // The callback object at this moment, or null.
    PlayerCb *callbacks() const { return cb.load(std::memory_order_acquire); }

    // --- Members (in this order) --------------------------------------------------------------
    std::vector<Track> playList;
    AudioEngine engine;
    int currentTrack;
    PlayMode mode;
    std::vector<unsigned> randomSequence;
    std::deque<std::string> queue;
    Track playingTrack;
    // Not owned. Written by setCb on the application's thread, read by the forwarded engine
    // events on either thread.
    std::atomic<PlayerCb *> cb;
    // Set while HandlePlayerStateChanged moves on from a track the sleep timer ended: the next
    // track opens and holds paused at its start (application's thread only).
    bool holdNextStart = false;
};

} // namespace player
} // namespace tavrel

#endif

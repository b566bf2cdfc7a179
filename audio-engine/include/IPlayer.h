// The playlist player: one audio engine walking a playlist by play mode and play queue.
#ifndef AUDIO_ENGINE_IPLAYER_H
#define AUDIO_ENGINE_IPLAYER_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "AudioBookChapter.h"
#include "Track.h"
#include "bitmap.h"

// Same definition as in alsa_device.h, so either header may come first.
#ifndef AE_EXPORT
#if defined(AUDIO_ENGINE_BUILD)
#define AE_EXPORT __attribute__((visibility("default")))
#else
#define AE_EXPORT
#endif
#endif

namespace tavrel {
namespace utilities {

// Notifications from a player, implemented by the application and handed over with
// IPlayer::setCb(). The player neither owns nor copies the object: keep it alive until the
// player is destroyed or setCb(nullptr) has returned.
//
// Threads. OnTrackChanged arrives on the thread that called the player. OnStateChanged arrives
// on the calling thread from inside the player's operations that start, stop, pause or resume
// playback, and on the player's play thread when a track ends by itself (also while the
// application's thread is inside a stop waiting for that thread): expect both at once, and
// possibly several calls for one change of state. OnPositionChanged arrives on the play thread,
// or on the calling thread from inside an operation that pauses while a seek is pending, always
// with the engine's position lock held.
//
// From inside a callback never call PlayTrack, NextTrack, PreviousTrack, SetPlayList, SetState,
// TogglePlaying, HandlePlayerStateChanged or openFile: post the event to the application's own
// thread and act there. Inside OnPositionChanged do not call GetTrackPosition, SetTrackPosition
// or anything that pauses either; GetState() may be called from either callback.
class PlayerCb {
public:
    // A track was started by PlayTrack, or the playlist was replaced.
    virtual void OnTrackChanged() = 0;
    // Free for the application's own notifications; the player never calls it.
    virtual void OnCustomEvent() {}
    // The playback state may have changed: read it with IPlayer::GetState().
    virtual void OnStateChanged() = 0;
    // The playback position changed: read it later with IPlayer::GetTrackPosition().
    virtual void OnPositionChanged() = 0;

    virtual ~PlayerCb() = default;
};

// One player plays one track at a time on its own engine. All operations are called from one
// application thread at a time; the player does not serialise its callers. Positions and
// durations are whole seconds.
class IPlayer {
public:
    // Any int may be stored as a mode (SetMode keeps it); values outside 0..3 act as
    // RepeatTrack.
    enum PlayMode : int {
        RepeatTrack = 0, // Next and Previous restart the current track
        RepeatList = 1,  // walk the list, wrapping at both ends
        Sequential = 2,  // walk the list, stopping at both ends
        Shuffle = 3,     // walk a random order of the list, wrapping
    };

    // The engine's states. SetState ignores values other than the first three.
    enum PlayState : int {
        Stopped = 0,
        Playing = 1,
        Paused = 2,
        Finished = 3, // the track ended by itself (at its end, or on a read or decoding failure)
    };

    using Track = MediaLibraryManager::Track;

    // Destroys the player. Playback still running is stopped and its thread joined first,
    // without notifying the callback object. Call it on the application's thread, never from
    // inside a callback.
    virtual ~IPlayer() = default;

    // Replaces the playlist. The playing track goes on playing; the current index follows its
    // file (-1 when the new list lacks it), queued files no longer in the list are dropped and
    // the shuffle order is rebuilt. Calls OnTrackChanged on this thread.
    virtual void SetPlayList(const std::vector<Track> &list) = 0;

    // Opens and starts playlist entry `trackNum` at `position` seconds (negative: from the
    // start); with `paused` it plays about 200 ms, blocking the caller, and then pauses.
    // 0 on success; -1 when the index is out of range or the file does not exist (playback is
    // left alone); the engine's error when the file cannot be opened (the previous track has
    // been closed). OnStateChanged arrives on this thread (and, as the track runs, on the play
    // thread); OnTrackChanged on this thread once the file has opened (also if starting it
    // then failed).
    virtual int PlayTrack(int trackNum, int position, bool paused) = 0;

    // The playlist index of the current track; -1 when the playing file is not in the list.
    virtual int GetCurrentTrack() = 0;

    // Starts the previous track by the play mode (the queue is not used). With an empty list
    // stops playback. Callbacks as for PlayTrack.
    virtual void PreviousTrack() = 0;

    // Starts the next track: the front of the play queue if there is one, else by the play
    // mode; in Sequential mode nothing happens at the last track. With an empty list stops
    // playback. Callbacks as for PlayTrack.
    virtual void NextTrack() = 0;

    // Sets the play mode; Shuffle draws a new random order, even when already shuffling.
    // Values outside the enumeration behave as RepeatTrack.
    virtual void SetMode(PlayMode mode) = 0;
    virtual PlayMode GetMode() = 0;

    // Duration of the open track in whole seconds; after a close or a failed open, the duration
    // of the media opened last (0 before any).
    virtual int GetTrackSize() = 0;

    // Seeks to `seconds` (negative: no seek). Takes effect as playback goes on (the play thread
    // then reports the new position through OnPositionChanged); while paused or stopped
    // GetTrackPosition reads the new position at once. Not from inside OnPositionChanged.
    virtual void SetTrackPosition(int seconds) = 0;

    // Playback position in seconds.
    virtual int GetTrackPosition() = 0;

    // Stopped stops playback; Paused pauses it; Playing resumes a paused track, or, when
    // nothing is open, starts the next track as NextTrack does. Other values are ignored.
    // OnStateChanged arrives on this thread when the state changes.
    virtual void SetState(PlayState state) = 0;

    // The engine's current state. May be called from inside the callbacks.
    virtual PlayState GetState() = 0;

    // Playing pauses, Paused resumes, Stopped restarts the current track from its start;
    // Finished does nothing. Callbacks as for SetState and PlayTrack.
    virtual void TogglePlaying() = 0;

    // Sets the volume, 0..GetMaxVolume(): kept in the device's shared media-player record (so
    // it survives a reopening of the sound device) and applied to the hardware mixer.
    virtual void SetVolume(int volume) = 0;

    // The volume last set, as kept in the shared media-player record.
    virtual int GetVolume() = 0;

    // Always 100.
    virtual int GetMaxVolume() = 0;

    // To be called by the application, on its own thread, after OnStateChanged: when the track
    // has ended (Finished) starts the next one as NextTrack does (callbacks as for NextTrack);
    // otherwise does nothing. In Sequential mode after the last track the state stays Finished.
    // Never call it from inside a callback: starting the next track joins the play thread.
    virtual void HandlePlayerStateChanged() = 0;

    // Appends playlist entry `trackNum`'s file to the play queue (duplicates allowed); an index
    // out of range is ignored.
    virtual void EnqueueTrack(unsigned int trackNum) = 0;

    // Removes the first queue entry for playlist entry `trackNum`'s file, if any.
    virtual void DequeueTrack(unsigned int trackNum) = 0;

    // 0-based queue position of the first entry for playlist entry `trackNum`'s file; -1 when
    // it is not queued or the index is out of range.
    virtual int GetTrackEnqueueIndex(unsigned int trackNum) = 0;

    // A copy of the track last started by PlayTrack (an empty record before the first).
    virtual Track GetPlayingTrack() = 0;

    // Sets (or, with null, removes) the callback object. Takes effect from the next event; a
    // callback already running on the play thread may still finish after setCb(nullptr)
    // returns, so remove it after SetState(Stopped) when the object is about to go away.
    virtual void setCb(PlayerCb *cb) = 0;

    // Tempo (speed at constant pitch), 0.25..4.0; other values, NaN included, are ignored.
    virtual void setTempo(double tempo) = 0;
    virtual double getTempo() = 0;

    // Rate (speed and pitch together), 0.5..2.0; other values are ignored.
    virtual void setSampleRateMultiplier(double multiplier) = 0;
    virtual double getSampleRateMultiplier() = 0;

    // Equaliser points (frequency Hz, gain dB); an empty list removes the equaliser.
    virtual void setEqualizerSettings(std::vector<std::pair<int, int>> settings) = 0;

    // The open media's tags.
    virtual std::map<std::string, std::string> getMetadata() = 0;

    // The open media's chapters, indexed from 0, with start and end in milliseconds.
    virtual std::vector<audio::AudioBook::Chapter> getChapters() = 0;

    // The open media's cover picture, or null. The player keeps ownership: valid until the
    // media is closed or another track is opened, and until a track whose decoding fails
    // ends (the play thread then closes the media): take a copy before drawing from it later.
    virtual qz_bitmap *getCover() = 0;

    // Opens `path` on the engine (closing the open track) without starting it and without
    // touching the playlist, the current index or the playing track. 0, or the engine's error.
    // Closing a track that plays stops it: OnStateChanged arrives on this thread (and the play
    // thread may report its end at the same time). Never call it from inside a callback.
    virtual int openFile(const std::string &path) = 0;
};

} // namespace utilities
} // namespace tavrel

extern "C" {
// A new player with its own engine; all players share the one PCM output.
AE_EXPORT tavrel::utilities::IPlayer *AudioEngine_CreatePlayer();
// Destroys a player made by AudioEngine_CreatePlayer; null does nothing.
AE_EXPORT void AudioEngine_DestroyPlayer(tavrel::utilities::IPlayer *player);
}

#endif

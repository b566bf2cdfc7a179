// The audio engine: one decode-and-play pipeline for one media item.
#ifndef AUDIO_ENGINE_IAUDIOENGINE_H
#define AUDIO_ENGINE_IAUDIOENGINE_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "IAudioEngineStream.h"
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

// One engine plays one media item at a time on the process-wide PCM output.
//
// Threads. Every operation is called from the application's thread, one at a time; the engine
// does not serialise its callers. start() launches one play thread per engine.
//
// States (getState()): 0 Stopped, 1 Playing, 2 Paused, 3 Finished.
//
// Callbacks are registered before start() and replaced only while no play thread runs. An
// empty callback is never invoked. From inside any callback running on the play thread do not
// call start(), stop(), closeFile(), openFile() or openWithStream() on the same engine; the
// position callback additionally runs with the engine's lock held, so it must not call
// getPosition(), seekStream() or pause() on the same engine either.
class IAudioEngine {
public:
    enum ErrorType {
        NoOutputDevice = 0, // the output layer refused audio; the engine is now Stopped
    };

    // One chapter of the open media, as returned by getChapters().
    struct Chapter {
        int64_t startMs;                             // whole seconds, in milliseconds
        int64_t endMs;                               // whole seconds, in milliseconds
        std::map<std::string, std::string> metadata; // the chapter's tags; title under "title"
    };

    // Replaces the position callback. It fires on the play thread after every pass that
    // output audio, and once more when playback ends Finished; on the caller's thread inside
    // pause() when a pending seek sets the position. It always runs with the engine's lock held.
    virtual void setTrackPositionChangedCb(std::function<void()> cb) = 0;

    // Replaces the state callback. It fires on the caller's thread at the end of start(),
    // stop(), and of pause()/resume() when they change the state; on the play thread when the
    // loop observes a stop or ends. No lock is held while it runs.
    virtual void setStateChangedCb(std::function<void()> cb) = 0;

    // Replaces the error callback. It fires on the play thread with NoOutputDevice when the
    // output refuses audio, after the state has become Stopped. No lock is held while it runs.
    virtual void setErrorCallback(std::function<void(ErrorType)> cb) = 0;

    // Opens a media file, or a zip member named "archive:#zip(member)", releasing any media
    // open before. 0 on success, -1 on failure (logged). Fires no callback; no play thread
    // may be running.
    virtual int openFile(const std::string &path) = 0;

    // Opens media read from `stream` (not owned; see IAudioEngineStream). 0 or -1, as openFile.
    // The stream's operations are called on this thread during the call.
    virtual int openWithStream(IAudioEngineStream *stream) = 0;

    // Stops playback if it is not Stopped (through stop(), whose state callback fires on this
    // thread) and releases the media. Not from inside a callback on the play thread.
    virtual void closeFile() = 0;

    // (Re)starts playback of the open media from where the demuxer stands: ends a running play
    // thread, launches a new one and fires the state callback. 0, or -1 when no media is open.
    // Blocks until an earlier play thread has ended.
    virtual int start() = 0;

    // Sets Stopped, waits for the play thread to end and fires the state callback. Always 0.
    virtual int stop() = 0;

    // Playing -> Paused (state callback); otherwise nothing. Always 0.
    virtual int pause() = 0;

    // Paused -> Playing (state callback); otherwise nothing. Always 0.
    virtual int resume() = 0;

    // Requests a seek to `ms`, carried out by the play thread at its next output; a negative
    // value cancels a pending request. While Stopped or Paused the position reads `ms` at once
    // (when below the duration). Always 0.
    virtual int seekStream(int ms) = 0;

    // The state, 0..3 (see above).
    virtual int getState() = 0;

    // Playback position in milliseconds, whole seconds, never negative; the duration once
    // Finished.
    virtual int64_t getPosition() = 0;

    // True while media is open.
    virtual bool isFileOpened() = 0;

    // Requested tempo (speed at constant pitch, 0.25..4.0); applied at the next decoded frame
    // or the next open.
    virtual void setTempo(double tempo) = 0;
    virtual double getTempo() = 0;

    // Requested rate multiplier (speed and pitch together, 0.5..2.0); applied like the tempo.
    virtual void setSampleRateMultiplier(double multiplier) = 0;
    virtual double getSampleRateMultiplier() = 0;

    // Duration of the audio stream in milliseconds, whole seconds; 0 when unknown.
    virtual int64_t getDurationMs() = 0;

    // Sets the hardware volume, 0..100: 0 on success, otherwise the mixer's non-zero status.
    virtual int setVolume(int volume) = 0;

    // The hardware volume, 0..100, or -1 when the mixer cannot be read.
    virtual int getVolume() = 0;

    // Replaces the equaliser points (frequency Hz, gain dB), in the given order; an empty list
    // removes the equaliser. Applied at the next decoded frame.
    virtual void setEqualizerSettings(std::vector<std::pair<int, int>> settings) = 0;

    // A copy of the container's tags.
    virtual std::map<std::string, std::string> getMetadata() = 0;

    // A copy of the container's chapters.
    virtual std::vector<Chapter> getChapters() = 0;

    // The cover picture of the open media, or null. Owned by the engine: valid until the media
    // is closed (also by the play thread when decoding fails: the state becomes Finished and
    // isFileOpened() false), another one is opened or the engine is destroyed.
    virtual qz_bitmap *getCover() = 0;

    // Stops a play thread that still runs, then releases everything the engine holds. That
    // thread's last callbacks may still run during the call; call it on the application's
    // thread, never from inside a callback.
    virtual ~IAudioEngine() = default;
};

} // namespace utilities
} // namespace tavrel

extern "C" {
// A new engine; all engines share the one PCM output.
AE_EXPORT tavrel::utilities::IAudioEngine *AudioEngine_CreateAudioEngine();
// Destroys an engine made by AudioEngine_CreateAudioEngine; null does nothing.
AE_EXPORT void AudioEngine_DestroyAudioEngine(tavrel::utilities::IAudioEngine *engine);
}

#endif

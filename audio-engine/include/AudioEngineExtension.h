// Listening features beside IAudioEngine and IPlayer: skip silence, voice levelling, a sleep
// timer, a rewind after a long pause, and whether the cover is ready without blocking.
//
// The interfaces in IAudioEngine.h and IPlayer.h stay as they are, so applications built before
// these features load the library unchanged. An application that wants them asks the engine or
// the player for its extension handle and calls the C functions below with it. The handle lives
// as long as the engine or player it came from; it needs no release.
//
// With every feature off (the default) playback is exactly as without the extension. The player
// keeps the settings across tracks and opens, as it keeps the tempo. Like the operations of the
// interfaces, the functions are called from the application's thread, one at a time.
#ifndef AUDIO_ENGINE_AUDIOENGINEEXTENSION_H
#define AUDIO_ENGINE_AUDIOENGINEEXTENSION_H

#include <stdint.h>

// Same definition as in alsa_device.h and IAudioEngine.h, so any of them may come first.
#ifndef AE_EXPORT
#if defined(AUDIO_ENGINE_BUILD)
#define AE_EXPORT __attribute__((visibility("default")))
#else
#define AE_EXPORT
#endif
#endif

namespace tavrel {
namespace utilities {
class IAudioEngine;
class IPlayer;
} // namespace utilities
} // namespace tavrel

extern "C" {

// The extension of one engine or player. Opaque.
struct ae_ext;

enum ae_skip_silence {
    AE_SKIP_SILENCE_OFF = 0,
    AE_SKIP_SILENCE_NATURAL = 1, // pauses over 0.5 s become 0.25 s
    AE_SKIP_SILENCE_STRONG = 2,  // pauses over 0.25 s become 0.15 s
};

enum ae_voice_level {
    AE_VOICE_LEVEL_OFF = 0,
    AE_VOICE_LEVEL_GENTLE = 1,
    AE_VOICE_LEVEL_STRONG = 2,
};

enum ae_sleep_mode {
    AE_SLEEP_OFF = 0,
    AE_SLEEP_AFTER_TIME = 1,     // after a playing time, with a fade
    AE_SLEEP_END_OF_CHAPTER = 2, // exactly at the end of the current chapter, no fade
    AE_SLEEP_END_OF_TRACK = 3,   // at the end of the current track
};

// The extension of an engine made by AudioEngine_CreateAudioEngine, or null for any other
// object (an application's own IAudioEngine, null).
AE_EXPORT struct ae_ext *AudioEngine_GetExtension(tavrel::utilities::IAudioEngine *engine);
// The extension of a player made by AudioEngine_CreatePlayer, or null.
AE_EXPORT struct ae_ext *AudioEngine_GetPlayerExtension(tavrel::utilities::IPlayer *player);

// --- Skip silence ------------------------------------------------------------------------------
// Shortens long pauses of the decoded audio, before the tempo stages (pauses are measured in the
// book's time, whatever the speed). A pause is audio 30 dB under the recent voice and at most
// 12 dB over the recent noise floor. Natural: pauses over 0.5 s become 0.25 s, shorter ones stay
// (sentence pauses); strong: pauses over 0.25 s become 0.15 s. A cut keeps the pause's start and
// end, joined by a 10 ms crossfade. Positions stay in the book's time (getPosition() is never
// behind by the time saved). Default: off.
// Sets the level (enum ae_skip_silence): 0, or -1 for an unknown level or a null handle.
// Takes effect at the next decoded frame, like a tempo change; opens keep it.
AE_EXPORT int ae_ext_set_skip_silence(struct ae_ext *ext, int level);
// The level set, or -1 for a null handle.
AE_EXPORT int ae_ext_get_skip_silence(struct ae_ext *ext);
// Media time removed by skip silence since the media was opened, in milliseconds (-1 for a null
// handle). Any thread may read it.
AE_EXPORT int64_t ae_ext_silence_saved_ms(struct ae_ext *ext);

// --- Voice levelling -----------------------------------------------------------------------
// Raises a quiet voice and holds back a loud one, live (no look-ahead), after the equaliser:
// peaks are held at -6 dBFS, so nothing clips; pauses and hiss get no gain. Gentle raises by at
// most 9.5 dB, strong by at most 20 dB. A seek or a tempo change keeps the gain reached.
// Default: off.
// Sets the level (enum ae_voice_level): 0, or -1. Takes effect like a tempo change; opens keep
// it.
AE_EXPORT int ae_ext_set_voice_level(struct ae_ext *ext, int level);
// The level set, or -1 for a null handle.
AE_EXPORT int ae_ext_get_voice_level(struct ae_ext *ext);

// --- Sleep timer ---------------------------------------------------------------------------
// Called on the engine's play thread when the timer has acted, with the timer already off.
// `mode` is the ae_sleep_mode that fired. A timed or chapter stop has paused playback (the
// state callback follows on the same thread); a track end comes just before the state
// Finished (a player then holds the next track paused at its start once the application calls
// HandlePlayerStateChanged). Must not call start(), stop(), closeFile() or an open.
typedef void (*ae_sleep_fired_cb)(void *user, int mode);

// Arms the timer (enum ae_sleep_mode; `ms` is the playing time for AE_SLEEP_AFTER_TIME and is
// ignored otherwise) or, with AE_SLEEP_OFF, cancels it. 0, or -1 for a bad mode or a time that
// is not positive. The timer counts playing time only. A timed stop fades out over the fade
// length and pauses; the next resume starts where the fade began, at the full level. A chapter
// stop pauses exactly at the container's end of the chapter playing now (a file without
// chapters: at its end), without a fade; the resume goes on from there.
AE_EXPORT int ae_ext_set_sleep_timer(struct ae_ext *ext, int mode, int64_t ms);
// The armed mode, AE_SLEEP_OFF when none.
AE_EXPORT int ae_ext_get_sleep_mode(struct ae_ext *ext);
// Playing time left before the timer acts, in milliseconds (a chapter or track stop: the media
// time left at the current tempo and rate); -1 when off.
AE_EXPORT int64_t ae_ext_sleep_left_ms(struct ae_ext *ext);
// Adds `ms` of playing time to an armed timer (a timed stop; a chapter or track stop becomes a
// timed stop of what is left plus `ms`). During the fade the level is full again at once (the
// faded audio queued for the card plays again from where the card was). 0, or -1 when nothing
// is armed or `ms` is not positive.
AE_EXPORT int ae_ext_extend_sleep_timer(struct ae_ext *ext, int64_t ms);
// The fade of a timed stop, in milliseconds (default 10000, 0 for none): 0 or -1.
AE_EXPORT int ae_ext_set_sleep_fade_ms(struct ae_ext *ext, int64_t ms);
AE_EXPORT int64_t ae_ext_get_sleep_fade_ms(struct ae_ext *ext);
// Replaces the notification (null: none).
AE_EXPORT void ae_ext_set_sleep_callback(struct ae_ext *ext, ae_sleep_fired_cb cb, void *user);

// --- Rewind after a long pause ------------------------------------------------------------
// When enabled (1), a resume after a pause of more than a minute (by the application or by the
// sleep timer) starts a little earlier, by ae_ext_rewind_for_pause_ms, never before the start
// of the file. 0, or -1 for a value other than 0 and 1.
AE_EXPORT int ae_ext_set_rewind_after_pause(struct ae_ext *ext, int enabled);
AE_EXPORT int ae_ext_get_rewind_after_pause(struct ae_ext *ext);
// The rewind, in milliseconds, for a pause of `pausedMs`: 0 up to a minute, then growing
// smoothly (3 s after a minute, 10 s after an hour, 20 s after a day and beyond). For
// applications that resume across runs (a book reopened the next day).
AE_EXPORT int64_t ae_ext_rewind_for_pause_ms(int64_t pausedMs);

// --- Cover ---------------------------------------------------------------------------------
// 1 when getCover() will answer without waiting (the picture is decoded, failed, or there is
// none), 0 while it is still being decoded, -1 for a null handle.
AE_EXPORT int ae_ext_cover_ready(struct ae_ext *ext);

} // extern "C"

#endif

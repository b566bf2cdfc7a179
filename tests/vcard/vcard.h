/* Virtual sound card of the tests: an ALSA PCM plugin ("vcard", S16_LE stereo, paced by a
 * virtual clock) and a control plugin with one element, "mpd_volume". Both live in the shared
 * library that the test binaries link, so libasound's dlopen of it finds this process's card.
 * A process that loads it only through ALSA (aeplay run by a test) gets a card with the
 * defaults, paced by the environment variable VCARD_SPEED (as vcard_set_speed; unset: 0). */
#ifndef AE_TESTS_VCARD_H
#define AE_TESTS_VCARD_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Back to the defaults: speed 0, no faults, mixer 0..255 at 0 and present, capture and events
 * cleared. */
void vcard_setup(void);
/* 0 consumes every write at once, 1.0 is real time, N plays N times faster (from the next
 * open). */
void vcard_set_speed(double speed);
/* The next `count` opens (-1: all) fail with `error` (negative errno). */
void vcard_fail_open(int error, int count);
/* After `frames` more frames, the next write answers `error` once: -EPIPE (underrun) or -ENODEV
 * (the open handle is gone for good; a new open works). */
void vcard_fail_write_after(int error, long frames);

void vcard_set_mixer_range(long min, long max);
void vcard_set_mixer_value(long value);
long vcard_mixer_value(void);
/* Values written to "mpd_volume" since the reset, in order; returns how many (may exceed max). */
size_t vcard_mixer_writes(long *values, size_t max);
void vcard_hide_mixer(int hidden);

/* Interleaved S16 stereo frames played since the reset. */
size_t vcard_captured_frames(void);
size_t vcard_capture(int16_t *out, size_t max_frames);

/* Every write since the reset: when it came (CLOCK_MONOTONIC ns), the frames it carried and how
 * long the paced clock had run dry before it (silence a listener heard). Returns how many there
 * were; only the first 65536 are kept. */
struct vcard_write {
    int64_t ns;
    long frames;
    int64_t dry_ns;
};
size_t vcard_writes(struct vcard_write *out, size_t max);

/* Events, counted by the start of their line: "open <rate>", "open-fail <errno>", "xrun", "gone",
 * "prepare", "pause <0|1>", "drain", "drop" (a live stream stopped), "close". */
int vcard_count_events(const char *prefix);

/* PCMs opened from now on can pause (1, the default) or not (0: snd_pcm_pause fails and
 * snd_pcm_hw_params_can_pause says so). */
void vcard_set_can_pause(int can_pause);
/* What a listener heard: the capture without the frames that a drop kept from being played (a
 * drop stops the sound where the driver last read the position). Returns the frames copied. */
size_t vcard_heard(int16_t *out, size_t max_frames);
/* Frames heard so far: played by the card's clock, dropped frames excepted. */
size_t vcard_heard_frames(void);
/* Where in what was heard (vcard_heard) each drop that kept frames from being heard cut the
 * sound; returns how many such drops there were. */
size_t vcard_drops(size_t *heard_at, size_t max);
int vcard_is_open(void);

#ifdef __cplusplus
}
#endif

#endif

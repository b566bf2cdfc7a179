/* Test-side control of the virtual sound card.
 *
 * The card is two ALSA external plugins (a PCM and a control) loaded by libasound through the
 * tests' own ALSA configuration. Their shared state lives in a small file mapped by both sides,
 * named by the environment variable VCARD_STATE; vcard_setup() gives every test process a file
 * of its own, so tests can run in parallel. Everything the PCM plays is appended to a capture
 * file beside it, and every device event is recorded in order. */
#ifndef AE_TESTS_VCARD_H
#define AE_TESTS_VCARD_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Creates (or resets) this process's state file and exports VCARD_STATE. Call before any ALSA
 * open; calling again resets the card to its defaults: no faults, speed 0, capture and events
 * cleared, mixer range 0..255 with value 0. */
void vcard_setup(void);

/* Pacing of the PCM: 0 consumes every write at once; 1.0 is real time; N plays N times faster.
 * Takes effect at the next open. */
void vcard_set_speed(double speed);

/* The next `count` opens of the PCM fail with `error` (negative errno, e.g. -ENODEV, -EBUSY);
 * count -1 means every open. */
void vcard_fail_open(int error, int count);
/* Once `frames` more frames have been accepted, the next write answers `error`:
 * -EPIPE (underrun, recoverable with snd_pcm_prepare) or -ENODEV (device gone for good). */
void vcard_fail_write_after(int error, long frames);

/* Mixer element "mpd_volume": its range and current value. */
void vcard_set_mixer_range(long min, long max);
void vcard_set_mixer_value(long value);
long vcard_mixer_value(void);
/* Every value written to the element since the last reset, in order; returns how many there
 * were (may exceed `max`, only `max` are stored). */
size_t vcard_mixer_writes(long *values, size_t max);
/* When set, the control device has no "mpd_volume" element. */
void vcard_hide_mixer(int hidden);

/* Audio played so far: interleaved S16_LE stereo frames. Returns the number of frames copied
 * into `out` (at most `max_frames`); vcard_captured_frames() tells how many there are. */
size_t vcard_captured_frames(void);
size_t vcard_capture(int16_t *out, size_t max_frames);

/* Device events, in order, as text lines:
 *   "open <rate>"        hw parameters installed at <rate> Hz
 *   "open-fail <errno>"  an open answered an injected error
 *   "write <frames>"     a write accepted <frames>
 *   "xrun" / "gone"      an injected -EPIPE / -ENODEV
 *   "prepare", "pause <0|1>", "drain", "drop", "close"
 * vcard_events() returns all of them joined by '\n' in a buffer the caller frees. */
char *vcard_events(void);
/* Number of events whose line starts with `prefix`. */
int vcard_count_events(const char *prefix);

/* 1 while the PCM is open. */
int vcard_is_open(void);

#ifdef __cplusplus
}
#endif

#endif

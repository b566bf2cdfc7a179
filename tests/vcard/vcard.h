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
 * cleared, mixer range 0..255 with value 0, one mixer channel, mixer shown. */
void vcard_setup(void);

/* Pacing of the PCM: 0 consumes every write at once; 1.0 is real time; N plays N times faster.
 * Takes effect at the next open. */
void vcard_set_speed(double speed);

/* The next `count` opens of the PCM fail with `error` (negative errno, e.g. -ENODEV, -EBUSY);
 * count -1 means every open. */
void vcard_fail_open(int error, int count);
/* Once `frames` more frames have been accepted, the next write answers `error`:
 * -EPIPE (underrun, recoverable with snd_pcm_prepare) or -ENODEV (device gone for good). A write
 * that reaches the limit returns the frames it could place; the error comes with the next one.
 * The fault fires once. After -ENODEV the open handle stays gone (prepare and writes answer
 * -ENODEV); a new open works unless vcard_fail_open says otherwise. */
void vcard_fail_write_after(int error, long frames);

/* Mixer element "mpd_volume": its range and current value. */
void vcard_set_mixer_range(long min, long max);
void vcard_set_mixer_value(long value);
long vcard_mixer_value(void);
/* Every value written to the element since the last reset, in order; returns how many there
 * were (may exceed `max`, only `max` are stored). */
size_t vcard_mixer_writes(long *values, size_t max);
/* Number of values of the element: 1 (the default) or 2. A mono element takes one write per
 * snd_mixer_selem_set_playback_volume_all; a stereo one takes one per channel (each recorded
 * by vcard_mixer_writes), and reads give the same value on every channel. Opened mixer handles
 * see a change only when they reload. */
void vcard_set_mixer_channels(int channels);
/* When set, the control device has no "mpd_volume" element. */
void vcard_hide_mixer(int hidden);

/* Audio played so far: interleaved S16_LE stereo frames. Returns the number of frames copied
 * into `out` (at most `max_frames`); vcard_captured_frames() tells how many there are. */
size_t vcard_captured_frames(void);
size_t vcard_capture(int16_t *out, size_t max_frames);

/* Device events, in order, as text lines:
 *   "open <rate>"        hw parameters installed at <rate> Hz
 *   "open-fail <errno>"  an open answered an injected error (negative, as given to
 *                        vcard_fail_open, e.g. "open-fail -16")
 *   "write <frames>"     a write accepted <frames> (one line per transfer: a write that
 *                        wraps around the device buffer may show up as two lines)
 *   "xrun" / "gone"      an injected -EPIPE / -ENODEV
 *   "prepare", "pause <0|1>", "drain", "drop", "close"
 * snd_pcm_hw_params prepares the device itself, so an open shows "open <rate>" then "prepare".
 * "drop" stands for stopping a stream that was prepared, running, paused or in underrun (an
 * explicit snd_pcm_drop, or snd_pcm_close of such a stream); the stop that ends a drain and the
 * close of a drained stream record none.
 * vcard_events() returns all of them joined by '\n' in a buffer the caller frees. */
char *vcard_events(void);
/* Number of events whose line starts with `prefix`. */
int vcard_count_events(const char *prefix);

/* 1 while the PCM is open. */
int vcard_is_open(void);

/* Paths of this process's state file (the value of VCARD_STATE) and of its capture file (raw
 * S16_LE stereo frames), for debugging. Valid until exit; both are removed at exit unless the
 * environment variable VCARD_KEEP is set. */
const char *vcard_state_path(void);
const char *vcard_capture_path(void);

#ifdef __cplusplus
}
#endif

#endif

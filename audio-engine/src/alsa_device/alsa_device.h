/* PCM output layer: one process-wide output over ALSA.
 *
 * A ring of three static pieces of interleaved S16_LE stereo audio stands between one producer
 * (the engine's play loop) and the layer's own play thread, which opens the PCM device lazily at
 * the rate of the piece it is about to play, reopens it when the rate changes and closes it after
 * one second without audio. The mixer calls work on the simple control "mpd_volume" of `card`. */
#ifndef AUDIO_ENGINE_ALSA_DEVICE_H
#define AUDIO_ENGINE_ALSA_DEVICE_H

#include <stdint.h>

#if defined(AUDIO_ENGINE_BUILD)
#define AE_EXPORT __attribute__((visibility("default")))
#else
#define AE_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ABUF_PIECE_BYTES = 18432,
    ABUF_PIECE_MAX_FRAMES = ABUF_PIECE_BYTES / 4, /* 4,608 stereo S16 frames */
};

/* One piece of output audio, filled in place by the producer. */
struct abuf_piece {
    int32_t samplerate; /* Hz; the device is (re)opened at this rate */
    int32_t frames;     /* frames in data, at most ABUF_PIECE_MAX_FRAMES */
    uint8_t data[ABUF_PIECE_BYTES];
};

/* --- Ring and play thread --------------------------------------------------------------- */

/* Starts the play thread: 0 on success (or the thread-creation error), 1 if it already exists. */
AE_EXPORT int init_alsa_output(void);
/* Stops and joins the play thread and resets the ring: 0, or 1 when no thread was started. */
AE_EXPORT int deinit_alsa_output(void);
/* The next free piece, or NULL when the ring is full. Same piece until it is pushed. */
AE_EXPORT struct abuf_piece *get_output_buffer(void);
/* Hands the piece from get_output_buffer() to the play thread: 0, -1 for any other piece,
 * -19 (-ENODEV) once the output has stopped. */
AE_EXPORT int push_output_buffer(struct abuf_piece *piece);
/* 1 while the output runs, 0 once it has stopped. */
AE_EXPORT int alsa_output_working(void);
/* 1 while the PCM device is open. */
AE_EXPORT int is_alsa_opened(void);
/* Pauses (1) or resumes (0) the open device; always 0. */
AE_EXPORT int pause_alsa(int enable);
/* Selects the PCM used at the next open (empty: "mpd_sm"); keeps at most 1,023 characters. */
AE_EXPORT char *set_alsa_device_name(const char *name);

/* --- Device ------------------------------------------------------------------------------ */

/* Opens and configures `device` for interleaved S16_LE stereo at `rate` Hz (negative: 44100,
 * above 96000: refused). 1 when open, 0 on failure. */
AE_EXPORT int open_alsa_ex(const char *device, int rate);
/* open_alsa_ex("mpd_sm", rate). */
AE_EXPORT int open_alsa(int rate);
/* Closes the device, letting queued frames play (drain != 0) or dropping them. 1 if it was
 * open, 0 otherwise. */
AE_EXPORT int close_alsa_ex(int drain);
/* close_alsa_ex(1). */
AE_EXPORT int close_alsa(void);

/* --- Mixer --------------------------------------------------------------------------------- */

/* The mixer card name, "default". */
AE_EXPORT extern char *card;

/* Opens the mixer of `card` and finds the simple control `control`: 0, 2 (NULL or not found),
 * or a negative ALSA error. */
AE_EXPORT int AlsaMixerInit(const char *control);
/* Waits for a running ramp and closes the mixer; always 1. */
AE_EXPORT int AlsaMixerDestroy(void);
/* Sets the control to `volume` (0..100 scale): 0, -1 without a control, 2 when the range could
 * not be read, or the ALSA error of the set. */
AE_EXPORT int AlsaMixerSetVolume(int volume);
/* Reads the control on the 0..100 scale into *volume: 0, 2 without a playback volume, or the
 * ALSA error of the read. */
AE_EXPORT int AlsaMixerGetVolume(long *volume);
/* Ramps the control toward `volume` one unit every 10 ms on a thread of its own; 0. */
AE_EXPORT int AlsaMixerSetSoftVolume(long volume);

#ifdef __cplusplus
}
#endif

#endif

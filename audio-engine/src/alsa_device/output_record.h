/* The record of what the play thread wrote to the device: its media tags along the device's
 * timeline of frames, a copy of the audio recent enough to be still in the device's buffer (for
 * a pause that must drop the buffer and write it again), and the last reading of the device's
 * delay. The play thread writes it; alsa_output_playing reads it from any thread. Internal to
 * the output layer. */
#ifndef AUDIO_ENGINE_OUTPUT_RECORD_H
#define AUDIO_ENGINE_OUTPUT_RECORD_H

#include "alsa_output_internal.h"

/* The device was opened at `rate`, or closed (rate 0), or dropped: the timeline starts empty. */
void record_reset(int rate);
/* `frames` frames of a piece tagged `tag` (at its frame `offset`; `serial` tells pieces apart)
 * were written to the device from `data`. */
void record_write(const void *data, long frames, const struct alsa_output_tag *tag, long offset,
                  unsigned serial);
/* The device's delay (frames written and not yet played) just now, and whether it runs. */
void record_device(long delay, int running);
/* The device's buffer was dropped with `unplayed` frames in it that are to be written again:
 * returns how many of them the record holds (the rest is lost). */
long record_keep(long unplayed);
/* The next stretch of kept audio to write again and its length, or NULL when none is left. */
const void *record_kept(long *frames);
/* `frames` frames of kept audio were written again. */
void record_rewritten(long frames);
/* Forgets the kept audio (a drop while paused). */
void record_forget_kept(void);
/* Frames pushed to the ring (positive) or taken from it (negative) by the play thread. */
void record_queued(long frames);
/* Frames in the ring back to zero (a drop, a reset of the layer). */
void record_queue_cleared(void);
/* The paused flag reported by alsa_output_playing. */
void record_paused(int paused);

#endif

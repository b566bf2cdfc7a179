/* The output layer's operations for the engine, beside the exported ones of alsa_device.h. Not
 * exported from the library.
 *
 * Media record. Each piece may carry a tag, given by the producer before it pushes the piece:
 * which media time its first frame holds and how fast media time runs through it. The play
 * thread keeps the tags of what it wrote to the device, so that "the sample the card plays now"
 * maps back to media time (alsa_output_playing).
 *
 * Drop and pause. Only the play thread touches the device and the ring's read side while it
 * runs: these calls post a request to it and wait until it has been carried out (at most a few
 * seconds, should the thread be stuck opening a device). With no play thread running they act on
 * the ring directly. They return 0 when carried out, -1 when the output has stopped or the wait
 * gave up. Producer and requester may be different threads; requests are serialised. */
#ifndef AUDIO_ENGINE_ALSA_OUTPUT_INTERNAL_H
#define AUDIO_ENGINE_ALSA_OUTPUT_INTERNAL_H

#include <stdint.h>

#include "alsa_device.h"

#ifdef __cplusplus
extern "C" {
#endif

/* media_us of audio whose media time is unknown (untagged pieces). */
#define ALSA_OUTPUT_NO_MEDIA INT64_MIN

struct alsa_output_tag {
    /* Media time of the piece's first frame, in microseconds; ALSA_OUTPUT_NO_MEDIA: unknown. */
    int64_t media_us;
    /* Media seconds per second of output (the tempo times the rate factor). Frame k of a piece
     * at `samplerate` holds media_us + k * speed * 1e6 / samplerate. 0: the media time stands. */
    double speed;
    /* The producer's name for the media the audio comes from (an engine counts its opens). */
    int32_t source;
};

/* Tags `piece`, the one get_output_buffer() returned, before it is pushed (producer's thread).
 * A piece pushed without a tag carries ALSA_OUTPUT_NO_MEDIA. Returns -1 for any other piece. */
int alsa_output_tag_piece(struct abuf_piece *piece, const struct alsa_output_tag *tag);

/* Drops every queued frame: the pieces pushed and not yet played (the one being written too)
 * and the device's buffer (snd_pcm_drop, snd_pcm_prepare); audio kept by a pause goes too. Once
 * it returns, nothing pushed before reaches the card and the next push plays at once (unless
 * paused: a drop leaves a pause in place). */
int alsa_output_drop(void);

/* Pauses (1) or resumes (0) at once. Pausing silences the card: the device is paused where it
 * can pause, else its buffer is dropped and what it held kept to be written again. While
 * paused the play thread takes no piece. Resuming plays on from the sample where the sound
 * stopped. Pausing a paused output (or resuming a running one) does nothing. A pause outlives
 * the device: the next piece waits until the output is resumed. */
int alsa_output_pause(int enable);
/* 1 while paused by alsa_output_pause. */
int alsa_output_paused(void);

struct alsa_output_position {
    int64_t media_us;  /* media time of the frame the card plays now (see the tag) */
    int32_t source;    /* the tag's source */
    int64_t queued_us; /* output time until everything queued (device and ring) has played */
    int paused;        /* the output is paused: media_us stands */
};

/* Where the card is in the media: the audio it plays now, the device's delay and the ring
 * accounted; when it has played everything, the end of the last frame written. Any thread.
 * Returns 0, or -1 when the device holds no tagged audio (nothing played since it was opened or
 * since a drop, or the audio is untagged); queued_us and paused are filled in either case. */
int alsa_output_playing(struct alsa_output_position *out);

#ifdef __cplusplus
}
#endif

#endif

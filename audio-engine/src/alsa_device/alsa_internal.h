/* State and helpers shared by the output layer's translation units. Not exported. */
#ifndef AUDIO_ENGINE_ALSA_INTERNAL_H
#define AUDIO_ENGINE_ALSA_INTERNAL_H

#include <alsa/asoundlib.h>
#include <stdio.h>

#include "alsa_device.h"
#include "qz_log.h"

/* Platform log lines carry this source name whichever file of the layer they come from. */
#define ALSA_DEVICE_SOURCE "audio-engine/src/alsa_device.c"

#define AD_LOG(level, ...) AD_LOG_AS(__func__, level, __VA_ARGS__)
/* For helpers that log on behalf of an exported function or the play thread: the line names
 * that function, which is where a reader of the log looks. */
#define AD_LOG_AS(func, level, ...)                                                                \
    qz_print_log2((level), ALSA_DEVICE_SOURCE, __LINE__, (func), __VA_ARGS__)

/* Standard-error traces: "Func:<name>, Line=<n> <message>" and "ERROR in <name>(), Line=<n> ...".
 */
#define AD_TRACE(fmt, ...) AD_TRACE_AS(__func__, fmt, __VA_ARGS__)
#define AD_TRACE_AS(func, fmt, ...)                                                                \
    fprintf(stderr, "Func:%s, Line=%d " fmt "\n", (func), __LINE__, __VA_ARGS__)
#define AD_ERROR_TRACE(fmt, ...)                                                                   \
    fprintf(stderr, "ERROR in %s(), Line=%d " fmt "\n", __func__, __LINE__, __VA_ARGS__)

/* The open PCM device (alsa_pcm.c). Only the output layer's play thread writes to it; see
 * alsa_pcm.c for how opening, closing and pausing are kept apart. */
snd_pcm_t *alsa_pcm_handle(void);

#endif

/* State and helpers shared by the output layer's translation units. Not exported. */
#ifndef AUDIO_ENGINE_ALSA_INTERNAL_H
#define AUDIO_ENGINE_ALSA_INTERNAL_H

#include <alsa/asoundlib.h>
#include <stdio.h>

#include "alsa_device.h"
#include "qz_log.h"

/* Platform log lines carry this source name whichever file of the layer they come from. */
#define ALSA_DEVICE_SOURCE "audio-engine/src/alsa_device.c"

#define AD_LOG(level, ...)                                                                         \
    qz_print_log2((level), ALSA_DEVICE_SOURCE, __LINE__, __func__, __VA_ARGS__)

/* Standard-error traces: "Func:<name>, Line=<n> <message>" and "ERROR in <name>(), Line=<n> ...".
 */
#define AD_TRACE(fmt, ...)                                                                         \
    fprintf(stderr, "Func:%s, Line=%d " fmt "\n", __func__, __LINE__, __VA_ARGS__)
#define AD_ERROR_TRACE(fmt, ...)                                                                   \
    fprintf(stderr, "ERROR in %s(), Line=%d " fmt "\n", __func__, __LINE__, __VA_ARGS__)

/* The open PCM device (alsa_pcm.c). Only the output layer's play thread writes to it; see
 * alsa_pcm.c for how opening, closing and pausing are kept apart. */
snd_pcm_t *alsa_pcm_handle(void);

#endif

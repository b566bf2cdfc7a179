/* Media-player state shown by the device, the sleep ban, and the shared media-player record. */
#ifndef AUDIO_ENGINE_PLATFORM_MP_STATE_H
#define AUDIO_ENGINE_PLATFORM_MP_STATE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Media-player state for the device's indicators: 2 playing, 3 paused, 0 ended. */
void hw_mp_setstate(int state);
/* Lifts (or sets) a reason that keeps the device awake; the engine passes 4 before state 0. */
void BanSleep(int reason);

/* The device's shared media-player record. Only one field is used by this library: the user
 * volume (0..100) as a signed 16-bit value at byte offset 96, written by the player and read by
 * the output layer whenever it opens the sound device. */
struct mp_control;
extern struct mp_control *pkmpc;

enum { MP_CONTROL_VOLUME_OFFSET = 96 };

/* The record is shared between the application's thread and the output layer's play thread,
 * so its volume is accessed atomically. */
static inline int16_t mp_control_volume(void) {
    return __atomic_load_n((int16_t *)((char *)pkmpc + MP_CONTROL_VOLUME_OFFSET),
                           __ATOMIC_RELAXED);
}

static inline void mp_control_set_volume(int16_t volume) {
    __atomic_store_n((int16_t *)((char *)pkmpc + MP_CONTROL_VOLUME_OFFSET), volume,
                     __ATOMIC_RELAXED);
}

#ifdef __cplusplus
}
#endif

#endif

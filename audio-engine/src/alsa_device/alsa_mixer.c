/* Hardware volume through one simple-mixer control, and the software volume ramp.
 *
 * Locking: `mixer_mutex` guards `mixer_handle` and `mixer_elem` and every ALSA call on them, so
 * the play thread can destroy and reopen the mixer while the application sets the volume.
 * `ramp_mutex` serialises starting and joining the ramp thread; the ramp itself never takes it,
 * so joining under it cannot deadlock. Lock order: ramp_mutex before mixer_mutex. */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "alsa_internal.h"

char *card = "default";

static pthread_mutex_t mixer_mutex = PTHREAD_MUTEX_INITIALIZER;
static snd_mixer_t *mixer_handle;
static snd_mixer_elem_t *mixer_elem;

static pthread_mutex_t ramp_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_t soft_vol_thread;
static int soft_vol_running;

enum { RAMP_STEP_US = 10000 };

/* Engine volume (0..100) to a control value in min..max. The product is taken as a signed
 * 32-bit value, as the device firmware always did. */
static long map_volume(long min, long max, long volume) {
    int32_t p = (int32_t)((uint32_t)(max - min) * (uint32_t)volume);
    if (p < -99)
        return min;
    long value = min + p / 100;
    return value > max ? max : value;
}

/* Control value to the engine's 0..100 scale. */
static long unmap_volume(long min, long max, long value) {
    if (max == min)
        return 0;
    /* 64-bit: on 32-bit targets a long product overflows for wide ranges. */
    return (long)((int64_t)(value - min) * 100 / (max - min));
}

int AlsaMixerInit(const char *control) {
    if (control == NULL)
        return 2;
    snd_mixer_t *handle = NULL;
    int err = snd_mixer_open(&handle, 0);
    if (err < 0) {
        AD_ERROR_TRACE("Mixer %s open error: %s", card, snd_strerror(err));
        return err;
    }
    if ((err = snd_mixer_attach(handle, card)) < 0) {
        AD_ERROR_TRACE("Mixer attach %s error: %s", card, snd_strerror(err));
        snd_mixer_close(handle);
        return err;
    }
    if ((err = snd_mixer_selem_register(handle, NULL, NULL)) < 0) {
        AD_ERROR_TRACE("Mixer register error: %s", snd_strerror(err));
        snd_mixer_close(handle);
        return err;
    }
    if ((err = snd_mixer_load(handle)) < 0) {
        AD_ERROR_TRACE("Mixer %s load error: %s", card, snd_strerror(err));
        snd_mixer_close(handle);
        return err;
    }

    snd_mixer_selem_id_t *sid;
    snd_mixer_selem_id_alloca(&sid);
    memset(sid, 0, snd_mixer_selem_id_sizeof());
    snd_mixer_selem_id_set_index(sid, 0);
    snd_mixer_selem_id_set_name(sid, control);
    snd_mixer_elem_t *elem = snd_mixer_find_selem(handle, sid);

    /* A mixer still open from an earlier init is replaced, not leaked. */
    pthread_mutex_lock(&mixer_mutex);
    snd_mixer_t *previous = mixer_handle;
    mixer_elem = elem;
    mixer_handle = elem ? handle : NULL;
    pthread_mutex_unlock(&mixer_mutex);
    if (previous)
        snd_mixer_close(previous);
    if (elem)
        return 0;
    AD_ERROR_TRACE("Unable to find simple control '%s',%i", snd_mixer_selem_id_get_name(sid),
                   snd_mixer_selem_id_get_index(sid));
    snd_mixer_close(handle);
    return 2;
}

/* Caller holds ramp_mutex. Waits for the ramp thread, if one was started, and forgets it. */
static void join_ramp_locked(void) {
    AD_TRACE_AS("kill_soft_vol_executing", "(%i) soft_vol_thread = %i", (int)syscall(SYS_gettid),
                soft_vol_running ? (int)soft_vol_thread : 0);
    if (soft_vol_running) {
        void *result = NULL;
        pthread_join(soft_vol_thread, &result);
        AD_TRACE_AS("kill_soft_vol_executing", "join %i returned %i", (int)soft_vol_thread,
                    (int)(intptr_t)result);
        soft_vol_running = 0;
    }
}

static void kill_soft_vol_executing(void) {
    pthread_mutex_lock(&ramp_mutex);
    join_ramp_locked();
    pthread_mutex_unlock(&ramp_mutex);
}

int AlsaMixerDestroy(void) {
    kill_soft_vol_executing();
    pthread_mutex_lock(&mixer_mutex);
    if (mixer_handle)
        snd_mixer_close(mixer_handle);
    mixer_handle = NULL;
    mixer_elem = NULL;
    pthread_mutex_unlock(&mixer_mutex);
    return 1;
}

static int has_mixer_elem(void) {
    pthread_mutex_lock(&mixer_mutex);
    int has = mixer_elem != NULL;
    pthread_mutex_unlock(&mixer_mutex);
    return has;
}

int AlsaMixerSetVolume(int volume) {
    if (!has_mixer_elem()) {
        fprintf(stderr, "AlsaMixerSetVolume failed because elem is NULL!!!\n");
        return -1;
    }
    kill_soft_vol_executing();
    fprintf(stderr, "%s(): Enter (%d)\n", "AlsaMixerSetVolume", volume);

    pthread_mutex_lock(&mixer_mutex);
    if (mixer_elem == NULL) { /* destroyed while we waited for the ramp */
        pthread_mutex_unlock(&mixer_mutex);
        return -1;
    }
    long min = 0, max = 0;
    snd_mixer_selem_has_playback_volume(mixer_elem);
    int range_err = snd_mixer_selem_get_playback_volume_range(mixer_elem, &min, &max);
    if (range_err < 0) {
        /* Without a range there is no meaningful value to write. */
        pthread_mutex_unlock(&mixer_mutex);
        return 2;
    }
    long value = map_volume(min, max, volume);
    fprintf(stderr, "get_playback v = %li, vol = %i, min = %li, max = %li\n", value, volume, min,
            max);
    int err = snd_mixer_selem_set_playback_volume_all(mixer_elem, value);
    pthread_mutex_unlock(&mixer_mutex);
    fprintf(stderr, "snd_mixer_selem_set_playback_volume_all returns %d\n", err);
    return err;
}

int AlsaMixerGetVolume(long *volume) {
    pthread_mutex_lock(&mixer_mutex);
    int result = 2;
    if (mixer_elem && snd_mixer_selem_has_playback_volume(mixer_elem)) {
        long min = 0, max = 0, value = 0;
        snd_mixer_handle_events(mixer_handle); /* see changes made through other handles */
        snd_mixer_selem_get_playback_volume_range(mixer_elem, &min, &max);
        result = snd_mixer_selem_get_playback_volume(mixer_elem, SND_MIXER_SCHN_FRONT_LEFT, &value);
        if (result == 0)
            *volume = unmap_volume(min, max, value);
    }
    pthread_mutex_unlock(&mixer_mutex);
    return result;
}

/* One ramp step toward `target`: reads the control afresh and writes it one unit closer.
 * 0 and the written value in *written, or the ALSA error. */
static int ramp_step(long target, long *written) {
    pthread_mutex_lock(&mixer_mutex);
    int err = -ENODEV;
    if (mixer_elem) {
        long value = 0;
        snd_mixer_handle_events(mixer_handle); /* someone else may have moved the control */
        err = snd_mixer_selem_get_playback_volume(mixer_elem, SND_MIXER_SCHN_FRONT_LEFT, &value);
        if (err == 0) {
            value += value < target ? 1 : -1;
            err = snd_mixer_selem_set_playback_volume_all(mixer_elem, value);
            *written = value;
        }
    }
    pthread_mutex_unlock(&mixer_mutex);
    return err;
}

static void *soft_volume_process(void *arg) {
    long volume = (long)(intptr_t)arg;
    AD_TRACE("val = %li", volume);

    long min = 0, max = 0;
    pthread_mutex_lock(&mixer_mutex);
    int status = 0;
    if (mixer_elem == NULL)
        status = -1;
    else if (!snd_mixer_selem_has_playback_volume(mixer_elem) ||
             snd_mixer_selem_get_playback_volume_range(mixer_elem, &min, &max) < 0)
        status = 2;
    pthread_mutex_unlock(&mixer_mutex);
    if (status != 0)
        return (void *)(intptr_t)status;

    long target = map_volume(min, max, volume);
    long written = -1;
    int err = 0;
    while (written != target) {
        if ((err = ramp_step(target, &written)) != 0)
            break;
        usleep(RAMP_STEP_US);
    }
    AD_TRACE("done; err = %i", err);
    return (void *)(intptr_t)err;
}

int AlsaMixerSetSoftVolume(long volume) {
    pthread_mutex_lock(&ramp_mutex);
    join_ramp_locked();
    soft_vol_running =
        pthread_create(&soft_vol_thread, NULL, soft_volume_process, (void *)(intptr_t)volume) == 0;
    pthread_mutex_unlock(&ramp_mutex);
    return 0;
}

/* Opening, configuring and closing the PCM playback device.
 *
 * Locking: `device_op_mutex` serialises whole opens and closes (an engine may open and close the
 * device once from the application's thread while the play thread opens it). `handle_mutex`
 * guards the published handle for the short calls made from other threads (pause): a close
 * takes the handle out of sight under it before draining, so no thread pauses a handle that is
 * being closed, and nothing blocks under it. */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <string.h>
#include <unistd.h>

#include "alsa_internal.h"

enum {
    DEFAULT_RATE = 44100,
    MAX_RATE = 96000,
    BUFFER_TIME_US = 500000,
    PERIOD_TIME_US = 100000,
    PERIOD_FRAMES = 8192,
    MIN_BUFFER_FRAMES = 4096,
    BUSY_RETRY_US = 10000,
    BUSY_WAIT_LIMIT_US = 1000000,
};

/* The helpers of open_alsa_ex log under its name. */
#define OPEN_LOG(level, ...) AD_LOG_AS("open_alsa_ex", level, __VA_ARGS__)

static pthread_mutex_t device_op_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_mutex_t handle_mutex = PTHREAD_MUTEX_INITIALIZER;
static snd_pcm_t *_Atomic pcm_handle;
static atomic_int alsa_opened;

snd_pcm_t *alsa_pcm_handle(void) {
    return atomic_load(&pcm_handle);
}

static void publish_handle(snd_pcm_t *handle) {
    pthread_mutex_lock(&handle_mutex);
    atomic_store(&pcm_handle, handle);
    atomic_store(&alsa_opened, handle != NULL);
    pthread_mutex_unlock(&handle_mutex);
}

/* Drops or drains and closes `handle` with the close log lines. */
static void close_handle(snd_pcm_t *handle, int drain) {
    AD_LOG_AS("close_alsa_ex", 5, "close_alsa");
    if (drain)
        snd_pcm_drain(handle);
    else
        snd_pcm_drop(handle);
    snd_pcm_close(handle);
    AD_LOG_AS("close_alsa_ex", 5, "alsa is closed!!!");
}

/* Caller holds device_op_mutex. */
static int close_locked(int drain) {
    if (!atomic_load(&alsa_opened))
        return 0;
    snd_pcm_t *handle = atomic_load(&pcm_handle);
    publish_handle(NULL);
    close_handle(handle, drain);
    return 1;
}

/* snd_pcm_open with the busy-device wait: the open handle, or NULL when it gave up. */
static snd_pcm_t *open_with_retries(const char *device) {
    snd_pcm_t *handle = NULL;
    int err = snd_pcm_open(&handle, device, SND_PCM_STREAM_PLAYBACK, 0);
    long waited_us = 0;
    while (err < 0) {
        if (err == -ENODEV) {
            OPEN_LOG(2, "No such device: %s", device);
            return NULL;
        }
        if (waited_us > BUSY_WAIT_LIMIT_US) {
            OPEN_LOG(2, "unable to open pcm device: %s", snd_strerror(err));
            return NULL;
        }
        OPEN_LOG(4, "Waiting release");
        usleep(BUSY_RETRY_US);
        waited_us += BUSY_RETRY_US;
        err = snd_pcm_open(&handle, device, SND_PCM_STREAM_PLAYBACK, 0);
    }
    return handle;
}

/* Applies the fixed hardware configuration. 1 on success; 0 when a fatal step failed, in
 * which case the handle has been closed. */
static int configure(snd_pcm_t *handle, int rate) {
    snd_pcm_hw_params_t *params;
    snd_pcm_hw_params_alloca(&params);
    memset(params, 0, snd_pcm_hw_params_sizeof());
    int err;

    if ((err = snd_pcm_hw_params_any(handle, params)) < 0)
        OPEN_LOG(2, "snd_pcm_hw_params_any: %s", snd_strerror(err));
    if ((err = snd_pcm_hw_params_set_rate_resample(handle, params, 1)) < 0)
        OPEN_LOG(2, "unable to set resample :: snd_pcm_hw_params_set_rate_resample :: %s",
                 snd_strerror(err));
    if ((err = snd_pcm_hw_params_set_access(handle, params, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0)
        OPEN_LOG(2, "snd_pcm_hw_params_set_access: %s", snd_strerror(err));
    if ((err = snd_pcm_hw_params_set_format(handle, params, SND_PCM_FORMAT_S16_LE)) < 0)
        OPEN_LOG(2, "snd_pcm_hw_params_set_format: %s", snd_strerror(err));
    if ((err = snd_pcm_hw_params_set_channels(handle, params, 2)) < 0)
        OPEN_LOG(2, "snd_pcm_hw_params_set_channels: %s", snd_strerror(err));

    if (rate < 0)
        rate = DEFAULT_RATE;
    if (rate > MAX_RATE) {
        OPEN_LOG(2, "Can`t play! Bad sample rate = %i", rate);
        close_handle(handle, 0);
        return 0;
    }
    if ((err = snd_pcm_hw_params_set_rate(handle, params, (unsigned)rate, 0)) < 0)
        OPEN_LOG(2, "snd_pcm_hw_params_set_rate_near: %s", snd_strerror(err));

    unsigned int buffer_time = BUFFER_TIME_US;
    int dir = 0;
    if ((err = snd_pcm_hw_params_set_buffer_time_near(handle, params, &buffer_time, &dir)) < 0) {
        OPEN_LOG(2, "Unable to set buffer time %u for playback: %s\n", buffer_time,
                 snd_strerror(err));
        goto fail;
    }
    snd_pcm_uframes_t frames = 0;
    if ((err = snd_pcm_hw_params_get_buffer_size(params, &frames)) < 0) {
        OPEN_LOG(2, "Unable to get buffer size for playback: %s\n", snd_strerror(err));
        goto fail;
    }
    OPEN_LOG(4, "buffer_size: %ld", (long)frames);

    unsigned int period_time = PERIOD_TIME_US;
    if ((err = snd_pcm_hw_params_set_period_time_near(handle, params, &period_time, &dir)) < 0) {
        OPEN_LOG(2, "Unable to set period time %u for playback: %s\n", period_time,
                 snd_strerror(err));
        goto fail;
    }
    if ((err = snd_pcm_hw_params_get_period_size(params, &frames, &dir)) < 0) {
        OPEN_LOG(2, "Unable to get period size for playback: %s\n", snd_strerror(err));
        goto fail;
    }
    OPEN_LOG(4, "period_size: %ld", (long)frames);

    frames = PERIOD_FRAMES;
    if ((err = snd_pcm_hw_params_set_period_size_near(handle, params, &frames, &dir)) < 0)
        OPEN_LOG(2, "snd_pcm_hw_params_set_period_size_near: %s", snd_strerror(err));

    frames = MIN_BUFFER_FRAMES;
    err = snd_pcm_hw_params_set_buffer_size_min(handle, params, &frames);
    OPEN_LOG(5, "snd_pcm_hw_params_set_buffer_size_min returned %i", err);
    snd_pcm_uframes_t max_frames = frames * 2;
    err = snd_pcm_hw_params_set_buffer_size_max(handle, params, &max_frames);
    OPEN_LOG(5, "snd_pcm_hw_params_set_buffer_size_max returned %i", err);

    if ((err = snd_pcm_hw_params(handle, params)) < 0) {
        OPEN_LOG(2, "unable to set hw parameters: %s", snd_strerror(err));
        close_handle(handle, 0);
        return 0;
    }
    err = snd_pcm_prepare(handle);
    OPEN_LOG(5, "snd_pcm_prepare returned %i", err);
    err = snd_pcm_hw_params_get_buffer_size_max(params, &frames);
    OPEN_LOG(5, "snd_pcm_hw_params_get_buffer_size_max returned %i, frames = %d", err, (int)frames);
    return 1;

fail:
    /* The handle is never used again; release it rather than leave it open. */
    snd_pcm_close(handle);
    return 0;
}

int open_alsa_ex(const char *device, int rate) {
    pthread_mutex_lock(&device_op_mutex);
    if (atomic_load(&alsa_opened)) {
        AD_LOG(4, "close alsa in open alsa");
        close_locked(0);
    }
    int ok = 0;
    snd_pcm_t *handle = open_with_retries(device);
    if (handle) {
        AD_LOG(4, "in");
        ok = configure(handle, rate);
        if (ok)
            publish_handle(handle);
    }
    pthread_mutex_unlock(&device_op_mutex);
    return ok;
}

int open_alsa(int rate) {
    return open_alsa_ex("mpd_sm", rate);
}

int close_alsa_ex(int drain) {
    pthread_mutex_lock(&device_op_mutex);
    int closed = close_locked(drain);
    pthread_mutex_unlock(&device_op_mutex);
    return closed;
}

int close_alsa(void) {
    return close_alsa_ex(1);
}

int is_alsa_opened(void) {
    return atomic_load(&alsa_opened);
}

int pause_alsa(int enable) {
    pthread_mutex_lock(&handle_mutex);
    if (atomic_load(&alsa_opened))
        snd_pcm_pause(atomic_load(&pcm_handle), enable);
    pthread_mutex_unlock(&handle_mutex);
    return 0;
}

/* PCM half of the virtual sound card: an ioplug playback device that accepts interleaved
 * S16_LE stereo at any common rate, paces consumption with a virtual clock, appends everything
 * it accepts to the capture file and records its events in the shared state. */
#include "vcard_shared.h"

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/timerfd.h>

struct vcard_pcm {
    snd_pcm_ioplug_t io;
    struct vcard_state *st;
    int capture_fd;
    int timer_fd;

    pthread_mutex_t mu; /* guards the clock below */
    double speed;
    unsigned int rate;
    snd_pcm_uframes_t buffer_size;
    uint64_t boundary;
    uint64_t written;       /* frames accepted since prepare */
    uint64_t consumed_base; /* frames consumed at t_base */
    int64_t t_base;
    int running;
    int paused;
    int draining;
    int xrun;
    int gone;
};

/* Frames consumed by now; p->mu held. */
static uint64_t consumed_locked(const struct vcard_pcm *p, int64_t now) {
    if (!p->running)
        return p->consumed_base;
    if (p->speed <= 0.0)
        return p->written;
    if (p->paused)
        return p->consumed_base;
    double elapsed = (double)(now - p->t_base) / 1e9;
    if (elapsed < 0)
        elapsed = 0;
    uint64_t c = p->consumed_base + (uint64_t)(elapsed * p->rate * p->speed);
    return c < p->written ? c : p->written;
}

static void arm_timer(struct vcard_pcm *p, int64_t interval_ns) {
    if (interval_ns < 1000000)
        interval_ns = 1000000;
    if (interval_ns > 50000000)
        interval_ns = 50000000;
    struct itimerspec its;
    its.it_interval.tv_sec = interval_ns / 1000000000;
    its.it_interval.tv_nsec = interval_ns % 1000000000;
    its.it_value = its.it_interval;
    timerfd_settime(p->timer_fd, 0, &its, NULL);
}

static int vcard_start(snd_pcm_ioplug_t *io) {
    struct vcard_pcm *p = io->private_data;
    pthread_mutex_lock(&p->mu);
    if (!p->running) {
        p->running = 1;
        p->t_base = vcard_now_ns();
    }
    pthread_mutex_unlock(&p->mu);
    return 0;
}

static int vcard_stop(snd_pcm_ioplug_t *io) {
    struct vcard_pcm *p = io->private_data;
    pthread_mutex_lock(&p->mu);
    p->consumed_base = consumed_locked(p, vcard_now_ns());
    p->running = 0;
    int draining = p->draining;
    pthread_mutex_unlock(&p->mu);
    /* A drop ends every drain and precedes every close: only a drop of a live stream counts. */
    snd_pcm_state_t state = io->state;
    if (!draining && (state == SND_PCM_STATE_PREPARED || state == SND_PCM_STATE_RUNNING ||
                      state == SND_PCM_STATE_PAUSED || state == SND_PCM_STATE_XRUN))
        vcard_event(p->st, "drop");
    return 0;
}

static snd_pcm_sframes_t vcard_pointer(snd_pcm_ioplug_t *io) {
    struct vcard_pcm *p = io->private_data;
    pthread_mutex_lock(&p->mu);
    uint64_t c = consumed_locked(p, vcard_now_ns());
    uint64_t boundary = p->boundary;
    pthread_mutex_unlock(&p->mu);
    return (snd_pcm_sframes_t)(boundary ? c % boundary : c);
}

static snd_pcm_sframes_t vcard_transfer(snd_pcm_ioplug_t *io, const snd_pcm_channel_area_t *areas,
                                        snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
    struct vcard_pcm *p = io->private_data;
    struct vcard_state *st = p->st;

    pthread_mutex_lock(&p->mu);
    int gone = p->gone;
    pthread_mutex_unlock(&p->mu);
    if (gone)
        return -ENODEV;

    const char *data =
        (const char *)areas[0].addr + areas[0].first / 8 + offset * (areas[0].step / 8);
    snd_pcm_uframes_t n = size;
    int fault = 0;

    vcard_lock(st);
    int error = __atomic_load_n(&st->write_error, __ATOMIC_ACQUIRE);
    if (error != 0) {
        int64_t left = __atomic_load_n(&st->write_fail_after, __ATOMIC_ACQUIRE);
        if (left <= 0) {
            __atomic_store_n(&st->write_error, 0, __ATOMIC_RELEASE);
            __atomic_store_n(&st->write_fail_after, -1, __ATOMIC_RELEASE);
            fault = error;
        } else {
            if ((int64_t)n > left)
                n = (snd_pcm_uframes_t)left;
            __atomic_store_n(&st->write_fail_after, left - (int64_t)n, __ATOMIC_RELEASE);
        }
    }
    if (!fault) {
        uint64_t captured = __atomic_load_n(&st->captured_frames, __ATOMIC_ACQUIRE);
        if (p->capture_fd >= 0) {
            size_t bytes = n * VCARD_FRAME_BYTES;
            off_t pos = (off_t)(captured * VCARD_FRAME_BYTES);
            while (bytes > 0) {
                ssize_t w = pwrite(p->capture_fd, data, bytes, pos);
                if (w < 0 && errno == EINTR)
                    continue;
                if (w <= 0)
                    break;
                data += w;
                bytes -= (size_t)w;
                pos += w;
            }
        }
        __atomic_store_n(&st->captured_frames, captured + n, __ATOMIC_RELEASE);
    }
    vcard_unlock(st);

    if (fault) {
        int disconnected = fault == -ENODEV;
        pthread_mutex_lock(&p->mu);
        if (disconnected)
            p->gone = 1;
        else
            p->xrun = 1;
        pthread_mutex_unlock(&p->mu);
        vcard_event(st, disconnected ? "gone" : "xrun");
        snd_pcm_ioplug_set_state(io,
                                 disconnected ? SND_PCM_STATE_DISCONNECTED : SND_PCM_STATE_XRUN);
        return fault;
    }

    pthread_mutex_lock(&p->mu);
    int64_t now = vcard_now_ns();
    if (p->running && !p->paused && consumed_locked(p, now) >= p->written) {
        /* The device ran dry: it idles until this data arrives instead of racing ahead. */
        p->consumed_base = p->written;
        p->t_base = now;
    }
    p->written += n;
    pthread_mutex_unlock(&p->mu);

    vcard_event(st, "write %lu", (unsigned long)n);
    return (snd_pcm_sframes_t)n;
}

static int vcard_close(snd_pcm_ioplug_t *io) {
    struct vcard_pcm *p = io->private_data;
    vcard_event(p->st, "close");
    __atomic_sub_fetch(&p->st->open_count, 1, __ATOMIC_ACQ_REL);
    if (p->capture_fd >= 0)
        close(p->capture_fd);
    if (p->timer_fd >= 0)
        close(p->timer_fd);
    vcard_state_unmap(p->st);
    pthread_mutex_destroy(&p->mu);
    free(p);
    return 0;
}

static int vcard_hw_params(snd_pcm_ioplug_t *io, snd_pcm_hw_params_t *params) {
    struct vcard_pcm *p = io->private_data;
    unsigned int rate = 0;
    int dir = 0;
    snd_pcm_uframes_t buffer = 0, period = 0;
    snd_pcm_hw_params_get_rate(params, &rate, &dir);
    snd_pcm_hw_params_get_buffer_size(params, &buffer);
    snd_pcm_hw_params_get_period_size(params, &period, &dir);
    if (rate == 0 || buffer == 0)
        return -EINVAL;

    uint64_t boundary = buffer;
    while (boundary * 2 <= (uint64_t)LONG_MAX - buffer)
        boundary *= 2;

    pthread_mutex_lock(&p->mu);
    p->rate = rate;
    p->buffer_size = buffer;
    p->boundary = boundary;
    double speed = p->speed;
    pthread_mutex_unlock(&p->mu);

    /* A few ticks per period, so blocked writers and drains wake up in time. */
    int64_t tick = (int64_t)((double)(period ? period : buffer / 4) * 1e9 / rate / 4);
    if (speed > 0)
        tick = (int64_t)((double)tick / speed);
    else
        tick = 1000000;
    arm_timer(p, tick);

    vcard_event(p->st, "open %u", rate);
    return 0;
}

static int vcard_prepare(snd_pcm_ioplug_t *io) {
    struct vcard_pcm *p = io->private_data;
    pthread_mutex_lock(&p->mu);
    int gone = p->gone;
    if (!gone) {
        p->written = 0;
        p->consumed_base = 0;
        p->t_base = vcard_now_ns();
        p->running = 0;
        p->paused = 0;
        p->draining = 0;
        p->xrun = 0;
    }
    pthread_mutex_unlock(&p->mu);
    if (gone)
        return -ENODEV;
    vcard_event(p->st, "prepare");
    return 0;
}

static int vcard_drain(snd_pcm_ioplug_t *io) {
    struct vcard_pcm *p = io->private_data;
    vcard_event(p->st, "drain");
    pthread_mutex_lock(&p->mu);
    p->draining = 1;
    pthread_mutex_unlock(&p->mu);
    /* Waits until the clock has consumed everything; libasound then stops the stream. */
    for (;;) {
        pthread_mutex_lock(&p->mu);
        uint64_t pending = p->written - consumed_locked(p, vcard_now_ns());
        int stuck = p->paused || !p->running || p->gone || p->xrun;
        double rate = p->rate * (p->speed > 0 ? p->speed : 1.0);
        pthread_mutex_unlock(&p->mu);
        if (pending == 0 || stuck || io->nonblock)
            break;
        double wait = (double)pending / rate;
        if (wait > 0.01)
            wait = 0.01;
        struct timespec ts = {0, (long)(wait * 1e9) + 100000};
        nanosleep(&ts, NULL);
    }
    return 0;
}

static int vcard_pause(snd_pcm_ioplug_t *io, int enable) {
    struct vcard_pcm *p = io->private_data;
    pthread_mutex_lock(&p->mu);
    int64_t now = vcard_now_ns();
    if (enable && !p->paused) {
        p->consumed_base = consumed_locked(p, now);
        p->paused = 1;
    } else if (!enable && p->paused) {
        p->paused = 0;
        p->t_base = now;
    }
    pthread_mutex_unlock(&p->mu);
    vcard_event(p->st, "pause %d", enable ? 1 : 0);
    return 0;
}

static int vcard_poll_revents(snd_pcm_ioplug_t *io, struct pollfd *pfd, unsigned int nfds,
                              unsigned short *revents) {
    struct vcard_pcm *p = io->private_data;
    uint64_t ticks;
    if (nfds >= 1 && pfd[0].fd == p->timer_fd) {
        ssize_t r = read(p->timer_fd, &ticks, sizeof ticks);
        (void)r;
    }
    pthread_mutex_lock(&p->mu);
    uint64_t pending = p->written - consumed_locked(p, vcard_now_ns());
    int failed = p->gone || p->xrun;
    snd_pcm_uframes_t buffer = p->buffer_size;
    pthread_mutex_unlock(&p->mu);
    if (failed)
        *revents = POLLERR;
    else
        *revents = pending < buffer ? POLLOUT : 0;
    return 0;
}

static int vcard_delay(snd_pcm_ioplug_t *io, snd_pcm_sframes_t *delayp) {
    struct vcard_pcm *p = io->private_data;
    pthread_mutex_lock(&p->mu);
    *delayp = (snd_pcm_sframes_t)(p->written - consumed_locked(p, vcard_now_ns()));
    pthread_mutex_unlock(&p->mu);
    return 0;
}

static const snd_pcm_ioplug_callback_t vcard_callbacks = {
    .start = vcard_start,
    .stop = vcard_stop,
    .pointer = vcard_pointer,
    .transfer = vcard_transfer,
    .close = vcard_close,
    .hw_params = vcard_hw_params,
    .prepare = vcard_prepare,
    .drain = vcard_drain,
    .pause = vcard_pause,
    .poll_revents = vcard_poll_revents,
    .delay = vcard_delay,
};

static int set_constraints(snd_pcm_ioplug_t *io) {
    static const unsigned int access[] = {SND_PCM_ACCESS_RW_INTERLEAVED};
    static const unsigned int format[] = {SND_PCM_FORMAT_S16_LE};
    int err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 1, access);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, format);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, 2, 2);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_RATE, 1, 192000);
    /* At least 4096 frames of buffer, so 500 ms at 8000 Hz rounds up rather than failing a
     * 4096-frame minimum later on. */
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES,
                                              4096 * VCARD_FRAME_BYTES, 4u << 20);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES,
                                              16 * VCARD_FRAME_BYTES, 1u << 20);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, 2, 1024);
    return err;
}

/* Opens the card: fails with the injected error if one is pending. */
SND_PCM_PLUGIN_DEFINE_FUNC(vcard) {
    (void)root;
    (void)conf;
    if (stream != SND_PCM_STREAM_PLAYBACK) {
        SNDERR("vcard: playback only");
        return -EINVAL;
    }

    const char *path = getenv("VCARD_STATE");
    struct vcard_state *st = path && *path ? vcard_state_map(path) : vcard_state_anon();
    if (!st) {
        SNDERR("vcard: cannot map state file %s", path);
        return -ENOENT;
    }

    vcard_lock(st);
    int count = __atomic_load_n(&st->open_fail_count, __ATOMIC_ACQUIRE);
    int error = 0;
    if (count != 0) {
        error = __atomic_load_n(&st->open_error, __ATOMIC_ACQUIRE);
        if (error >= 0)
            error = -EIO;
        if (count > 0)
            __atomic_store_n(&st->open_fail_count, count - 1, __ATOMIC_RELEASE);
    }
    vcard_unlock(st);
    if (error) {
        vcard_event(st, "open-fail %d", error);
        vcard_state_unmap(st);
        return error;
    }

    struct vcard_pcm *p = calloc(1, sizeof *p);
    if (!p) {
        vcard_state_unmap(st);
        return -ENOMEM;
    }
    p->st = st;
    p->capture_fd = -1;
    p->timer_fd = -1;
    pthread_mutex_init(&p->mu, NULL);
    p->speed = vcard_get_speed(st);
    p->rate = 44100;
    if (path && *path) {
        size_t len = strlen(path);
        char *capture = malloc(len + sizeof VCARD_CAPTURE_SUFFIX);
        if (capture) {
            memcpy(capture, path, len);
            memcpy(capture + len, VCARD_CAPTURE_SUFFIX, sizeof VCARD_CAPTURE_SUFFIX);
            p->capture_fd = open(capture, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            free(capture);
        }
    }
    p->timer_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (p->timer_fd < 0) {
        int err = -errno;
        if (p->capture_fd >= 0)
            close(p->capture_fd);
        pthread_mutex_destroy(&p->mu);
        free(p);
        vcard_state_unmap(st);
        return err;
    }
    arm_timer(p, 10000000);

    p->io.version = SND_PCM_IOPLUG_VERSION;
    p->io.name = "Virtual sound card";
    p->io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA | SND_PCM_IOPLUG_FLAG_MONOTONIC;
    p->io.poll_fd = p->timer_fd;
    p->io.poll_events = POLLIN;
    p->io.mmap_rw = 0;
    p->io.callback = &vcard_callbacks;
    p->io.private_data = p;

    int err = snd_pcm_ioplug_create(&p->io, name, stream, mode);
    if (err < 0) {
        close(p->timer_fd);
        if (p->capture_fd >= 0)
            close(p->capture_fd);
        pthread_mutex_destroy(&p->mu);
        free(p);
        vcard_state_unmap(st);
        return err;
    }
    __atomic_add_fetch(&st->open_count, 1, __ATOMIC_ACQ_REL);
    err = set_constraints(&p->io);
    if (err < 0) {
        snd_pcm_ioplug_delete(&p->io); /* calls vcard_close */
        return err;
    }
    *pcmp = p->io.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(vcard)

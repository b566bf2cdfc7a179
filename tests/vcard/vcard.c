/* The virtual sound card (see vcard.h). One mutex guards the card and every open PCM's clock:
 * the card is small and the tests' threads, the library's play thread and its mixer thread all
 * come through here. */
#include "vcard.h"

#include <alsa/asoundlib.h>
#include <alsa/control_external.h>
#include <alsa/pcm_external.h>
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h> /* memfd_create */
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#define EVENT_BYTES (1 << 16)
#define MIXER_WRITES 4096
#define FRAME_BYTES 4
#define WRITES 65536
#define UNHEARD 4096

static struct {
    pthread_mutex_t mu;
    int configured; /* by the functions of vcard.h */
    double speed;
    int open_error, open_fails; /* open_fails -1: every open */
    int write_error;            /* 0: no write fault armed */
    long write_after;
    int mixer_hidden;
    long mixer_min, mixer_max, mixer_value;
    unsigned long mixer_changes;
    long mixer_writes[MIXER_WRITES];
    size_t mixer_write_count;
    int capture_fd; /* anonymous file: the capture never counts as the process's memory */
    size_t captured;
    int open_count;
    int no_pause; /* PCMs opened from now on cannot pause */
    /* Stretches of the capture that a drop kept from being heard: [start, end) in frames. */
    size_t unheard[UNHEARD][2];
    size_t unheard_count;
    struct pcm *live; /* the PCM opened last, while open */
    struct vcard_write writes[WRITES];
    size_t write_count;
    size_t event_bytes;
    char events[EVENT_BYTES];
} card = {.mu = PTHREAD_MUTEX_INITIALIZER, .mixer_max = 255, .capture_fd = -1};

/* Runs `statements` under the card's lock. */
#define LOCKED(statements)                                                                         \
    do {                                                                                           \
        pthread_mutex_lock(&card.mu);                                                              \
        statements;                                                                                \
        pthread_mutex_unlock(&card.mu);                                                            \
    } while (0)

static int64_t now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

/* Appends one event line; card.mu held. */
__attribute__((format(printf, 1, 2))) static void event_locked(const char *fmt, ...) {
    if (card.event_bytes + 64 > EVENT_BYTES)
        return;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(card.events + card.event_bytes, 62, fmt, ap);
    va_end(ap);
    card.event_bytes += n < 0 ? 0 : n > 61 ? 61 : (size_t)n;
    card.events[card.event_bytes++] = '\n';
}

/* --- PCM ------------------------------------------------------------------------------------- */

struct pcm {
    snd_pcm_ioplug_t io;
    int timer_fd;
    double speed;
    unsigned int rate;
    snd_pcm_uframes_t buffer;
    uint64_t boundary, written, consumed_base; /* frames since prepare */
    uint64_t reported;                         /* frames consumed when the position was last read */
    int64_t reported_ns;                       /* and when */
    size_t capture_start;                      /* the capture's length at the prepare */
    int64_t t_base;
    int running, paused, draining, failed, gone;
};

/* Frames the virtual clock has consumed by `now`; card.mu held. */
static uint64_t consumed(const struct pcm *p, int64_t now) {
    if (!p->running || p->paused)
        return p->consumed_base;
    if (p->speed <= 0.0)
        return p->written;
    double elapsed = now > p->t_base ? (double)(now - p->t_base) / 1e9 : 0.0;
    uint64_t c = p->consumed_base + (uint64_t)(elapsed * p->rate * p->speed);
    return c < p->written ? c : p->written;
}

static int pcm_start(snd_pcm_ioplug_t *io) {
    struct pcm *p = io->private_data;
    LOCKED(p->t_base = p->running ? p->t_base : now_ns(); p->running = 1);
    return 0;
}

static int pcm_stop(snd_pcm_ioplug_t *io) {
    struct pcm *p = io->private_data;
    snd_pcm_state_t s = io->state;
    pthread_mutex_lock(&card.mu);
    int64_t now = now_ns();
    uint64_t base = p->consumed_base, now_consumed = consumed(p, now);
    p->consumed_base = now_consumed;
    p->running = 0;
    /* libasound stops the stream after every drain and before every close: only the stop of a
     * live stream is a drop. A drop right after the driver read the position (to learn what it
     * drops) stops the sound at that position, as a card whose position moves in steps would;
     * what was written after it is never heard. */
    if (!p->draining && (s == SND_PCM_STATE_PREPARED || s == SND_PCM_STATE_RUNNING ||
                         s == SND_PCM_STATE_PAUSED || s == SND_PCM_STATE_XRUN)) {
        event_locked("drop");
        uint64_t heard = s == SND_PCM_STATE_RUNNING && p->reported >= base &&
                                 p->reported < now_consumed && now - p->reported_ns < 20000000
                             ? p->reported
                             : now_consumed;
        p->consumed_base = heard;
        /* Frames written before the capture was reset are not in it. */
        size_t before = (size_t)0 - p->capture_start;
        if (before <= p->written && heard < before)
            heard = before;
        if (heard < p->written && card.unheard_count < UNHEARD) {
            card.unheard[card.unheard_count][0] = p->capture_start + heard;
            card.unheard[card.unheard_count][1] = p->capture_start + p->written;
            card.unheard_count++;
        }
    }
    pthread_mutex_unlock(&card.mu);
    return 0;
}

static snd_pcm_sframes_t pcm_pointer(snd_pcm_ioplug_t *io) {
    struct pcm *p = io->private_data;
    uint64_t c;
    int64_t now = now_ns();
    LOCKED(c = consumed(p, now); p->reported = c; p->reported_ns = now);
    return (snd_pcm_sframes_t)(c % p->boundary);
}

static void capture_locked(const char *data, size_t frames) {
    if (card.capture_fd < 0)
        card.capture_fd = memfd_create("vcard-capture", MFD_CLOEXEC);
    size_t bytes = frames * FRAME_BYTES;
    if (pwrite(card.capture_fd, data, bytes, (off_t)(card.captured * FRAME_BYTES)) !=
        (ssize_t)bytes)
        perror("vcard: capture");
    card.captured += frames;
}

static snd_pcm_sframes_t pcm_transfer(snd_pcm_ioplug_t *io, const snd_pcm_channel_area_t *areas,
                                      snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
    struct pcm *p = io->private_data;
    const char *data = (const char *)areas[0].addr + areas[0].first / 8 + offset * FRAME_BYTES;
    snd_pcm_sframes_t n = (snd_pcm_sframes_t)size;
    pthread_mutex_lock(&card.mu);
    if (p->gone) {
        n = -ENODEV;
    } else if (card.write_error != 0 && card.write_after <= 0) {
        n = card.write_error;
        card.write_error = 0;
        p->failed = 1;
        p->gone = n == -ENODEV;
        event_locked(p->gone ? "gone" : "xrun");
    } else {
        if (card.write_error != 0) {
            n = n < card.write_after ? n : card.write_after;
            card.write_after -= n;
        }
        capture_locked(data, (size_t)n);
        int64_t now = now_ns(), dry = 0;
        if (p->running && !p->paused && consumed(p, now) >= p->written) {
            /* Ran dry: the device idles until this data arrives instead of racing ahead. */
            if (p->speed > 0)
                dry = now - p->t_base -
                      (int64_t)((p->written - p->consumed_base) * 1e9 / (p->rate * p->speed));
            p->consumed_base = p->written;
            p->t_base = now;
        }
        if (card.write_count < WRITES)
            card.writes[card.write_count] = (struct vcard_write){now, (long)n, dry > 0 ? dry : 0};
        card.write_count++;
        p->written += (uint64_t)n;
    }
    pthread_mutex_unlock(&card.mu);
    if (n < 0)
        snd_pcm_ioplug_set_state(io,
                                 n == -ENODEV ? SND_PCM_STATE_DISCONNECTED : SND_PCM_STATE_XRUN);
    return n;
}

static int pcm_close(snd_pcm_ioplug_t *io) {
    struct pcm *p = io->private_data;
    LOCKED(event_locked("close"); card.open_count--; card.live = card.live == p ? NULL : card.live);
    close(p->timer_fd);
    free(p);
    return 0;
}

static void arm_timer(int fd, int64_t ns) {
    ns = ns < 1000000 ? 1000000 : ns > 50000000 ? 50000000 : ns;
    struct itimerspec its = {{ns / 1000000000, ns % 1000000000},
                             {ns / 1000000000, ns % 1000000000}};
    timerfd_settime(fd, 0, &its, NULL);
}

/* The poll descriptor of a PCM or control handle: a timer ticking every `ns`, or -1. */
static int new_timer(int64_t ns) {
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd >= 0)
        arm_timer(fd, ns);
    return fd;
}

/* Consumes the ticks that woke a poller; poll_revents then says what is ready. */
static void clear_timer(const struct pollfd *pfd, unsigned int nfds) {
    uint64_t ticks;
    if (nfds >= 1 && read(pfd[0].fd, &ticks, sizeof ticks) < 0)
        ticks = 0;
}

static int pcm_hw_params(snd_pcm_ioplug_t *io, snd_pcm_hw_params_t *params) {
    struct pcm *p = io->private_data;
    unsigned int rate = 0;
    snd_pcm_uframes_t buffer = 0, period = 0;
    snd_pcm_hw_params_get_rate(params, &rate, NULL);
    snd_pcm_hw_params_get_buffer_size(params, &buffer);
    snd_pcm_hw_params_get_period_size(params, &period, NULL);
    if (rate == 0 || buffer == 0)
        return -EINVAL;
    pthread_mutex_lock(&card.mu);
    p->rate = rate;
    p->buffer = buffer;
    for (p->boundary = buffer; p->boundary * 2 <= (uint64_t)LONG_MAX - buffer;)
        p->boundary *= 2;
    event_locked("open %u", rate);
    pthread_mutex_unlock(&card.mu);
    /* A few ticks a period, so that blocked writers and drains wake up in time. */
    arm_timer(p->timer_fd, p->speed > 0 ? (int64_t)(period * 1e9 / rate / 4 / p->speed) : 0);
    return 0;
}

static int pcm_prepare(snd_pcm_ioplug_t *io) {
    struct pcm *p = io->private_data;
    pthread_mutex_lock(&card.mu);
    int gone = p->gone;
    if (!gone) {
        p->written = p->consumed_base = p->reported = 0;
        p->capture_start = card.captured;
        p->running = p->paused = p->draining = p->failed = 0;
        event_locked("prepare");
    }
    pthread_mutex_unlock(&card.mu);
    return gone ? -ENODEV : 0;
}

static int pcm_drain(snd_pcm_ioplug_t *io) {
    struct pcm *p = io->private_data;
    for (int first = 1;; first = 0) {
        pthread_mutex_lock(&card.mu);
        if (first) {
            event_locked("drain");
            p->draining = 1;
        }
        uint64_t pending = p->written - consumed(p, now_ns());
        int stuck = p->paused || !p->running || p->failed;
        double wait = pending / (p->rate * (p->speed > 0 ? p->speed : 1.0));
        pthread_mutex_unlock(&card.mu);
        if (pending == 0 || stuck || io->nonblock)
            return 0;
        struct timespec ts = {0, (long)((wait < 0.01 ? wait : 0.01) * 1e9) + 100000};
        nanosleep(&ts, NULL);
    }
}

static int pcm_pause(snd_pcm_ioplug_t *io, int enable) {
    struct pcm *p = io->private_data;
    pthread_mutex_lock(&card.mu);
    int64_t now = now_ns();
    if (enable && !p->paused)
        p->consumed_base = consumed(p, now);
    else if (!enable && p->paused)
        p->t_base = now;
    p->paused = enable != 0;
    event_locked("pause %d", enable != 0);
    pthread_mutex_unlock(&card.mu);
    return 0;
}

static int pcm_poll_revents(snd_pcm_ioplug_t *io, struct pollfd *pfd, unsigned int nfds,
                            unsigned short *revents) {
    struct pcm *p = io->private_data;
    clear_timer(pfd, nfds);
    pthread_mutex_lock(&card.mu);
    uint64_t pending = p->written - consumed(p, now_ns());
    *revents = p->failed ? POLLERR : pending < p->buffer ? POLLOUT : 0;
    pthread_mutex_unlock(&card.mu);
    return 0;
}

static const snd_pcm_ioplug_callback_t pcm_callbacks = {
    .start = pcm_start,
    .stop = pcm_stop,
    .pointer = pcm_pointer,
    .transfer = pcm_transfer,
    .close = pcm_close,
    .hw_params = pcm_hw_params,
    .prepare = pcm_prepare,
    .drain = pcm_drain,
    .pause = pcm_pause,
    .poll_revents = pcm_poll_revents,
};

/* A card that cannot pause: libasound reports it through snd_pcm_hw_params_can_pause. */
static const snd_pcm_ioplug_callback_t pcm_callbacks_no_pause = {
    .start = pcm_start,
    .stop = pcm_stop,
    .pointer = pcm_pointer,
    .transfer = pcm_transfer,
    .close = pcm_close,
    .hw_params = pcm_hw_params,
    .prepare = pcm_prepare,
    .drain = pcm_drain,
    .poll_revents = pcm_poll_revents,
};

static int pcm_constraints(snd_pcm_ioplug_t *io) {
    static const unsigned int access = SND_PCM_ACCESS_RW_INTERLEAVED;
    static const unsigned int format = SND_PCM_FORMAT_S16_LE;
    /* At least 4096 frames of buffer, so that 500 ms at 8000 Hz rounds up instead of failing. */
    static const unsigned int ranges[][3] = {
        {SND_PCM_IOPLUG_HW_CHANNELS, 2, 2},
        {SND_PCM_IOPLUG_HW_RATE, 1, 192000},
        {SND_PCM_IOPLUG_HW_BUFFER_BYTES, 4096 * FRAME_BYTES, 4u << 20},
        {SND_PCM_IOPLUG_HW_PERIOD_BYTES, 16 * FRAME_BYTES, 1u << 20},
        {SND_PCM_IOPLUG_HW_PERIODS, 2, 1024},
    };
    int err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 1, &access);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, &format);
    for (size_t i = 0; err >= 0 && i < sizeof ranges / sizeof ranges[0]; i++)
        err = snd_pcm_ioplug_set_param_minmax(io, (int)ranges[i][0], ranges[i][1], ranges[i][2]);
    return err;
}

SND_PCM_PLUGIN_DEFINE_FUNC(vcard) {
    if (stream != SND_PCM_STREAM_PLAYBACK)
        return -EINVAL;
    pthread_mutex_lock(&card.mu);
    int error = card.open_fails != 0 ? (card.open_error < 0 ? card.open_error : -EIO) : 0;
    if (card.open_fails > 0)
        card.open_fails--;
    if (error)
        event_locked("open-fail %d", error);
    /* A process that only loads the card through ALSA (a program a test or benchmark starts)
     * takes its pace from VCARD_SPEED. */
    const char *env = getenv("VCARD_SPEED");
    double speed = card.configured || !env ? card.speed : atof(env);
    int no_pause = card.no_pause;
    pthread_mutex_unlock(&card.mu);
    if (error)
        return error;

    struct pcm *p = calloc(1, sizeof *p);
    if (!p)
        return -ENOMEM;
    p->speed = speed;
    p->rate = 44100;
    p->boundary = 1;
    p->timer_fd = new_timer(10000000);
    if (p->timer_fd < 0) {
        free(p);
        return -errno;
    }
    p->io.version = SND_PCM_IOPLUG_VERSION;
    p->io.name = "Virtual sound card";
    p->io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA | SND_PCM_IOPLUG_FLAG_MONOTONIC;
    p->io.poll_fd = p->timer_fd;
    p->io.poll_events = POLLIN;
    p->io.callback = no_pause ? &pcm_callbacks_no_pause : &pcm_callbacks;
    p->io.private_data = p;
    int err = snd_pcm_ioplug_create(&p->io, name, stream, mode);
    if (err < 0) {
        close(p->timer_fd);
        free(p);
        return err;
    }
    LOCKED(card.open_count++; card.live = p);
    err = pcm_constraints(&p->io);
    if (err < 0) {
        snd_pcm_ioplug_delete(&p->io); /* calls pcm_close */
        return err;
    }
    *pcmp = p->io.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(vcard)

/* --- Control: one MIXER INTEGER element "mpd_volume" ------------------------------------------ */

#define ELEM_NAME "mpd_volume"

struct ctl {
    snd_ctl_ext_t ext;
    unsigned long seen_changes;
};

static int mixer_hidden(void) {
    int hidden;
    LOCKED(hidden = card.mixer_hidden);
    return hidden;
}

static void ctl_close(snd_ctl_ext_t *ext) {
    close(ext->poll_fd);
    free(ext->private_data);
}

static int ctl_elem_count(snd_ctl_ext_t *ext) {
    return mixer_hidden() ? 0 : 1;
}

static void set_elem_id(snd_ctl_elem_id_t *id) {
    snd_ctl_elem_id_set_numid(id, 1);
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, ELEM_NAME);
}

static int ctl_elem_list(snd_ctl_ext_t *ext, unsigned int offset, snd_ctl_elem_id_t *id) {
    if (offset != 0 || mixer_hidden())
        return -EINVAL;
    set_elem_id(id);
    return 0;
}

static snd_ctl_ext_key_t ctl_find_elem(snd_ctl_ext_t *ext, const snd_ctl_elem_id_t *id) {
    int found =
        snd_ctl_elem_id_get_numid(id) == 1 || !strcmp(snd_ctl_elem_id_get_name(id), ELEM_NAME);
    return found && !mixer_hidden() ? 0 : SND_CTL_EXT_KEY_NOT_FOUND;
}

static int ctl_get_attribute(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, int *type,
                             unsigned int *acc, unsigned int *count) {
    *type = SND_CTL_ELEM_TYPE_INTEGER;
    *acc = SND_CTL_EXT_ACCESS_READWRITE;
    *count = 1;
    return 0;
}

static int ctl_get_integer_info(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *imin, long *imax,
                                long *istep) {
    LOCKED(*imin = card.mixer_min; *imax = card.mixer_max);
    *istep = 1;
    return 0;
}

static int ctl_read_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *value) {
    *value = vcard_mixer_value();
    return 0;
}

static int ctl_write_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *value) {
    pthread_mutex_lock(&card.mu);
    if (card.mixer_write_count < MIXER_WRITES)
        card.mixer_writes[card.mixer_write_count] = *value;
    card.mixer_write_count++;
    card.mixer_changes += card.mixer_value != *value;
    card.mixer_value = *value;
    pthread_mutex_unlock(&card.mu);
    return 0;
}

/* A change counter drives events: each handle reports what it has not seen yet. */
static int ctl_changed(struct ctl *c, int consume) {
    pthread_mutex_lock(&card.mu);
    int changed = card.mixer_changes != c->seen_changes && !card.mixer_hidden;
    if (consume)
        c->seen_changes = card.mixer_changes;
    pthread_mutex_unlock(&card.mu);
    return changed;
}

static int ctl_read_event(snd_ctl_ext_t *ext, snd_ctl_elem_id_t *id, unsigned int *event_mask) {
    if (!ctl_changed(ext->private_data, 1))
        return -EAGAIN;
    snd_ctl_elem_id_clear(id);
    set_elem_id(id);
    *event_mask = SND_CTL_EVENT_MASK_VALUE;
    return 1;
}

static int ctl_poll_revents(snd_ctl_ext_t *ext, struct pollfd *pfd, unsigned int nfds,
                            unsigned short *revents) {
    clear_timer(pfd, nfds);
    *revents = ctl_changed(ext->private_data, 0) ? POLLIN : 0;
    return 0;
}

static const snd_ctl_ext_callback_t ctl_callbacks = {
    .close = ctl_close,
    .elem_count = ctl_elem_count,
    .elem_list = ctl_elem_list,
    .find_elem = ctl_find_elem,
    .get_attribute = ctl_get_attribute,
    .get_integer_info = ctl_get_integer_info,
    .read_integer = ctl_read_integer,
    .write_integer = ctl_write_integer,
    .read_event = ctl_read_event,
    .poll_revents = ctl_poll_revents,
};

SND_CTL_PLUGIN_DEFINE_FUNC(vcard) {
    struct ctl *c = calloc(1, sizeof *c);
    if (!c)
        return -ENOMEM;
    ctl_changed(c, 1);
    /* A slow tick as poll descriptor: waiters wake up and poll_revents tells what changed. */
    int fd = new_timer(20000000);
    if (fd < 0) {
        free(c);
        return -errno;
    }
    c->ext.version = SND_CTL_EXT_VERSION;
    snprintf(c->ext.id, sizeof c->ext.id, "vcard");
    snprintf(c->ext.driver, sizeof c->ext.driver, "vcard");
    snprintf(c->ext.name, sizeof c->ext.name, "Virtual sound card");
    c->ext.poll_fd = fd;
    c->ext.callback = &ctl_callbacks;
    c->ext.private_data = c;
    int err = snd_ctl_ext_create(&c->ext, name, mode);
    if (err < 0) {
        close(fd);
        free(c);
        return err;
    }
    *handlep = c->ext.handle;
    return 0;
}

SND_CTL_PLUGIN_SYMBOL(vcard)

/* --- The tests' side ----------------------------------------------------------------------------
 */

void vcard_setup(void) {
    pthread_mutex_lock(&card.mu);
    card.configured = 1;
    card.speed = 0;
    card.open_fails = card.write_error = card.mixer_hidden = 0;
    card.mixer_min = card.mixer_value = 0;
    card.mixer_max = 255;
    card.mixer_changes++;
    card.mixer_write_count = card.captured = card.event_bytes = card.write_count = 0;
    card.unheard_count = 0;
    card.no_pause = 0;
    if (card.live) /* the open stream's next frame starts the new capture */
        card.live->capture_start = (size_t)0 - (size_t)card.live->written;
    if (card.capture_fd >= 0 && ftruncate(card.capture_fd, 0) != 0)
        perror("vcard: capture");
    pthread_mutex_unlock(&card.mu);
}

void vcard_set_speed(double speed) {
    LOCKED(card.speed = speed < 0 ? 0 : speed; card.configured = 1);
}

void vcard_fail_open(int error, int count) {
    LOCKED(card.open_error = error; card.open_fails = count < 0 ? -1 : count);
}

void vcard_fail_write_after(int error, long frames) {
    LOCKED(card.write_error = error; card.write_after = frames < 0 ? 0 : frames);
}

void vcard_set_mixer_range(long min, long max) {
    LOCKED(card.mixer_min = min; card.mixer_max = max; card.mixer_changes++);
}

void vcard_set_mixer_value(long value) {
    LOCKED(card.mixer_value = value; card.mixer_changes++);
}

void vcard_hide_mixer(int hidden) {
    LOCKED(card.mixer_hidden = hidden != 0; card.mixer_changes++);
}

long vcard_mixer_value(void) {
    long value;
    LOCKED(value = card.mixer_value);
    return value;
}

size_t vcard_mixer_writes(long *values, size_t max) {
    pthread_mutex_lock(&card.mu);
    size_t n = card.mixer_write_count;
    for (size_t i = 0; i < n && i < max && i < MIXER_WRITES; i++)
        values[i] = card.mixer_writes[i];
    pthread_mutex_unlock(&card.mu);
    return n;
}

size_t vcard_writes(struct vcard_write *out, size_t max) {
    pthread_mutex_lock(&card.mu);
    size_t n = card.write_count;
    size_t copy = n < max ? n : max;
    memcpy(out, card.writes, sizeof *out * (copy < WRITES ? copy : WRITES));
    pthread_mutex_unlock(&card.mu);
    return n;
}

size_t vcard_captured_frames(void) {
    size_t n;
    LOCKED(n = card.captured);
    return n;
}

size_t vcard_capture(int16_t *out, size_t max_frames) {
    pthread_mutex_lock(&card.mu);
    size_t want = (card.captured < max_frames ? card.captured : max_frames) * FRAME_BYTES;
    ssize_t got = card.capture_fd < 0 ? 0 : pread(card.capture_fd, out, want, 0);
    pthread_mutex_unlock(&card.mu);
    return got > 0 ? (size_t)got / FRAME_BYTES : 0;
}

int vcard_count_events(const char *prefix) {
    int count = 0;
    size_t plen = strlen(prefix);
    pthread_mutex_lock(&card.mu);
    for (size_t at = 0; at < card.event_bytes;) {
        const char *line = card.events + at;
        count += strncmp(line, prefix, plen) == 0;
        at += (size_t)((char *)memchr(line, '\n', card.event_bytes - at) - line) + 1;
    }
    pthread_mutex_unlock(&card.mu);
    return count;
}

int vcard_is_open(void) {
    int open;
    LOCKED(open = card.open_count > 0);
    return open;
}

void vcard_set_can_pause(int can_pause) {
    LOCKED(card.no_pause = !can_pause);
}

size_t vcard_heard(int16_t *out, size_t max_frames) {
    size_t captured = vcard_captured_frames();
    int16_t *all = malloc(captured * FRAME_BYTES + FRAME_BYTES);
    if (!all)
        return 0;
    captured = vcard_capture(all, captured);
    pthread_mutex_lock(&card.mu);
    size_t kept = 0, range = 0;
    for (size_t f = 0; f < captured && kept < max_frames; f++) {
        while (range < card.unheard_count && f >= card.unheard[range][1])
            range++;
        if (range < card.unheard_count && f >= card.unheard[range][0])
            continue;
        memcpy(out + kept * 2, all + f * 2, FRAME_BYTES);
        kept++;
    }
    pthread_mutex_unlock(&card.mu);
    free(all);
    return kept;
}

size_t vcard_heard_frames(void) {
    pthread_mutex_lock(&card.mu);
    size_t heard = card.captured;
    for (size_t i = 0; i < card.unheard_count; i++)
        heard -= card.unheard[i][1] - card.unheard[i][0];
    if (card.live)
        heard -= (size_t)(card.live->written - consumed(card.live, now_ns()));
    pthread_mutex_unlock(&card.mu);
    return heard;
}

size_t vcard_drops(size_t *heard_at, size_t max) {
    pthread_mutex_lock(&card.mu);
    size_t dropped = 0;
    for (size_t i = 0; i < card.unheard_count; i++) {
        if (i < max)
            heard_at[i] = card.unheard[i][0] - dropped;
        dropped += card.unheard[i][1] - card.unheard[i][0];
    }
    size_t n = card.unheard_count;
    pthread_mutex_unlock(&card.mu);
    return n;
}

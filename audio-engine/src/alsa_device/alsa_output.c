/* The ring of three output pieces and the play thread that writes them to the device.
 *
 *   write_index: the piece pushed last      read_index: the piece the play thread released last
 *
 *        [0] [1] [2]        the producer fills (write_index + 1) % 3 unless that is read_index;
 *         ^   ^             the play thread plays (read_index + 1) % 3 while the ring is not
 *         r   w             empty (write_index != read_index). At most two pieces are in flight.
 *
 * The play thread alone touches the device and the ring's read side while it runs. It writes
 * without blocking and waits for room in poll(), on the device and on `wake_fd`, so that a drop
 * or a pause requested by the engine (alsa_output_internal.h) is served at once, not after the
 * write of a whole piece. A requester posts under `buffer_mutex`, signals `buffer_cond` and
 * `wake_fd`, and waits on `done_cond` until the play thread has counted its request done.
 *
 * Locking: `buffer_mutex` guards advances of write_index, the requests and the play thread's
 * waits on `buffer_cond`. read_index is advanced only by the play thread (or, with no play
 * thread, by a drop), without the mutex. Both indices and the stop flag are atomics because the
 * producer reads them without any lock. `thread_mutex` serialises init, deinit and requests;
 * `name_mutex` guards `device_name`. */
#define _GNU_SOURCE
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdatomic.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "alsa_internal.h"
#include "alsa_output_internal.h"
#include "mp_state.h"
#include "output_record.h"

enum {
    RING_PIECES = 3,
    PLAY_THREAD_NICE = -19,
    DEVICE_NAME_SIZE = 1024,
    FRAME_BYTES = 4,
    REQUEST_WAIT_S = 3, /* longer than an open that waits for a busy device */
    DEVICE_WAIT_MS = 1000,
    MAX_POLL_FDS = 16,
};

static struct abuf_piece pieces[RING_PIECES];
static atomic_int write_index;
static atomic_int read_index;
static atomic_bool output_stopped;

/* Tags: given by the producer for the piece it fills, taken over at the push. */
static struct alsa_output_tag given_tags[RING_PIECES];
static int tag_given[RING_PIECES];
static struct alsa_output_tag pushed_tags[RING_PIECES]; /* guarded by buffer_mutex */

static pthread_mutex_t buffer_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t buffer_cond = PTHREAD_COND_INITIALIZER;

/* Requests to the play thread, guarded by buffer_mutex. */
static pthread_cond_t done_cond = PTHREAD_COND_INITIALIZER;
static unsigned long request_seq, done_seq;
static int drop_wanted;
static int pause_wanted;
static int wake_fd = -1;

static pthread_mutex_t thread_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_t play_thread;
static int play_thread_started;

static pthread_mutex_t name_mutex = PTHREAD_MUTEX_INITIALIZER;
static char device_name[DEVICE_NAME_SIZE];

/* The play thread's own state. */
static struct {
    struct abuf_piece *piece; /* being written, or NULL */
    struct alsa_output_tag tag;
    long frames, offset; /* of the piece, and how many went to the device */
    unsigned serial;
    int rate;          /* of the open device; -1 before the first piece */
    int can_pause;     /* the open device pauses with snd_pcm_pause */
    int paused;        /* a pause carried out */
    int device_paused; /* ... with snd_pcm_pause */
} pt;

static int next_index(int index) {
    return (index + 1) % RING_PIECES;
}

static int ring_empty(void) {
    return atomic_load(&write_index) == atomic_load(&read_index);
}

static long piece_frames(const struct abuf_piece *piece) {
    int frames = piece->frames;
    return frames > ABUF_PIECE_MAX_FRAMES ? ABUF_PIECE_MAX_FRAMES : frames < 0 ? 0 : frames;
}

struct abuf_piece *get_output_buffer(void) {
    int next = next_index(atomic_load(&write_index));
    if (next == atomic_load(&read_index))
        return NULL;
    return &pieces[next];
}

int alsa_output_tag_piece(struct abuf_piece *piece, const struct alsa_output_tag *tag) {
    if (piece == NULL || piece != get_output_buffer() || tag == NULL)
        return -1;
    int index = (int)(piece - pieces);
    given_tags[index] = *tag;
    tag_given[index] = 1;
    return 0;
}

int push_output_buffer(struct abuf_piece *piece) {
    if (atomic_load(&output_stopped))
        return -ENODEV;
    struct abuf_piece *expected = get_output_buffer();
    if (piece == NULL || piece != expected) {
        AD_LOG(2, "wrong buffer %p should be %p", (void *)piece, (void *)expected);
        return -1;
    }
    int index = (int)(piece - pieces);
    struct alsa_output_tag tag = {ALSA_OUTPUT_NO_MEDIA, 0.0, 0};
    if (tag_given[index])
        tag = given_tags[index];
    tag_given[index] = 0;
    record_queued(piece_frames(piece));
    pthread_mutex_lock(&buffer_mutex);
    pushed_tags[index] = tag;
    atomic_store(&write_index, index);
    pthread_cond_signal(&buffer_cond);
    pthread_mutex_unlock(&buffer_mutex);
    return 0;
}

int alsa_output_working(void) {
    return !atomic_load(&output_stopped);
}

char *set_alsa_device_name(const char *name) {
    pthread_mutex_lock(&name_mutex);
    strncpy(device_name, name, DEVICE_NAME_SIZE - 1);
    pthread_mutex_unlock(&name_mutex);
    return device_name;
}

/* --- Requests ------------------------------------------------------------------------------ */

static void wake_play_thread(void) {
    uint64_t one = 1;
    if (wake_fd >= 0 && write(wake_fd, &one, sizeof one) < 0)
        AD_LOG_AS("play_proc", 2, "cannot wake the play thread: %s", strerror(errno));
}

/* Empties the ring. Caller holds buffer_mutex and is the play thread, or no play thread runs. */
static void empty_ring(void) {
    atomic_store(&read_index, atomic_load(&write_index));
    record_queue_cleared();
}

/* Posts a drop and/or a pause state (-1: unchanged) and waits until it has been carried out. */
static int request(int drop, int pause) {
    pthread_mutex_lock(&thread_mutex);
    pthread_mutex_lock(&buffer_mutex);
    int result = 0;
    if (pause >= 0)
        pause_wanted = pause;
    if (!play_thread_started) {
        /* Nobody reads the ring; a pause waits for the thread that will. */
        if (drop)
            empty_ring();
        record_paused(pause_wanted);
    } else if (atomic_load(&output_stopped)) {
        result = -1;
    } else {
        drop_wanted |= drop;
        unsigned long seq = ++request_seq;
        pthread_cond_signal(&buffer_cond);
        wake_play_thread();
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += REQUEST_WAIT_S;
        while (done_seq < seq && !atomic_load(&output_stopped) && result == 0) {
            if (pthread_cond_timedwait(&done_cond, &buffer_mutex, &deadline) == ETIMEDOUT)
                result = -1;
        }
        if (done_seq < seq) {
            AD_LOG_AS("alsa_output_request", 2, "the play thread did not answer");
            result = -1;
        }
    }
    pthread_mutex_unlock(&buffer_mutex);
    pthread_mutex_unlock(&thread_mutex);
    return result;
}

int alsa_output_drop(void) {
    return request(1, -1);
}

int alsa_output_pause(int enable) {
    pthread_mutex_lock(&buffer_mutex);
    int same = pause_wanted == (enable != 0);
    pthread_mutex_unlock(&buffer_mutex);
    return same ? 0 : request(0, enable != 0);
}

int alsa_output_paused(void) {
    pthread_mutex_lock(&buffer_mutex);
    int paused = pause_wanted;
    pthread_mutex_unlock(&buffer_mutex);
    return paused;
}

/* --- Play thread ----------------------------------------------------------------------------- */

static void raise_priority(void) {
    pid_t tid = (pid_t)syscall(SYS_gettid);
    if (getpriority(PRIO_PROCESS, (id_t)tid) != PLAY_THREAD_NICE &&
        setpriority(PRIO_PROCESS, (id_t)tid, PLAY_THREAD_NICE) != 0)
        fprintf(stderr, "play_proc: cannot raise priority of thread %d: %s\n", (int)tid,
                strerror(errno));
}

/* Reads the device's delay into the record after a write or a change of its state. */
static void note_device(void) {
    snd_pcm_t *pcm = alsa_pcm_handle();
    snd_pcm_sframes_t delay = 0;
    int state = snd_pcm_state(pcm);
    if (snd_pcm_delay(pcm, &delay) < 0)
        delay = 0;
    record_device((long)delay, state == SND_PCM_STATE_RUNNING);
}

static void release_current_buffer(void) {
    pt.piece = NULL;
    if (ring_empty()) {
        AD_LOG_AS("release_current_buffer", 2, "releasing wrong buffer");
        return;
    }
    atomic_store(&read_index, next_index(atomic_load(&read_index)));
}

/* Gives up the rest of the piece being written (a write that failed). */
static void abandon_piece(void) {
    record_queued(-(pt.frames - pt.offset));
    release_current_buffer();
}

/* Caller holds buffer_mutex. Drops the ring and the device's buffer. */
static void drop_queued(void) {
    if (is_alsa_opened()) {
        note_device(); /* the record's last word on what the card played */
        snd_pcm_drop(alsa_pcm_handle());
        snd_pcm_prepare(alsa_pcm_handle());
        note_device();
    }
    pt.piece = NULL;
    pt.device_paused = 0;
    empty_ring();
    record_reset(is_alsa_opened() ? pt.rate : 0);
}

/* Caller holds buffer_mutex. Silences the card: pauses the device, or drops its buffer and
 * keeps what it held. A device that does not run (nothing written yet, or run dry) is silent. */
static void pause_device(void) {
    if (!is_alsa_opened())
        return;
    snd_pcm_t *pcm = alsa_pcm_handle();
    if (snd_pcm_state(pcm) != SND_PCM_STATE_RUNNING)
        return;
    if (pt.can_pause && snd_pcm_pause(pcm, 1) == 0) {
        pt.device_paused = 1;
        note_device();
        return;
    }
    snd_pcm_sframes_t delay = 0;
    if (snd_pcm_delay(pcm, &delay) < 0)
        delay = 0;
    snd_pcm_drop(pcm);
    snd_pcm_prepare(pcm);
    long kept = record_keep((long)delay);
    if (kept < delay)
        AD_LOG_AS("play_proc", 2, "pause lost %ld frames", (long)delay - kept);
}

/* Caller holds buffer_mutex. Lets a paused device run again; kept audio is written first by
 * the write loop. */
static void resume_device(void) {
    if (pt.device_paused && is_alsa_opened()) {
        snd_pcm_t *pcm = alsa_pcm_handle();
        if (snd_pcm_state(pcm) == SND_PCM_STATE_PAUSED && snd_pcm_pause(pcm, 0) < 0)
            snd_pcm_prepare(pcm);
        note_device();
    }
    pt.device_paused = 0;
}

/* Caller holds buffer_mutex. Carries out what was requested and answers. */
static void serve_requests(void) {
    if (done_seq == request_seq)
        return;
    if (drop_wanted) {
        drop_queued();
        if (pt.paused)
            record_forget_kept();
        drop_wanted = 0;
    }
    if (pause_wanted != pt.paused) {
        if (pause_wanted)
            pause_device();
        else
            resume_device();
        pt.paused = pause_wanted;
        record_paused(pt.paused);
    }
    done_seq = request_seq;
    pthread_cond_broadcast(&done_cond);
}

/* Caller holds buffer_mutex. Closes an open device with drop after a second without audio. */
static void close_on_timeout(void) {
    AD_LOG_AS("play_proc", 4, "close alsa on timeout");
    AlsaMixerDestroy();
    if (is_alsa_opened())
        close_alsa_ex(0);
    record_reset(0);
}

/* Whether there is audio to write: kept audio, a piece being written, or one in the ring. */
static int have_audio(void) {
    long frames;
    return pt.piece != NULL || record_kept(&frames) != NULL || !ring_empty();
}

/* Caller holds buffer_mutex. Waits until there is something to do: a request, a stop, or audio
 * to write while not paused. An open device idle for a second is closed. */
static void wait_for_work(void) {
    int timed = 0;
    struct timespec deadline = {0, 0};
    while (!atomic_load(&output_stopped) && done_seq == request_seq &&
           (pt.paused || !have_audio())) {
        if (!pt.paused && is_alsa_opened()) {
            if (!timed) {
                if (clock_gettime(CLOCK_REALTIME, &deadline) != 0)
                    AD_LOG_AS("play_proc", 2, "cant get time");
                deadline.tv_sec += 1;
                timed = 1;
            }
            if (pthread_cond_timedwait(&buffer_cond, &buffer_mutex, &deadline) == ETIMEDOUT)
                close_on_timeout();
        } else {
            pthread_cond_wait(&buffer_cond, &buffer_mutex);
        }
    }
}

/* Caller holds buffer_mutex. Takes the next piece of the ring when none is being written. */
static void take_piece(void) {
    if (pt.piece != NULL || ring_empty())
        return;
    int index = next_index(atomic_load(&read_index));
    pt.piece = &pieces[index];
    pt.tag = pushed_tags[index];
    pt.frames = piece_frames(pt.piece);
    pt.offset = 0;
    pt.serial++;
}

/* Device name for the next open, "mpd_sm" when none was set. */
static void current_device_name(char *out) {
    pthread_mutex_lock(&name_mutex);
    snprintf(out, DEVICE_NAME_SIZE, "%s", device_name[0] ? device_name : "mpd_sm");
    pthread_mutex_unlock(&name_mutex);
}

/* Opens the device at `rate` and restores the mixer and the user's volume. 0 on failure. */
static int open_device(int rate) {
    char name[DEVICE_NAME_SIZE];
    pthread_mutex_lock(&name_mutex);
    AD_LOG_AS("play_proc", 4, "Our samplerate is %d our device is %s", rate, device_name);
    pthread_mutex_unlock(&name_mutex);
    current_device_name(name);
    if (!open_alsa_ex(name, rate)) {
        AD_LOG_AS("play_proc", 2, "Failed to open alsa device");
        return 0;
    }
    snd_pcm_t *pcm = alsa_pcm_handle();
    snd_pcm_hw_params_t *params;
    snd_pcm_hw_params_alloca(&params);
    pt.can_pause =
        snd_pcm_hw_params_current(pcm, params) == 0 && snd_pcm_hw_params_can_pause(params);
    /* Writes never block: the thread waits for room in poll(), where a request reaches it. */
    snd_pcm_nonblock(pcm, 1);
    record_reset(rate);
    AlsaMixerInit("mpd_volume");
    AlsaMixerSetVolume(mp_control_volume());
    return 1;
}

/* Before a piece at another rate: the device plays out what it holds and is reopened. */
static void change_rate(int rate) {
    AD_TRACE_AS("play_proc", "samplerate = %i; buf samplerate = %i", pt.rate, rate);
    AD_LOG_AS("play_proc", 4, "close alsa on different samplerate");
    AlsaMixerDestroy();
    if (is_alsa_opened()) {
        snd_pcm_nonblock(alsa_pcm_handle(), 0); /* a drain waits only in blocking mode */
        close_alsa_ex(1);
    }
    record_reset(0);
    pt.rate = rate;
}

/* Waits until the device has room, a request arrives or a second passes. */
static void wait_for_room(void) {
    snd_pcm_t *pcm = alsa_pcm_handle();
    struct pollfd fds[MAX_POLL_FDS];
    int count = snd_pcm_poll_descriptors(pcm, fds, MAX_POLL_FDS - 1);
    if (count < 0)
        count = 0;
    fds[count] = (struct pollfd){.fd = wake_fd, .events = POLLIN};
    if (poll(fds, (nfds_t)count + 1, DEVICE_WAIT_MS) <= 0)
        return;
    if (fds[count].revents & POLLIN) {
        uint64_t ticks;
        if (read(wake_fd, &ticks, sizeof ticks) < 0)
            ticks = 0;
    }
    unsigned short revents = 0;
    if (count > 0)
        snd_pcm_poll_descriptors_revents(pcm, fds, (unsigned)count, &revents);
}

/* Writes what it can of the kept audio or of the current piece without blocking. Returns
 * -ENODEV when the device has gone away, else 0. */
static int write_some(void) {
    snd_pcm_t *pcm = alsa_pcm_handle();
    long frames = 0;
    const void *data = record_kept(&frames);
    int again = data != NULL;
    if (!again) {
        if (pt.piece == NULL)
            return 0;
        frames = pt.frames - pt.offset;
        data = pt.piece->data + (size_t)pt.offset * FRAME_BYTES;
        if (frames <= 0) {
            release_current_buffer();
            return 0;
        }
    }
    snd_pcm_sframes_t written = snd_pcm_writei(pcm, data, (snd_pcm_uframes_t)frames);
    if (written > 0) {
        if (again) {
            record_rewritten((long)written);
        } else {
            record_write(data, (long)written, &pt.tag, pt.offset, pt.serial);
            pt.offset += (long)written;
            if (pt.offset >= pt.frames)
                release_current_buffer();
        }
        note_device();
        return 0;
    }
    if (written == 0 || written == -EAGAIN) {
        wait_for_room();
        return 0;
    }
    if (written == -EPIPE) {
        AD_LOG_AS("play_alsa_buffer", 2, "underrun occurred");
        snd_pcm_prepare(pcm);
    } else if (written == -ENODEV) {
        AD_LOG_AS("play_alsa_buffer", 2, "No device");
        return -ENODEV;
    } else {
        AD_LOG_AS("play_alsa_buffer", 2, "error from writei: %s", snd_strerror((int)written));
    }
    /* The audio that failed is not written again. */
    if (again)
        record_forget_kept();
    else
        abandon_piece();
    note_device();
    return 0;
}

static void *play_proc(void *arg) {
    (void)arg;
    raise_priority();
    AD_LOG(4, "in");
    memset(&pt, 0, sizeof pt);
    pt.rate = -1;
    pthread_mutex_lock(&buffer_mutex);
    pt.paused = pause_wanted;
    pthread_mutex_unlock(&buffer_mutex);
    record_reset(0);
    for (;;) {
        pthread_mutex_lock(&buffer_mutex);
        serve_requests();
        wait_for_work();
        serve_requests();
        int stop = atomic_load(&output_stopped);
        int idle = pt.paused;
        if (!stop && !idle)
            take_piece();
        pthread_mutex_unlock(&buffer_mutex);
        if (stop)
            break;
        if (idle)
            continue;
        if (pt.piece != NULL && pt.offset == 0 && pt.piece->samplerate != pt.rate)
            change_rate(pt.piece->samplerate);
        if (!is_alsa_opened()) {
            long kept;
            if (record_kept(&kept) != NULL)
                record_forget_kept(); /* the device it was for is gone */
            if (pt.piece == NULL)
                continue;
            if (!open_device(pt.rate)) {
                atomic_store(&output_stopped, 1);
                break;
            }
        }
        if (write_some() == -ENODEV) {
            if (pt.piece != NULL)
                release_current_buffer();
            AD_LOG(2, "No device");
            atomic_store(&output_stopped, 1);
            break;
        }
    }
    AD_LOG(4, "close alsa on loop exit");
    AlsaMixerDestroy();
    if (is_alsa_opened())
        close_alsa_ex(0);
    record_reset(0);
    /* Requesters waiting for an answer see the stop. */
    pthread_mutex_lock(&buffer_mutex);
    pthread_cond_broadcast(&done_cond);
    pthread_mutex_unlock(&buffer_mutex);
    AD_LOG(4, "out");
    return NULL;
}

int init_alsa_output(void) {
    pthread_mutex_lock(&thread_mutex);
    int result = 1;
    if (!play_thread_started) {
        if (wake_fd < 0)
            wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        atomic_store(&output_stopped, 0);
        result = pthread_create(&play_thread, NULL, play_proc, NULL);
        play_thread_started = result == 0;
    }
    pthread_mutex_unlock(&thread_mutex);
    return result;
}

int deinit_alsa_output(void) {
    pthread_mutex_lock(&thread_mutex);
    if (!play_thread_started) {
        pthread_mutex_unlock(&thread_mutex);
        return 1;
    }
    AD_LOG(5, "deinit_alsa_output called");
    pthread_mutex_lock(&buffer_mutex);
    atomic_store(&output_stopped, 1);
    pthread_cond_signal(&buffer_cond);
    wake_play_thread();
    pthread_mutex_unlock(&buffer_mutex);
    pthread_join(play_thread, NULL);
    play_thread_started = 0;
    pthread_mutex_lock(&buffer_mutex);
    atomic_store(&write_index, 0);
    atomic_store(&read_index, 0);
    pause_wanted = 0;
    drop_wanted = 0;
    done_seq = request_seq;
    pthread_mutex_unlock(&buffer_mutex);
    record_queue_cleared();
    record_paused(0);
    pthread_mutex_unlock(&thread_mutex);
    return 0;
}

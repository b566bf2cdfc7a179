/* The output layer's play thread: takes the pieces of the ring in order and writes them to the
 * device, which it opens on demand at the rate of the piece it is about to play, reopens when
 * the rate changes and closes after a second without audio; and carries out the drops and
 * pauses that the engine requests (alsa_output.c). While it runs it alone touches the device and
 * the ring's read side. It writes without blocking and waits for room in poll(), on the device
 * and on the ring's `wake_fd`, so that a request reaches it at once, not after the write of a
 * whole piece. What it writes goes into the record (output_record.c). */
#define _GNU_SOURCE
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "alsa_internal.h"
#include "mp_state.h"
#include "output_record.h"
#include "output_ring.h"

enum {
    PLAY_THREAD_NICE = -19,
    FRAME_BYTES = 4,
    DEVICE_WAIT_MS = 1000,
    MAX_POLL_FDS = 16,
};

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
    atomic_store(&ring.read_index, next_index(atomic_load(&ring.read_index)));
}

/* Gives up the rest of the piece being written (a write that failed). */
static void abandon_piece(void) {
    record_queued(-(pt.frames - pt.offset));
    release_current_buffer();
}

/* Caller holds ring.buffer_mutex. Drops the ring and the device's buffer. */
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

/* Caller holds ring.buffer_mutex. Silences the card: pauses the device, or drops its buffer and
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

/* Caller holds ring.buffer_mutex. Lets a paused device run again; kept audio is written first by
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

/* Caller holds ring.buffer_mutex. Carries out what was requested and answers. */
static void serve_requests(void) {
    if (ring.done_seq == ring.request_seq)
        return;
    if (ring.drop_wanted) {
        drop_queued();
        if (pt.paused)
            record_forget_kept();
        ring.drop_wanted = 0;
    }
    if (ring.pause_wanted != pt.paused) {
        if (ring.pause_wanted)
            pause_device();
        else
            resume_device();
        pt.paused = ring.pause_wanted;
        record_paused(pt.paused);
    }
    ring.done_seq = ring.request_seq;
    pthread_cond_broadcast(&ring.done_cond);
}

/* Caller holds ring.buffer_mutex. Closes an open device with drop after a second without audio. */
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

/* Caller holds ring.buffer_mutex. Waits until there is something to do: a request, a stop, or audio
 * to write while not paused. An open device idle for a second is closed. */
static void wait_for_work(void) {
    int timed = 0;
    struct timespec deadline = {0, 0};
    while (!atomic_load(&ring.output_stopped) && ring.done_seq == ring.request_seq &&
           (pt.paused || !have_audio())) {
        if (!pt.paused && is_alsa_opened()) {
            if (!timed) {
                if (clock_gettime(CLOCK_REALTIME, &deadline) != 0)
                    AD_LOG_AS("play_proc", 2, "cant get time");
                deadline.tv_sec += 1;
                timed = 1;
            }
            if (pthread_cond_timedwait(&ring.buffer_cond, &ring.buffer_mutex, &deadline) ==
                ETIMEDOUT)
                close_on_timeout();
        } else {
            pthread_cond_wait(&ring.buffer_cond, &ring.buffer_mutex);
        }
    }
}

/* Caller holds ring.buffer_mutex. Takes the next piece of the ring when none is being written. */
static void take_piece(void) {
    if (pt.piece != NULL || ring_empty())
        return;
    int index = next_index(atomic_load(&ring.read_index));
    pt.piece = &ring.pieces[index];
    pt.tag = ring.pushed_tags[index];
    pt.frames = piece_frames(pt.piece);
    pt.offset = 0;
    pt.serial++;
}

/* Opens the device at `rate` and restores the mixer and the user's volume. 0 on failure. */
static int open_device(int rate) {
    char set[DEVICE_NAME_SIZE], name[DEVICE_NAME_SIZE];
    output_device_names(set, name);
    AD_LOG_AS("play_proc", 4, "Our samplerate is %d our device is %s", rate, set);
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
    fds[count] = (struct pollfd){.fd = ring.wake_fd, .events = POLLIN};
    if (poll(fds, (nfds_t)count + 1, DEVICE_WAIT_MS) <= 0)
        return;
    if (fds[count].revents & POLLIN) {
        uint64_t ticks;
        if (read(ring.wake_fd, &ticks, sizeof ticks) < 0)
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

void *play_proc(void *arg) {
    (void)arg;
    raise_priority();
    AD_LOG(4, "in");
    memset(&pt, 0, sizeof pt);
    pt.rate = -1;
    pthread_mutex_lock(&ring.buffer_mutex);
    pt.paused = ring.pause_wanted;
    pthread_mutex_unlock(&ring.buffer_mutex);
    record_reset(0);
    for (;;) {
        pthread_mutex_lock(&ring.buffer_mutex);
        serve_requests();
        wait_for_work();
        serve_requests();
        int stop = atomic_load(&ring.output_stopped);
        int idle = pt.paused;
        if (!stop && !idle)
            take_piece();
        pthread_mutex_unlock(&ring.buffer_mutex);
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
                atomic_store(&ring.output_stopped, 1);
                break;
            }
        }
        if (write_some() == -ENODEV) {
            if (pt.piece != NULL)
                release_current_buffer();
            AD_LOG(2, "No device");
            atomic_store(&ring.output_stopped, 1);
            break;
        }
    }
    AD_LOG(4, "close alsa on loop exit");
    AlsaMixerDestroy();
    if (is_alsa_opened())
        close_alsa_ex(0);
    record_reset(0);
    /* Requesters waiting for an answer see the stop. */
    pthread_mutex_lock(&ring.buffer_mutex);
    pthread_cond_broadcast(&ring.done_cond);
    pthread_mutex_unlock(&ring.buffer_mutex);
    AD_LOG(4, "out");
    return NULL;
}

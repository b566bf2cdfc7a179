/* The ring of three output pieces and the play thread that writes them to the device.
 *
 *   write_index: the piece pushed last      read_index: the piece the play thread released last
 *
 *        [0] [1] [2]        the producer fills (write_index + 1) % 3 unless that is read_index;
 *         ^   ^             the play thread plays (read_index + 1) % 3 while the ring is not
 *         r   w             empty (write_index != read_index). At most two pieces are in flight.
 *
 * Locking: `buffer_mutex` guards advances of write_index and the play thread's waits on
 * `buffer_cond`. read_index is advanced only by the play thread, without the mutex. Both indices
 * and the stop flag are atomics because the producer reads them without any lock.
 * `thread_mutex` serialises init and deinit; `name_mutex` guards `device_name`. */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "alsa_internal.h"
#include "mp_state.h"

enum { RING_PIECES = 3, PLAY_THREAD_NICE = -19, DEVICE_NAME_SIZE = 1024 };

static struct abuf_piece pieces[RING_PIECES];
static atomic_int write_index;
static atomic_int read_index;
static atomic_bool output_stopped;

static pthread_mutex_t buffer_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t buffer_cond = PTHREAD_COND_INITIALIZER;

static pthread_mutex_t thread_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_t play_thread;
static int play_thread_started;

static pthread_mutex_t name_mutex = PTHREAD_MUTEX_INITIALIZER;
static char device_name[DEVICE_NAME_SIZE];

static int next_index(int index) {
    return (index + 1) % RING_PIECES;
}

static int ring_empty(void) {
    return atomic_load(&write_index) == atomic_load(&read_index);
}

struct abuf_piece *get_output_buffer(void) {
    int next = next_index(atomic_load(&write_index));
    if (next == atomic_load(&read_index))
        return NULL;
    return &pieces[next];
}

int push_output_buffer(struct abuf_piece *piece) {
    if (atomic_load(&output_stopped))
        return -ENODEV;
    struct abuf_piece *expected = get_output_buffer();
    if (piece == NULL || piece != expected) {
        AD_LOG(2, "wrong buffer %p should be %p", (void *)piece, (void *)expected);
        return -1;
    }
    pthread_mutex_lock(&buffer_mutex);
    atomic_store(&write_index, next_index(atomic_load(&write_index)));
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

static void raise_priority(void) {
    pid_t tid = (pid_t)syscall(SYS_gettid);
    if (getpriority(PRIO_PROCESS, (id_t)tid) != PLAY_THREAD_NICE &&
        setpriority(PRIO_PROCESS, (id_t)tid, PLAY_THREAD_NICE) != 0)
        fprintf(stderr, "play_proc: cannot raise priority of thread %d: %s\n", (int)tid,
                strerror(errno));
}

/* Caller holds buffer_mutex. Closes an open device with drop after a second without audio. */
static void close_on_timeout(void) {
    AD_LOG_AS("play_proc", 4, "close alsa on timeout");
    AlsaMixerDestroy();
    if (is_alsa_opened())
        close_alsa_ex(0);
}

/* Waits for the next piece: the piece to play, or NULL when the output was stopped. */
static struct abuf_piece *wait_for_piece(void) {
    struct abuf_piece *piece = NULL;
    pthread_mutex_lock(&buffer_mutex);
    int timed = 0;
    struct timespec deadline = {0, 0};
    while (ring_empty() && !atomic_load(&output_stopped)) {
        if (is_alsa_opened()) {
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
    if (!ring_empty())
        piece = &pieces[next_index(atomic_load(&read_index))];
    pthread_mutex_unlock(&buffer_mutex);
    return atomic_load(&output_stopped) ? NULL : piece;
}

/* Device name for the next open, "mpd_sm" when none was set. */
static void current_device_name(char *out) {
    pthread_mutex_lock(&name_mutex);
    snprintf(out, DEVICE_NAME_SIZE, "%s", device_name[0] ? device_name : "mpd_sm");
    pthread_mutex_unlock(&name_mutex);
}

/* Writes one piece; returns 0, or -ENODEV when the device has gone away. */
static int play_alsa_buffer(const struct abuf_piece *piece) {
    int frames = piece->frames;
    if (frames > ABUF_PIECE_MAX_FRAMES)
        frames = ABUF_PIECE_MAX_FRAMES;
    if (frames < 0)
        frames = 0;
    snd_pcm_sframes_t written =
        snd_pcm_writei(alsa_pcm_handle(), piece->data, (snd_pcm_uframes_t)frames);
    if (written == -EPIPE) {
        AD_LOG(2, "underrun occurred");
        snd_pcm_prepare(alsa_pcm_handle());
    } else if (written == -ENODEV) {
        AD_LOG(2, "No device");
        return -ENODEV;
    } else if (written < 0) {
        AD_LOG(2, "error from writei: %s", snd_strerror((int)written));
    }
    return 0;
}

static void release_current_buffer(void) {
    if (ring_empty()) {
        AD_LOG(2, "releasing wrong buffer");
        return;
    }
    atomic_store(&read_index, next_index(atomic_load(&read_index)));
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
    AlsaMixerInit("mpd_volume");
    AlsaMixerSetVolume(mp_control_volume());
    return 1;
}

static void *play_proc(void *arg) {
    (void)arg;
    raise_priority();
    AD_LOG(4, "in");
    int rate = -1;
    while (!atomic_load(&output_stopped)) {
        struct abuf_piece *piece = wait_for_piece();
        if (piece == NULL)
            break;
        if (piece->samplerate != rate) {
            AD_TRACE("samplerate = %i; buf samplerate = %i", rate, piece->samplerate);
            AD_LOG(4, "close alsa on different samplerate");
            AlsaMixerDestroy();
            if (is_alsa_opened())
                close_alsa_ex(1);
            rate = piece->samplerate;
        }
        if (!is_alsa_opened() && !open_device(rate)) {
            atomic_store(&output_stopped, 1);
            break;
        }
        int gone = play_alsa_buffer(piece) == -ENODEV;
        release_current_buffer();
        if (gone) {
            AD_LOG(2, "No device");
            atomic_store(&output_stopped, 1);
            break;
        }
    }
    AD_LOG(4, "close alsa on loop exit");
    AlsaMixerDestroy();
    if (is_alsa_opened())
        close_alsa_ex(0);
    AD_LOG(4, "out");
    return NULL;
}

int init_alsa_output(void) {
    pthread_mutex_lock(&thread_mutex);
    int result = 1;
    if (!play_thread_started) {
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
    pthread_mutex_unlock(&buffer_mutex);
    pthread_join(play_thread, NULL);
    play_thread_started = 0;
    atomic_store(&write_index, 0);
    atomic_store(&read_index, 0);
    pthread_mutex_unlock(&thread_mutex);
    return 0;
}

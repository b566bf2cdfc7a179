/* The output layer's ring and its producer side, the requests to the play thread and the
 * thread's start and stop (see output_ring.h); the play thread itself is in play_thread.c.
 * `thread_mutex` serialises init, deinit and requests; `name_mutex` guards `device_name`. */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <string.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include "alsa_internal.h"
#include "alsa_output_internal.h"
#include "output_record.h"
#include "output_ring.h"

enum { REQUEST_WAIT_S = 3 }; /* longer than an open that waits for a busy device */

/* Tags: given by the producer for the piece it fills, taken over at the push. */
static struct alsa_output_tag given_tags[RING_PIECES];
static int tag_given[RING_PIECES];

struct output_ring ring = {
    .buffer_mutex = PTHREAD_MUTEX_INITIALIZER,
    .buffer_cond = PTHREAD_COND_INITIALIZER,
    .done_cond = PTHREAD_COND_INITIALIZER,
    .wake_fd = -1,
};

static pthread_mutex_t thread_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_t play_thread;
static int play_thread_started;

static pthread_mutex_t name_mutex = PTHREAD_MUTEX_INITIALIZER;
static char device_name[DEVICE_NAME_SIZE];

struct abuf_piece *get_output_buffer(void) {
    int next = next_index(atomic_load(&ring.write_index));
    if (next == atomic_load(&ring.read_index))
        return NULL;
    return &ring.pieces[next];
}

int alsa_output_tag_piece(struct abuf_piece *piece, const struct alsa_output_tag *tag) {
    if (piece == NULL || piece != get_output_buffer() || tag == NULL)
        return -1;
    int index = (int)(piece - ring.pieces);
    given_tags[index] = *tag;
    tag_given[index] = 1;
    return 0;
}

int push_output_buffer(struct abuf_piece *piece) {
    if (atomic_load(&ring.output_stopped))
        return -ENODEV;
    struct abuf_piece *expected = get_output_buffer();
    if (piece == NULL || piece != expected) {
        AD_LOG(2, "wrong buffer %p should be %p", (void *)piece, (void *)expected);
        return -1;
    }
    int index = (int)(piece - ring.pieces);
    struct alsa_output_tag tag = {ALSA_OUTPUT_NO_MEDIA, 0.0, 0};
    if (tag_given[index])
        tag = given_tags[index];
    tag_given[index] = 0;
    record_queued(piece_frames(piece));
    pthread_mutex_lock(&ring.buffer_mutex);
    ring.pushed_tags[index] = tag;
    atomic_store(&ring.write_index, index);
    pthread_cond_signal(&ring.buffer_cond);
    pthread_mutex_unlock(&ring.buffer_mutex);
    return 0;
}

int alsa_output_working(void) {
    return !atomic_load(&ring.output_stopped);
}

void output_device_names(char *set, char *to_open) {
    pthread_mutex_lock(&name_mutex);
    snprintf(set, DEVICE_NAME_SIZE, "%s", device_name);
    snprintf(to_open, DEVICE_NAME_SIZE, "%s", device_name[0] ? device_name : "mpd_sm");
    pthread_mutex_unlock(&name_mutex);
}

void empty_ring(void) {
    atomic_store(&ring.read_index, atomic_load(&ring.write_index));
    record_queue_cleared();
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
    if (ring.wake_fd >= 0 && write(ring.wake_fd, &one, sizeof one) < 0)
        AD_LOG_AS("play_proc", 2, "cannot wake the play thread: %s", strerror(errno));
}

/* Posts a drop and/or a pause state (-1: unchanged) and waits until it has been carried out. */
static int request(int drop, int pause) {
    pthread_mutex_lock(&thread_mutex);
    pthread_mutex_lock(&ring.buffer_mutex);
    int result = 0;
    if (pause >= 0)
        ring.pause_wanted = pause;
    if (!play_thread_started) {
        /* Nobody reads the ring; a pause waits for the thread that will. */
        if (drop)
            empty_ring();
        record_paused(ring.pause_wanted);
    } else if (atomic_load(&ring.output_stopped)) {
        result = -1;
    } else {
        ring.drop_wanted |= drop;
        unsigned long seq = ++ring.request_seq;
        pthread_cond_signal(&ring.buffer_cond);
        wake_play_thread();
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += REQUEST_WAIT_S;
        while (ring.done_seq < seq && !atomic_load(&ring.output_stopped) && result == 0) {
            if (pthread_cond_timedwait(&ring.done_cond, &ring.buffer_mutex, &deadline) == ETIMEDOUT)
                result = -1;
        }
        if (ring.done_seq < seq) {
            AD_LOG_AS("alsa_output_request", 2, "the play thread did not answer");
            result = -1;
        }
    }
    pthread_mutex_unlock(&ring.buffer_mutex);
    pthread_mutex_unlock(&thread_mutex);
    return result;
}

int alsa_output_drop(void) {
    return request(1, -1);
}

int alsa_output_pause(int enable) {
    pthread_mutex_lock(&ring.buffer_mutex);
    int same = ring.pause_wanted == (enable != 0);
    pthread_mutex_unlock(&ring.buffer_mutex);
    return same ? 0 : request(0, enable != 0);
}

int alsa_output_paused(void) {
    pthread_mutex_lock(&ring.buffer_mutex);
    int paused = ring.pause_wanted;
    pthread_mutex_unlock(&ring.buffer_mutex);
    return paused;
}

int init_alsa_output(void) {
    pthread_mutex_lock(&thread_mutex);
    int result = 1;
    if (!play_thread_started) {
        if (ring.wake_fd < 0)
            ring.wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        atomic_store(&ring.output_stopped, 0);
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
    pthread_mutex_lock(&ring.buffer_mutex);
    atomic_store(&ring.output_stopped, 1);
    pthread_cond_signal(&ring.buffer_cond);
    wake_play_thread();
    pthread_mutex_unlock(&ring.buffer_mutex);
    pthread_join(play_thread, NULL);
    play_thread_started = 0;
    pthread_mutex_lock(&ring.buffer_mutex);
    atomic_store(&ring.write_index, 0);
    atomic_store(&ring.read_index, 0);
    ring.pause_wanted = 0;
    ring.drop_wanted = 0;
    ring.done_seq = ring.request_seq;
    pthread_mutex_unlock(&ring.buffer_mutex);
    record_queue_cleared();
    record_paused(0);
    pthread_mutex_unlock(&thread_mutex);
    return 0;
}

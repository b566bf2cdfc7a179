/* State shared by the two halves of the output layer: the ring's producer side and the requests
 * (alsa_output.c) and the play thread that consumes the ring and alone touches the device while
 * it runs (play_thread.c). Internal to the output layer.
 *
 *   write_index: the piece pushed last      read_index: the piece the play thread released last
 *
 *        [0] [1] [2]        the producer fills (write_index + 1) % 3 unless that is read_index;
 *         ^   ^             the play thread plays (read_index + 1) % 3 while the ring is not
 *         r   w             empty (write_index != read_index). At most two pieces are in flight.
 *
 * Locking: `buffer_mutex` guards advances of write_index, the pushed tags, the requests and the
 * play thread's waits on `buffer_cond`. read_index is advanced only by the play thread (or, with
 * no play thread, by a drop), without the mutex. Both indices and the stop flag are atomics
 * because the producer reads them without any lock. A requester posts under `buffer_mutex`,
 * signals `buffer_cond` and `wake_fd` (the play thread may be waiting in poll() for room in the
 * device) and waits on `done_cond` until the play thread has counted its request done. */
#ifndef AUDIO_ENGINE_OUTPUT_RING_H
#define AUDIO_ENGINE_OUTPUT_RING_H

#include <pthread.h>
#include <stdatomic.h>

#include "alsa_output_internal.h"

enum { RING_PIECES = 3, DEVICE_NAME_SIZE = 1024 };

struct output_ring {
    struct abuf_piece pieces[RING_PIECES];
    atomic_int write_index;
    atomic_int read_index;
    atomic_bool output_stopped;
    struct alsa_output_tag pushed_tags[RING_PIECES]; /* the tag of each pushed piece */
    pthread_mutex_t buffer_mutex;
    pthread_cond_t buffer_cond;
    /* Requests to the play thread. */
    pthread_cond_t done_cond;
    unsigned long request_seq, done_seq;
    int drop_wanted;
    int pause_wanted;
    int wake_fd; /* eventfd, or -1 */
};

extern struct output_ring ring;

static inline int next_index(int index) {
    return (index + 1) % RING_PIECES;
}

static inline int ring_empty(void) {
    return atomic_load(&ring.write_index) == atomic_load(&ring.read_index);
}

/* The frames of a piece that can be played: its count, within the piece's room. */
static inline long piece_frames(const struct abuf_piece *piece) {
    int frames = piece->frames;
    return frames > ABUF_PIECE_MAX_FRAMES ? ABUF_PIECE_MAX_FRAMES : frames < 0 ? 0 : frames;
}

/* Empties the ring. Caller holds buffer_mutex and is the play thread, or no play thread runs. */
void empty_ring(void);

/* The device name as set (possibly empty), and the one to open ("mpd_sm" when none is set). */
void output_device_names(char *set, char *to_open);

/* The play thread's body (play_thread.c). */
void *play_proc(void *arg);

#endif

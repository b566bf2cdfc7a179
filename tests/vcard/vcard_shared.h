/* Helpers shared by the card's plugins and its test-side control library. Everything is static
 * inline so that each plugin keeps its own private copy and exports nothing but its entry. */
#ifndef AE_TESTS_VCARD_SHARED_H
#define AE_TESTS_VCARD_SHARED_H

#include "vcard_state.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static inline void vcard_lock(struct vcard_state *st) {
    pthread_mutex_lock(&st->lock);
}
static inline void vcard_unlock(struct vcard_state *st) {
    pthread_mutex_unlock(&st->lock);
}

static inline int64_t vcard_now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

static inline double vcard_get_speed(struct vcard_state *st) {
    uint64_t bits = __atomic_load_n(&st->speed_bits, __ATOMIC_ACQUIRE);
    double speed;
    memcpy(&speed, &bits, sizeof speed);
    return speed;
}

static inline void vcard_store_speed(struct vcard_state *st, double speed) {
    uint64_t bits;
    memcpy(&bits, &speed, sizeof bits);
    __atomic_store_n(&st->speed_bits, bits, __ATOMIC_RELEASE);
}

/* Defaults of a fresh or reset card; the caller holds the lock (or owns the memory alone). */
static inline void vcard_state_defaults(struct vcard_state *st) {
    vcard_store_speed(st, 0.0);
    __atomic_store_n(&st->open_error, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&st->open_fail_count, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&st->write_error, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&st->write_fail_after, -1, __ATOMIC_RELAXED);
    __atomic_store_n(&st->mixer_hidden, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&st->mixer_channels, 1, __ATOMIC_RELAXED);
    __atomic_store_n(&st->mixer_min, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&st->mixer_max, 255, __ATOMIC_RELAXED);
    __atomic_store_n(&st->mixer_value, 0, __ATOMIC_RELAXED);
    __atomic_add_fetch(&st->mixer_changes, 1, __ATOMIC_RELEASE);
    __atomic_store_n(&st->mixer_write_count, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&st->captured_frames, 0, __ATOMIC_RELEASE);
    st->event_bytes = 0;
    st->event_dropped = 0;
    st->events[0] = '\0';
}

/* Initialises freshly zeroed memory: the process-shared mutex and the defaults. */
static inline int vcard_state_init(struct vcard_state *st) {
    pthread_mutexattr_t attr;
    int err = pthread_mutexattr_init(&attr);
    if (err == 0)
        err = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    if (err == 0)
        err = pthread_mutex_init(&st->lock, &attr);
    pthread_mutexattr_destroy(&attr);
    if (err != 0)
        return -err;
    st->size = (uint32_t)sizeof *st;
    vcard_state_defaults(st);
    __atomic_store_n(&st->magic, VCARD_STATE_MAGIC, __ATOMIC_RELEASE);
    return 0;
}

/* Maps an existing state file; NULL if it is missing or not a card state. */
static inline struct vcard_state *vcard_state_map(const char *path) {
    int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return NULL;
    struct stat sb;
    if (fstat(fd, &sb) != 0 || (size_t)sb.st_size < sizeof(struct vcard_state)) {
        close(fd);
        return NULL;
    }
    void *p = mmap(NULL, sizeof(struct vcard_state), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED)
        return NULL;
    struct vcard_state *st = (struct vcard_state *)p;
    if (__atomic_load_n(&st->magic, __ATOMIC_ACQUIRE) != VCARD_STATE_MAGIC ||
        st->size != sizeof *st) {
        munmap(p, sizeof *st);
        return NULL;
    }
    return st;
}

/* A private state with the defaults, for plugins opened without VCARD_STATE. */
static inline struct vcard_state *vcard_state_anon(void) {
    void *p = mmap(NULL, sizeof(struct vcard_state), PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        return NULL;
    if (vcard_state_init((struct vcard_state *)p) != 0) {
        munmap(p, sizeof(struct vcard_state));
        return NULL;
    }
    return (struct vcard_state *)p;
}

static inline void vcard_state_unmap(struct vcard_state *st) {
    if (st)
        munmap(st, sizeof *st);
}

/* Appends one event line; the caller holds the lock. */
static inline void vcard_event_locked(struct vcard_state *st, int is_write, const char *fmt,
                                      va_list ap) {
    uint32_t used = st->event_bytes;
    uint32_t limit = is_write ? VCARD_EVENT_WRITE_LIMIT : VCARD_EVENT_BYTES;
    if (used + 2 >= limit) {
        st->event_dropped++;
        return;
    }
    int n = vsnprintf(st->events + used, limit - used - 1, fmt, ap);
    if (n < 0 || (uint32_t)n >= limit - used - 2) {
        st->events[used] = '\0';
        st->event_dropped++;
        return;
    }
    st->events[used + (uint32_t)n] = '\n';
    st->events[used + (uint32_t)n + 1] = '\0';
    st->event_bytes = used + (uint32_t)n + 1;
}

#if defined(__GNUC__)
__attribute__((format(printf, 2, 3)))
#endif
static inline void
vcard_event(struct vcard_state *st, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vcard_lock(st);
    vcard_event_locked(st, strncmp(fmt, "write", 5) == 0, fmt, ap);
    vcard_unlock(st);
    va_end(ap);
}

#endif

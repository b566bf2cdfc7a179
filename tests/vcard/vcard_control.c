/* Test-side control of the virtual sound card (see vcard.h). */
#include "vcard.h"
#include "vcard_shared.h"

#include <limits.h>
#include <stdlib.h>

static pthread_once_t g_once = PTHREAD_ONCE_INIT;
static struct vcard_state *g_st;
static int g_capture_fd = -1;
static char g_state_path[PATH_MAX];
static char g_capture_path[PATH_MAX + sizeof VCARD_CAPTURE_SUFFIX];
static int g_just_created;

static void remove_files(void) {
    if (getenv("VCARD_KEEP"))
        return;
    unlink(g_capture_path);
    unlink(g_state_path);
}

static void mkdirs(const char *dir) {
    char buf[PATH_MAX];
    snprintf(buf, sizeof buf, "%s", dir);
    for (char *s = buf + 1; *s; s++) {
        if (*s == '/') {
            *s = '\0';
            mkdir(buf, 0755);
            *s = '/';
        }
    }
    mkdir(buf, 0755);
}

static void create_state(void) {
    const char *dir = getenv("AE_TEST_TMP");
    if (!dir || !*dir)
        dir = "/tmp";
    mkdirs(dir);
    snprintf(g_state_path, sizeof g_state_path, "%s/vcard-%ld.state", dir, (long)getpid());
    snprintf(g_capture_path, sizeof g_capture_path, "%s%s", g_state_path, VCARD_CAPTURE_SUFFIX);

    unlink(g_state_path);
    int fd = open(g_state_path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0 || ftruncate(fd, (off_t)sizeof(struct vcard_state)) != 0) {
        fprintf(stderr, "vcard: cannot create %s: %s\n", g_state_path, strerror(errno));
        abort();
    }
    void *p = mmap(NULL, sizeof(struct vcard_state), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (p == MAP_FAILED) {
        fprintf(stderr, "vcard: cannot map %s: %s\n", g_state_path, strerror(errno));
        abort();
    }
    g_capture_fd = open(g_capture_path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (g_capture_fd < 0) {
        fprintf(stderr, "vcard: cannot create %s: %s\n", g_capture_path, strerror(errno));
        abort();
    }
    if (vcard_state_init((struct vcard_state *)p) != 0)
        abort();
    g_st = (struct vcard_state *)p;
    __atomic_store_n(&g_just_created, 1, __ATOMIC_RELEASE);
    setenv("VCARD_STATE", g_state_path, 1);
    atexit(remove_files);
}

static struct vcard_state *state(void) {
    pthread_once(&g_once, create_state);
    return g_st;
}

void vcard_setup(void) {
    struct vcard_state *st = state();
    int fresh = __atomic_exchange_n(&g_just_created, 0, __ATOMIC_ACQ_REL);
    /* The same process may have forked or changed its environment: point VCARD_STATE back at
     * this card. */
    setenv("VCARD_STATE", g_state_path, 1);
    if (fresh)
        return;
    vcard_lock(st);
    vcard_state_defaults(st);
    if (ftruncate(g_capture_fd, 0) != 0)
        fprintf(stderr, "vcard: cannot clear %s: %s\n", g_capture_path, strerror(errno));
    vcard_unlock(st);
}

const char *vcard_state_path(void) {
    state();
    return g_state_path;
}

const char *vcard_capture_path(void) {
    state();
    return g_capture_path;
}

void vcard_set_speed(double speed) {
    vcard_store_speed(state(), speed < 0 ? 0 : speed);
}

void vcard_fail_open(int error, int count) {
    struct vcard_state *st = state();
    vcard_lock(st);
    __atomic_store_n(&st->open_error, error, __ATOMIC_RELEASE);
    __atomic_store_n(&st->open_fail_count, count < 0 ? -1 : count, __ATOMIC_RELEASE);
    vcard_unlock(st);
}

void vcard_fail_write_after(int error, long frames) {
    struct vcard_state *st = state();
    vcard_lock(st);
    __atomic_store_n(&st->write_fail_after, (int64_t)(frames < 0 ? 0 : frames), __ATOMIC_RELEASE);
    __atomic_store_n(&st->write_error, error, __ATOMIC_RELEASE);
    vcard_unlock(st);
}

void vcard_set_mixer_range(long min, long max) {
    struct vcard_state *st = state();
    vcard_lock(st);
    __atomic_store_n(&st->mixer_min, (int64_t)min, __ATOMIC_RELEASE);
    __atomic_store_n(&st->mixer_max, (int64_t)max, __ATOMIC_RELEASE);
    __atomic_add_fetch(&st->mixer_changes, 1, __ATOMIC_RELEASE);
    vcard_unlock(st);
}

void vcard_set_mixer_value(long value) {
    struct vcard_state *st = state();
    vcard_lock(st);
    __atomic_store_n(&st->mixer_value, (int64_t)value, __ATOMIC_RELEASE);
    __atomic_add_fetch(&st->mixer_changes, 1, __ATOMIC_RELEASE);
    vcard_unlock(st);
}

long vcard_mixer_value(void) {
    return (long)__atomic_load_n(&state()->mixer_value, __ATOMIC_ACQUIRE);
}

size_t vcard_mixer_writes(long *values, size_t max) {
    struct vcard_state *st = state();
    vcard_lock(st);
    uint64_t n = st->mixer_write_count;
    size_t stored = n < VCARD_MIXER_WRITES_MAX ? (size_t)n : VCARD_MIXER_WRITES_MAX;
    for (size_t i = 0; i < stored && i < max; i++)
        values[i] = (long)st->mixer_writes[i];
    vcard_unlock(st);
    return (size_t)n;
}

void vcard_set_mixer_channels(int channels) {
    struct vcard_state *st = state();
    vcard_lock(st);
    __atomic_store_n(&st->mixer_channels, channels == 2 ? 2 : 1, __ATOMIC_RELEASE);
    __atomic_add_fetch(&st->mixer_changes, 1, __ATOMIC_RELEASE);
    vcard_unlock(st);
}

void vcard_hide_mixer(int hidden) {
    struct vcard_state *st = state();
    vcard_lock(st);
    __atomic_store_n(&st->mixer_hidden, hidden ? 1 : 0, __ATOMIC_RELEASE);
    __atomic_add_fetch(&st->mixer_changes, 1, __ATOMIC_RELEASE);
    vcard_unlock(st);
}

size_t vcard_captured_frames(void) {
    return (size_t)__atomic_load_n(&state()->captured_frames, __ATOMIC_ACQUIRE);
}

size_t vcard_capture(int16_t *out, size_t max_frames) {
    size_t frames = vcard_captured_frames();
    if (frames > max_frames)
        frames = max_frames;
    size_t want = frames * VCARD_FRAME_BYTES;
    size_t got = 0;
    while (got < want) {
        ssize_t r = pread(g_capture_fd, (char *)out + got, want - got, (off_t)got);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        got += (size_t)r;
    }
    return got / VCARD_FRAME_BYTES;
}

char *vcard_events(void) {
    struct vcard_state *st = state();
    vcard_lock(st);
    size_t len = st->event_bytes;
    char *out = malloc(len + 1);
    if (out) {
        memcpy(out, st->events, len);
        if (len > 0 && out[len - 1] == '\n')
            len--;
        out[len] = '\0';
    }
    vcard_unlock(st);
    return out;
}

int vcard_count_events(const char *prefix) {
    struct vcard_state *st = state();
    size_t plen = strlen(prefix);
    int count = 0;
    vcard_lock(st);
    const char *s = st->events;
    const char *end = st->events + st->event_bytes;
    while (s < end) {
        const char *nl = memchr(s, '\n', (size_t)(end - s));
        size_t len = nl ? (size_t)(nl - s) : (size_t)(end - s);
        if (len >= plen && memcmp(s, prefix, plen) == 0)
            count++;
        s += len + 1;
    }
    vcard_unlock(st);
    return count;
}

int vcard_is_open(void) {
    return __atomic_load_n(&state()->open_count, __ATOMIC_ACQUIRE) > 0;
}

/* Control half of the virtual sound card: one MIXER-interface INTEGER element, "mpd_volume",
 * whose range and value live in the shared state, so every handle sees the same control. */
#include "vcard_shared.h"

#include <alsa/asoundlib.h>
#include <alsa/control_external.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/timerfd.h>

#define VCARD_ELEM_NAME "mpd_volume"
#define VCARD_ELEM_MAX_CHANNELS 2

struct vcard_ctl {
    snd_ctl_ext_t ext;
    struct vcard_state *st;
    uint64_t seen_changes; /* mixer_changes already reported by read_event */
};

static int hidden(const struct vcard_ctl *c) {
    return __atomic_load_n(&c->st->mixer_hidden, __ATOMIC_ACQUIRE) != 0;
}

static int channels(const struct vcard_ctl *c) {
    int n = __atomic_load_n(&c->st->mixer_channels, __ATOMIC_ACQUIRE);
    return n == VCARD_ELEM_MAX_CHANNELS ? n : 1;
}

static void vcard_ctl_close(snd_ctl_ext_t *ext) {
    struct vcard_ctl *c = ext->private_data;
    if (ext->poll_fd >= 0)
        close(ext->poll_fd);
    vcard_state_unmap(c->st);
    free(c);
}

static int vcard_elem_count(snd_ctl_ext_t *ext) {
    struct vcard_ctl *c = ext->private_data;
    return hidden(c) ? 0 : 1;
}

static int vcard_elem_list(snd_ctl_ext_t *ext, unsigned int offset, snd_ctl_elem_id_t *id) {
    struct vcard_ctl *c = ext->private_data;
    if (offset != 0 || hidden(c))
        return -EINVAL;
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, VCARD_ELEM_NAME);
    snd_ctl_elem_id_set_index(id, 0);
    return 0;
}

static snd_ctl_ext_key_t vcard_find_elem(snd_ctl_ext_t *ext, const snd_ctl_elem_id_t *id) {
    struct vcard_ctl *c = ext->private_data;
    if (hidden(c))
        return SND_CTL_EXT_KEY_NOT_FOUND;
    unsigned int numid = snd_ctl_elem_id_get_numid(id);
    if (numid == 1)
        return 0;
    if (numid == 0 && snd_ctl_elem_id_get_interface(id) == SND_CTL_ELEM_IFACE_MIXER &&
        snd_ctl_elem_id_get_index(id) == 0 &&
        strcmp(snd_ctl_elem_id_get_name(id), VCARD_ELEM_NAME) == 0)
        return 0;
    return SND_CTL_EXT_KEY_NOT_FOUND;
}

static int vcard_get_attribute(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, int *type,
                               unsigned int *acc, unsigned int *count) {
    struct vcard_ctl *c = ext->private_data;
    if (key != 0)
        return -EINVAL;
    *type = SND_CTL_ELEM_TYPE_INTEGER;
    *acc = SND_CTL_EXT_ACCESS_READWRITE;
    *count = (unsigned int)channels(c);
    return 0;
}

static int vcard_get_integer_info(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *imin, long *imax,
                                  long *istep) {
    struct vcard_ctl *c = ext->private_data;
    if (key != 0)
        return -EINVAL;
    vcard_lock(c->st);
    *imin = (long)c->st->mixer_min;
    *imax = (long)c->st->mixer_max;
    vcard_unlock(c->st);
    *istep = 1;
    return 0;
}

static int vcard_read_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *value) {
    struct vcard_ctl *c = ext->private_data;
    if (key != 0)
        return -EINVAL;
    long v = (long)__atomic_load_n(&c->st->mixer_value, __ATOMIC_ACQUIRE);
    for (int i = 0; i < channels(c); i++)
        value[i] = v;
    return 0;
}

static int vcard_write_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *value) {
    struct vcard_ctl *c = ext->private_data;
    struct vcard_state *st = c->st;
    if (key != 0)
        return -EINVAL;
    vcard_lock(st);
    uint64_t n = st->mixer_write_count;
    if (n < VCARD_MIXER_WRITES_MAX)
        st->mixer_writes[n] = value[0];
    __atomic_store_n(&st->mixer_write_count, n + 1, __ATOMIC_RELEASE);
    if (st->mixer_value != value[0]) {
        __atomic_store_n(&st->mixer_value, (int64_t)value[0], __ATOMIC_RELEASE);
        __atomic_add_fetch(&st->mixer_changes, 1, __ATOMIC_RELEASE);
    }
    vcard_unlock(st);
    /* The element keeps one value for all its channels: the first one wins. A stereo element
     * gets one write per channel from snd_mixer_selem_set_playback_volume_all. */
    return 0;
}

static void vcard_subscribe_events(snd_ctl_ext_t *ext, int subscribe) {
    struct vcard_ctl *c = ext->private_data;
    if (subscribe)
        c->seen_changes = __atomic_load_n(&c->st->mixer_changes, __ATOMIC_ACQUIRE);
}

static int vcard_read_event(snd_ctl_ext_t *ext, snd_ctl_elem_id_t *id, unsigned int *event_mask) {
    struct vcard_ctl *c = ext->private_data;
    uint64_t changes = __atomic_load_n(&c->st->mixer_changes, __ATOMIC_ACQUIRE);
    if (changes == c->seen_changes || hidden(c))
        return -EAGAIN;
    c->seen_changes = changes;
    snd_ctl_elem_id_clear(id);
    snd_ctl_elem_id_set_numid(id, 1);
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, VCARD_ELEM_NAME);
    snd_ctl_elem_id_set_index(id, 0);
    *event_mask = SND_CTL_EVENT_MASK_VALUE;
    return 1;
}

static int vcard_ctl_poll_revents(snd_ctl_ext_t *ext, struct pollfd *pfds, unsigned int nfds,
                                  unsigned short *revents) {
    struct vcard_ctl *c = ext->private_data;
    uint64_t ticks;
    if (nfds >= 1 && pfds[0].fd == ext->poll_fd) {
        ssize_t r = read(ext->poll_fd, &ticks, sizeof ticks);
        (void)r;
    }
    uint64_t changes = __atomic_load_n(&c->st->mixer_changes, __ATOMIC_ACQUIRE);
    *revents = changes != c->seen_changes && !hidden(c) ? POLLIN : 0;
    return 0;
}

static const snd_ctl_ext_callback_t vcard_ctl_callbacks = {
    .close = vcard_ctl_close,
    .elem_count = vcard_elem_count,
    .elem_list = vcard_elem_list,
    .find_elem = vcard_find_elem,
    .get_attribute = vcard_get_attribute,
    .get_integer_info = vcard_get_integer_info,
    .read_integer = vcard_read_integer,
    .write_integer = vcard_write_integer,
    .subscribe_events = vcard_subscribe_events,
    .read_event = vcard_read_event,
    .poll_revents = vcard_ctl_poll_revents,
};

SND_CTL_PLUGIN_DEFINE_FUNC(vcard) {
    (void)root;
    (void)conf;
    const char *path = getenv("VCARD_STATE");
    struct vcard_state *st = path && *path ? vcard_state_map(path) : vcard_state_anon();
    if (!st) {
        SNDERR("vcard: cannot map state file %s", path);
        return -ENOENT;
    }
    struct vcard_ctl *c = calloc(1, sizeof *c);
    if (!c) {
        vcard_state_unmap(st);
        return -ENOMEM;
    }
    c->st = st;
    c->seen_changes = __atomic_load_n(&st->mixer_changes, __ATOMIC_ACQUIRE);

    /* A slow tick as poll descriptor: waiters wake up and poll_revents tells if anything
     * changed. */
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        int err = -errno;
        free(c);
        vcard_state_unmap(st);
        return err;
    }
    struct itimerspec its = {{0, 20000000}, {0, 20000000}};
    timerfd_settime(fd, 0, &its, NULL);

    c->ext.version = SND_CTL_EXT_VERSION;
    c->ext.card_idx = 0;
    snprintf(c->ext.id, sizeof c->ext.id, "vcard");
    snprintf(c->ext.driver, sizeof c->ext.driver, "vcard");
    snprintf(c->ext.name, sizeof c->ext.name, "Virtual sound card");
    snprintf(c->ext.longname, sizeof c->ext.longname, "Virtual sound card for tests");
    snprintf(c->ext.mixername, sizeof c->ext.mixername, "Virtual mixer");
    c->ext.poll_fd = fd;
    c->ext.callback = &vcard_ctl_callbacks;
    c->ext.private_data = c;

    int err = snd_ctl_ext_create(&c->ext, name, mode);
    if (err < 0) {
        close(fd);
        free(c);
        vcard_state_unmap(st);
        return err;
    }
    *handlep = c->ext.handle;
    return 0;
}

SND_CTL_PLUGIN_SYMBOL(vcard)

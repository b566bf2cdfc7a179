/* Layout of the virtual sound card's shared state file.
 *
 * The file named by VCARD_STATE is created by the test side (vcard_control.c) and mapped by the
 * PCM and control plugins every time libasound opens them. The same process may map it several
 * times at different addresses, and the plugins may be unloaded between opens, so nothing lives
 * in plugin globals. Every field is either accessed with __atomic builtins or guarded by `lock`,
 * a process-shared mutex (process-shared because two mappings of one page are two addresses). */
#ifndef AE_TESTS_VCARD_STATE_H
#define AE_TESTS_VCARD_STATE_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#define VCARD_STATE_MAGIC 0x56434431u /* "VCD1" */
#define VCARD_EVENT_BYTES (1u << 20)
/* "write" events stop being recorded past this fill level, so the others always fit. */
#define VCARD_EVENT_WRITE_LIMIT (VCARD_EVENT_BYTES - VCARD_EVENT_BYTES / 4)
#define VCARD_MIXER_WRITES_MAX 4096
#define VCARD_FRAME_BYTES 4 /* S16_LE stereo */
#define VCARD_CAPTURE_SUFFIX ".pcm"

struct vcard_state {
    uint32_t magic; /* written last, with release order */
    uint32_t size;  /* sizeof(struct vcard_state) */
    pthread_mutex_t lock;

    /* Configuration (atomics). */
    uint64_t speed_bits;     /* double: 0 consumes at once, 1.0 real time */
    int32_t open_error;      /* negative errno of injected open failures */
    int32_t open_fail_count; /* opens still to fail; -1 every open */
    int32_t write_error;     /* 0 when no write fault is armed */
    int32_t mixer_hidden;    /* no "mpd_volume" element */
    int32_t mixer_channels;  /* values of the element: 1 or 2 */
    int32_t reserved_config;
    int64_t write_fail_after; /* frames still accepted before write_error */

    /* Mixer element (guarded by lock, read atomically). */
    int64_t mixer_min;
    int64_t mixer_max;
    int64_t mixer_value;
    uint64_t mixer_changes; /* bumped at every change, drives read_event */
    uint64_t mixer_write_count;
    int64_t mixer_writes[VCARD_MIXER_WRITES_MAX];

    /* PCM (atomics; captured_frames only grows under lock). */
    int32_t open_count;
    int32_t reserved;
    uint64_t captured_frames;

    /* Events: '\n'-terminated lines (guarded by lock). */
    uint32_t event_bytes;
    uint32_t event_dropped;
    char events[VCARD_EVENT_BYTES];
};

#endif

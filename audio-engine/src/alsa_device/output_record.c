/* The record of what went to the device (see output_record.h).
 *
 * The timeline counts the frames written to the device since it was opened or dropped. Segments
 * say which media time each stretch of it holds; the audio itself is kept in a circular buffer
 * indexed by timeline frame, long enough for any buffer the device is configured with (500 ms at
 * up to 96 kHz). `written` is where the next write goes; `end` is past the last frame the buffer
 * holds, beyond `written` while audio that a pause dropped waits to be written again.
 *
 * Locking: `record_mutex` guards everything here; nothing blocks under it. */
#define _GNU_SOURCE
#include "output_record.h"

#include <pthread.h>
#include <string.h>
#include <time.h>

enum {
    AUDIO_FRAMES = 65536, /* 256 KiB: 680 ms at 96 kHz */
    FRAME_BYTES = 4,
    SEGMENTS = 64, /* a device buffer holds at most a few pieces */
};

struct segment {
    uint64_t start; /* timeline frame */
    long frames;
    unsigned serial;
    struct alsa_output_tag tag; /* media_us of the segment's first frame */
};

static pthread_mutex_t record_mutex = PTHREAD_MUTEX_INITIALIZER;
static uint8_t audio[AUDIO_FRAMES * FRAME_BYTES];
static struct segment segments[SEGMENTS];
static int first_segment, segment_count;
static uint64_t written, end;
static int rate;
static long delay;         /* at the last reading */
static int running;        /* the device plays (its delay shrinks with time) */
static int64_t reading_ns; /* CLOCK_MONOTONIC of the last reading */
static long queued;        /* frames in the ring */
static int paused;

static int64_t now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000000000 + ts.tv_nsec;
}

void record_reset(int device_rate) {
    pthread_mutex_lock(&record_mutex);
    first_segment = segment_count = 0;
    written = end = 0;
    rate = device_rate;
    delay = 0;
    running = 0;
    pthread_mutex_unlock(&record_mutex);
}

static struct segment *last_segment(void) {
    return segment_count ? &segments[(first_segment + segment_count - 1) % SEGMENTS] : NULL;
}

/* Media time `frames` frames into a stretch tagged `tag`. */
static int64_t media_after(const struct alsa_output_tag *tag, long frames) {
    if (tag->media_us == ALSA_OUTPUT_NO_MEDIA || rate <= 0)
        return tag->media_us;
    return tag->media_us + (int64_t)((double)frames * tag->speed * 1e6 / rate);
}

void record_write(const void *data, long frames, const struct alsa_output_tag *tag, long offset,
                  unsigned serial) {
    if (frames <= 0)
        return;
    pthread_mutex_lock(&record_mutex);
    for (long done = 0; done < frames;) {
        long at = (long)(written % AUDIO_FRAMES) + done;
        at %= AUDIO_FRAMES;
        long chunk = frames - done < AUDIO_FRAMES - at ? frames - done : AUDIO_FRAMES - at;
        memcpy(audio + (size_t)at * FRAME_BYTES, (const uint8_t *)data + (size_t)done * FRAME_BYTES,
               (size_t)chunk * FRAME_BYTES);
        done += chunk;
    }
    struct segment *last = last_segment();
    if (last && last->serial == serial && last->start + (uint64_t)last->frames == written) {
        last->frames += frames;
    } else {
        if (segment_count == SEGMENTS) {
            first_segment = (first_segment + 1) % SEGMENTS;
            segment_count--;
        }
        struct segment *s = &segments[(first_segment + segment_count++) % SEGMENTS];
        s->start = written;
        s->frames = frames;
        s->serial = serial;
        s->tag = *tag;
        s->tag.media_us = media_after(tag, offset);
    }
    written += (uint64_t)frames;
    if (end < written)
        end = written;
    queued -= frames;
    if (queued < 0)
        queued = 0;
    pthread_mutex_unlock(&record_mutex);
}

void record_device(long device_delay, int device_running) {
    pthread_mutex_lock(&record_mutex);
    delay = device_delay < 0 ? 0 : device_delay;
    if ((uint64_t)delay > written)
        delay = (long)written;
    running = device_running;
    reading_ns = now_ns();
    pthread_mutex_unlock(&record_mutex);
}

long record_keep(long unplayed) {
    pthread_mutex_lock(&record_mutex);
    if (unplayed < 0)
        unplayed = 0;
    /* Only what the buffer still holds can be written again. */
    uint64_t oldest = end > AUDIO_FRAMES ? end - AUDIO_FRAMES : 0;
    if ((uint64_t)unplayed > written - oldest)
        unplayed = (long)(written - oldest);
    written -= (uint64_t)unplayed;
    delay = 0;
    running = 0;
    long kept = (long)(end - written);
    pthread_mutex_unlock(&record_mutex);
    return kept;
}

const void *record_kept(long *frames) {
    pthread_mutex_lock(&record_mutex);
    const void *data = NULL;
    *frames = 0;
    if (written < end) {
        long at = (long)(written % AUDIO_FRAMES);
        long left = (long)(end - written);
        *frames = left < AUDIO_FRAMES - at ? left : AUDIO_FRAMES - at;
        data = audio + (size_t)at * FRAME_BYTES;
    }
    pthread_mutex_unlock(&record_mutex);
    return data;
}

void record_rewritten(long frames) {
    pthread_mutex_lock(&record_mutex);
    written += (uint64_t)(frames > 0 ? frames : 0);
    if (written > end)
        written = end;
    pthread_mutex_unlock(&record_mutex);
}

void record_forget_kept(void) {
    pthread_mutex_lock(&record_mutex);
    end = written;
    pthread_mutex_unlock(&record_mutex);
}

void record_queued(long frames) {
    pthread_mutex_lock(&record_mutex);
    queued += frames;
    if (queued < 0)
        queued = 0;
    pthread_mutex_unlock(&record_mutex);
}

void record_queue_cleared(void) {
    pthread_mutex_lock(&record_mutex);
    queued = 0;
    pthread_mutex_unlock(&record_mutex);
}

void record_paused(int is_paused) {
    pthread_mutex_lock(&record_mutex);
    paused = is_paused;
    pthread_mutex_unlock(&record_mutex);
}

int alsa_output_playing(struct alsa_output_position *out) {
    pthread_mutex_lock(&record_mutex);
    /* The frame the card plays now: the last reading of the delay, moved on by the time since
     * while the device runs, never past what was written. */
    uint64_t played = written - (uint64_t)delay;
    if (running && rate > 0) {
        double elapsed = (double)(now_ns() - reading_ns) / 1e9;
        uint64_t moved = elapsed > 0 ? (uint64_t)(elapsed * rate) : 0;
        played = moved >= (uint64_t)delay ? written : played + moved;
    }
    int result = -1;
    out->media_us = ALSA_OUTPUT_NO_MEDIA;
    out->source = 0;
    for (int i = segment_count - 1; i >= 0; i--) {
        const struct segment *s = &segments[(first_segment + i) % SEGMENTS];
        if (s->start > played && i > 0)
            continue;
        long into = played > s->start ? (long)(played - s->start) : 0;
        if (into > s->frames)
            into = s->frames;
        out->media_us = media_after(&s->tag, into);
        out->source = s->tag.source;
        result = out->media_us == ALSA_OUTPUT_NO_MEDIA ? -1 : 0;
        break;
    }
    uint64_t ahead = end - played + (uint64_t)queued;
    out->queued_us = rate > 0 ? (int64_t)(ahead * 1000000 / (uint64_t)rate) : 0;
    out->paused = paused;
    pthread_mutex_unlock(&record_mutex);
    return result;
}

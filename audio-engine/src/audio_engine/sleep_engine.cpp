// AudioEngine: the sleep timer's stops in the play loop (a timed stop after its fade, exactly at
// a chapter's end, at the end of the track), exact seeks to where such a stop resumes, the
// rewind after a long pause, and their C functions of AudioEngineExtension.h.
#include "AudioEngine.h"

#include "AudioEngineExtension.h"
#include "alsa_output_internal.h"
#include "engine_log.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <chrono>
#include <cmath>
#include <unistd.h>

namespace {

const AVRational kMicroseconds{1, 1000000};

int64_t steadyNowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

} // namespace

// --- Transport (application's thread) ----------------------------------------------------------

int AudioEngine::startPaused() {
    // The loop starts in Paused and holds as it takes its first piece.
    holdAtStart = true;
    const int started = start();
    holdAtStart = false;
    if (started == 0)
        pauseBegins();
    return started;
}

bool AudioEngine::takeSleepEndedTrack() {
    return sleepEndedTrack.exchange(false);
}

void AudioEngine::pauseBegins() {
    pausedAtMs = steadyNowMs();
}

void AudioEngine::rewindAfterLongPause() {
    const int64_t since = pausedAtMs.exchange(INT64_MIN);
    if (!rewindEnabled.load() || since == INT64_MIN)
        return;
    const int64_t back = rewindForPauseMs(steadyNowMs() - since);
    if (back == 0 || !mediaOpen.load())
        return;
    alsa_output_position card{};
    const bool heard = alsa_output_playing(&card) == 0 && card.source == mediaSerial &&
                       card.media_us != ALSA_OUTPUT_NO_MEDIA;
    std::lock_guard<std::mutex> lock(engineMutex);
    // From where the resume would start: a pending seek's target, else where the card stopped
    // (or the position).
    int64_t from = heard ? card.media_us / 1000 : std::max<int64_t>(positionMs, 0);
    if (seekRequested)
        from = seekExactUs >= 0 ? seekExactUs / 1000 : seekTargetMs;
    const int64_t target = std::max<int64_t>(from - back, 0); // never before the file's start
    seekTargetMs = static_cast<int>(target);
    seekExactUs = target * 1000;
    seekRequested = true;
    positionMs = target / 1000 * 1000;
}

void AudioEngine::replayFromCard() {
    // The faded audio queued for the card is dropped and played again from the sample the card
    // plays now, at the full level: an exact seek there.
    alsa_output_position card{};
    if (state.load() != Playing || alsa_output_playing(&card) != 0 || card.source != mediaSerial ||
        card.media_us == ALSA_OUTPUT_NO_MEDIA)
        return;
    std::lock_guard<std::mutex> lock(engineMutex);
    if (seekRequested)
        return;
    seekRequested = true;
    seekTargetMs = static_cast<int>(std::max<int64_t>(card.media_us, 0) / 1000);
    seekExactUs = kSeekToCard; // read again as the play thread carries it out
}

void AudioEngine::resolveSeekToCard() {
    if (seekExactUs != kSeekToCard)
        return;
    // Where the card is now: the drop that follows cuts the sound just after it.
    alsa_output_position card{};
    int64_t us = int64_t(seekTargetMs) * 1000; // where it was at the request
    if (alsa_output_playing(&card) == 0 && card.source == mediaSerial &&
        card.media_us != ALSA_OUTPUT_NO_MEDIA)
        us = std::max<int64_t>(card.media_us, 0);
    seekTargetMs = static_cast<int>(us / 1000);
    seekExactUs = us;
}

int64_t AudioEngine::sleepLeftMs() {
    const int mode = sleepTimer.mode();
    if (mode == AE_SLEEP_OFF)
        return -1;
    // What the card has still to play of the audio handed out counts too.
    alsa_output_position card{};
    const bool heard = alsa_output_playing(&card) == 0 && card.source == mediaSerial;
    if (mode == AE_SLEEP_AFTER_TIME)
        return std::max<int64_t>(sleepTimer.timedLeftMs() + card.queued_us / 1000, 0);
    // Media time left, played at the current speed.
    const double speed = tempo.load() * sampleRateMultiplier.load();
    int64_t mediaLeftMs;
    const int64_t stopUs = chapterStopUs.load();
    if (mode == AE_SLEEP_END_OF_CHAPTER && stopUs >= 0 && heard) {
        mediaLeftMs = (stopUs - card.media_us) / 1000;
    } else {
        const int64_t position = getPosition();
        int64_t end = getDurationMs();
        if (mode == AE_SLEEP_END_OF_CHAPTER) {
            for (const Chapter &c : getChapters())
                if (position >= c.startMs && position < c.endMs)
                    end = std::min(end, c.endMs);
        }
        mediaLeftMs = end - position;
    }
    return std::max<int64_t>(static_cast<int64_t>(mediaLeftMs / (speed > 0 ? speed : 1.0)), 0);
}

// --- Play thread ---------------------------------------------------------------------------------

bool AudioEngine::trimToSeekTarget(AVStream *audio, AVFrame *frame) {
    const int64_t pts = frame->best_effort_timestamp;
    if (trimBeforePts == INT64_MIN)
        return true;
    if (pts == AV_NOPTS_VALUE || frame->sample_rate <= 0) {
        trimBeforePts = INT64_MIN; // no timeline to cut on: play it all
        return true;
    }
    const AVRational sampleTb{1, frame->sample_rate};
    const int64_t skip = av_rescale_q(trimBeforePts - pts, audio->time_base, sampleTb);
    if (skip >= frame->nb_samples)
        return false;
    trimBeforePts = INT64_MIN;
    if (skip <= 0)
        return true;

    // The rest of the frame, from the target on, in a frame of its own.
    AVFrame *rest = av_frame_alloc();
    const int left = frame->nb_samples - static_cast<int>(skip);
    bool ok = rest != nullptr;
    if (ok) {
        rest->format = frame->format;
        rest->sample_rate = frame->sample_rate;
        rest->nb_samples = left;
        ok = av_channel_layout_copy(&rest->ch_layout, &frame->ch_layout) >= 0 &&
             av_frame_get_buffer(rest, 0) >= 0 && av_frame_copy_props(rest, frame) >= 0;
    }
    if (ok) {
        av_samples_copy(rest->extended_data, frame->extended_data, 0, static_cast<int>(skip), left,
                        frame->ch_layout.nb_channels, static_cast<AVSampleFormat>(frame->format));
        rest->pts = rest->best_effort_timestamp =
            pts + av_rescale_q(skip, sampleTb, audio->time_base);
        av_frame_unref(frame);
        av_frame_move_ref(frame, rest);
    } else {
        AE_LOG(2, "%s", "Failed to cut a frame at the seek target");
    }
    av_frame_free(&rest);
    return true;
}

void AudioEngine::creditDroppedAudio(int unpushed, bool queued) {
    alsa_output_position card{};
    if (queued)
        alsa_output_playing(&card); // fills queued_us in any case
    sleepTimer.credit(unpushed +
                      std::max<int64_t>(card.queued_us, 0) * SleepTimer::kOutputRate / 1000000);
}

int64_t AudioEngine::outputMediaUs(const AVFrame *filtered, int index) const {
    const int64_t us = mediaTimeUs(graphFramesOut + index, filtered->sample_rate);
    return us == ALSA_OUTPUT_NO_MEDIA ? -1 : us;
}

bool AudioEngine::chapterStopWithin(const AVFrame *filtered, int index, int *count) {
    if (sleepTimer.mode() != AE_SLEEP_END_OF_CHAPTER)
        return false;
    const int64_t at = outputMediaUs(filtered, index);
    if (at < 0)
        return false;
    const unsigned generation = sleepTimer.generation();
    if (generation != chapterStopGeneration) {
        // Armed (or sought) since the last block: the end of the chapter playing now, exactly
        // as the container gives it. None (no chapters, past the last): the file's end.
        chapterStopGeneration = generation;
        int64_t stop = -1;
        for (unsigned i = 0; i < formatCtx->nb_chapters && stop < 0; ++i) {
            const AVChapter *c = formatCtx->chapters[i];
            const int64_t start = av_rescale_q(c->start, c->time_base, kMicroseconds);
            const int64_t end = av_rescale_q(c->end, c->time_base, kMicroseconds);
            // Half a sample on: the sample that starts a chapter is in it.
            const int64_t here = at + 500000 / filtered->sample_rate;
            if (here >= start && here < end)
                stop = end;
        }
        chapterStopUs = stop;
    }
    const int64_t stop = chapterStopUs.load();
    if (stop < 0)
        return false;
    // Output samples before the end, at the speed the graph plays.
    const int64_t keep = std::llround((stop - at) * 1e-6 * filtered->sample_rate / graphSpeed);
    if (keep > *count)
        return false;
    *count = static_cast<int>(std::max<int64_t>(keep, 0));
    return true;
}

void AudioEngine::sleepPause(int mode, int64_t resumeUs) {
    // What went out before the stop is heard to its end (at most a few seconds' wait) before
    // the output pauses, unless the application pauses, stops or seeks meanwhile.
    alsa_output_position card{};
    for (int polls = 0; polls < 500 && state.load() == Playing && !seekPending(); ++polls) {
        alsa_output_playing(&card); // fills queued_us in any case
        if (card.queued_us <= 0 || alsa_output_working() == 0)
            break;
        usleep(10000);
    }
    int s = state.load();
    bool paused = false;
    while (s == Playing && !(paused = state.compare_exchange_weak(s, Paused))) {
    }
    if (paused) {
        pauseBegins();
        alsa_output_pause(1);
    }
    // Paused by the application meanwhile: the resume still starts at the stop.
    if (paused || s == Paused) {
        if (resumeUs >= 0) {
            std::lock_guard<std::mutex> lock(engineMutex);
            seekRequested = true;
            seekTargetMs = static_cast<int>(resumeUs / 1000);
            seekExactUs = resumeUs;
            positionMs = seekTargetMs / 1000 * 1000;
        }
    }
    chapterStopUs = -1;
    sleepTimer.fire(mode);
    if (paused)
        notifyState();
}

// --- C functions ---------------------------------------------------------------------------------

extern "C" {

AE_EXPORT int ae_ext_set_sleep_timer(ae_ext *ext, int mode, int64_t ms) {
    if (!ext)
        return -1;
    AudioEngine *engine = AudioEngine::fromExtension(ext);
    // The play thread finds the chapter's end anew for the timer's new generation.
    return engine->sleepTimer.arm(mode, ms);
}

AE_EXPORT int ae_ext_get_sleep_mode(ae_ext *ext) {
    return ext ? AudioEngine::fromExtension(ext)->sleepTimer.mode() : AE_SLEEP_OFF;
}

AE_EXPORT int64_t ae_ext_sleep_left_ms(ae_ext *ext) {
    return ext ? AudioEngine::fromExtension(ext)->sleepLeftMs() : -1;
}

AE_EXPORT int ae_ext_extend_sleep_timer(ae_ext *ext, int64_t ms) {
    if (!ext)
        return -1;
    AudioEngine *engine = AudioEngine::fromExtension(ext);
    bool restored = false;
    const int extended = engine->sleepTimer.extend(ms, engine->sleepLeftMs(), &restored);
    if (restored)
        engine->replayFromCard();
    return extended;
}

AE_EXPORT int ae_ext_set_sleep_fade_ms(ae_ext *ext, int64_t ms) {
    return ext ? AudioEngine::fromExtension(ext)->sleepTimer.setFadeMs(ms) : -1;
}

AE_EXPORT int64_t ae_ext_get_sleep_fade_ms(ae_ext *ext) {
    return ext ? AudioEngine::fromExtension(ext)->sleepTimer.fadeMs() : -1;
}

AE_EXPORT void ae_ext_set_sleep_callback(ae_ext *ext, ae_sleep_fired_cb cb, void *user) {
    if (ext)
        AudioEngine::fromExtension(ext)->sleepTimer.setCallback(cb, user);
}

AE_EXPORT int ae_ext_set_rewind_after_pause(ae_ext *ext, int enabled) {
    if (!ext || (enabled != 0 && enabled != 1))
        return -1;
    AudioEngine::fromExtension(ext)->rewindEnabled = enabled == 1;
    return 0;
}

AE_EXPORT int ae_ext_get_rewind_after_pause(ae_ext *ext) {
    return ext ? (AudioEngine::fromExtension(ext)->rewindEnabled.load() ? 1 : 0) : -1;
}

AE_EXPORT int64_t ae_ext_rewind_for_pause_ms(int64_t pausedMs) {
    return rewindForPauseMs(pausedMs);
}

} // extern "C"

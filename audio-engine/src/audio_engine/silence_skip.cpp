// Skip silence: see silence_skip.h.
#include "silence_skip.h"

#include "AudioEngineExtension.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

const int kBlockMs = 10;
const int kCrossfadeMs = 10;
// Levels, dBFS.
const double kStartVoiceDb = -20; // a usual narration's peaks until the recording tells
const double kStartNoiseDb = -70;
const double kFloorDb = -70;         // anything quieter is a pause
const double kLowestDb = -100;       // digital silence counts as this
const double kVoiceDepthDb = 30;     // a pause is this far under the voice's peaks...
const double kNoiseMarginDb = 12;    // ...and at most this far over the noise floor
const double kVoiceFallDbPerS = 2;   // the voice peak follower's fall while the voice goes on
const double kPauseFallDbPerS = 0.1; // and in pauses, so a voice that got much quieter is found
const double kNoiseRiseDbPerS = 1;

// The sample `i` of channel `ch`, as a value in -1..1, for any of FFmpeg's sample formats.
double sampleAt(uint8_t *const *data, AVSampleFormat fmt, int channels, int ch, int i) {
    const bool planar = av_sample_fmt_is_planar(fmt) != 0;
    const int size = av_get_bytes_per_sample(fmt);
    const uint8_t *p = planar ? data[ch] + static_cast<size_t>(i) * size
                              : data[0] + (static_cast<size_t>(i) * channels + ch) * size;
    switch (av_get_packed_sample_fmt(fmt)) {
    case AV_SAMPLE_FMT_U8:
        return (*p - 128) / 128.0;
    case AV_SAMPLE_FMT_S16: {
        int16_t v;
        memcpy(&v, p, sizeof v);
        return v / 32768.0;
    }
    case AV_SAMPLE_FMT_S32: {
        int32_t v;
        memcpy(&v, p, sizeof v);
        return v / 2147483648.0;
    }
    case AV_SAMPLE_FMT_S64: {
        int64_t v;
        memcpy(&v, p, sizeof v);
        return static_cast<double>(v) / 9223372036854775808.0;
    }
    case AV_SAMPLE_FMT_FLT: {
        float v;
        memcpy(&v, p, sizeof v);
        return v;
    }
    case AV_SAMPLE_FMT_DBL: {
        double v;
        memcpy(&v, p, sizeof v);
        return v;
    }
    default:
        return 0;
    }
}

void setSample(uint8_t **data, AVSampleFormat fmt, int channels, int ch, int i, double value) {
    const bool planar = av_sample_fmt_is_planar(fmt) != 0;
    const int size = av_get_bytes_per_sample(fmt);
    uint8_t *p = planar ? data[ch] + static_cast<size_t>(i) * size
                        : data[0] + (static_cast<size_t>(i) * channels + ch) * size;
    const double v = std::max(-1.0, std::min(1.0, value));
    switch (av_get_packed_sample_fmt(fmt)) {
    case AV_SAMPLE_FMT_U8:
        *p = static_cast<uint8_t>(std::lrint(std::min(255.0, v * 128 + 128)));
        break;
    case AV_SAMPLE_FMT_S16: {
        const int16_t s = static_cast<int16_t>(std::lrint(std::min(32767.0, v * 32768)));
        memcpy(p, &s, sizeof s);
        break;
    }
    case AV_SAMPLE_FMT_S32: {
        const int32_t s =
            static_cast<int32_t>(std::llrint(std::min(2147483647.0, v * 2147483648.0)));
        memcpy(p, &s, sizeof s);
        break;
    }
    case AV_SAMPLE_FMT_S64: {
        const int64_t s = static_cast<int64_t>(v * 9223372036854775807.0);
        memcpy(p, &s, sizeof s);
        break;
    }
    case AV_SAMPLE_FMT_FLT: {
        const float s = static_cast<float>(value);
        memcpy(p, &s, sizeof s);
        break;
    }
    case AV_SAMPLE_FMT_DBL:
        memcpy(p, &value, sizeof value);
        break;
    default:
        break;
    }
}

// The sum of the squares of `count` samples of the common formats (the decoders' own).
template <class T> double sumOfSquares(const T *samples, int count) {
    double sum = 0;
    for (int i = 0; i < count; ++i) {
        const double v = samples[i];
        sum += v * v;
    }
    return sum;
}

} // namespace

SilenceSkipper::SilenceSkipper() : voiceDb_(kStartVoiceDb), noiseDb_(kStartNoiseDb) {}

SilenceSkipper::~SilenceSkipper() {
    release();
}

void SilenceSkipper::release() {
    if (pending_)
        av_audio_fifo_free(pending_);
    if (held_)
        av_audio_fifo_free(held_);
    if (ready_)
        av_audio_fifo_free(ready_);
    pending_ = held_ = ready_ = nullptr;
    av_frame_free(&block_);
    av_frame_free(&out_);
    av_channel_layout_uninit(&layout_);
    format_ = -1;
    rate_ = 0;
}

bool SilenceSkipper::holding() const {
    return (pending_ && av_audio_fifo_size(pending_) > 0) ||
           (held_ && av_audio_fifo_size(held_) > 0) || (ready_ && av_audio_fifo_size(ready_) > 0);
}

void SilenceSkipper::reset() {
    for (AVAudioFifo *fifo : {pending_, held_, ready_})
        if (fifo)
            av_audio_fifo_reset(fifo);
    haveOrigin_ = false;
    emitted_ = 0;
    pauseFrames_ = 0;
    cutting_ = false;
}

void SilenceSkipper::restart() {
    reset();
    voiceDb_ = kStartVoiceDb;
    noiseDb_ = kStartNoiseDb;
    savedUs_ = 0;
    savedMs_ = 0;
}

// Sets the stage up for the format of `in`. A change of format (joined files) drops what is
// held in the old one: at most a pause's held part.
bool SilenceSkipper::configure(const AVFrame *in, AVRational tb) {
    tb_ = tb;
    if (in->format == format_ && in->sample_rate == rate_ &&
        av_channel_layout_compare(&in->ch_layout, &layout_) == 0)
        return true;
    release();
    const AVSampleFormat fmt = static_cast<AVSampleFormat>(in->format);
    const int channels = in->ch_layout.nb_channels;
    if (in->sample_rate <= 0 || channels <= 0 || av_get_bytes_per_sample(fmt) <= 0 ||
        av_channel_layout_copy(&layout_, &in->ch_layout) < 0)
        return false;
    const int blockFrames = std::max(1, in->sample_rate * kBlockMs / 1000);
    pending_ = av_audio_fifo_alloc(fmt, channels, blockFrames * 2);
    held_ = av_audio_fifo_alloc(fmt, channels, in->sample_rate / 2);
    ready_ = av_audio_fifo_alloc(fmt, channels, blockFrames * 4);
    block_ = av_frame_alloc();
    out_ = av_frame_alloc();
    if (!pending_ || !held_ || !ready_ || !block_ || !out_)
        return release(), false;
    block_->format = in->format;
    block_->nb_samples = blockFrames;
    if (av_channel_layout_copy(&block_->ch_layout, &in->ch_layout) < 0 ||
        av_frame_get_buffer(block_, 0) < 0)
        return release(), false;
    format_ = in->format;
    rate_ = in->sample_rate;
    reset();
    return true;
}

AVFrame *SilenceSkipper::process(const AVFrame *in, int level, AVRational tb) {
    if (!configure(in, tb))
        return nullptr;
    if (!haveOrigin_) {
        const int64_t ts =
            in->best_effort_timestamp != AV_NOPTS_VALUE ? in->best_effort_timestamp : in->pts;
        origin_ = ts != AV_NOPTS_VALUE ? ts : 0;
        haveOrigin_ = true;
        pendingFirst_ = 0;
    }
    if (av_audio_fifo_write(pending_,
                            reinterpret_cast<void **>(const_cast<uint8_t **>(in->extended_data)),
                            in->nb_samples) < in->nb_samples)
        return nullptr;

    if (level == AE_SKIP_SILENCE_OFF) {
        // Switched off: what is held plays as it is, then everything passes.
        emitHeld();
        emit(pending_, av_audio_fifo_size(pending_), pendingFirst_);
        pauseFrames_ = 0;
        cutting_ = false;
        return takeOutput();
    }
    const Params params = level == AE_SKIP_SILENCE_STRONG ? Params{250, 150} : Params{500, 250};
    const int blockFrames = block_->nb_samples;
    while (av_audio_fifo_size(pending_) >= blockFrames)
        classifyBlock(blockFrames, params);
    return takeOutput();
}

AVFrame *SilenceSkipper::flush() {
    if (!pending_)
        return nullptr;
    emitHeld();
    emit(pending_, av_audio_fifo_size(pending_), pendingFirst_);
    pauseFrames_ = 0;
    cutting_ = false;
    return takeOutput();
}

double SilenceSkipper::blockLevelDb(int frames) const {
    const AVSampleFormat fmt = static_cast<AVSampleFormat>(format_);
    const int channels = layout_.nb_channels;
    const int planes = av_sample_fmt_is_planar(fmt) ? channels : 1;
    const int perPlane = frames * (planes == 1 ? channels : 1);
    double sum = 0;
    for (int plane = 0; plane < planes; ++plane) {
        const uint8_t *data = block_->extended_data[plane];
        switch (av_get_packed_sample_fmt(fmt)) {
        case AV_SAMPLE_FMT_S16:
            sum += sumOfSquares(reinterpret_cast<const int16_t *>(data), perPlane) /
                   (32768.0 * 32768.0);
            break;
        case AV_SAMPLE_FMT_FLT:
            sum += sumOfSquares(reinterpret_cast<const float *>(data), perPlane);
            break;
        default:
            for (int i = 0; i < perPlane; ++i) {
                const double v =
                    planes == 1
                        ? sampleAt(block_->extended_data, fmt, channels, i % channels, i / channels)
                        : sampleAt(block_->extended_data, fmt, channels, plane, i);
                sum += v * v;
            }
        }
    }
    const double meanSquare = sum / (static_cast<double>(frames) * channels);
    return std::max(kLowestDb, 10 * std::log10(meanSquare + 1e-30));
}

// Reads one block from pending_ into block_, decides whether it is a pause and sends it on,
// holds it or cuts it.
void SilenceSkipper::classifyBlock(int frames, const Params &params) {
    const int64_t first = pendingFirst_;
    av_audio_fifo_read(pending_, reinterpret_cast<void **>(block_->extended_data), frames);
    pendingFirst_ += frames;

    const double db = blockLevelDb(frames);
    const double seconds = static_cast<double>(frames) / rate_;
    const double threshold =
        std::max(kFloorDb, std::min(voiceDb_ - kVoiceDepthDb, noiseDb_ + kNoiseMarginDb));
    const bool pause = db < threshold;
    noiseDb_ = db < noiseDb_ ? db : noiseDb_ + kNoiseRiseDbPerS * seconds;
    if (pause)
        voiceDb_ -= kPauseFallDbPerS * seconds;
    else
        voiceDb_ = std::max(voiceDb_ - kVoiceFallDbPerS * seconds, db);

    if (!pause) {
        emitHeld();
        pauseFrames_ = 0;
        cutting_ = false;
        // The block goes on: written to ready_ from block_.
        if (av_audio_fifo_size(ready_) == 0)
            readyFirst_ = first;
        av_audio_fifo_write(ready_, reinterpret_cast<void **>(block_->extended_data), frames);
        return;
    }

    pauseFrames_ += frames;
    const int64_t headFrames = static_cast<int64_t>(rate_) * params.keepMs / 2000;
    if (pauseFrames_ <= headFrames) {
        if (av_audio_fifo_size(ready_) == 0)
            readyFirst_ = first;
        av_audio_fifo_write(ready_, reinterpret_cast<void **>(block_->extended_data), frames);
        return;
    }
    if (av_audio_fifo_size(held_) == 0)
        heldFirst_ = first;
    av_audio_fifo_write(held_, reinterpret_cast<void **>(block_->extended_data), frames);
    if (!cutting_ && pauseFrames_ > static_cast<int64_t>(rate_) * params.minGapMs / 1000) {
        // A long pause: keep the start of what is cut out, to cross-fade the cut with it.
        cutting_ = true;
        saveCrossfade();
    }
    if (cutting_) {
        const int tailFrames = static_cast<int>(static_cast<int64_t>(rate_) * params.keepMs / 2000);
        const int drop = av_audio_fifo_size(held_) - tailFrames;
        if (drop > 0) {
            av_audio_fifo_drain(held_, drop);
            heldFirst_ += drop;
            savedUs_ += static_cast<int64_t>(drop) * 1000000 / rate_;
            savedMs_ = savedUs_ / 1000;
        }
    }
}

// Saves the first crossfade length of held_ (the part right after the pause's head, about to
// be cut out) as planar floats.
void SilenceSkipper::saveCrossfade() {
    const int channels = layout_.nb_channels;
    const int frames = std::min(av_audio_fifo_size(held_), rate_ * kCrossfadeMs / 1000);
    AVFrame *tmp = av_frame_alloc();
    if (!tmp)
        return;
    tmp->format = format_;
    tmp->nb_samples = std::max(frames, 1);
    crossfade_.clear();
    if (av_channel_layout_copy(&tmp->ch_layout, &layout_) >= 0 &&
        av_frame_get_buffer(tmp, 0) >= 0 &&
        av_audio_fifo_peek(held_, reinterpret_cast<void **>(tmp->extended_data), frames) ==
            frames) {
        crossfade_.resize(static_cast<size_t>(frames) * channels);
        for (int ch = 0; ch < channels; ++ch)
            for (int i = 0; i < frames; ++i)
                crossfade_[static_cast<size_t>(ch) * frames + i] = static_cast<float>(sampleAt(
                    tmp->extended_data, static_cast<AVSampleFormat>(format_), channels, ch, i));
    }
    av_frame_free(&tmp);
}

// Hands on the pause held back: whole when it was short, else its kept tail, faded in over
// the part cut out after the head so that the join is as smooth as the pause was.
void SilenceSkipper::emitHeld() {
    const int frames = av_audio_fifo_size(held_);
    if (frames == 0)
        return;
    if (cutting_ && !crossfade_.empty()) {
        const int channels = layout_.nb_channels;
        const int fade = std::min(frames, static_cast<int>(crossfade_.size()) / channels);
        const int saved = static_cast<int>(crossfade_.size()) / channels;
        AVFrame *tmp = av_frame_alloc();
        if (tmp) {
            tmp->format = format_;
            tmp->nb_samples = frames;
            if (av_channel_layout_copy(&tmp->ch_layout, &layout_) >= 0 &&
                av_frame_get_buffer(tmp, 0) >= 0 &&
                av_audio_fifo_read(held_, reinterpret_cast<void **>(tmp->extended_data), frames) ==
                    frames) {
                const AVSampleFormat fmt = static_cast<AVSampleFormat>(format_);
                for (int ch = 0; ch < channels; ++ch)
                    for (int i = 0; i < fade; ++i) {
                        const double w = (i + 0.5) / fade;
                        const double v = sampleAt(tmp->extended_data, fmt, channels, ch, i) * w +
                                         crossfade_[static_cast<size_t>(ch) * saved + i] * (1 - w);
                        setSample(tmp->extended_data, fmt, channels, ch, i, v);
                    }
                if (av_audio_fifo_size(ready_) == 0)
                    readyFirst_ = heldFirst_;
                av_audio_fifo_write(ready_, reinterpret_cast<void **>(tmp->extended_data), frames);
            }
            av_frame_free(&tmp);
        }
        av_audio_fifo_reset(held_);
        crossfade_.clear();
        return;
    }
    emit(held_, frames, heldFirst_);
}

void SilenceSkipper::emit(AVAudioFifo *from, int frames, int64_t mediaFirst) {
    if (frames <= 0)
        return;
    AVFrame *tmp = av_frame_alloc();
    if (!tmp)
        return;
    tmp->format = format_;
    tmp->nb_samples = frames;
    if (av_channel_layout_copy(&tmp->ch_layout, &layout_) >= 0 &&
        av_frame_get_buffer(tmp, 0) >= 0 &&
        av_audio_fifo_read(from, reinterpret_cast<void **>(tmp->extended_data), frames) == frames) {
        if (av_audio_fifo_size(ready_) == 0)
            readyFirst_ = mediaFirst;
        av_audio_fifo_write(ready_, reinterpret_cast<void **>(tmp->extended_data), frames);
    }
    av_frame_free(&tmp);
}

// One frame of everything ready: best-effort timestamp in media time, pts continuous.
AVFrame *SilenceSkipper::takeOutput() {
    const int frames = av_audio_fifo_size(ready_);
    if (frames == 0)
        return nullptr;
    av_frame_unref(out_);
    out_->format = format_;
    out_->sample_rate = rate_;
    out_->nb_samples = frames;
    if (av_channel_layout_copy(&out_->ch_layout, &layout_) < 0 ||
        av_frame_get_buffer(out_, 0) < 0 ||
        av_audio_fifo_read(ready_, reinterpret_cast<void **>(out_->extended_data), frames) !=
            frames)
        return nullptr;
    const AVRational perSample{1, rate_};
    out_->best_effort_timestamp = origin_ + av_rescale_q(readyFirst_, perSample, tb_);
    out_->pts = origin_ + av_rescale_q(emitted_, perSample, tb_);
    emitted_ += frames;
    return out_;
}

// --- The extension's operations ------------------------------------------------------------------

#include "AudioEngine.h"

extern "C" AE_EXPORT int ae_ext_set_skip_silence(ae_ext *ext, int level) {
    if (!ext || level < AE_SKIP_SILENCE_OFF || level > AE_SKIP_SILENCE_STRONG)
        return -1;
    AudioEngine::fromExtension(ext)->skipSilence = level;
    return 0;
}

extern "C" AE_EXPORT int ae_ext_get_skip_silence(ae_ext *ext) {
    return ext ? AudioEngine::fromExtension(ext)->skipSilence.load() : -1;
}

extern "C" AE_EXPORT int64_t ae_ext_silence_saved_ms(ae_ext *ext) {
    return ext ? AudioEngine::fromExtension(ext)->skipper->savedMs() : -1;
}

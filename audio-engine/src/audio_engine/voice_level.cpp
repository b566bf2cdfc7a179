// AudioEngine: voice levelling, a graph of its own behind the main filter graph:
//
//   abuffer (s16, 44100 Hz, stereo) -> asetnsamples -> speechnorm -> aformat (s16) -> abuffersink
//
// The normaliser's result depends on how its input is cut into frames, so it gets frames of a
// fixed length: the same file levels the same whatever the decoder and the filters before it
// hand out (and as the ffmpeg tool levels it through the same chain).
// FFmpeg's speech normaliser works live, half-wave by half-wave, with no look-ahead: it raises
// the gain slowly (r per half-wave) while the voice's peaks stay under the target and lowers it
// at once when a peak would pass it, so nothing that did not clip before clips after. Half-waves
// under the threshold (pauses, hiss) let the gain fall (f per half-wave) towards 1/c instead
// of raising them. It sits after the equaliser, on the main graph's output as the card would
// get it (S16: 16 bits keep a quiet voice's noise 70 dB down even after 20 dB of gain); the
// normaliser works in planar float in between.
//
// Being a graph of its own, it is not rebuilt with the main graph (a tempo change, a seek, a
// stream's change of format), so the gain it has reached survives them; only a change of level
// or a new media builds it anew.
#include "AudioEngine.h"

#include "AudioEngineExtension.h"
#include "engine_log.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
}

#include <cstdio>

namespace {

// Target peak 0.5 (-6 dBFS), at most 6 dB of cut (c=2) and so -6 dB in pauses; gentle raises a
// quiet voice by at most 9.5 dB (e=3), strong by 20 dB (e=10). The raise rate r=0.02 per
// half-wave reaches the full gain of a quiet voice within about a second.
const char *const kLevelArgs[] = {
    nullptr,
    "p=0.5:e=3:c=2:r=0.02:f=0.01:t=0.015:l=1",
    "p=0.5:e=10:c=2:r=0.02:f=0.01:t=0.015:l=1",
};

int createTraced(AVFilterContext **ctx, const char *name, const char *label, const char *args,
                 AVFilterGraph *graph) {
    const AVFilter *filter = avfilter_get_by_name(name);
    if (!filter)
        return AVERROR_FILTER_NOT_FOUND;
    if (label)
        fprintf(stderr, "%s: %s\n", label, args);
    return avfilter_graph_create_filter(ctx, filter, nullptr, args, nullptr, graph);
}

} // namespace

int AudioEngine::build_level_graph() {
    free_level_graph();
    const int level = graphVoiceLevel;
    if (level <= AE_VOICE_LEVEL_OFF || level > AE_VOICE_LEVEL_STRONG)
        return 0;
    levelGraph = avfilter_graph_alloc();
    if (!levelGraph) {
        AE_LOG(2, "%s", "unable to create the levelling graph: out of memory");
        return -1;
    }
    const AVRational tb = av_buffersink_get_time_base(abuffersinkCtx);
    char args[256];
    snprintf(args, sizeof args,
             "time_base=%d/%d:sample_rate=44100:sample_fmt=s16:channel_layout=0x%llx", tb.num,
             tb.den, static_cast<unsigned long long>(AV_CH_LAYOUT_STEREO));
    AVFilterContext *frames = nullptr;
    AVFilterContext *norm = nullptr;
    AVFilterContext *format = nullptr;
    int ret = createTraced(&levelSrcCtx, "abuffer", nullptr, args, levelGraph);
    if (ret >= 0)
        ret = createTraced(&frames, "asetnsamples", "level_frames", "n=1024:p=0", levelGraph);
    if (ret >= 0)
        ret = createTraced(&norm, "speechnorm", "speechnorm", kLevelArgs[level], levelGraph);
    if (ret >= 0) {
        snprintf(args, sizeof args, "sample_fmts=s16:sample_rates=44100:channel_layouts=0x%llx",
                 static_cast<unsigned long long>(AV_CH_LAYOUT_STEREO));
        ret = createTraced(&format, "aformat", "level_aformat", args, levelGraph);
    }
    if (ret >= 0)
        ret = createTraced(&levelSinkCtx, "abuffersink", nullptr, "", levelGraph);
    if (ret >= 0)
        ret = avfilter_link(levelSrcCtx, 0, frames, 0);
    if (ret >= 0)
        ret = avfilter_link(frames, 0, norm, 0);
    if (ret >= 0)
        ret = avfilter_link(norm, 0, format, 0);
    if (ret >= 0)
        ret = avfilter_link(format, 0, levelSinkCtx, 0);
    if (ret >= 0)
        ret = avfilter_graph_config(levelGraph, nullptr);
    if (ret < 0) {
        AE_LOG(2, "%s", "error building the levelling graph");
        free_level_graph();
        return ret;
    }
    levelGraphLevel = level;
    levelEnded = false;
    return 0;
}

void AudioEngine::free_level_graph() {
    avfilter_graph_free(&levelGraph); // frees its instances too
    levelSrcCtx = nullptr;
    levelSinkCtx = nullptr;
    levelGraphLevel = AE_VOICE_LEVEL_OFF;
}

// The next frame for the output: from the main graph, or through the levelling graph. At the
// end of the main graph's audio the levelling graph is told the end, so it hands out its rest.
int AudioEngine::pullFiltered(AVFrame *out) {
    if (!levelGraph)
        return av_buffersink_get_frame(abuffersinkCtx, out);
    for (;;) {
        int ret = av_buffersink_get_frame(levelSinkCtx, out);
        if (ret != AVERROR(EAGAIN))
            return ret;
        ret = av_buffersink_get_frame(abuffersinkCtx, out);
        if (ret == AVERROR_EOF && !levelEnded) {
            levelEnded = true;
            if (av_buffersrc_add_frame(levelSrcCtx, nullptr) < 0)
                return AVERROR_EOF;
            continue;
        }
        if (ret < 0)
            return ret;
        ret = av_buffersrc_write_frame(levelSrcCtx, out);
        av_frame_unref(out);
        if (ret < 0)
            return ret;
    }
}

extern "C" AE_EXPORT int ae_ext_set_voice_level(ae_ext *ext, int level) {
    if (!ext || level < AE_VOICE_LEVEL_OFF || level > AE_VOICE_LEVEL_STRONG)
        return -1;
    AudioEngine::fromExtension(ext)->voiceLevel = level;
    return 0;
}

extern "C" AE_EXPORT int ae_ext_get_voice_level(ae_ext *ext) {
    return ext ? AudioEngine::fromExtension(ext)->voiceLevel.load() : -1;
}

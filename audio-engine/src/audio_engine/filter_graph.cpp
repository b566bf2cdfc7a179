// AudioEngine: the filter graph between the decoder and the output.
//
//   abuffer -> atempo -> atempo -> asetrate [-> firequalizer] -> aformat -> abuffersink
//
// Two tempo stages reach 0.25..4.0 with each stage in atempo's comfortable 0.5..2.0. asetrate
// relabels the rate so that the conversion to 44100 Hz in front of aformat changes speed and
// pitch together; the equaliser sits after it, so its frequencies are those that are heard.
// The sink always delivers packed S16 stereo at 44100 Hz.
#include "AudioEngine.h"

#include "AudioEngineExtension.h"

#include "engine_log.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/common.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>

namespace {

// Bound of one formatted argument string, terminator included.
const size_t kFilterArgsSize = 512;
const int kOutputRate = 44100;
// Streams claiming a rate outside these bounds are damaged, not audio: below, the tempo filter
// cannot size its window (it aborts the process under 24 Hz); above, the filters' buffers
// grow with the rate into gigabytes. Real audio stays well inside (8 kHz to 768 kHz).
const int kMinStreamRate = 1000;
const int kMaxStreamRate = 1536000;

const char *sampleFmtName(int format) {
    const char *name = av_get_sample_fmt_name(static_cast<AVSampleFormat>(format));
    return name ? name : "none";
}

// Creates one instance after tracing its argument string as "<label>: <args>".
int createFilter(AVFilterContext **ctx, const AVFilter *filter, const char *label, const char *args,
                 AVFilterGraph *graph) {
    if (label)
        fprintf(stderr, "%s: %s\n", label, args);
    return avfilter_graph_create_filter(ctx, filter, nullptr, args, nullptr, graph);
}

// The channel mask declared to the source for a layout. A layout without a channel mask gets
// the usual one for its channel count: declaring more channels than the decoded frames carry
// would make the source read past their planes. The common unmasked case, two channels, is
// thus declared stereo.
uint64_t declaredChannelMask(const AVChannelLayout &layout) {
    if (layout.order == AV_CHANNEL_ORDER_NATIVE && layout.u.mask != 0)
        return layout.u.mask;
    AVChannelLayout usual;
    av_channel_layout_default(&usual, layout.nb_channels);
    const uint64_t mask = usual.order == AV_CHANNEL_ORDER_NATIVE ? usual.u.mask : 0;
    av_channel_layout_uninit(&usual);
    return mask != 0 ? mask : AV_CH_LAYOUT_STEREO;
}

} // namespace

int AudioEngine::init_filter_graph(AVFormatContext * /*format*/, AVStream *audio) {
    const AVCodecParameters *par = audio->codecpar;
    sourceRate = par->sample_rate;
    sourceFormat = par->format;
    sourceChannelMask = declaredChannelMask(par->ch_layout);
    return build_filter_graph(audio);
}

bool AudioEngine::sourceAccepts(const AVFrame *frame) const {
    // The source fills in the layout of a frame that only tells its channel count.
    const AVChannelLayout &layout = frame->ch_layout;
    return frame->sample_rate == sourceRate && frame->format == sourceFormat &&
           layout.nb_channels == av_popcount64(sourceChannelMask) &&
           (layout.order != AV_CHANNEL_ORDER_NATIVE || layout.u.mask == sourceChannelMask);
}

int AudioEngine::rebuild_for_frame(AVFormatContext *format, AVStream *audio, const AVFrame *frame) {
    sourceRate = frame->sample_rate;
    sourceFormat = frame->format;
    sourceChannelMask = declaredChannelMask(frame->ch_layout);
    AE_LOG(4, "Stream format changed: %d Hz, %s, channel layout 0x%llx", sourceRate,
           sampleFmtName(sourceFormat), static_cast<unsigned long long>(sourceChannelMask));
    return reconfigure_filter_graph(format, audio);
}

int AudioEngine::build_filter_graph(AVStream *audio) {
    graphStartUs = INT64_MIN;
    filterGraph = avfilter_graph_alloc();
    if (!filterGraph) {
        AE_LOG(2, "%s", "unable to create filter graph: out of memory");
        return -1;
    }

    const AVFilter *abuffer = avfilter_get_by_name("abuffer");
    const AVFilter *aformat = avfilter_get_by_name("aformat");
    const AVFilter *abuffersink = avfilter_get_by_name("abuffersink");
    const AVFilter *atempo = avfilter_get_by_name("atempo");
    const AVFilter *atempo2 = avfilter_get_by_name("atempo");
    const AVFilter *asetrate = avfilter_get_by_name("asetrate");
    const AVFilter *firequalizer = avfilter_get_by_name("firequalizer");
    if (!abuffer || !aformat || !abuffersink || !atempo || !atempo2 || !asetrate || !firequalizer) {
        AE_LOG(2, "%s", "a filter of the graph is missing from libavfilter");
        return AVERROR_FILTER_NOT_FOUND;
    }

    char args[kFilterArgsSize];
    int ret;

    if (sourceRate < kMinStreamRate || sourceRate > kMaxStreamRate) {
        AE_LOG(2, "unsupported sample rate %d", sourceRate);
        return AVERROR(EINVAL);
    }

    // Source, in the stream's time base whatever its format, so positions stay comparable.
    snprintf(args, sizeof args,
             "time_base=%d/%d:sample_rate=%d:sample_fmt=%s:channel_layout=0x%llx",
             audio->time_base.num, audio->time_base.den, sourceRate, sampleFmtName(sourceFormat),
             static_cast<unsigned long long>(sourceChannelMask));
    ret = createFilter(&abufferCtx, abuffer, "abuffer", args, filterGraph);
    if (ret < 0) {
        AE_LOG(2, "%s", "error initializing abuffer filter");
        return ret;
    }

    // Tempo, split over two stages whose product is the requested tempo.
    const double t = tempo.load();
    double first = t;
    double second = 1.0;
    if (t < 0.5) {
        first = 0.5;
        second = t * 2;
    } else if (t > 2.0) {
        first = 2.0;
        second = t * 0.5;
    }
    snprintf(args, sizeof args, "tempo=%.1f", first);
    ret = createFilter(&atempoCtx, atempo, "atempo", args, filterGraph);
    if (ret < 0) {
        AE_LOG(2, "%s", "error initializing tempo filter");
        return ret;
    }
    snprintf(args, sizeof args, "tempo=%.1f", second);
    ret = createFilter(&atempo2Ctx, atempo2, "atempo2", args, filterGraph);
    if (ret < 0) {
        AE_LOG(2, "%s", "error initializing tempo filter");
        return ret;
    }
    graphTempo = t;

    // Equaliser, only with points. The filter wants its entries in ascending frequency, so
    // the points are ordered by frequency (equal frequencies keep their given order).
    std::vector<std::pair<int, int>> points;
    {
        std::lock_guard<std::mutex> lock(equalizerMutex);
        points = equalizerSettings;
    }
    std::stable_sort(points.begin(), points.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
    if (!points.empty()) {
        std::string gains = "gain_entry='";
        char entry[64];
        for (size_t i = 0; i < points.size(); i++) {
            snprintf(entry, sizeof entry, "%sentry(%.1f, %.1f)", i ? "; " : "",
                     static_cast<double>(points[i].first), static_cast<double>(points[i].second));
            gains += entry;
        }
        gains += "'";
        ret = createFilter(&firequalizerCtx, firequalizer, "firequalizer", gains.c_str(),
                           filterGraph);
        if (ret < 0) {
            AE_LOG(2, "error initializing firequalizer filter: %s", gains.c_str());
            return ret;
        }
    }

    // Rate stage: the stream's rate times the multiplier, truncated.
    const double multiplier = sampleRateMultiplier.load();
    // Kept within int so the conversion is defined; asetrate refuses what it cannot run.
    const double scaled = sourceRate * multiplier;
    const int rate = scaled >= INT_MAX   ? INT_MAX
                     : scaled <= INT_MIN ? INT_MIN
                                         : static_cast<int>(scaled);
    snprintf(args, sizeof args, "%d", rate);
    ret = createFilter(&asetrateCtx, asetrate, "samplerate", args, filterGraph);
    if (ret < 0) {
        AE_LOG(2, "error initializing asetrate filter: %s", args);
        return ret;
    }
    graphSampleRateMultiplier = multiplier;

    // Output format of the PCM layer (also the levelling graph's input).
    graphVoiceLevel = voiceLevel.load();
    graphSkipSilence = skipSilence.load();
    snprintf(args, sizeof args, "sample_fmts=%s:sample_rates=%d:channel_layouts=0x%llx",
             av_get_sample_fmt_name(AV_SAMPLE_FMT_S16), kOutputRate,
             static_cast<unsigned long long>(AV_CH_LAYOUT_STEREO));
    ret = createFilter(&aformatCtx, aformat, "aformat", args, filterGraph);
    if (ret < 0) {
        AE_LOG(2, "%s", "unable to create aformat filter");
        return ret;
    }

    ret = createFilter(&abuffersinkCtx, abuffersink, nullptr, nullptr, filterGraph);
    if (ret < 0) {
        AE_LOG(2, "%s", "error initializing abuffersink filter");
        return ret;
    }

    AVFilterContext *afterRate = firequalizerCtx ? firequalizerCtx : asetrateCtx;
    ret = avfilter_link(abufferCtx, 0, atempoCtx, 0);
    if (ret >= 0)
        ret = avfilter_link(atempoCtx, 0, atempo2Ctx, 0);
    if (ret >= 0)
        ret = avfilter_link(atempo2Ctx, 0, asetrateCtx, 0);
    if (ret >= 0 && firequalizerCtx)
        ret = avfilter_link(asetrateCtx, 0, firequalizerCtx, 0);
    if (ret >= 0)
        ret = avfilter_link(afterRate, 0, aformatCtx, 0);
    if (ret >= 0)
        ret = avfilter_link(aformatCtx, 0, abuffersinkCtx, 0);
    if (ret < 0) {
        AE_LOG(2, "%s", "error connecting filters");
        return ret;
    }

    ret = avfilter_graph_config(filterGraph, nullptr);
    if (ret < 0) {
        AE_LOG(2, "%s", "error configuring the filter graph");
        return ret;
    }
    // The levelling graph stays as it is unless its level changed.
    if (levelGraphLevel != graphVoiceLevel ||
        (graphVoiceLevel != AE_VOICE_LEVEL_OFF && !levelGraph))
        return build_level_graph();
    return 0;
}

int AudioEngine::reconfigure_filter_graph(AVFormatContext * /*format*/, AVStream *audio) {
    free_filter_graph();
    equalizerChanged = false;
    return build_filter_graph(audio);
}

void AudioEngine::free_filter_graph() {
    AVFilterContext **instances[] = {&abufferCtx, &asetrateCtx,    &aformatCtx,     &atempoCtx,
                                     &atempo2Ctx, &abuffersinkCtx, &firequalizerCtx};
    for (AVFilterContext **instance : instances) {
        if (*instance) {
            avfilter_free(*instance);
            *instance = nullptr;
        }
    }
    avfilter_graph_free(&filterGraph);
}

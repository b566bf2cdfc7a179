// AudioEngine: what the open media tells about itself: the container's tags and its chapters.
#include "AudioEngine.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/mathematics.h>
}

namespace {

// Every entry of `dictionary` in its own order; a key met again ends with its last value.
// Keys and values are copied byte for byte.
std::map<std::string, std::string> readDictionary(const AVDictionary *dictionary) {
    std::map<std::string, std::string> tags;
    const AVDictionaryEntry *entry = nullptr;
    while ((entry = av_dict_get(dictionary, "", entry, AV_DICT_IGNORE_SUFFIX)) != nullptr)
        tags[entry->key] = entry->value;
    return tags;
}

// A chapter bound cut to whole seconds (toward zero), in milliseconds.
int64_t chapterBoundMs(int64_t ts, AVRational tb) {
    return av_rescale_q(ts, tb, AVRational{1, 1000000}) / 1000000 * 1000;
}

} // namespace

// Runs right after the stream information has been read, before the audio stream is chosen.
// Builds both lists first, so a reader on another thread sees the old or the new ones whole.
// Ogg Vorbis and Opus keep their tags in the audio stream's comments, not in the container:
// when the container has none, the tags are those of the stream the open will play.
void AudioEngine::captureMetadata() {
    std::map<std::string, std::string> tags = readDictionary(formatCtx->metadata);
    if (tags.empty()) {
        const int index = av_find_best_stream(formatCtx, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (index >= 0)
            tags = readDictionary(formatCtx->streams[index]->metadata);
    }

    std::vector<Chapter> list;
    list.reserve(formatCtx->nb_chapters);
    for (unsigned int i = 0; i < formatCtx->nb_chapters; ++i) {
        const AVChapter *chapter = formatCtx->chapters[i];
        Chapter c;
        c.startMs = chapterBoundMs(chapter->start, chapter->time_base);
        c.endMs = chapterBoundMs(chapter->end, chapter->time_base);
        c.metadata = readDictionary(chapter->metadata);
        list.push_back(std::move(c));
    }

    std::lock_guard<std::mutex> lock(infoMutex);
    metadata.swap(tags);
    chapters.swap(list);
}

std::map<std::string, std::string> AudioEngine::getMetadata() {
    std::lock_guard<std::mutex> lock(infoMutex);
    return metadata;
}

std::vector<AudioEngine::Chapter> AudioEngine::getChapters() {
    std::lock_guard<std::mutex> lock(infoMutex);
    return chapters;
}

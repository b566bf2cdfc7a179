// AudioEngine: what the open media tells about itself: tags, chapters and the cover picture.
#include "AudioEngine.h"

// Runs right after the stream information has been read. Not wired up yet: the media reports
// no tags and no chapters.
void AudioEngine::captureMetadata() {
    metadata.clear();
    chapters.clear();
}

// Last step of the opening sequence. Not wired up yet: the media has no cover.
void AudioEngine::read_cover() {}

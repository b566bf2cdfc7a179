// AudioEngine: media read from a member of a zip archive ("archive:#zip(member)").
#include "AudioEngine.h"

// Not wired up yet: nothing is attached, so the opening sequence then tries the whole path as
// a plain name, which fails with "Failed to open <path>". When this attaches an I/O context it
// must store it in zipIoCtx; the engine releases it with the demuxer.
void AudioEngine::addAVIOZipContext(const std::string &path) {
    (void)path;
}

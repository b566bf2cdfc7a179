// The extension handle of an engine: the engine itself, behind an opaque type. The listening
// features' C functions live beside the code of each feature.
#include "AudioEngine.h"
#include "AudioEngineExtension.h"

AudioEngine *AudioEngine::fromExtension(ae_ext *ext) {
    return reinterpret_cast<AudioEngine *>(ext);
}

ae_ext *AudioEngine::extension() {
    return reinterpret_cast<ae_ext *>(this);
}

extern "C" AE_EXPORT ae_ext *AudioEngine_GetExtension(tavrel::utilities::IAudioEngine *engine) {
    auto *ours = dynamic_cast<AudioEngine *>(engine);
    return ours ? ours->extension() : nullptr;
}

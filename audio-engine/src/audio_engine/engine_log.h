// Logging of the engine through the platform logger. Every engine source logs under the one
// source name the device's log tools know the engine by.
#ifndef AUDIO_ENGINE_ENGINE_LOG_H
#define AUDIO_ENGINE_ENGINE_LOG_H

#include "qz_log.h"

#define AE_LOG_SOURCE "audio-engine/src/audio_engine.cpp"

// AE_LOG(level, format, ...): 2 failures, 4 progress, 5 details.
#define AE_LOG(level, ...)                                                                         \
    qz_print_log2((level), AE_LOG_SOURCE, __LINE__, __PRETTY_FUNCTION__, __VA_ARGS__)

#endif

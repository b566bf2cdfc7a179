// A chapter of an audiobook, as the player lists the chapters of the open media.
#ifndef AUDIO_ENGINE_AUDIOBOOKCHAPTER_H
#define AUDIO_ENGINE_AUDIOBOOKCHAPTER_H

#include <cstdint>
#include <string>

namespace tavrel {
namespace audio {
namespace AudioBook {

struct Chapter {
    int32_t index = 0;    // position in the media's chapter list, from 0
    std::string filename; // the chapter's own media file when a book spans several files;
                          // empty for chapters of the open media (all the player lists)
    std::string title;    // the chapter's "title" tag, empty when it has none
    int32_t start = 0;    // start in milliseconds (whole seconds)
    int32_t end = 0;      // end in milliseconds (whole seconds)
};

} // namespace AudioBook
} // namespace audio
} // namespace tavrel

#endif

// A playlist entry of the application's media library, as the player receives it.
#ifndef AUDIO_ENGINE_TRACK_H
#define AUDIO_ENGINE_TRACK_H

#include <cstdint>
#include <map>
#include <string>

namespace tavrel {
namespace utilities {
namespace MediaLibraryManager {

// The record belongs to the media library. The player reads only `filename` (the media path it
// opens and the key of every lookup: two tracks are the same file when their names are equal
// byte for byte) and otherwise copies the record whole.
struct Track {
    int32_t id = 0;                          // the library's key of the track
    int32_t albumId = 0;                     // the library's key of the album, 0 when none
    std::string filename;                    // media path, or "archive:#zip(member)"
    std::string title;                       // display title
    int32_t trackNumber = 0;                 // position on the album, 0 when unknown
    std::string artist;                      // performer or narrator
    std::string album;                       // album or book title
    std::string genre;                       // genre text
    int32_t year = 0;                        // release year, 0 when unknown
    std::string composer;                    // composer or author
    int32_t durationSec = 0;                 // duration known to the library, in seconds
    std::string coverPath;                   // picture file the library shows for the track
    std::map<std::string, std::string> tags; // further tags the library keeps
    bool favourite = false;                  // marked by the user
    uint8_t digest[16] = {};                 // content digest the library identifies the file by
};

} // namespace MediaLibraryManager
} // namespace utilities
} // namespace tavrel

#endif

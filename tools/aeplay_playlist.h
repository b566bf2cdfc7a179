// Turning aeplay's inputs into the list of media paths the player opens.
#pragma once

#include <string>
#include <vector>

namespace aeplay {

struct PlayList {
    std::vector<std::string> paths;  // media paths: files and "archive:#zip(member)" names
    std::vector<std::string> errors; // one line per input that gave nothing (not found, ...)
};

// Expands every input, in order:
//  - a folder: its audio files in byte order of their names, subfolders (in the same order)
//    included where they sort;
//  - an .m3u/.m3u8 playlist: its entries (comment and blank lines skipped, relative entries
//    taken from the playlist's folder), each expanded again;
//  - a .zip archive: each audio member, in archive order, as "archive:#zip(member)";
//  - "archive:#zip(member)": kept as it is when the archive exists;
//  - any other existing file: kept as it is (the library decides whether it plays).
// A folder or playlist met again inside itself (a symbolic link back into a folder above, a
// playlist naming itself) is skipped with a line in `errors`, and so is whatever lies deeper
// than 8 folders or playlists.
PlayList build_playlist(const std::vector<std::string> &inputs);

// Whether `name` ends with one of the audio extensions aeplay picks from folders and archives
// (case-insensitive).
bool has_audio_extension(const std::string &name);

// The audio members of a zip archive in archive order, as "archive:#zip(member)", leaving out
// hidden ones (a name part starting with '.') and those under "__MACOSX/". False (with `error`
// set) when the archive cannot be read or holds no such member.
bool list_zip_members(const std::string &archive, std::vector<std::string> *paths,
                      std::string *error);

// The file name shown for a media path: the member of a zip path, else the last path element.
std::string display_name(const std::string &path);

// `text` safe to print on a terminal: tabs and line breaks become spaces, other control
// characters (below 0x20, 0x7F, and U+0080..U+009F in UTF-8) become '?'. For everything read
// from media files and their names: tags, chapter titles, paths.
std::string printable(const std::string &text);

} // namespace aeplay

// Where a book was left: per set of inputs, the track, position and tempo, kept in a small file
// under $XDG_STATE_HOME/aeplay (default ~/.local/state/aeplay) so that the next run of the same
// inputs continues there.
//
// A state file is text, one key per line, ending with "end" (a file cut short by a crash lacks
// it and is ignored):
//   aeplay-place 1
//   input /books/novel            (each command-line input, absolute, in order)
//   track 3                       (index into the play list, from 0)
//   file /books/novel/03.mp3      (that entry's media path, absolute)
//   position 1234                 (seconds into the track)
//   tempo 1.25
//   written 1764000000            (seconds since 1970 when it was written)
//   end
// Paths are escaped: a backslash as "\\", a line break as "\n".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace aeplay {

struct Place {
    int track = 0;       // index into the play list
    std::string file;    // the media path of that entry, absolute
    int position = 0;    // seconds, 0..2147483
    double tempo = 1.0;  // 0.25..4.0
    int64_t written = 0; // seconds since 1970
};

// `path` made absolute without touching the file system beyond the current folder; for a zip
// member ("archive:#zip(member)") the archive part. Symbolic links are resolved when the file
// (or the archive) exists, so two names of one book share a place.
std::string absolute_path(const std::string &path);

// The folder of the state files: $XDG_STATE_HOME/aeplay when that is an absolute path, else
// $HOME/.local/state/aeplay; empty when neither is set.
std::string state_folder();

// The inputs as the state file names them: each absolute, one per line.
std::string book_identity(const std::vector<std::string> &inputs);

// The state file of a book in `folder`: a hash of its identity, "<16 hex digits>.place".
std::string state_path(const std::string &folder, const std::string &identity);

// The text of a state file, and back. parse_place() is false with `error` set (a short reason)
// when the text is not a complete state file of this `identity`.
std::string format_place(const std::string &identity, const Place &place);
bool parse_place(const std::string &text, const std::string &identity, Place *place,
                 std::string *error);

// Reads the place of `identity` from `path`. False with `error` empty when there is no file,
// with `error` set when there is one that cannot be used.
bool load_place(const std::string &path, const std::string &identity, Place *place,
                std::string *error);

// Writes the place atomically: its folder made when missing, a temporary file beside it
// written and flushed to the disk, then renamed over `path`, so that a crash at any moment
// leaves the old place or the new one. False with `error` set on failure.
bool save_place(const std::string &path, const std::string &identity, const Place &place,
                std::string *error);

// Removes the state file (the book has been played to its end). Missing is fine.
void forget_place(const std::string &path);

} // namespace aeplay

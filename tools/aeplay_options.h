// aeplay's command line: the options it understands and their parsing. Kept apart from the
// program so that the tests can check it.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace aeplay {

// Play modes by name, in the order the 'm' key cycles through them. The numbers are
// IPlayer::PlayMode values.
struct ModeName {
    const char *name;
    int mode;
};
extern const ModeName kModeNames[4];
// "sequential", "repeat-list", "repeat-track", "shuffle" (or the number 0..3); -1 when unknown.
int mode_from_name(const std::string &name);
// The name of a mode value; "repeat-track" for values outside 0..3 (the player treats them so).
const char *mode_name(int mode);

struct Options {
    double tempo = 1.0;                  // --tempo, 0.25..4.0
    bool tempoGiven = false;             // --tempo was given (it wins over a resumed tempo)
    double rate = 1.0;                   // --rate, 0.5..2.0
    std::vector<std::pair<int, int>> eq; // --eq "60:3,1000:-2"
    int mode = 2;                        // --mode (IPlayer::Sequential)
    int start = -1;                      // --start, seconds into the first track (at most
                                         // 2147483); -1: none
    std::string device;                  // --device, an ALSA PCM
    std::string wav;                     // --wav, play into this WAV file
    std::string fallbackWav;             // --fallback-wav, the WAV used when there is no card
    bool resume = true;                  // --no-resume: from the start (or --start)
    bool rewind = true;                  // --rewind=off: no rewind after a long pause
    int skipSilence = 0;                 // --skip-silence[=natural|strong]: ae_skip_silence
    int level = 0;                       // --level[=gentle|strong]: ae_voice_level
    int sleepMode = 0;                   // --sleep: ae_sleep_mode
    int64_t sleepMs = 0;                 // --sleep=MINUTES, in milliseconds
    int64_t sleepFadeMs = -1;            // --sleep-fade=SECONDS; -1: the library's default
    bool info = false;                   // --info
    std::string cover;                   // --cover, PNG file for the first track's cover
    bool verbose = false;                // --verbose: the library's own log lines too
    bool help = false;                   // --help
    std::vector<std::string> inputs;     // files, folders, playlists, archives, zip members
};

// Parses argv[1..argc-1] into `options`. On a bad argument returns false and sets `error` to a
// one-line message (without the program name). --help alone is valid without inputs.
bool parse_options(int argc, const char *const *argv, Options *options, std::string *error);

// Parses an equaliser list "60:3,1000:-2" (frequency Hz > 0, gain dB -30..30). An empty text
// is an empty list (no equaliser).
bool parse_eq(const std::string &text, std::vector<std::pair<int, int>> *points,
              std::string *error);

// The usage text printed by --help.
std::string usage_text();

} // namespace aeplay

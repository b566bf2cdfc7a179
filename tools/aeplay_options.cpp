// aeplay's command-line parsing.
#include "aeplay_options.h"

#include "AudioEngineExtension.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace aeplay {

const ModeName kModeNames[4] = {
    {"sequential", 2},
    {"repeat-list", 1},
    {"repeat-track", 0},
    {"shuffle", 3},
};

int mode_from_name(const std::string &name) {
    for (const ModeName &m : kModeNames) {
        if (name == m.name || name == std::to_string(m.mode))
            return m.mode;
    }
    return -1;
}

const char *mode_name(int mode) {
    for (const ModeName &m : kModeNames) {
        if (m.mode == mode)
            return m.name;
    }
    return "repeat-track";
}

namespace {

// The player takes the start position in seconds and turns it into milliseconds in 32 bits.
const double kMaxStartSeconds = 2147483; // INT32_MAX / 1000
const double kMaxSleepMinutes = 1440;    // a day
const double kMaxFadeSeconds = 600;

// A whole decimal number (strtod accepts trailing junk, this does not).
bool to_double(const std::string &text, double *value) {
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    double v = std::strtod(text.c_str(), &end);
    if (errno != 0 || end == text.c_str() || *end != '\0' || !std::isfinite(v))
        return false;
    *value = v;
    return true;
}

bool to_int(const std::string &text, long min, long max, int *value) {
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return false;
    *value = static_cast<int>(v);
    return true;
}

// A value out of `names` (index = the value), for options whose value is optional: a bare
// option means `bare`. False when the name is unknown.
bool choose(const std::string &value, bool has_value, std::initializer_list<const char *> names,
            int bare, int *out) {
    if (!has_value) {
        *out = bare;
        return true;
    }
    int index = 0;
    for (const char *name : names) {
        if (value == name) {
            *out = index;
            return true;
        }
        ++index;
    }
    return false;
}

} // namespace

bool parse_eq(const std::string &text, std::vector<std::pair<int, int>> *points,
              std::string *error) {
    points->clear();
    if (text.empty())
        return true;
    size_t begin = 0;
    while (begin <= text.size()) { // every comma separates two items: "60:3," is an error
        size_t comma = text.find(',', begin);
        if (comma == std::string::npos)
            comma = text.size();
        const std::string item = text.substr(begin, comma - begin);
        const size_t colon = item.find(':');
        int frequency = 0;
        int gain = 0;
        if (colon == std::string::npos || !to_int(item.substr(0, colon), 1, 1000000, &frequency) ||
            !to_int(item.substr(colon + 1), -30, 30, &gain)) {
            *error = "bad equaliser point '" + item +
                     "' (expected FREQUENCY:GAIN, e.g. 60:3,1000:-2; gain -30..30 dB)";
            return false;
        }
        points->emplace_back(frequency, gain);
        begin = comma + 1;
    }
    return true;
}

bool parse_options(int argc, const char *const *argv, Options *options, std::string *error) {
    Options o;
    bool only_inputs = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (only_inputs || arg.empty() || arg[0] != '-' || arg == "-") {
            o.inputs.push_back(arg);
            continue;
        }
        if (arg == "--") {
            only_inputs = true;
            continue;
        }
        // "--name=value" or "--name value".
        std::string name = arg;
        std::string value;
        bool has_value = false;
        const size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            has_value = true;
        }
        // A file or device name given as the next word must not look like an option: a
        // forgotten value would otherwise swallow the option after it. "--name=-x" takes any.
        auto take_value = [&](std::string *out, bool is_name = false) {
            if (has_value) {
                *out = value;
                return true;
            }
            if (i + 1 >= argc) {
                *error = "option " + name + " needs a value";
                return false;
            }
            if (is_name && argv[i + 1][0] == '-') {
                *error = "option " + name + " needs a value before '" + argv[i + 1] +
                         "' (a name starting with '-' goes as " + name + "=NAME)";
                return false;
            }
            *out = argv[++i];
            return true;
        };
        auto no_value = [&] {
            if (has_value) {
                *error = "option " + name + " takes no value";
                return false;
            }
            return true;
        };

        std::string v;
        if (name == "--help" || name == "-h") {
            if (!no_value())
                return false;
            o.help = true;
        } else if (name == "--info") {
            if (!no_value())
                return false;
            o.info = true;
        } else if (name == "--verbose" || name == "-v") {
            if (!no_value())
                return false;
            o.verbose = true;
        } else if (name == "--tempo") {
            if (!take_value(&v))
                return false;
            if (!to_double(v, &o.tempo) || o.tempo < 0.25 || o.tempo > 4.0) {
                *error = "bad tempo '" + v + "' (0.25..4.0)";
                return false;
            }
            o.tempoGiven = true;
        } else if (name == "--rate") {
            if (!take_value(&v))
                return false;
            if (!to_double(v, &o.rate) || o.rate < 0.5 || o.rate > 2.0) {
                *error = "bad rate '" + v + "' (0.5..2.0)";
                return false;
            }
        } else if (name == "--eq") {
            if (!take_value(&v) || !parse_eq(v, &o.eq, error))
                return false;
        } else if (name == "--mode") {
            if (!take_value(&v))
                return false;
            o.mode = mode_from_name(v);
            if (o.mode < 0) {
                *error = "bad mode '" + v + "' (sequential, repeat-list, repeat-track, shuffle)";
                return false;
            }
        } else if (name == "--no-resume") {
            if (!no_value())
                return false;
            o.resume = false;
        } else if (name == "--rewind") {
            int on = 1;
            if (!choose(value, has_value, {"off", "on"}, 1, &on)) {
                *error = "bad rewind '" + value + "' (on or off)";
                return false;
            }
            o.rewind = on != 0;
        } else if (name == "--skip-silence") {
            if (!choose(value, has_value, {"off", "natural", "strong"}, AE_SKIP_SILENCE_NATURAL,
                        &o.skipSilence)) {
                *error = "bad skip-silence level '" + value + "' (natural, strong or off)";
                return false;
            }
        } else if (name == "--level") {
            if (!choose(value, has_value, {"off", "gentle", "strong"}, AE_VOICE_LEVEL_GENTLE,
                        &o.level)) {
                *error = "bad level '" + value + "' (gentle, strong or off)";
                return false;
            }
        } else if (name == "--sleep") {
            if (!take_value(&v))
                return false;
            double minutes = 0;
            if (v == "off") {
                o.sleepMode = AE_SLEEP_OFF;
            } else if (v == "chapter") {
                o.sleepMode = AE_SLEEP_END_OF_CHAPTER;
            } else if (v == "track") {
                o.sleepMode = AE_SLEEP_END_OF_TRACK;
            } else if (to_double(v, &minutes) && minutes > 0 && minutes <= kMaxSleepMinutes) {
                o.sleepMode = AE_SLEEP_AFTER_TIME;
                o.sleepMs = static_cast<int64_t>(std::llround(minutes * 60000));
            } else {
                *error = "bad sleep '" + v + "' (minutes up to 1440, chapter, track or off)";
                return false;
            }
        } else if (name == "--sleep-fade") {
            if (!take_value(&v))
                return false;
            double seconds = 0;
            if (!to_double(v, &seconds) || seconds < 0 || seconds > kMaxFadeSeconds) {
                *error = "bad sleep fade '" + v + "' (seconds, 0..600)";
                return false;
            }
            o.sleepFadeMs = static_cast<int64_t>(std::llround(seconds * 1000));
        } else if (name == "--start") {
            if (!take_value(&v))
                return false;
            double seconds = 0;
            if (!to_double(v, &seconds) || seconds < 0 || seconds > kMaxStartSeconds) {
                *error = "bad start '" + v + "' (seconds, 0..2147483)";
                return false;
            }
            o.start = static_cast<int>(seconds);
        } else if (name == "--device" || name == "--wav" || name == "--fallback-wav" ||
                   name == "--cover") {
            if (!take_value(&v, true))
                return false;
            if (v.empty()) {
                *error = "option " + name + " needs a value";
                return false;
            }
            std::string *target = name == "--device"  ? &o.device
                                  : name == "--wav"   ? &o.wav
                                  : name == "--cover" ? &o.cover
                                                      : &o.fallbackWav;
            *target = v;
        } else {
            *error = "unknown option '" + arg + "' (see --help)";
            return false;
        }
    }
    if (!o.device.empty() && !o.wav.empty()) {
        *error = "--device and --wav exclude each other";
        return false;
    }
    if (!o.help && o.inputs.empty()) {
        *error = "nothing to play (see --help)";
        return false;
    }
    *options = std::move(o);
    return true;
}

std::string usage_text() {
    return R"USAGE(usage: aeplay [options] INPUT...

Plays audio files, folders (their audio files in name order, subfolders included), M3U
playlists, zip archives (each audio member in archive order) and zip members
("book.zip:#zip(part01.mp3)").

options:
  --tempo T          speed at constant pitch, 0.25..4.0 (default 1.0)
  --rate R           speed and pitch together, 0.5..2.0 (default 1.0)
  --eq F:G,...       equaliser points, frequency Hz and gain dB, e.g. 60:3,1000:-2
  --mode M           sequential (default), repeat-list, repeat-track or shuffle
  --start S          start the first track S seconds in (0..2147483), not where the
                     book was left
  --no-resume        start from the beginning, not where the book was left
  --rewind=on|off    after a pause of over a minute, and when a book is resumed in a
                     later run, start a little earlier: 3 s after a minute, 10 s after
                     an hour, 20 s after a day (default on)
  --skip-silence[=natural|strong]
                     shorten long pauses: natural (the default) cuts gaps over half a
                     second to a quarter second, strong goes further
  --level[=gentle|strong]
                     voice levelling: raise a quiet narrator, hold back a loud one
                     (default gentle)
  --sleep=M|chapter|track
                     pause after M minutes of playing (up to 1440), at the end of the
                     chapter or at the end of the track; without a terminal aeplay then
                     ends, keeping the place
  --sleep-fade=S     fade out over S seconds before a timed pause (default 10, 0..600)
  --device NAME      play on this ALSA PCM instead of "mpd_sm"
  --wav FILE         write the audio into a WAV file instead of a sound card
  --fallback-wav F   the WAV file used when no sound card can be opened
                     (default $TMPDIR/aeplay.wav)
  --info             print tags, chapters and duration of each input and exit
  --cover FILE.png   write the first input's cover picture as a PNG and exit
  --verbose          also show the library's own log lines
  --help             this text
A name starting with '-' is written with '=': --wav=-out.wav, --device=-x.

Where each book was left (the same inputs given again) is kept in
$XDG_STATE_HOME/aeplay (default ~/.local/state/aeplay): its track, position and tempo.

keys (in a terminal):
  space pause/resume   n/p next/previous track   left/right seek 10 s
  c/C next/previous chapter   [ ] tempo   { } rate   + - volume   m mode   q quit
  s skip silence (off, natural, strong)   l levelling (off, gentle, strong)
  z sleep timer (off, 15, 30, 60 min, chapter, track)   Z 10 more minutes
  r rewind after a pause on/off
)USAGE";
}

} // namespace aeplay

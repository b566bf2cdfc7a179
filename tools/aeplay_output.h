// Where aeplay's sound goes: the ALSA PCM handed to the library's output layer.
//
// The library plays on the PCM "mpd_sm" unless set_alsa_device_name() names another one, and it
// reads no configuration of its own. On the device "mpd_sm" exists; on a development machine it
// usually does not, so aeplay chooses:
//   --device NAME   that PCM (it must open);
//   --wav FILE      a private ALSA "file" PCM that writes a WAV file (no sound card needed);
//   otherwise       "mpd_sm" when it opens, else "default" when it opens, else a WAV file
//                   (--fallback-wav, default $TMPDIR/aeplay.wav) whose path is printed.
// Everything here must run before the first player is created (the first ALSA use of the
// library), because the WAV output is an ALSA configuration added for this process only.
#pragma once

#include <cstdio>
#include <string>

namespace aeplay {

struct Output {
    std::string device;     // PCM name for set_alsa_device_name(); empty: the library's "mpd_sm"
    std::string wavPath;    // the WAV file being written, empty when playing on a sound card
    std::string configPath; // the private ALSA configuration file, removed by finish_output()
};

// Whether the PCM `name` can be opened for playback now (a busy device counts as present).
bool pcm_available(const std::string &name);

// Chooses the output as described above. False with `error` set when --device names a PCM that
// cannot be opened or the WAV output cannot be prepared.
bool choose_output(const std::string &device, const std::string &wav,
                   const std::string &fallbackWav, Output *output, std::string *error);

// Makes the WAV output: writes a private ALSA configuration that defines the PCM "aeplay_wav"
// (a "file" PCM writing `path` in front of a "null" PCM), adds it to ALSA_CONFIG_PATH for this
// process and removes an old `path`. The null PCM keeps no time, so the file is written as fast
// as the library decodes.
bool prepare_wav_output(const std::string &path, Output *output, std::string *error);

// Call once playback is over and the output layer has been shut down (deinit_alsa_output(),
// which closes the PCM: ALSA writes the WAV header's sizes at that close). The output layer
// closes the PCM after one second without audio (a long pause) and opens it again later; ALSA
// then continues in numbered files PATH.0001, PATH.0002...; this appends them to PATH so that one
// WAV holds everything played, and removes the private configuration.
void finish_output(const Output &output);

// Keeps the library's diagnostics off the screen unless `verbose`: its log lines (host build),
// ALSA's error messages and the traces the output layer writes to standard error go to
// $TMPDIR/aeplay.log instead (file descriptor 2 is redirected there). Returns the stream for
// aeplay's own messages: the original standard error.
FILE *set_library_log(bool verbose);

} // namespace aeplay

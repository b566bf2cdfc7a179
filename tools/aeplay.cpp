// aeplay: a command-line player built on the library's playlist player (IPlayer).
//
// Besides being a useful tool, aeplay is the reference for how an application drives the
// player; aeplay_app.h states the threading rules it follows. The program's parts:
//   aeplay_options   the command line          aeplay_playlist  inputs to media paths
//   aeplay_output    the ALSA PCM or WAV file  aeplay_info   --info and --cover
//   aeplay_app       the run loop and moves    aeplay_keys      the keys
//   aeplay_status    the status line           aeplay_terminal  raw mode and signals
//   aeplay_events    the main loop's wake-ups  aeplay_format    clock times and tags
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

#include "IPlayer.h"
#include "alsa_device.h"

#include "aeplay_app.h"
#include "aeplay_events.h"
#include "aeplay_info.h"
#include "aeplay_options.h"
#include "aeplay_output.h"
#include "aeplay_playlist.h"
#include "aeplay_terminal.h"

using tavrel::utilities::IPlayer;

int main(int argc, char **argv) {
    // aeplay's own error messages (standard error as it was at start; see set_library_log).
    FILE *errors = stderr;
    aeplay::Options options;
    std::string error;
    if (!aeplay::parse_options(argc, argv, &options, &error)) {
        std::fprintf(errors, "aeplay: %s\n", error.c_str());
        return 2;
    }
    if (options.help) {
        std::fputs(aeplay::usage_text().c_str(), stdout);
        return 0;
    }
    errors = aeplay::set_library_log(options.verbose);

    const aeplay::PlayList list = aeplay::build_playlist(options.inputs);
    for (const std::string &problem : list.errors)
        std::fprintf(errors, "aeplay: %s\n", aeplay::printable(problem).c_str());
    if (list.paths.empty()) {
        std::fprintf(errors, "aeplay: nothing to play\n");
        return 1;
    }
    if (!aeplay::events().open()) {
        std::fprintf(errors, "aeplay: cannot create a pipe: %s\n", std::strerror(errno));
        return 1;
    }

    // The output must be chosen before the first player exists: creating one already opens the
    // sound device once.
    const bool infoOnly = options.info || !options.cover.empty();
    aeplay::Output output;
    if (!infoOnly) {
        if (!aeplay::choose_output(options.device, options.wav, options.fallbackWav, &output,
                                   &error)) {
            std::fprintf(errors, "aeplay: %s\n", error.c_str());
            return 1;
        }
        if (!output.device.empty())
            set_alsa_device_name(output.device.c_str());
        if (!output.wavPath.empty())
            std::printf("aeplay: %swriting the audio to %s\n",
                        options.wav.empty() ? "no sound card found; " : "", output.wavPath.c_str());
        else if (output.device == "default" && options.device.empty())
            std::printf("aeplay: no \"mpd_sm\" PCM here; playing on \"default\"\n");
        std::fflush(stdout);
    }

    IPlayer *player = AudioEngine_CreatePlayer();
    if (player == nullptr) {
        std::fprintf(errors, "aeplay: cannot create the player\n");
        aeplay::finish_output(output);
        return 1;
    }

    int status;
    if (infoOnly) {
        status = aeplay::showInfo(options, player, list.paths, errors);
    } else {
        const bool keys = isatty(STDIN_FILENO) != 0;
        const bool statusLine = isatty(STDOUT_FILENO) != 0;
        aeplay::install_signal_handlers(keys);
        if (keys)
            aeplay::enter_raw_mode();
        aeplay::App app(options, player, list.paths, keys, statusLine, errors);
        status = app.run();
        aeplay::leave_raw_mode();
    }

    AudioEngine_DestroyPlayer(player);
    // The output layer's thread outlives the players; ending it closes the PCM, which is when
    // ALSA writes the final sizes into a WAV file's header.
    deinit_alsa_output();
    aeplay::finish_output(output);
    if (!output.wavPath.empty() && !infoOnly)
        std::printf("aeplay: wrote %s\n", output.wavPath.c_str());
    return status;
}

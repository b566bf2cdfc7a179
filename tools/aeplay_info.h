// --info and --cover: each input opened without playing it.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "IPlayer.h"
#include "aeplay_options.h"

namespace aeplay {

// Prints the tags, chapters, duration and cover size of each path (--info) and writes the
// first cover as a PNG (--cover). Problems go to `errors`. Returns the exit status.
int showInfo(const Options &options, tavrel::utilities::IPlayer *player,
             const std::vector<std::string> &paths, FILE *errors);

} // namespace aeplay

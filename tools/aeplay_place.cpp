// Where the book was left: read at the start, written while playing and at the end.
#include <algorithm>
#include <climits>
#include <ctime>

#include "aeplay_app.h"
#include "aeplay_format.h"

using tavrel::utilities::IPlayer;

namespace aeplay {

namespace {

// While playing, the place is written this often: a crash or a pulled battery loses no more.
const auto kKeepEvery = std::chrono::seconds(5);

} // namespace

void App::findPlaceFile() {
    const std::string folder = state_folder();
    if (folder.empty()) {
        message("neither XDG_STATE_HOME nor HOME is set: the place in the book is not kept", true);
        return;
    }
    identity_ = book_identity(options_.inputs);
    placePath_ = state_path(folder, identity_);
    for (const std::string &path : paths_)
        files_.push_back(absolute_path(path));
}

// The entry and position to start at, from the state file, unless --start or --no-resume say
// otherwise. A file that cannot be used is reported and left to be overwritten.
bool App::resumePlace(int *track, int *position) {
    if (placePath_.empty() || !options_.resume || options_.start >= 0)
        return false;
    Place place;
    std::string error;
    if (!load_place(placePath_, identity_, &place, &error)) {
        if (!error.empty())
            message("ignoring the saved place in " + placePath_ + ": " + error +
                        "; starting from the beginning",
                    true);
        return false;
    }
    int index = -1;
    if (place.track < static_cast<int>(files_.size()) && files_[place.track] == place.file)
        index = place.track;
    for (size_t i = 0; i < files_.size() && index < 0; ++i) {
        if (files_[i] == place.file)
            index = static_cast<int>(i); // the list changed around it
    }
    if (index < 0) {
        message("the saved place, in " + place.file +
                ", is no longer among the inputs; starting from the beginning");
        return false;
    }
    if (!options_.tempoGiven)
        player_->setTempo(place.tempo);
    // The rewind after a long pause holds across runs: the book was left when the place was
    // last written (a pause keeps the time it began).
    std::string rewound;
    const int64_t pausedMs = (static_cast<int64_t>(std::time(nullptr)) - place.written) * 1000;
    if (options_.rewind && pausedMs > 0) {
        const int back = static_cast<int>((ae_ext_rewind_for_pause_ms(pausedMs) + 500) / 1000);
        if (back > 0) {
            rewound = " (" + std::to_string(std::min(back, place.position)) + " s back after " +
                      clock_text(static_cast<int>(std::min<int64_t>(pausedMs / 1000, INT_MAX))) +
                      " away)";
            place.position = std::max(0, place.position - back);
        }
    }
    *track = index;
    *position = place.position;
    message("resuming track " + std::to_string(index + 1) + "/" + std::to_string(paths_.size()) +
            " at " + clock_text(place.position) + rewound);
    return true;
}

// Writes the place when it changed: at once when `now` (a track started, quitting), else at
// most every few seconds while playing. A write that fails is reported once; playback goes on.
void App::keepPlace(bool now) {
    const int current = player_->GetCurrentTrack();
    if (placePath_.empty() || !started() || current >= static_cast<int>(files_.size()))
        return;
    Place place;
    place.track = current;
    place.file = files_[current];
    place.position = player_->GetTrackPosition();
    place.tempo = player_->getTempo();
    if (place.track == kept_.track && place.file == kept_.file &&
        place.position == kept_.position && place.tempo == kept_.tempo)
        return; // unchanged: a long pause keeps the time it began
    const auto clock = std::chrono::steady_clock::now();
    if (!now && player_->GetState() == IPlayer::Playing && clock - keptAt_ < kKeepEvery)
        return;
    place.written = static_cast<int64_t>(std::time(nullptr));
    std::string error;
    if (save_place(placePath_, identity_, place, &error)) {
        kept_ = place;
        keptAt_ = clock;
        placeFailed_ = false;
    } else if (!placeFailed_) {
        placeFailed_ = true;
        message("cannot keep the place in the book: " + error, true);
    }
}

} // namespace aeplay

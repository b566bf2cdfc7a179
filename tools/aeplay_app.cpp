// The run loop of the player program and its moves through the list.
#include "aeplay_app.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

#include "aeplay_events.h"
#include "aeplay_format.h"
#include "aeplay_playlist.h"
#include "aeplay_terminal.h"

using tavrel::utilities::IPlayer;
using tavrel::utilities::PlayerCb;

namespace aeplay {

namespace {

// The player's callbacks: record and wake, nothing else (rule 2).
class PlayerEvents : public PlayerCb {
public:
    void OnTrackChanged() override { events().post(EventPipe::kTrack); }
    void OnStateChanged() override { events().post(EventPipe::kState); }
    void OnPositionChanged() override { events().post(EventPipe::kPosition); }
};

} // namespace

int App::run() {
    PlayerEvents callbacks;
    player_->setCb(&callbacks);

    std::vector<IPlayer::Track> tracks(paths_.size());
    for (size_t i = 0; i < paths_.size(); ++i) {
        tracks[i].id = static_cast<int32_t>(i + 1); // tells which entry the player started
        tracks[i].filename = paths_[i];
        tracks[i].title = display_name(paths_[i]);
    }
    player_->SetPlayList(tracks);
    player_->SetMode(static_cast<IPlayer::PlayMode>(options_.mode));
    player_->setTempo(options_.tempo);
    player_->setSampleRateMultiplier(options_.rate);
    if (!options_.eq.empty())
        player_->setEqualizerSettings(options_.eq);

    startListening();
    findPlaceFile();
    start();
    while (!quit_) {
        pollfd fds[2] = {{events().fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (poll(fds, keys_ ? 2 : 1, -1) < 0 && errno != EINTR)
            break;
        const unsigned happened = events().take();
        if (happened & EventPipe::kQuit)
            quit_ = true;
        if (happened & EventPipe::kSuspend)
            suspend_now(); // Ctrl-Z: give the terminal back, stop for real
        if (happened & EventPipe::kResume) {
            resumed();
            shownStatus_.clear();
        }
        if (!quit_ && (happened & EventPipe::kState))
            handleState();
        if (!quit_ && (happened & EventPipe::kSleep))
            sleepFired();
        if (!quit_ && keys_ && (fds[1].revents & (POLLIN | POLLHUP))) {
            char buffer[64];
            const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
            const std::string keys(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            for (size_t pos = 0; pos < keys.size() && !quit_;)
                handleKey(keys, &pos);
        }
        if (!quit_) {
            keepPlace(false);
            refresh();
        }
    }

    if (listEnded_)
        forget_place(placePath_); // played to the end: the next run starts afresh
    else
        keepPlace(true);
    // Rule 4: stop (joins the play thread; callbacks may still fire during it), then detach.
    player_->SetState(IPlayer::Stopped);
    player_->setCb(nullptr);
    if (ext_ != nullptr)
        ae_ext_set_sleep_callback(ext_, nullptr, nullptr);
    if (statusLine_ && !shownStatus_.empty())
        std::printf("\n");
    if (!playedAny_ && exitCode_ == 0)
        exitCode_ = 1;
    return exitCode_;
}

// Starts where the book was left, else the first playable entry: the first of the list (at
// --start), or a random one when shuffling.
void App::start() {
    int first = 0;
    int position = options_.start;
    const bool resumed = resumePlace(&first, &position);
    if (options_.mode == IPlayer::Shuffle && !resumed) {
        move(Move::Next);
        if (!quit_ && options_.start > 0)
            player_->SetTrackPosition(options_.start);
        return;
    }
    for (size_t i = static_cast<size_t>(first); i < paths_.size(); ++i) {
        if (player_->PlayTrack(static_cast<int>(i), static_cast<int>(i) == first ? position : -1,
                               false) == 0 &&
            started()) {
            trackStarted();
            return;
        }
        message("cannot play " + paths_[i] + ", skipped", true);
    }
    message("nothing could be played", true);
    quit_ = true;
}

// Whether the entry the player now points at has been started. PlayTrack sets the current
// index and the playing track only when it opened the file; NextTrack and PreviousTrack set the
// index first. A failed open leaves the engine closed (Stopped).
bool App::started() {
    const int current = player_->GetCurrentTrack();
    return current >= 0 && player_->GetState() != IPlayer::Stopped &&
           player_->GetPlayingTrack().id == current + 1;
}

// Moves through the list by the play mode, skipping entries that do not open.
void App::move(Move how) {
    for (size_t attempt = 0; attempt <= paths_.size(); ++attempt) {
        const int before = player_->GetCurrentTrack();
        const int playingBefore = player_->GetPlayingTrack().id;
        if (how == Move::Previous)
            player_->PreviousTrack();
        else if (how == Move::Next)
            player_->NextTrack();
        else
            player_->HandlePlayerStateChanged(); // starts the next track if this one finished
        const int current = player_->GetCurrentTrack();

        if (started()) {
            if (current != before || player_->GetPlayingTrack().id != playingBefore ||
                how != Move::AfterStateChange)
                trackStarted();
            return;
        }
        if (current == before && attempt > 0)
            break; // the mode goes no further (Sequential at either end)
        if (current == before && player_->GetState() != IPlayer::Stopped)
            return; // nothing moved and nothing broke: the end of the list, handled by caller
        if (current >= 0 && current < static_cast<int>(paths_.size()))
            message("cannot play " + paths_[current] + ", skipped", true);
        if (how == Move::AfterStateChange)
            how = Move::Next;
    }
    if (player_->GetState() == IPlayer::Stopped) {
        message("nothing more to play", true);
        quit_ = true;
    }
}

// A track has started: read what it tells about itself and announce it.
void App::trackStarted() {
    playedAny_ = true;
    const auto tags = player_->getMetadata();
    title_ = tag(tags, "title");
    artist_ = tag(tags, "artist");
    if (artist_.empty())
        artist_ = tag(tags, "album_artist");
    if (title_.empty())
        title_ = player_->GetPlayingTrack().title;
    title_ = printable(title_);
    artist_ = printable(artist_);
    chapters_ = player_->getChapters();
    for (auto &chapter : chapters_)
        chapter.title = printable(chapter.title);
    lastChapter_ = -1;
    announceTrack();
    keepPlace(true);
}

// After OnStateChanged: read the state here, on the main thread, and act on it.
void App::handleState() {
    switch (player_->GetState()) {
    case IPlayer::Finished:
        move(Move::AfterStateChange);
        if (!quit_ && player_->GetState() == IPlayer::Finished) {
            if (!statusLine_)
                std::printf("end of the list\n");
            quit_ = true; // Sequential mode after the last track
            listEnded_ = true;
        }
        break;
    case IPlayer::Stopped:
        // We never stop the player before quitting, so the output layer gave up: the sound
        // device could not be opened or went away.
        message("the sound output stopped (the ALSA device could not be used)", true);
        exitCode_ = 1;
        quit_ = true;
        break;
    default:
        break;
    }
}

// The chapter that `position` (seconds) falls in, -1 before the first or without chapters.
int App::currentChapter(int position) const {
    int found = -1;
    for (size_t i = 0; i < chapters_.size(); ++i) {
        if (static_cast<int64_t>(position) * 1000 >= chapters_[i].start)
            found = static_cast<int>(i);
    }
    return found;
}

} // namespace aeplay

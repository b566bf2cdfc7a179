// aeplay: a command-line player built on the library's playlist player (IPlayer).
//
// Besides being a useful tool, this file is the reference for how an application drives the
// player. The rules it follows:
//
//  1. One application thread (here: main) makes every IPlayer call. The player does not
//     serialise its callers.
//  2. PlayerCb handlers run on the library's play thread, or on our own thread from inside our
//     own IPlayer calls. They never call the player's transport. They only record what happened
//     and wake the main loop: an atomic flag and one byte written to a self-pipe. Neither can
//     block, so a handler that fires while our thread sits in SetState(Stopped) waiting for the
//     play thread cannot deadlock.
//  3. The main loop waits with poll() on the self-pipe (player events and signals) and on the
//     keyboard, then reads the player's state on its own thread and acts: after a state change
//     it calls HandlePlayerStateChanged(), which starts the next track when one has finished.
//  4. Shutdown: SetState(Stopped) (joins the play thread), setCb(nullptr), destroy the player,
//     then deinit_alsa_output() so the sound device is closed (and a WAV file finalised).
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <string>
#include <strings.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "IPlayer.h"
#include "alsa_device.h"

#include "aeplay_cover.h"
#include "aeplay_options.h"
#include "aeplay_output.h"
#include "aeplay_playlist.h"

using tavrel::utilities::IPlayer;
using tavrel::utilities::PlayerCb;

namespace {

// --- Events from the player and from signals ------------------------------------------------

// Wakes the main loop. post() may be called from any thread and from signal handlers: it sets a
// bit in an atomic word and writes one byte to a non-blocking pipe only when the bit was clear,
// so the pipe never fills up however fast position events arrive.
class EventPipe {
public:
    enum Event : unsigned {
        kState = 1u << 0,    // OnStateChanged
        kPosition = 1u << 1, // OnPositionChanged
        kTrack = 1u << 2,    // OnTrackChanged
        kQuit = 1u << 3,     // SIGINT, SIGTERM, SIGHUP
        kSuspend = 1u << 4,  // SIGTSTP (Ctrl-Z)
        kResume = 1u << 5,   // SIGCONT
    };

    bool open() { return pipe2(fds_, O_NONBLOCK | O_CLOEXEC) == 0; }
    ~EventPipe() {
        for (int fd : fds_) {
            if (fd >= 0)
                close(fd);
        }
    }

    void post(Event event) {
        if ((pending_.fetch_or(event) & event) == 0) {
            const char byte = 0;
            ssize_t ignored = write(fds_[1], &byte, 1); // full pipe: a wake-up is pending anyway
            (void)ignored;
        }
    }

    // The events posted since the last call (main loop only).
    unsigned take() {
        char buffer[64];
        while (read(fds_[0], buffer, sizeof buffer) > 0) {
        }
        return pending_.exchange(0);
    }

    int fd() const { return fds_[0]; }

private:
    int fds_[2] = {-1, -1};
    std::atomic<unsigned> pending_{0};
    static_assert(std::atomic<unsigned>::is_always_lock_free, "post() runs in signal handlers");
};

EventPipe events;

// aeplay's own error messages (standard error as it was at start; see set_library_log).
FILE *errors = stderr;

// The player's callbacks: record and wake, nothing else (see rule 2 above).
class PlayerEvents : public PlayerCb {
public:
    void OnTrackChanged() override { events.post(EventPipe::kTrack); }
    void OnStateChanged() override { events.post(EventPipe::kState); }
    void OnPositionChanged() override { events.post(EventPipe::kPosition); }
};

// --- The terminal -----------------------------------------------------------------------------

// Raw keyboard mode (no line buffering, no echo; Ctrl-C still raises SIGINT). The saved
// settings live in plain globals so that signal handlers can restore them (tcsetattr is
// async-signal-safe).
termios saved_termios;
volatile sig_atomic_t terminal_raw = 0;

void enter_raw_mode() {
    if (terminal_raw || tcgetattr(STDIN_FILENO, &saved_termios) != 0)
        return;
    termios raw = saved_termios;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw) == 0)
        terminal_raw = 1;
}

void leave_raw_mode() {
    if (terminal_raw) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_termios);
        terminal_raw = 0;
    }
}

void on_quit_signal(int) {
    static volatile sig_atomic_t count = 0;
    if (++count > 1) { // a second Ctrl-C: the program seems stuck, leave at once
        if (terminal_raw)
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_termios);
        _exit(130);
    }
    events.post(EventPipe::kQuit);
}

void on_suspend_signal(int) {
    events.post(EventPipe::kSuspend);
}

void on_continue_signal(int) {
    events.post(EventPipe::kResume);
}

// Crashes and the other signals that end a program (SIGQUIT, SIGUSR1, ...): give the terminal
// back, then die of the same signal (SA_RESETHAND re-arms the default action, which takes
// effect when the handler returns).
void on_fatal_signal(int sig) {
    if (terminal_raw)
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_termios);
    raise(sig);
}

// Installs `sa` for `sig` unless the signal was ignored when the program started (SIGHUP under
// nohup, SIGINT for a background job of a shell without job control): that choice stays.
void handle_unless_ignored(int sig, const struct sigaction &sa) {
    struct sigaction old {};
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN)
        return;
    sigaction(sig, &sa, nullptr);
}

void install_signal_handlers(bool keys) {
    struct sigaction sa {};
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = on_quit_signal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        handle_unless_ignored(sig, sa);
    if (keys) {
        sa.sa_handler = on_suspend_signal;
        handle_unless_ignored(SIGTSTP, sa);
        sa.sa_handler = on_continue_signal;
        sigaction(SIGCONT, &sa, nullptr);
    }
    sa.sa_handler = on_fatal_signal;
    sa.sa_flags = SA_RESETHAND;
    for (int sig : {SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU, SIGXFSZ})
        handle_unless_ignored(sig, sa);
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
        sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN); // output into a closed pipe: write() fails instead
}

int terminal_columns() {
    winsize ws{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0)
        return ws.ws_col;
    return 80;
}

// --- Formatting -------------------------------------------------------------------------------

std::string clock_text(int seconds) {
    if (seconds < 0)
        seconds = 0;
    char text[32];
    if (seconds >= 3600)
        std::snprintf(text, sizeof text, "%d:%02d:%02d", seconds / 3600, seconds / 60 % 60,
                      seconds % 60);
    else
        std::snprintf(text, sizeof text, "%d:%02d", seconds / 60, seconds % 60);
    return text;
}

// A tag by name, ignoring case (containers differ: "title", "TITLE", "Title").
std::string tag(const std::map<std::string, std::string> &tags, const std::string &name) {
    for (const auto &entry : tags) {
        if (strcasecmp(entry.first.c_str(), name.c_str()) == 0)
            return entry.second;
    }
    return "";
}

// Cuts UTF-8 text to `columns` characters (one column per character is close enough).
std::string fit(const std::string &text, int columns) {
    int count = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80 && ++count > columns)
            return text.substr(0, i);
    }
    return text;
}

// Tags and chapter titles come from the media file: they go through aeplay::printable() so that
// control characters in them cannot reach the terminal.
void print_info(IPlayer *player, const std::string &path) {
    std::printf("%s\n  duration: %s\n", aeplay::printable(path).c_str(),
                clock_text(player->GetTrackSize()).c_str());
    const auto tags = player->getMetadata();
    if (tags.empty())
        std::printf("  tags: none\n");
    for (const auto &entry : tags)
        std::printf("  %s: %s\n", aeplay::printable(entry.first).c_str(),
                    aeplay::printable(entry.second).c_str());
    const auto chapters = player->getChapters();
    std::printf("  chapters: %zu\n", chapters.size());
    for (const auto &chapter : chapters)
        std::printf(
            "    %d. %s - %s  %s\n", chapter.index + 1, clock_text(chapter.start / 1000).c_str(),
            clock_text(chapter.end / 1000).c_str(), aeplay::printable(chapter.title).c_str());
    if (const qz_bitmap *cover = player->getCover())
        std::printf("  cover: %dx%d %s\n", cover->width, cover->height,
                    cover->format == QZ_BITMAP_RGB24 ? "colour" : "grey");
    else
        std::printf("  cover: none\n");
}

// --- The player program -------------------------------------------------------------------------

class App {
public:
    App(const aeplay::Options &options, IPlayer *player, const std::vector<std::string> &paths,
        bool keys, bool statusLine)
        : options_(options), player_(player), paths_(paths), keys_(keys), statusLine_(statusLine) {}

    // Plays the list; returns the exit status.
    int run();

private:
    enum class Move { Next, Previous, AfterStateChange };

    void start();
    void move(Move how);
    bool started();
    void trackStarted();
    void handleState();
    void handleKey(const std::string &keys, size_t *pos);
    void seekBy(int seconds);
    void chapter(int direction);
    int currentChapter(int position) const;
    void message(const std::string &text, bool error = false);
    void refresh();
    std::string statusText();

    const aeplay::Options &options_;
    IPlayer *player_;
    const std::vector<std::string> &paths_;
    const bool keys_;
    const bool statusLine_;

    bool quit_ = false;
    bool playedAny_ = false;
    int exitCode_ = 0;
    // What the open track tells about itself, read once when it starts (main thread), made
    // printable.
    std::string title_;
    std::string artist_;
    std::vector<tavrel::audio::AudioBook::Chapter> chapters_;
    int lastChapter_ = -1;
    std::string shownStatus_;
};

int App::run() {
    PlayerEvents callbacks;
    player_->setCb(&callbacks);

    std::vector<IPlayer::Track> tracks(paths_.size());
    for (size_t i = 0; i < paths_.size(); ++i) {
        tracks[i].id = static_cast<int32_t>(i + 1); // tells which entry the player started
        tracks[i].filename = paths_[i];
        tracks[i].title = aeplay::display_name(paths_[i]);
    }
    player_->SetPlayList(tracks);
    player_->SetMode(static_cast<IPlayer::PlayMode>(options_.mode));
    player_->setTempo(options_.tempo);
    player_->setSampleRateMultiplier(options_.rate);
    if (!options_.eq.empty())
        player_->setEqualizerSettings(options_.eq);

    start();
    while (!quit_) {
        pollfd fds[2] = {{events.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (poll(fds, keys_ ? 2 : 1, -1) < 0 && errno != EINTR)
            break;
        const unsigned happened = events.take();
        if (happened & EventPipe::kQuit)
            quit_ = true;
        if (happened & EventPipe::kSuspend) {
            // Ctrl-Z: give the terminal back, stop for real, take it again on SIGCONT.
            leave_raw_mode();
            std::printf("\n");
            std::fflush(stdout);
            signal(SIGTSTP, SIG_DFL);
            raise(SIGTSTP);
        }
        if (happened & EventPipe::kResume) {
            struct sigaction sa {};
            sa.sa_handler = on_suspend_signal;
            sigaction(SIGTSTP, &sa, nullptr);
            enter_raw_mode();
            shownStatus_.clear();
        }
        if (!quit_ && (happened & EventPipe::kState))
            handleState();
        if (!quit_ && keys_ && (fds[1].revents & (POLLIN | POLLHUP))) {
            char buffer[64];
            const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
            const std::string keys(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            for (size_t pos = 0; pos < keys.size() && !quit_;)
                handleKey(keys, &pos);
        }
        if (!quit_)
            refresh();
    }

    // Rule 4: stop (joins the play thread; callbacks may still fire during it), then detach.
    player_->SetState(IPlayer::Stopped);
    player_->setCb(nullptr);
    if (statusLine_ && !shownStatus_.empty())
        std::printf("\n");
    if (!playedAny_ && exitCode_ == 0)
        exitCode_ = 1;
    return exitCode_;
}

// Starts the first playable entry: the first of the list (at --start), or a random one when
// shuffling.
void App::start() {
    if (options_.mode == IPlayer::Shuffle) {
        move(Move::Next);
        if (!quit_ && options_.start > 0)
            player_->SetTrackPosition(options_.start);
        return;
    }
    for (size_t i = 0; i < paths_.size(); ++i) {
        if (player_->PlayTrack(static_cast<int>(i), i == 0 ? options_.start : -1, false) == 0 &&
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
    title_ = aeplay::printable(title_);
    artist_ = aeplay::printable(artist_);
    chapters_ = player_->getChapters();
    for (auto &chapter : chapters_)
        chapter.title = aeplay::printable(chapter.title);
    lastChapter_ = -1;
    if (!statusLine_) {
        std::string line = "track " + std::to_string(player_->GetCurrentTrack() + 1) + "/" +
                           std::to_string(paths_.size()) + ": " + title_;
        if (!artist_.empty())
            line += " - " + artist_;
        line += " (" + clock_text(player_->GetTrackSize()) + ")";
        if (!chapters_.empty())
            line += ", " + std::to_string(chapters_.size()) + " chapters";
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }
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

void App::handleKey(const std::string &keys, size_t *pos) {
    const char key = keys[(*pos)++];
    // Arrow keys arrive as ESC [ C (right) and ESC [ D (left).
    if (key == '\033') {
        if (*pos + 1 < keys.size() && keys[*pos] == '[') {
            const char arrow = keys[*pos + 1];
            *pos += 2;
            if (arrow == 'C')
                seekBy(10);
            else if (arrow == 'D')
                seekBy(-10);
        }
        return;
    }
    switch (key) {
    case ' ':
        player_->TogglePlaying();
        break;
    case 'n':
        move(Move::Next);
        break;
    case 'p':
        move(Move::Previous);
        break;
    case 'c':
        chapter(+1);
        break;
    case 'C':
        chapter(-1);
        break;
    case '[':
    case ']':
        player_->setTempo(player_->getTempo() + (key == ']' ? 0.1 : -0.1));
        break;
    case '{':
    case '}':
        player_->setSampleRateMultiplier(player_->getSampleRateMultiplier() +
                                         (key == '}' ? 0.05 : -0.05));
        break;
    case '+':
    case '=':
    case '-': {
        int volume = player_->GetVolume() + (key == '-' ? -5 : 5);
        volume = volume < 0                         ? 0
                 : volume > player_->GetMaxVolume() ? player_->GetMaxVolume()
                                                    : volume;
        player_->SetVolume(volume);
        break;
    }
    case 'm': {
        // Cycle through the modes in the order of kModeNames.
        const int count =
            static_cast<int>(sizeof aeplay::kModeNames / sizeof aeplay::kModeNames[0]);
        int index = 0;
        while (index < count && aeplay::kModeNames[index].mode != player_->GetMode())
            ++index;
        player_->SetMode(
            static_cast<IPlayer::PlayMode>(aeplay::kModeNames[(index + 1) % count].mode));
        break;
    }
    case 'q':
    case 'Q':
        quit_ = true;
        break;
    default:
        break;
    }
}

void App::seekBy(int seconds) {
    const int size = player_->GetTrackSize();
    int target = player_->GetTrackPosition() + seconds;
    if (target > size - 1)
        target = size - 1;
    player_->SetTrackPosition(target < 0 ? 0 : target);
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

// c: the next chapter's start. C: back to the start of this chapter, or to the previous one
// when this one started less than three seconds ago.
void App::chapter(int direction) {
    if (chapters_.empty()) {
        message("this track has no chapters");
        return;
    }
    const int position = player_->GetTrackPosition();
    int index = currentChapter(position);
    if (direction > 0) {
        if (index + 1 >= static_cast<int>(chapters_.size()))
            return;
        ++index;
    } else if (index < 0) {
        index = 0;
    } else if (position - chapters_[index].start / 1000 < 3 && index > 0) {
        --index;
    }
    player_->SetTrackPosition(chapters_[index].start / 1000);
}

// A line of its own: errors to standard error, notes to standard output. In a terminal the
// status line is cleared first and drawn again by the next refresh.
void App::message(const std::string &text, bool error) {
    if (statusLine_ && !shownStatus_.empty()) {
        std::printf("\r\033[K");
        std::fflush(stdout);
        shownStatus_.clear();
    }
    std::fprintf(error ? errors : stdout, "aeplay: %s\n", aeplay::printable(text).c_str());
    std::fflush(error ? errors : stdout);
}

std::string App::statusText() {
    const int position = player_->GetTrackPosition();
    const int size = player_->GetTrackSize();
    std::string text;
    switch (player_->GetState()) {
    case IPlayer::Playing:
        text = "> ";
        break;
    case IPlayer::Paused:
        text = "|| ";
        break;
    default:
        text = "- ";
        break;
    }
    text += title_;
    if (!artist_.empty())
        text += " - " + artist_;
    const int chapter = currentChapter(position);
    if (chapter >= 0) {
        text += " | ch " + std::to_string(chapter + 1) + "/" + std::to_string(chapters_.size());
        if (!chapters_[chapter].title.empty())
            text += " " + chapters_[chapter].title;
    }
    const int barWidth = 20;
    const int filled = size > 0 ? (position >= size ? barWidth : position * barWidth / size) : 0;
    text += " | " + clock_text(position) + "/" + clock_text(size) + " [" +
            std::string(filled, '#') + std::string(barWidth - filled, '.') + "]";
    char settings[96];
    std::snprintf(settings, sizeof settings, " | tempo %.2f rate %.2f vol %d | %s",
                  player_->getTempo(), player_->getSampleRateMultiplier(), player_->GetVolume(),
                  aeplay::mode_name(player_->GetMode()));
    return text + settings;
}

// Redraws the status line (terminal) or reports a new chapter (plain output).
void App::refresh() {
    if (!statusLine_) {
        const int chapter = currentChapter(player_->GetTrackPosition());
        if (chapter >= 0 && chapter != lastChapter_) {
            lastChapter_ = chapter;
            std::printf("  chapter %d/%zu: %s\n", chapter + 1, chapters_.size(),
                        chapters_[chapter].title.c_str());
            std::fflush(stdout);
        }
        return;
    }
    const std::string text = fit(statusText(), terminal_columns() - 1);
    if (text == shownStatus_)
        return;
    shownStatus_ = text;
    std::printf("\r\033[K%s", text.c_str());
    std::fflush(stdout);
}

// --info and --cover: open each entry without playing it.
int inspect(const aeplay::Options &options, IPlayer *player,
            const std::vector<std::string> &paths) {
    int status = 0;
    bool coverWritten = false;
    for (const std::string &path : paths) {
        if (player->openFile(path) != 0) {
            std::fprintf(errors, "aeplay: cannot open %s\n", aeplay::printable(path).c_str());
            status = 1;
            continue;
        }
        if (options.info)
            print_info(player, path);
        if (!options.cover.empty() && !coverWritten) {
            coverWritten = true;
            std::string error;
            const qz_bitmap *cover = player->getCover();
            if (cover == nullptr) {
                std::fprintf(errors, "aeplay: %s has no cover picture\n",
                             aeplay::printable(path).c_str());
                status = 1;
            } else if (!aeplay::write_png(*cover, options.cover, &error)) {
                std::fprintf(errors, "aeplay: %s\n", error.c_str());
                status = 1;
            } else {
                std::printf("cover %dx%d written to %s\n", cover->width, cover->height,
                            options.cover.c_str());
            }
            if (!options.info)
                break;
        }
    }
    return status;
}

} // namespace

int main(int argc, char **argv) {
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
    if (!events.open()) {
        std::fprintf(errors, "aeplay: cannot create a pipe: %s\n", std::strerror(errno));
        return 1;
    }

    // The output must be chosen before the first player exists: creating one already opens the
    // sound device once.
    const bool inspectOnly = options.info || !options.cover.empty();
    aeplay::Output output;
    if (!inspectOnly) {
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
    if (inspectOnly) {
        status = inspect(options, player, list.paths);
    } else {
        const bool keys = isatty(STDIN_FILENO) != 0;
        const bool statusLine = isatty(STDOUT_FILENO) != 0;
        install_signal_handlers(keys);
        if (keys)
            enter_raw_mode();
        App app(options, player, list.paths, keys, statusLine);
        status = app.run();
        leave_raw_mode();
    }

    AudioEngine_DestroyPlayer(player);
    // The output layer's thread outlives the players; ending it closes the PCM, which is when
    // ALSA writes the final sizes into a WAV file's header.
    deinit_alsa_output();
    aeplay::finish_output(output);
    if (!output.wavPath.empty() && !inspectOnly)
        std::printf("aeplay: wrote %s\n", output.wavPath.c_str());
    return status;
}

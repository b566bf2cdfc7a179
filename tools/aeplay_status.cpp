// What the player program shows: the status line in a terminal, plain lines otherwise.
#include "aeplay_app.h"

#include "aeplay_format.h"
#include "aeplay_playlist.h"
#include "aeplay_terminal.h"

using tavrel::utilities::IPlayer;

namespace aeplay {

// Without a status line, a line per track.
void App::announceTrack() {
    if (statusLine_)
        return;
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

// A line of its own: errors to standard error, notes to standard output. In a terminal the
// status line is cleared first and drawn again by the next refresh.
void App::message(const std::string &text, bool error) {
    if (statusLine_ && !shownStatus_.empty()) {
        std::printf("\r\033[K");
        std::fflush(stdout);
        shownStatus_.clear();
    }
    std::fprintf(error ? errors_ : stdout, "aeplay: %s\n", printable(text).c_str());
    std::fflush(error ? errors_ : stdout);
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
            std::string(filled, '#') + std::string(barWidth - filled, '.') + "]" + listeningText();
    char settings[96];
    std::snprintf(settings, sizeof settings, " | tempo %.2f rate %.2f vol %d | %s",
                  player_->getTempo(), player_->getSampleRateMultiplier(), player_->GetVolume(),
                  mode_name(player_->GetMode()));
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

} // namespace aeplay

// The keys of the player program (in a terminal).
#include "aeplay_app.h"

using tavrel::utilities::IPlayer;

namespace aeplay {

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
        const int count = static_cast<int>(sizeof kModeNames / sizeof kModeNames[0]);
        int index = 0;
        while (index < count && kModeNames[index].mode != player_->GetMode())
            ++index;
        player_->SetMode(static_cast<IPlayer::PlayMode>(kModeNames[(index + 1) % count].mode));
        break;
    }
    case 's':
    case 'l':
    case 'r':
    case 'z':
    case 'Z':
        listeningKey(key);
        break;
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

} // namespace aeplay

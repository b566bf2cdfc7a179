// Player: the queue of files to play next (consumed by NextTrack) and the playing track.
#include "Player.h"

#include <algorithm>

namespace tavrel {
namespace player {

void Player::EnqueueTrack(unsigned int trackNum) {
    if (trackNum >= playList.size())
        return;
    queue.push_back(playList[trackNum].filename);
}

void Player::DequeueTrack(unsigned int trackNum) {
    if (trackNum >= playList.size())
        return;
    auto it = std::find(queue.begin(), queue.end(), playList[trackNum].filename);
    if (it != queue.end())
        queue.erase(it);
}

int Player::GetTrackEnqueueIndex(unsigned int trackNum) {
    if (trackNum >= playList.size())
        return -1;
    auto it = std::find(queue.begin(), queue.end(), playList[trackNum].filename);
    return it == queue.end() ? -1 : static_cast<int>(it - queue.begin());
}

Player::Track Player::GetPlayingTrack() {
    return playingTrack;
}

} // namespace player
} // namespace tavrel

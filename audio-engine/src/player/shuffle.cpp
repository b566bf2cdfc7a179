// Player: the shuffle order and the successor and predecessor of the current track in it.
#include "Player.h"

#include <cstdlib>
#include <ctime>
#include <map>

namespace tavrel {
namespace player {

void Player::GenerateRandomSequence() {
    // Every track draws a key below n; sorting by key (ties keep playlist order, as a multimap
    // inserts equal keys after the ones present) gives the order.
    srand(static_cast<unsigned>(time(nullptr)));
    const size_t n = playList.size();
    std::multimap<unsigned, unsigned> byKey;
    for (size_t i = 0; i < n; ++i)
        byKey.emplace(static_cast<unsigned>(rand()) % n, static_cast<unsigned>(i));
    randomSequence.resize(n);
    size_t position = 0;
    for (const auto &entry : byKey)
        randomSequence[position++] = entry.second;
}

void Player::syncRandomSequence() {
    if (randomSequence.size() != playList.size())
        GenerateRandomSequence();
}

int Player::randomPositionOfCurrent() const {
    const unsigned current = static_cast<unsigned>(currentTrack);
    for (size_t i = 0; i < randomSequence.size(); ++i) {
        if (randomSequence[i] == current)
            return static_cast<int>(i);
    }
    return -1;
}

unsigned Player::NextRandom() {
    syncRandomSequence();
    const int at = randomPositionOfCurrent();
    if (at < 0)
        return 0; // also for an empty order: the first playlist track
    if (static_cast<size_t>(at) + 1 == randomSequence.size())
        return randomSequence.front();
    return randomSequence[at + 1];
}

unsigned Player::PrevRandom() {
    syncRandomSequence();
    const int at = randomPositionOfCurrent();
    if (at < 0)
        return 0;
    if (at == 0)
        return randomSequence.back();
    return randomSequence[at - 1];
}

} // namespace player
} // namespace tavrel

// The exported C factories of the player.
#include "Player.h"

extern "C" {

AE_EXPORT tavrel::utilities::IPlayer *AudioEngine_CreatePlayer() {
    // A throwing constructor releases the memory and passes the failure on.
    return new tavrel::player::Player();
}

AE_EXPORT void AudioEngine_DestroyPlayer(tavrel::utilities::IPlayer *player) {
    delete player;
}

} // extern "C"

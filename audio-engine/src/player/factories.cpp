// The exported C factories of the player, and its extension handle.
#include "AudioEngineExtension.h"
#include "Player.h"

extern "C" {

AE_EXPORT tavrel::utilities::IPlayer *AudioEngine_CreatePlayer() {
    // A throwing constructor releases the memory and passes the failure on.
    return new tavrel::player::Player();
}

AE_EXPORT void AudioEngine_DestroyPlayer(tavrel::utilities::IPlayer *player) {
    delete player;
}

AE_EXPORT ae_ext *AudioEngine_GetPlayerExtension(tavrel::utilities::IPlayer *player) {
    auto *ours = dynamic_cast<tavrel::player::Player *>(player);
    return ours ? ours->embeddedEngine().extension() : nullptr;
}

} // extern "C"

// Skip silence and voice levelling on a bare engine: plays one file with pauses shortened and
// the voice levelled, and prints how much time skip silence saved.
//
//   ae_example_skip_and_level book.mp3 [natural|strong] [gentle|strong]
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "AudioEngineExtension.h"
#include "IAudioEngine.h"

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s FILE [natural|strong] [gentle|strong]\n", argv[0]);
        return 2;
    }
    tavrel::utilities::IAudioEngine *engine = AudioEngine_CreateAudioEngine();
    engine->setStateChangedCb([] {}); // a bare engine must have one
    ae_ext *ext = AudioEngine_GetExtension(engine);
    const bool strongSkip = argc > 2 && strcmp(argv[2], "strong") == 0;
    const bool strongLevel = argc > 3 && strcmp(argv[3], "strong") == 0;
    ae_ext_set_skip_silence(ext, strongSkip ? AE_SKIP_SILENCE_STRONG : AE_SKIP_SILENCE_NATURAL);
    ae_ext_set_voice_level(ext, strongLevel ? AE_VOICE_LEVEL_STRONG : AE_VOICE_LEVEL_GENTLE);

    if (engine->openFile(argv[1]) != 0 || engine->start() != 0) {
        fprintf(stderr, "cannot play %s\n", argv[1]);
        AudioEngine_DestroyAudioEngine(engine);
        return 1;
    }
    // Positions stay in the book's time; the time saved is what the listener did not wait for.
    while (engine->getState() == 1) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        printf("\rposition %lld s, saved %.1f s",
               static_cast<long long>(engine->getPosition() / 1000),
               ae_ext_silence_saved_ms(ext) / 1000.0);
        fflush(stdout);
    }
    printf("\n");
    engine->closeFile();
    AudioEngine_DestroyAudioEngine(engine);
    return 0;
}

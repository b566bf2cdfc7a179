// Arbitrary bytes as media read from a caller stream: open, tags, chapters, cover, then
// playback to the end (bounded) with a tempo, rate and equaliser taken from the input.
//
// Input: [tempo] [rate] [flags] [equaliser: count, points...] [16 operation bytes] [media...]
//   flags bit 0: the stream refuses seeks; bit 1: the stream does not know its size.
#include "fuzz_harness.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ae_fuzz::init();
    ae_fuzz::IAudioEngine *engine = ae_fuzz::engine();
    ae_fuzz::Input in(data, size);
    const double tempo = in.speed(0.25, 4.0);
    const double rate = in.speed(0.5, 2.0);
    const uint8_t flags = in.u8();
    const std::vector<std::pair<int, int>> eq = in.equalizer(8);
    uint8_t ops[16] = {};
    for (uint8_t &op : ops)
        op = in.u8();

    ae_fuzz::ByteStream stream(in.rest(), in.remaining(), (flags & 1) == 0, (flags & 2) == 0);
    engine->setTempo(tempo);
    engine->setSampleRateMultiplier(rate);
    engine->setEqualizerSettings(eq);
    if (engine->openWithStream(&stream) == 0) {
        ae_fuzz::inspect(engine);
        ae_fuzz::Input opInput(ops, sizeof ops);
        ae_fuzz::playBounded(engine, opInput, 300, 400);
    }
    engine->closeFile();
    engine->setTempo(1.0);
    engine->setSampleRateMultiplier(1.0);
    engine->setEqualizerSettings({});
    return 0;
}

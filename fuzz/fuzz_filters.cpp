// The filter settings: tempo, rate and equaliser values and lists from the input, applied before
// and while a short generated tone plays (its sample rate and channel count also from the input).
//
// Input: [tone format] [initial tempo] [initial rate] [initial equaliser] [operations...]
#include "fuzz_harness.h"

#include <map>

namespace {

const int kRates[] = {8000, 11025, 22050, 44100, 48000, 96000, 7350, 192000};

const std::vector<uint8_t> &tone(int rate, int channels) {
    static std::map<std::pair<int, int>, std::vector<uint8_t>> tones;
    std::vector<uint8_t> &wav = tones[{rate, channels}];
    if (wav.empty())
        wav = ae_fuzz::toneWav(rate, channels, 400);
    return wav;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ae_fuzz::init();
    ae_fuzz::IAudioEngine *engine = ae_fuzz::engine();
    ae_fuzz::Input in(data, size);
    const uint8_t format = in.u8();
    const std::vector<uint8_t> &wav = tone(kRates[format % 8], (format & 8) ? 1 : 2);
    engine->setTempo(in.speed(0.25, 4.0));
    engine->setSampleRateMultiplier(in.speed(0.5, 2.0));
    engine->setEqualizerSettings(in.equalizer(32));

    ae_fuzz::ByteStream stream(wav.data(), wav.size(), true, true);
    if (engine->openWithStream(&stream) == 0) {
        ae_fuzz::playBounded(engine, in, 400, 1000);
    }
    engine->closeFile();
    engine->setTempo(1.0);
    engine->setSampleRateMultiplier(1.0);
    engine->setEqualizerSettings({});
    return 0;
}

// AudioEngine: construction, destruction, the trivial operations and the C factories.
#include "AudioEngine.h"

#include "alsa_device.h"
#include "engine_log.h"
#include "silence_skip.h"

#include <cmath>

AudioEngine::AudioEngine()
    : formatCtx(nullptr), decoderCtx(nullptr), coverDecoderCtx(nullptr), audioStreamIndex(-1),
      state(Stopped), seekRequested(false), seekTargetMs(0), positionMs(-1), lastPositionMs(-1),
      filterGraph(nullptr), abufferCtx(nullptr), asetrateCtx(nullptr), aformatCtx(nullptr),
      atempoCtx(nullptr), atempo2Ctx(nullptr), firequalizerCtx(nullptr), abuffersinkCtx(nullptr),
      tempo(1.0), sampleRateMultiplier(1.0), graphTempo(1.0), graphSampleRateMultiplier(1.0),
      equalizerChanged(false), durationMs(0), coverStreamIndex(-1), cover(nullptr),
      streamIoCtx(nullptr), streamIoBuffer(nullptr), stream(nullptr),
      zip_reader(std::make_shared<tavrel::QzZipManager>()), zipIoCtx(nullptr), mediaOpen(false),
      decoderOpen(false), skipper(std::make_unique<SilenceSkipper>()) {
    // The first engine of a session probes the device once at the standard rate and sets up
    // the mixer; while another engine plays (device open) both are left alone.
    if (is_alsa_opened() == 0) {
        open_alsa(44100);
        close_alsa();
        AlsaMixerInit("mpd_volume");
    }
}

AudioEngine::~AudioEngine() {
    // The owner normally stops and closes first. Whatever is still running or held is ended
    // here without notifying anybody from this thread: the play thread (if any) sees Stopped,
    // fires its own last notifications and is joined.
    state = Stopped;
    if (playThread.joinable() && playThread.get_id() != std::this_thread::get_id())
        playThread.join();
    releaseMedia();
    freeStreamIo();
}

void AudioEngine::setTrackPositionChangedCb(std::function<void()> cb) {
    trackPositionChangedCb = std::move(cb);
}

void AudioEngine::setStateChangedCb(std::function<void()> cb) {
    stateChangedCb = std::move(cb);
}

void AudioEngine::setErrorCallback(std::function<void(ErrorType)> cb) {
    errorCb = std::move(cb);
}

int AudioEngine::getState() {
    return state.load();
}

bool AudioEngine::isFileOpened() {
    return mediaOpen.load();
}

// Settings that no filter could take (NaN, infinities) are ignored; values out of a filter's
// range make the next graph build fail, which the open and the play loop report.
void AudioEngine::setTempo(double value) {
    if (std::isfinite(value))
        tempo = value;
}

double AudioEngine::getTempo() {
    return tempo.load();
}

void AudioEngine::setSampleRateMultiplier(double multiplier) {
    if (std::isfinite(multiplier))
        sampleRateMultiplier = multiplier;
}

double AudioEngine::getSampleRateMultiplier() {
    return sampleRateMultiplier.load();
}

int64_t AudioEngine::getDurationMs() {
    return durationMs;
}

int AudioEngine::setVolume(int volume) {
    return AlsaMixerSetVolume(volume);
}

int AudioEngine::getVolume() {
    long volume = 0;
    if (AlsaMixerGetVolume(&volume) != 0)
        return -1;
    return static_cast<int>(volume);
}

void AudioEngine::setEqualizerSettings(std::vector<std::pair<int, int>> settings) {
    {
        std::lock_guard<std::mutex> lock(equalizerMutex);
        equalizerSettings = std::move(settings);
    }
    equalizerChanged = true;
}

extern "C" AE_EXPORT tavrel::utilities::IAudioEngine *AudioEngine_CreateAudioEngine() {
    try {
        return new AudioEngine();
    } catch (const std::exception &e) {
        AE_LOG(2, "%s", e.what());
        return nullptr;
    }
}

extern "C" AE_EXPORT void AudioEngine_DestroyAudioEngine(tavrel::utilities::IAudioEngine *engine) {
    delete engine;
}

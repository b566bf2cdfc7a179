// AudioEngine: the one playback pipeline behind IAudioEngine.
//
// Sources by concern:
//   audio_engine.cpp   construction, destruction, trivial operations, factories
//   media_open.cpp     opening, closing and releasing the media
//   caller_stream.cpp  the I/O context over an application's IAudioEngineStream
//   zip_input.cpp      the I/O context over a zip member
//   media_info.cpp     tags and chapters of the open media
//   cover_art.cpp      the cover picture of the open media
//   filter_graph.cpp   the tempo / rate / equaliser / output-format filter graph
//   silence_skip.cpp   skip silence, a stage on decoded audio in front of the graph
//   voice_level.cpp    voice levelling, a graph of its own behind the main one
//   play_loop.cpp      the play thread and the transport operations
//   extension.cpp      the handle of the listening features (AudioEngineExtension.h)
//   sleep_engine.cpp   the sleep timer's stops in the play loop, the rewind after a long pause
//   sleep_timer.cpp    the sleep timer's count and fade, the rewind rule
#ifndef AUDIO_ENGINE_AUDIOENGINE_H
#define AUDIO_ENGINE_AUDIOENGINE_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "IAudioEngine.h"
#include "IAudioEngineStream.h"
#include "QzZipManager.h"
#include "bitmap.h"
#include "sleep_timer.h"

extern "C" {
struct AVCodecContext;
struct AVFilterContext;
struct AVFilterGraph;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct AVStream;
}

struct abuf_piece;
struct ae_ext;
class SilenceSkipper;

class AudioEngine final : public tavrel::utilities::IAudioEngine {
public:
    using ErrorType = tavrel::utilities::IAudioEngine::ErrorType;
    using Chapter = tavrel::utilities::IAudioEngine::Chapter;
    using IAudioEngineStream = tavrel::utilities::IAudioEngineStream;

    enum State { Stopped = 0, Playing = 1, Paused = 2, Finished = 3 };

    AudioEngine();
    ~AudioEngine() override;
    AudioEngine(const AudioEngine &) = delete;
    AudioEngine &operator=(const AudioEngine &) = delete;

    // --- IAudioEngine (audio_engine.cpp, media_open.cpp, play_loop.cpp) ----------------------
    void setTrackPositionChangedCb(std::function<void()> cb) override;
    void setStateChangedCb(std::function<void()> cb) override;
    void setErrorCallback(std::function<void(ErrorType)> cb) override;
    int openFile(const std::string &path) override;
    int openWithStream(IAudioEngineStream *stream) override;
    void closeFile() override;
    int start() override;
    int stop() override;
    int pause() override;
    int resume() override;
    int seekStream(int ms) override;
    int getState() override;
    int64_t getPosition() override;
    bool isFileOpened() override;
    void setTempo(double tempo) override;
    double getTempo() override;
    void setSampleRateMultiplier(double multiplier) override;
    double getSampleRateMultiplier() override;
    int64_t getDurationMs() override;
    int setVolume(int volume) override;
    int getVolume() override;
    void setEqualizerSettings(std::vector<std::pair<int, int>> settings) override;
    std::map<std::string, std::string> getMetadata() override;
    std::vector<Chapter> getChapters() override;
    qz_bitmap *getCover() override;

    // --- Extension handle (extension.cpp) --------------------------------------------------------
    // The handle of AudioEngineExtension.h is the engine itself.
    ae_ext *extension();
    static AudioEngine *fromExtension(ae_ext *ext);

    // --- Opening and releasing (media_open.cpp) -----------------------------------------------
    // The opening sequence for a path (io null) or a custom I/O context: 0 or -1.
    int openFileInt(const std::string &path, AVIOContext *io);
    // Releases the graph, both decoders, the demuxer (and a zip I/O context) and the cover;
    // safe to run any number of times. Logs "Cleanup audio engine".
    void cleanup();

    // --- Caller stream I/O (caller_stream.cpp); opaque is the engine ---------------------------
    static int doReadPacket(void *opaque, uint8_t *buf, int buf_size);
    static int64_t doSeek(void *opaque, int64_t offset, int whence);

    // --- Zip member I/O (zip_input.cpp) --------------------------------------------------------
    // Splits "archive:#zip(member)", opens the member in zip_reader and attaches a 1 MiB I/O
    // context over it to formatCtx (allocated here). On failure nothing is attached.
    void addAVIOZipContext(const std::string &path);
    // The I/O callbacks; opaque is the engine. End of the member reads as AVERROR_EOF.
    static int AVIOZip_read_packet(void *opaque, uint8_t *buf, int buf_size);
    static int64_t AVIOZip_seek(void *opaque, int64_t offset, int whence);
    // Moves in the selected member and returns the reader's position afterwards. Forward moves
    // skip; a target before the current position restarts the member and skips from its start.
    int64_t seek_set(int64_t offset);
    int64_t seek_cur(int64_t offset);
    int64_t seek_end(int64_t offset);
    int64_t seek_force(int64_t offset);
    int64_t seek_size();
    int read_packet(uint8_t *buf, int size);

    // --- Filter graph (filter_graph.cpp) -------------------------------------------------------
    // Builds the graph for `stream`, its source for the stream's declared format, from the
    // current settings: 0 or a negative FFmpeg error. On failure the graph is incomplete and
    // must not be fed or pulled.
    int init_filter_graph(AVFormatContext *format, AVStream *stream);
    // Releases the graph, clears equalizerChanged and builds it again for the same format.
    int reconfigure_filter_graph(AVFormatContext *format, AVStream *stream);
    // Whether the source takes `frame` as it is (same rate, sample format and layout).
    bool sourceAccepts(const AVFrame *frame) const;
    // Rebuilds the graph with its source for the format of `frame`: a stream whose format
    // changes midway (joined files) plays on.
    int rebuild_for_frame(AVFormatContext *format, AVStream *stream, const AVFrame *frame);

    // --- Voice levelling (voice_level.cpp) -------------------------------------------------------
    // Builds the levelling graph for graphVoiceLevel (none for off), behind the main graph's
    // sink: 0 or a negative FFmpeg error.
    int build_level_graph();
    void free_level_graph();
    // The next frame for the output, through the levelling graph when there is one; the
    // results of av_buffersink_get_frame.
    int pullFiltered(AVFrame *out);

    // --- Play thread (play_loop.cpp) -----------------------------------------------------------
    void playLoop();
    // Copies a filtered frame into output pieces and pushes them: 0 (also when stopped before
    // the audio went out), -19 when the output is gone, else the last push_output_buffer result.
    // With `yieldToSeek`, 1 when a seek is pending as it needs a new piece: the rest of the
    // frame is dropped, so that the audio from the seek's target takes that piece.
    int sendToOutput(AVFrame *frame, bool yieldToSeek = false);
    int pushFilledPiece();
    bool seekPending();
    // Platform media-player state; BanSleep(4) precedes state 0.
    void set_mp_state(int s);

    // --- Sleep timer and rewind after a pause (sleep_engine.cpp) --------------------------------
    // start(), with the loop holding in Paused before its first audio: the player's next track
    // after the sleep timer ended a track. 0 or -1 as start().
    int startPaused();
    // Whether the sleep timer ended the last track; reading clears it, and so does a start.
    bool takeSleepEndedTrack();
    // Playing time left before the timer pauses, -1 when off (application's thread).
    int64_t sleepLeftMs();
    // A pause begins (the clock of the rewind after a long pause).
    void pauseBegins();
    // A long pause ends: with the rewind enabled, a seek a little before where playback stood.
    void rewindAfterLongPause();

    // --- Media information (media_info.cpp, cover_art.cpp) -------------------------------------
    // Replaces metadata and chapters with what the open demuxer reports.
    void captureMetadata();
    // Decodes the attached picture (if any) into `cover` and rewinds the demuxer.
    void read_cover();
    void read_video_frame();

private:
    // Builds the graph for the source format below (see init_filter_graph).
    int build_filter_graph(AVStream *stream);
    // The one place that frees the filter graph and its seven instances.
    void free_filter_graph();
    // Writes a decoded frame into the graph, rebuilding it first when a setting or the
    // stream's format changed; the result of the write. Throws when the rebuild fails.
    int feedGraph(AVStream *stream, AVFrame *decoded);
    // cleanup() without the log line: what the destructor releases.
    void releaseMedia();
    // Frees the zip I/O context and its buffer (the demuxer never owns them).
    void freeZipIo();
    // Frees the caller-stream I/O context and its buffer.
    void freeStreamIo();
    // Selects the current zip member again, positioned at its start.
    void restartZipMember();

    // Play-loop helpers (play thread only).
    void runPackets(AVFrame *decoded, AVFrame *filtered, AVPacket *packet);
    // Plays what the decoder and the filters still hold; false when the output refused it.
    bool drainAtEndOfMedia(AVFrame *decoded, AVFrame *filtered);
    void reportNoOutput();
    // What a pass's stop check, and a packet's end, report when they find the state Stopped.
    void announceStopInPass();
    void announceStopAtPacketEnd();

    // Sleep timer and exact seeks (sleep_engine.cpp, play thread).
    // False when `frame` lies wholly before an exact seek's target (drop it); otherwise the
    // part before the target is cut off.
    bool trimToSeekTarget(AVStream *audio, AVFrame *frame);
    // The media time, in microseconds, of sample `index` of a filtered frame (-1: unknown).
    int64_t outputMediaUs(const AVFrame *filtered, int index) const;
    // With the timer armed for a chapter's end: whether the end of the chapter that playback
    // was in when the timer was armed comes within `*count` samples of the filtered frame
    // from sample `index`; *count is then cut to the samples before it.
    bool chapterStopWithin(const AVFrame *filtered, int index, int *count);
    // The timer pauses playback; the next resume starts exactly at `resumeUs` of media time
    // (-1: where it stopped). Then notifies.
    void sleepPause(int mode, int64_t resumeUs);

    // The output piece being filled and how many frames it holds (play thread only). Pieces
    // are pushed full: decoders of lossy formats hand out short frames, and a piece, with its
    // wake-up of the output thread, for each would cost more than the filtering.
    abuf_piece *fillingPiece = nullptr;
    int fillingFrames = 0;
    bool graphNeedsRebuild() const;
    void holdWhilePaused();
    void notifyState();
    void notifyPositionLocked(); // caller holds engineMutex
    void raisePriority();
    // Sets Finished unless the state is Stopped; returns whether it did.
    bool finishUnlessStopped();

    // --- Members, in the order of the engine's data model ------------------------------------
public:
    AVFormatContext *formatCtx;      // demuxer; non-null exactly while media is open
    AVCodecContext *decoderCtx;      // audio decoder
    AVCodecContext *coverDecoderCtx; // decoder of the attached picture
    int audioStreamIndex;
    // Engine state (State). Written by the transport operations and by the play loop; polled
    // by the play loop. The loop's own final writes happen under engineMutex.
    std::atomic<int> state;
    std::thread playThread;

    // engineMutex guards seekRequested, seekTargetMs, positionMs, lastPositionMs and the play
    // loop's state writes when it ends. The position callback runs under it; nothing else that
    // may call into the engine does. An FFmpeg seek (and the I/O callbacks it drives) runs
    // under it.
    std::mutex engineMutex;
    bool seekRequested; // guarded by engineMutex
    // Guarded by engineMutex: the exact target of a pending seek in microseconds (a stop of the
    // sleep timer, a rewind), or -1: seekTargetMs's whole second.
    int64_t seekExactUs = -1;
    int seekTargetMs;       // guarded by engineMutex
    int64_t positionMs;     // guarded by engineMutex; -1 when none
    int64_t lastPositionMs; // guarded by engineMutex; reported while Finished

    std::function<void()> trackPositionChangedCb;
    std::function<void()> stateChangedCb;
    std::function<void(ErrorType)> errorCb;

    // Filter graph and its instances: used by the opening thread while no play thread runs,
    // then by the play thread.
    AVFilterGraph *filterGraph;
    AVFilterContext *abufferCtx;
    AVFilterContext *asetrateCtx;
    AVFilterContext *aformatCtx;
    AVFilterContext *atempoCtx;
    AVFilterContext *atempo2Ctx;
    AVFilterContext *firequalizerCtx;
    AVFilterContext *abuffersinkCtx;
    // Requested settings, written by the application's thread, read by the play thread.
    std::atomic<double> tempo;
    std::atomic<double> sampleRateMultiplier;
    // Settings the current graph was built with (play thread, or the opening thread).
    double graphTempo;
    double graphSampleRateMultiplier;
    // Guarded by equalizerMutex: the setter replaces the list, a build copies it.
    std::vector<std::pair<int, int>> equalizerSettings;
    std::atomic<bool> equalizerChanged;
    // Format the graph's source is built for: the stream's at open, a decoded frame's once the
    // stream changed format (opening thread, then play thread).
    int sourceRate = 0;
    int sourceFormat = -1;
    uint64_t sourceChannelMask = 0;

    int64_t durationMs; // written only by the opening sequence
    // Guarded by infoMutex: replaced by an open, copied by getMetadata() / getChapters().
    std::map<std::string, std::string> metadata;
    std::vector<Chapter> chapters;
    int coverStreamIndex;
    // Written by the opening sequence and by cleanup(), which a failing play thread also runs.
    std::atomic<qz_bitmap *> cover;
    AVIOContext *streamIoCtx;      // custom I/O over `stream`, owned
    unsigned char *streamIoBuffer; // its first 4096-byte buffer (FFmpeg may replace it)
    IAudioEngineStream *stream;    // not owned
    std::shared_ptr<tavrel::QzZipManager> zip_reader;

    // Sleep timer and rewind after a long pause; the settings survive closes and opens.
    SleepTimer sleepTimer;
    std::atomic<bool> rewindEnabled{false};
    std::atomic<int64_t> pausedAtMs{INT64_MIN}; // steady clock when the pause began, or none
    std::atomic<bool> sleepEndedTrack{false};   // the timer ended the last track
    std::atomic<int64_t> outputUs{0};           // media time of the audio handed out last
    std::atomic<int64_t> chapterStopUs{-1};     // the chapter end the timer waits for, -1: none
    std::atomic<bool> holdAtStart{false};       // start() begins in Paused (startPaused)

private:
    // Play thread: the exact seek's target still to reach (INT64_MIN: none), the media time of
    // the first audio fed to the graph since it was built (its output's time 0 at its speed),
    // the timer generation the chapter's end was found for, where the fade of a timed stop
    // began (-1: not known), and a stop of the timer at the file's end.
    int64_t trimBeforePts = INT64_MIN;
    int64_t graphStartUs = INT64_MIN;
    unsigned chapterStopGeneration = 0;
    int64_t fadeStartUs = -1;
    int sleepAtEnd = 0;

    std::mutex equalizerMutex; // guards equalizerSettings
    std::mutex infoMutex;      // guards metadata and chapters
    AVIOContext *zipIoCtx;     // custom I/O over the zip member, attached to formatCtx
    std::string zip_member;    // the member selected by the last successful Open of zip_reader
    // Mirrors of formatCtx / decoderCtx being set, for the getters and start() on the
    // application's thread while a failing play thread may be releasing the media.
    std::atomic<bool> mediaOpen;
    std::atomic<bool> decoderOpen;

public:
    // --- Listening features (AudioEngineExtension.h) -----------------------------------------
    // Requested levels, written by the application's thread, read by the play thread; a change
    // rebuilds the graph like a tempo change. An open keeps them.
    std::atomic<int> skipSilence{0};
    std::atomic<int> voiceLevel{0};
    // Levels the current graphs were built with (play thread, or the opening thread).
    int graphSkipSilence = 0;
    int graphVoiceLevel = 0;
    // The skip-silence stage; its levels learnt survive seeks and rebuilds.
    std::unique_ptr<SilenceSkipper> skipper;
    // The levelling graph; its gain survives rebuilds of the main graph and seeks.
    AVFilterGraph *levelGraph = nullptr;
    AVFilterContext *levelSrcCtx = nullptr;
    AVFilterContext *levelSinkCtx = nullptr;
    int levelGraphLevel = 0; // the level it was built for
    bool levelEnded = false; // told the end of the audio
};

#endif

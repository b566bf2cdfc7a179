// AudioEngine: the play thread (decode, filter, output) and the transport operations that
// steer it through the state word and the members guarded by engineMutex.
#include "AudioEngine.h"

#include "alsa_device.h"
#include "engine_log.h"
#include "ffmpeg_error.h"
#include "mp_state.h"
#include "silence_skip.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace {

const int kPlayThreadNice = -19;
const useconds_t kPollUs = 10000;       // every wait of the play thread polls at 10 ms
const int kMaxPiecePolls = 500000;      // about 5000 s without a free piece
const double kRebuildThreshold = 0.001; // smaller setting changes keep the current graph
const int kOutputGone = -19;            // -ENODEV, as push_output_buffer reports it
const int kSeekFirst = 1;               // sendToOutput left the rest of a frame for a seek
const int kSleepFired = 2;              // the sleep timer ended within the frame and paused

// Platform media-player states.
const int kMpEnded = 0;
const int kMpPlaying = 2;
const int kMpPaused = 3;

// Whole seconds of a timestamp in `tb`, in milliseconds.
int64_t wholeSecondsMs(int64_t ts, AVRational tb) {
    return av_rescale_q(ts, tb, AVRational{1, 1000000}) / 1000000 * 1000;
}

} // namespace

// --- Transport (application's thread) ----------------------------------------------------------

int AudioEngine::start() {
    if (!decoderOpen.load()) {
        AE_LOG(2, "%s", "File is not opened");
        return -1;
    }
    if (playThread.joinable() && playThread.get_id() == std::this_thread::get_id()) {
        // Called from a callback on the play thread, which cannot replace itself.
        AE_LOG(2, "%s", "start() called on the play thread");
        return -1;
    }
    state = Stopped;
    if (playThread.joinable())
        playThread.join();
    // The loop just joined may have failed and closed the media on its way out.
    if (!decoderOpen.load()) {
        AE_LOG(2, "%s", "File is not opened");
        return -1;
    }
    state = holdAtStart.load() ? Paused : Playing;
    sleepEndedTrack = false;
    try {
        playThread = std::thread(&AudioEngine::playLoop, this);
    } catch (const std::system_error &e) {
        state = Stopped;
        AE_LOG(2, "%s", e.what());
        return -1;
    }
    notifyState();
    return 0;
}

int AudioEngine::stop() {
    state = Stopped;
    if (playThread.joinable() && playThread.get_id() != std::this_thread::get_id())
        playThread.join();
    notifyState();
    return 0;
}

int AudioEngine::pause() {
    int expected = Playing;
    if (!state.compare_exchange_strong(expected, Paused))
        return 0;
    pauseBegins();
    {
        std::lock_guard<std::mutex> lock(engineMutex);
        if (seekRequested && seekTargetMs < durationMs) {
            positionMs = seekTargetMs;
            notifyPositionLocked();
        }
    }
    notifyState();
    return 0;
}

int AudioEngine::resume() {
    if (state.load() != Paused)
        return 0;
    rewindAfterLongPause(); // before the loop may go on
    int expected = Paused;
    if (!state.compare_exchange_strong(expected, Playing))
        return 0;
    notifyState();
    return 0;
}

int AudioEngine::seekStream(int ms) {
    std::lock_guard<std::mutex> lock(engineMutex);
    if (ms < 0) {
        seekRequested = false;
        return 0;
    }
    seekTargetMs = ms;
    seekRequested = true;
    seekExactUs = -1;
    const int s = state.load();
    if ((s == Stopped || s == Paused) && ms < durationMs)
        positionMs = ms;
    return 0;
}

int64_t AudioEngine::getPosition() {
    int64_t position;
    {
        std::lock_guard<std::mutex> lock(engineMutex);
        position = state.load() == Finished ? lastPositionMs : positionMs;
    }
    return position < 0 ? 0 : position;
}

// --- Notifications -------------------------------------------------------------------------------

void AudioEngine::notifyState() {
    if (stateChangedCb)
        stateChangedCb();
}

void AudioEngine::notifyPositionLocked() {
    if (trackPositionChangedCb)
        trackPositionChangedCb();
}

void AudioEngine::set_mp_state(int s) {
    if (s == kMpEnded)
        BanSleep(4);
    hw_mp_setstate(s);
}

// --- Play thread ---------------------------------------------------------------------------------

void AudioEngine::raisePriority() {
    const id_t tid = static_cast<id_t>(syscall(SYS_gettid));
    errno = 0;
    const int current = getpriority(PRIO_PROCESS, tid);
    if (current == kPlayThreadNice && errno == 0)
        return;
    if (setpriority(PRIO_PROCESS, tid, kPlayThreadNice) != 0)
        fprintf(stderr, "playLoop FAILED to setpriority\n");
}

bool AudioEngine::finishUnlessStopped() {
    int s = state.load();
    while (s != Stopped) {
        if (state.compare_exchange_weak(s, Finished))
            return true;
    }
    return false;
}

void AudioEngine::playLoop() {
    raisePriority();
    AE_LOG(4, "%s", "PlayLoop");
    set_mp_state(kMpPlaying);
    init_alsa_output();
    fillingPiece = nullptr; // a piece left unpushed by an earlier run is simply filled again
    fillingFrames = 0;
    fadeStartUs = -1;
    sleepAtEnd = AE_SLEEP_OFF;
    chapterStopGeneration = 0;

    AVFrame *decoded = nullptr;
    AVFrame *filtered = nullptr;
    AVPacket *packet = nullptr;
    try {
        decoded = av_frame_alloc();
        filtered = av_frame_alloc();
        if (!decoded || !filtered)
            throw FfmpegError("Failed to av_frame_alloc");
        packet = av_packet_alloc();
        if (!packet)
            throw FfmpegError("Failed to av_packet_alloc");
        runPackets(decoded, filtered, packet);
    } catch (const std::exception &e) {
        // FfmpegError from the loop, or an allocation failure on the way.
        AE_LOG(2, "%s", e.what());
        cleanup();
        set_mp_state(kMpEnded);
    }

    // Exit sequence: end of media, stop, or failure.
    set_mp_state(kMpEnded);
    av_frame_free(&decoded);
    av_frame_free(&filtered);
    av_packet_free(&packet);
    {
        std::lock_guard<std::mutex> lock(engineMutex);
        positionMs = -1;
        if (state.load() != Stopped) {
            set_mp_state(kMpEnded);
            if (finishUnlessStopped()) {
                lastPositionMs = durationMs;
                notifyPositionLocked();
            }
        }
    }
    if (sleepAtEnd != AE_SLEEP_OFF && state.load() == Finished) {
        // The timer ended the track: told before the state, so that a player can move on to
        // the next track and hold it.
        sleepEndedTrack = true;
        chapterStopUs = -1;
        sleepTimer.fire(sleepAtEnd);
    }
    notifyState();
    AE_LOG(4, "%s", "exiting PlayLoop");
}

bool AudioEngine::graphNeedsRebuild() const {
    return std::fabs(graphSampleRateMultiplier - sampleRateMultiplier.load()) > kRebuildThreshold ||
           std::fabs(graphTempo - tempo.load()) > kRebuildThreshold || equalizerChanged.load() ||
           skipSilence.load() != graphSkipSilence || voiceLevel.load() != graphVoiceLevel;
}

// A stream may change its rate, sample format or layout midway (parts joined into one file);
// the graph is then built anew for the new format, like a rebuild for a new setting: the audio
// the old graph holds is dropped, the settings stay and positions keep the stream's time base.
int AudioEngine::feedGraph(AVStream *audio, AVFrame *decoded) {
    int rebuilt = 0;
    if (!sourceAccepts(decoded))
        rebuilt = rebuild_for_frame(formatCtx, audio, decoded);
    else if (graphNeedsRebuild())
        rebuilt = reconfigure_filter_graph(formatCtx, audio);
    if (rebuilt < 0) {
        av_frame_unref(decoded);
        throw FfmpegError("Failed to rebuild the filter graph");
    }
    if (decoded->best_effort_timestamp != AV_NOPTS_VALUE && graphStartUs == INT64_MIN)
        graphStartUs =
            av_rescale_q(decoded->best_effort_timestamp, audio->time_base, AVRational{1, 1000000});
    // Skip silence works on the decoded audio, before the tempo stages: pauses are measured
    // in the book's time whatever the speed. Switched off, it still hands on what it holds.
    AVFrame *toGraph = decoded;
    if (graphSkipSilence != 0 || skipper->holding()) {
        toGraph = skipper->process(decoded, graphSkipSilence, audio->time_base);
        av_frame_unref(decoded);
        if (!toGraph)
            return 0;
    }
    const int written = av_buffersrc_write_frame(abufferCtx, toGraph);
    av_frame_unref(toGraph);
    return written;
}

void AudioEngine::holdWhilePaused() {
    if (state.load() != Paused)
        return;
    while (state.load() == Paused) {
        hw_mp_setstate(kMpPaused);
        usleep(kPollUs);
    }
    hw_mp_setstate(kMpPlaying);
    if (state.load() == Playing)
        pause_alsa(0);
}

void AudioEngine::runPackets(AVFrame *decoded, AVFrame *filtered, AVPacket *packet) {
    AVStream *audio = formatCtx->streams[audioStreamIndex];

    for (;;) {
        if (av_read_frame(formatCtx, packet) < 0) {
            // End of media or read error. An output that refuses the last audio ends the run
            // as it would inside a pass.
            if (!drainAtEndOfMedia(decoded, filtered)) {
                announceStopInPass();
                announceStopAtPacketEnd();
            } else {
                // A stop at the end of the chapter or track arrives with the end of the file.
                const int mode = sleepTimer.mode();
                if (mode == AE_SLEEP_END_OF_CHAPTER || mode == AE_SLEEP_END_OF_TRACK)
                    sleepAtEnd = mode;
            }
            return;
        }
        if (packet->stream_index != audioStreamIndex) {
            av_packet_unref(packet);
            continue;
        }

        // One pass per send; a packet takes several only while the decoder answers EAGAIN.
        int sent;
        do {
            sent = avcodec_send_packet(decoderCtx, packet);
            if (sent < 0 && sent != AVERROR(EAGAIN) && sent != AVERROR_INVALIDDATA)
                throw FfmpegError("Failed to avcodec_send_packet");

            const int received = avcodec_receive_frame(decoderCtx, decoded);
            if (received == AVERROR(EAGAIN)) {
                if (sent == AVERROR(EAGAIN))
                    throw FfmpegError("Can't require more input and more output simultaneously!!!");
                break;
            }
            if (received < 0)
                throw FfmpegError("Failed to avcodec_receive_frame");

            if (!trimToSeekTarget(audio, decoded)) {
                av_frame_unref(decoded); // before an exact seek's target
                continue;
            }
            if (feedGraph(audio, decoded) < 0)
                throw FfmpegError("Failed to av_buffersrc_write_frame");

            bool outputPass = false;
            bool havePosition = false;
            int64_t lastTimestamp = 0;
            for (;;) {
                const int pulled = pullFiltered(filtered);
                if (pulled == AVERROR(EAGAIN) || pulled == AVERROR_EOF)
                    break;
                if (pulled < 0) {
                    AE_LOG(2, "%s", "Failed to av_buffersink_get_frame");
                    break;
                }
                const int sent = sendToOutput(filtered, true);
                if (sent == kOutputGone) {
                    av_frame_unref(filtered);
                    reportNoOutput();
                    break;
                }
                outputPass = true;
                if (sent == kSleepFired) {
                    av_frame_unref(filtered); // after the stop: the resume seeks back to it
                    break;
                }
                if (sent == kSeekFirst) {
                    // The rest of this audio is from before the seek, which is carried out now
                    // instead of after the next free piece; the graph's rest goes with it.
                    av_frame_unref(filtered);
                    break;
                }
                if (filtered->best_effort_timestamp != AV_NOPTS_VALUE) {
                    lastTimestamp = filtered->best_effort_timestamp;
                    havePosition = true;
                }
                av_frame_unref(filtered);
            }

            holdWhilePaused();

            if (state.load() == Stopped) {
                announceStopInPass();
                break;
            }

            bool sought = false;
            if (outputPass) {
                std::lock_guard<std::mutex> lock(engineMutex);
                if (seekRequested) {
                    const int64_t target =
                        av_rescale_q(seekTargetMs / 1000, AVRational{1, 1}, audio->time_base);
                    const bool moved = av_seek_frame(formatCtx, audioStreamIndex, target,
                                                     AVSEEK_FLAG_BACKWARD) >= 0;
                    if (!moved)
                        AE_LOG(2, "%s", "Failed to av_seek_frame");
                    avcodec_flush_buffers(decoderCtx);
                    seekRequested = false;
                    // An exact target: what the decoder delivers before it is cut off.
                    trimBeforePts =
                        moved && seekExactUs >= 0
                            ? av_rescale_q(seekExactUs, AVRational{1, 1000000}, audio->time_base)
                            : INT64_MIN;
                    seekExactUs = -1;
                    chapterStopGeneration = 0; // the chapter of the target, when armed
                    // The position is the target from now on, not what the filters still
                    // hold from before the seek (a target past the end lands at the end). A
                    // failed seek plays on from where it was, and so does the position.
                    if (moved && seekTargetMs < durationMs) {
                        positionMs = seekTargetMs / 1000 * 1000;
                        lastPositionMs = positionMs;
                    }
                    sought = moved;
                } else {
                    if (havePosition) {
                        positionMs = wholeSecondsMs(lastTimestamp, audio->time_base);
                        lastPositionMs = positionMs;
                    }
                    notifyPositionLocked();
                }
            }
            // Audio from before the seek still in the filters is dropped with the old graph,
            // and what skip silence holds with it (it keeps the levels it learnt).
            if (sought) {
                skipper->reset();
                if (reconfigure_filter_graph(formatCtx, audio) < 0)
                    throw FfmpegError("Failed to rebuild the filter graph");
            }
        } while (sent == AVERROR(EAGAIN));

        av_packet_unref(packet);
        if (state.load() == Stopped) {
            announceStopAtPacketEnd();
            return;
        }
    }
}

void AudioEngine::announceStopInPass() {
    set_mp_state(kMpEnded);
    notifyState();
}

void AudioEngine::announceStopAtPacketEnd() {
    set_mp_state(kMpEnded);
    notifyState();
    AE_LOG(4, "%s", "Break on stopped");
}

void AudioEngine::reportNoOutput() {
    AE_LOG(2, "%s", "No output device");
    {
        std::lock_guard<std::mutex> lock(engineMutex);
        state = Stopped;
        positionMs = -1;
    }
    if (errorCb)
        errorCb(tavrel::utilities::IAudioEngine::NoOutputDevice);
}

// At the end of the media the decoder and the filters still hold audio (the decoder's delay,
// the tempo filter's window, a partly filled output frame): it is played too, so no track
// loses its last fraction of a second.
bool AudioEngine::drainAtEndOfMedia(AVFrame *decoded, AVFrame *filtered) {
    if (state.load() == Stopped)
        return true;
    if (avcodec_send_packet(decoderCtx, nullptr) >= 0) {
        AVStream *audio = formatCtx->streams[audioStreamIndex];
        while (avcodec_receive_frame(decoderCtx, decoded) >= 0) {
            if (feedGraph(audio, decoded) < 0)
                break;
        }
    }
    if (AVFrame *rest = skipper->flush()) {
        const int written = av_buffersrc_write_frame(abufferCtx, rest);
        av_frame_unref(rest);
        if (written < 0)
            AE_LOG(2, "%s", "Failed to av_buffersrc_write_frame");
    }
    if (av_buffersrc_add_frame(abufferCtx, nullptr) >= 0) {
        while (state.load() != Stopped && pullFiltered(filtered) >= 0) {
            const int sent = sendToOutput(filtered);
            av_frame_unref(filtered);
            if (sent == kOutputGone) {
                reportNoOutput();
                return false;
            }
        }
    }
    if (state.load() != Stopped && pushFilledPiece() == kOutputGone) {
        reportNoOutput();
        return false;
    }
    return true;
}

// --- Output --------------------------------------------------------------------------------------

int AudioEngine::sendToOutput(AVFrame *frame, bool yieldToSeek) {
    const int channels = frame->ch_layout.nb_channels;
    const AVSampleFormat format = static_cast<AVSampleFormat>(frame->format);
    const int size = av_get_bytes_per_sample(format);
    const int total = frame->nb_samples;
    if (size <= 0 || total <= 0)
        return 0;

    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const int bytesPerFrame = 2 * size; // the piece always holds left and right
    const int capacity = ABUF_PIECE_BYTES / bytesPerFrame;

    // Frames are gathered into the piece being filled; a frame longer than the room left
    // continues in the next pieces, in order.
    for (int done = 0; done < total;) {
        if (fillingPiece && fillingPiece->samplerate != frame->sample_rate) {
            const int pushed = pushFilledPiece();
            if (pushed == kOutputGone)
                return pushed;
        }
        if (!fillingPiece) {
            // Wait for a free piece. An output layer that has stopped releases no piece any
            // more: it is reported as gone, as pushing would.
            abuf_piece *piece = get_output_buffer();
            bool timedOut = false;
            bool outputStopped = false;
            for (int polls = 0; !piece; piece = get_output_buffer()) {
                if (state.load() == Stopped)
                    return 0;
                if (yieldToSeek && seekPending())
                    return kSeekFirst;
                if (alsa_output_working() == 0) {
                    outputStopped = true;
                    break;
                }
                if (++polls > kMaxPiecePolls) {
                    timedOut = true;
                    break;
                }
                usleep(kPollUs);
            }
            if (yieldToSeek && seekPending())
                return kSeekFirst;

            holdWhilePaused();
            if (state.load() == Stopped)
                return 0;
            if (yieldToSeek && seekPending())
                return kSeekFirst; // set while paused (a rewind): the target goes first
            if (timedOut) {
                AE_LOG(2, "%s", "Alsa buffer error");
                return kOutputGone;
            }
            if (outputStopped)
                return kOutputGone;
            fillingPiece = piece;
            fillingPiece->samplerate = frame->sample_rate;
            fillingFrames = 0;
        }

        const int room = capacity - fillingFrames;
        int count = total - done < room ? total - done : room;
        // A stop of the sleep timer at a chapter's end: only what comes before it goes out.
        const bool chapterEnds = chapterStopWithin(frame, done, &count);
        uint8_t *out = fillingPiece->data + static_cast<size_t>(fillingFrames) * bytesPerFrame;

        if (channels == 2 && !planar) {
            // Interleaved left/right already: one block.
            memcpy(out, frame->data[0] + static_cast<size_t>(done) * bytesPerFrame,
                   static_cast<size_t>(count) * bytesPerFrame);
        } else if (channels == 2) {
            const uint8_t *left = frame->data[0] + static_cast<size_t>(done) * size;
            const uint8_t *right = frame->data[1] + static_cast<size_t>(done) * size;
            for (int i = 0; i < count; i++) {
                memcpy(out, left + static_cast<size_t>(i) * size, size);
                memcpy(out + size, right + static_cast<size_t>(i) * size, size);
                out += bytesPerFrame;
            }
        } else if (channels == 1) {
            const uint8_t *mono = frame->data[0] + static_cast<size_t>(done) * size;
            for (int i = 0; i < count; i++) {
                memcpy(out, mono + static_cast<size_t>(i) * size, size);
                memcpy(out + size, mono + static_cast<size_t>(i) * size, size);
                out += bytesPerFrame;
            }
        } else {
            // Not produced by the graph; play silence rather than garbage.
            AE_LOG(2, "%s", "Unsupported channels no");
            memset(out, 0, static_cast<size_t>(count) * bytesPerFrame);
        }
        // The sleep timer counts what goes out and fades the end of a timed stop.
        bool sleepEnds = false;
        int fadeBegins = -1;
        const int kept =
            size == 2
                ? sleepTimer.shape(reinterpret_cast<int16_t *>(
                                       fillingPiece->data + size_t(fillingFrames) * bytesPerFrame),
                                   count, &sleepEnds, &fadeBegins)
                : count;
        if (fadeBegins >= 0)
            fadeStartUs = outputMediaUs(frame, done + fadeBegins);
        fillingFrames += kept;
        done += kept;
        if (sleepEnds || chapterEnds) {
            if (pushFilledPiece() == kOutputGone)
                return kOutputGone;
            // The next resume starts where the fade began (at the full level) or exactly at
            // the chapter's end.
            if (sleepEnds) // without a fade, where it stopped
                sleepPause(AE_SLEEP_AFTER_TIME,
                           fadeStartUs >= 0 ? fadeStartUs : outputMediaUs(frame, done));
            else
                sleepPause(AE_SLEEP_END_OF_CHAPTER, chapterStopUs.load());
            return kSleepFired;
        }

        if (fillingFrames == capacity) {
            const int pushed = pushFilledPiece();
            if (pushed == kOutputGone)
                return pushed;
        }
    }
    return 0;
}

bool AudioEngine::seekPending() {
    std::lock_guard<std::mutex> lock(engineMutex);
    return seekRequested;
}

// Hands the piece being filled to the output layer, full or not: 0, or -19 once the output
// has stopped.
int AudioEngine::pushFilledPiece() {
    if (!fillingPiece)
        return 0;
    fillingPiece->frames = fillingFrames;
    const int result = push_output_buffer(fillingPiece);
    fillingPiece = nullptr;
    fillingFrames = 0;
    return result == kOutputGone ? kOutputGone : 0;
}

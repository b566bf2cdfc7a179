// Player: the playlist, starting a track, moving to the next or previous track by play mode,
// and the end of a track.
#include "Player.h"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <sys/stat.h>

#include "qz_log.h"

namespace tavrel {
namespace player {

namespace {

const char kLogSource[] = "audio-engine/src/player";
const char kZipTag[] = ":#zip(";

// Blocks the calling thread for `ms` milliseconds (below one second), resuming after signals.
void sleepMs(long ms) {
    timespec request{0, ms * 1000000L};
    timespec remaining{};
    while (nanosleep(&request, &remaining) != 0 && errno == EINTR)
        request = remaining;
}

// Whether PlayTrack may hand `name` to the engine: an existing file system object, or a zip
// member (whose name as a whole is no file).
bool mediaExists(const std::string &name) {
    struct stat64 info;
    return stat64(name.c_str(), &info) == 0 || name.find(kZipTag) != std::string::npos;
}

} // namespace

// --- Playlist ----------------------------------------------------------------------------------

void Player::SetPlayList(const std::vector<Track> &list) {
    // The engine is left alone: a playing track goes on playing.
    playList = list;
    PlayListChanged();
}

void Player::PlayListChanged() {
    for (auto it = queue.begin(); it != queue.end();) {
        if (TrackNumByFilename(*it) < 0)
            it = queue.erase(it);
        else
            ++it;
    }
    currentTrack = -1;
    currentTrack = TrackNumByFilename(playingTrack.filename);
    GenerateRandomSequence();
    if (PlayerCb *target = callbacks())
        target->OnTrackChanged();
}

int Player::TrackNumByFilename(const std::string &filename) {
    for (size_t i = 0; i < playList.size(); ++i) {
        if (playList[i].filename == filename)
            return static_cast<int>(i);
    }
    return -1;
}

int Player::GetCurrentTrack() {
    return currentTrack;
}

// --- Starting a track --------------------------------------------------------------------------

int Player::PlayTrack(int trackNum, int position, bool paused) {
    if (static_cast<unsigned>(trackNum) >= playList.size())
        return -1;
    const std::string filename = playList[trackNum].filename;
    if (!mediaExists(filename))
        return -1; // the track that plays goes on playing

    engine.closeFile();
    int rc = engine.openFile(filename);
    if (rc != 0) {
        qz_print_log2(2, kLogSource, 54,
                      "virtual int tavrel::player::Player::PlayTrack(int, int, bool)", " err:[%d] ",
                      rc);
        return rc;
    }
    currentTrack = trackNum;
    playingTrack = playList[trackNum];

    // Milliseconds in 32-bit arithmetic, as the engine takes them.
    engine.seekStream(position >= 0 ? static_cast<int>(static_cast<uint32_t>(position) * 1000u)
                                    : -1);
    // After the sleep timer ended the last track, the next one waits paused at its start.
    int started = holdNextStart ? engine.startPaused() : engine.start();
    if (paused && started == 0 && !holdNextStart) {
        // Let the track sound briefly before holding it, so the user hears where it stands.
        sleepMs(200);
        engine.pause();
    }
    if (PlayerCb *target = callbacks())
        target->OnTrackChanged();
    return 0;
}

int Player::openFile(const std::string &path) {
    engine.closeFile();
    int rc = engine.openFile(path);
    if (rc != 0) {
        qz_print_log2(2, kLogSource, 39,
                      "virtual int tavrel::player::Player::openFile(const std::string &)",
                      " err:[%d] ", rc);
    }
    return rc;
}

// --- Next and previous -------------------------------------------------------------------------

void Player::NextTrack() {
    if (playList.empty()) {
        engine.stop();
        return;
    }
    if (!queue.empty()) {
        int queued = TrackNumByFilename(queue.front());
        queue.pop_front();
        if (queued >= 0) {
            PlayTrack(queued, -1, false);
            return;
        }
    }

    const int n = static_cast<int>(playList.size());
    const int cur = currentTrack;
    int next;
    switch (mode) {
    case RepeatList:
        next = cur < n - 1 ? cur + 1 : 0;
        break;
    case Sequential:
        if (cur >= n - 1)
            return; // the end of the list: the engine keeps its state
        next = cur + 1;
        break;
    case Shuffle:
        next = static_cast<int>(NextRandom());
        break;
    default: // RepeatTrack, and any value outside the enumeration
        PlayTrack(cur, -1, false);
        return;
    }
    currentTrack = next;
    PlayTrack(next, -1, false);
}

void Player::PreviousTrack() {
    if (playList.empty()) {
        engine.stop();
        return;
    }
    const int n = static_cast<int>(playList.size());
    if (n == 1)
        PlayTrack(0, -1, false); // a single track restarts; the mode below may start it again

    const int cur = currentTrack;
    int prev;
    switch (mode) {
    case RepeatList:
        prev = cur > 0 ? cur - 1 : n - 1;
        break;
    case Sequential:
        if (cur < 1)
            return;
        prev = cur - 1;
        break;
    case Shuffle:
        prev = static_cast<int>(PrevRandom());
        break;
    default:
        PlayTrack(cur, -1, false);
        return;
    }
    currentTrack = prev;
    PlayTrack(prev, -1, false);
}

void Player::SetMode(PlayMode newMode) {
    mode = newMode;
    if (newMode == Shuffle)
        GenerateRandomSequence();
}

Player::PlayMode Player::GetMode() {
    return mode;
}

// --- End of a track ----------------------------------------------------------------------------

void Player::HandlePlayerStateChanged() {
    // Reached from the application's thread after OnStateChanged; moving on closes the file,
    // which joins the play thread, so this is never run on that thread.
    if (engine.getState() == Finished) {
        holdNextStart = engine.takeSleepEndedTrack();
        NextTrack();
        holdNextStart = false;
    }
}

} // namespace player
} // namespace tavrel

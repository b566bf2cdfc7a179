// Wake-ups of aeplay's main loop: player callbacks and signal handlers post events, the main
// loop polls one file descriptor and takes them.
#pragma once

#include <atomic>

namespace aeplay {

// post() may be called from any thread and from signal handlers: it sets a bit in an atomic
// word and writes one byte to a non-blocking pipe only when the bit was clear, so the pipe never
// fills up however fast position events arrive.
class EventPipe {
public:
    enum Event : unsigned {
        kState = 1u << 0,    // OnStateChanged
        kPosition = 1u << 1, // OnPositionChanged
        kTrack = 1u << 2,    // OnTrackChanged
        kQuit = 1u << 3,     // SIGINT, SIGTERM, SIGHUP
        kSuspend = 1u << 4,  // SIGTSTP (Ctrl-Z)
        kResume = 1u << 5,   // SIGCONT
        kSleep = 1u << 6,    // the sleep timer paused playback
    };

    bool open();
    ~EventPipe();

    void post(Event event);
    // The events posted since the last call (main loop only).
    unsigned take();
    int fd() const { return fds_[0]; }

private:
    int fds_[2] = {-1, -1};
    std::atomic<unsigned> pending_{0};
    static_assert(std::atomic<unsigned>::is_always_lock_free, "post() runs in signal handlers");
};

// The one pipe of the program.
EventPipe &events();

} // namespace aeplay

// The main loop's wake-up pipe.
#include "aeplay_events.h"

#include <fcntl.h>
#include <unistd.h>

namespace aeplay {

bool EventPipe::open() {
    return pipe2(fds_, O_NONBLOCK | O_CLOEXEC) == 0;
}

EventPipe::~EventPipe() {
    for (int fd : fds_) {
        if (fd >= 0)
            close(fd);
    }
}

void EventPipe::post(Event event) {
    if ((pending_.fetch_or(event) & event) == 0) {
        const char byte = 0;
        ssize_t ignored = write(fds_[1], &byte, 1); // full pipe: a wake-up is pending anyway
        (void)ignored;
    }
}

unsigned EventPipe::take() {
    char buffer[64];
    while (read(fds_[0], buffer, sizeof buffer) > 0) {
    }
    return pending_.exchange(0);
}

EventPipe &events() {
    static EventPipe pipe;
    return pipe;
}

} // namespace aeplay

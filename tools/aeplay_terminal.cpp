// Raw keyboard mode and signal handling.
#include "aeplay_terminal.h"

#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "aeplay_events.h"

namespace aeplay {

namespace {

// The saved settings live in plain globals so that signal handlers can restore them (tcsetattr
// is async-signal-safe).
termios saved_termios;
volatile sig_atomic_t terminal_raw = 0;

void on_quit_signal(int) {
    static volatile sig_atomic_t count = 0;
    if (++count > 1) { // a second Ctrl-C: the program seems stuck, leave at once
        if (terminal_raw)
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_termios);
        _exit(130);
    }
    events().post(EventPipe::kQuit);
}

void on_suspend_signal(int) {
    events().post(EventPipe::kSuspend);
}

void on_continue_signal(int) {
    events().post(EventPipe::kResume);
}

// Crashes and the other signals that end a program (SIGQUIT, SIGUSR1, ...): give the terminal
// back, then die of the same signal (SA_RESETHAND re-arms the default action, which takes
// effect when the handler returns).
void on_fatal_signal(int sig) {
    if (terminal_raw)
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_termios);
    raise(sig);
}

// Installs `sa` for `sig` unless the signal was ignored when the program started (SIGHUP under
// nohup, SIGINT for a background job of a shell without job control): that choice stays.
void handle_unless_ignored(int sig, const struct sigaction &sa) {
    struct sigaction old {};
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN)
        return;
    sigaction(sig, &sa, nullptr);
}

} // namespace

void enter_raw_mode() {
    if (terminal_raw || tcgetattr(STDIN_FILENO, &saved_termios) != 0)
        return;
    termios raw = saved_termios;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw) == 0)
        terminal_raw = 1;
}

void leave_raw_mode() {
    if (terminal_raw) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_termios);
        terminal_raw = 0;
    }
}

void install_signal_handlers(bool keys) {
    struct sigaction sa {};
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = on_quit_signal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        handle_unless_ignored(sig, sa);
    if (keys) {
        sa.sa_handler = on_suspend_signal;
        handle_unless_ignored(SIGTSTP, sa);
        sa.sa_handler = on_continue_signal;
        sigaction(SIGCONT, &sa, nullptr);
    }
    sa.sa_handler = on_fatal_signal;
    sa.sa_flags = SA_RESETHAND;
    for (int sig : {SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU, SIGXFSZ})
        handle_unless_ignored(sig, sa);
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
        sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN); // output into a closed pipe: write() fails instead
}

void suspend_now() {
    leave_raw_mode();
    std::printf("\n");
    std::fflush(stdout);
    signal(SIGTSTP, SIG_DFL);
    raise(SIGTSTP);
}

void resumed() {
    struct sigaction sa {};
    sa.sa_handler = on_suspend_signal;
    sigaction(SIGTSTP, &sa, nullptr);
    enter_raw_mode();
}

int terminal_columns() {
    winsize ws{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0)
        return ws.ws_col;
    return 80;
}

} // namespace aeplay

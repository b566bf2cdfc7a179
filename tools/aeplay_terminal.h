// The terminal aeplay runs in: raw keyboard mode, the signals that end, suspend and continue the
// program, and the width of the status line.
#pragma once

namespace aeplay {

// Raw keyboard mode (no line buffering, no echo; Ctrl-C still raises SIGINT), and back. The
// signal handlers restore the terminal themselves before the program dies.
void enter_raw_mode();
void leave_raw_mode();

// SIGINT, SIGTERM and SIGHUP post EventPipe::kQuit (a second one ends the program at once);
// with `keys`, SIGTSTP and SIGCONT post kSuspend and kResume. Crashes and the other fatal
// signals give the terminal back first. Signals ignored at start (nohup) stay ignored.
void install_signal_handlers(bool keys);

// Ctrl-Z taken from the main loop: gives the terminal back and stops the process for real.
void suspend_now();
// After SIGCONT: Ctrl-Z posts kSuspend again and the keyboard is raw again.
void resumed();

// The terminal's width in columns (80 when it cannot be read).
int terminal_columns();

} // namespace aeplay

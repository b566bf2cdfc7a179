// The player program: one IPlayer driven from the main thread, woken by the event pipe.
//
// The rules it follows, which every application of the player follows:
//
//  1. One application thread (here: main) makes every IPlayer call. The player does not
//     serialise its callers.
//  2. PlayerCb handlers run on the library's play thread, or on our own thread from inside our
//     own IPlayer calls. They never call the player's transport. They only record what happened
//     and wake the main loop: an atomic flag and one byte written to a self-pipe. Neither can
//     block, so a handler that fires while our thread sits in SetState(Stopped) waiting for the
//     play thread cannot deadlock.
//  3. The main loop waits with poll() on the self-pipe (player events and signals) and on the
//     keyboard, then reads the player's state on its own thread and acts: after a state change
//     it calls HandlePlayerStateChanged(), which starts the next track when one has finished.
//  4. Shutdown: SetState(Stopped) (joins the play thread), setCb(nullptr), destroy the player,
//     then deinit_alsa_output() so the sound device is closed (and a WAV file finalised).
#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "AudioEngineExtension.h"
#include "IPlayer.h"
#include "aeplay_options.h"
#include "aeplay_resume.h"

namespace aeplay {

class App {
public:
    // `keys`: stdin is a terminal to read keys from; `statusLine`: stdout is one to draw on.
    // aeplay's own errors go to `errors`.
    App(const Options &options, tavrel::utilities::IPlayer *player,
        const std::vector<std::string> &paths, bool keys, bool statusLine, FILE *errors)
        : options_(options), player_(player), paths_(paths), keys_(keys), statusLine_(statusLine),
          errors_(errors) {}

    // Plays the list; returns the exit status.
    int run();

private:
    enum class Move { Next, Previous, AfterStateChange };

    // aeplay_app.cpp: the run loop and moving through the list.
    void start();
    void move(Move how);
    bool started();
    void trackStarted();
    void handleState();
    int currentChapter(int position) const;
    // aeplay_place.cpp: where the book was left.
    void findPlaceFile();
    bool resumePlace(int *track, int *position);
    void keepPlace(bool now);
    // aeplay_listening.cpp: skip silence, levelling, the sleep timer, rewind after a pause.
    void startListening();
    void sleepFired();
    void listeningKey(char key);
    std::string listeningText();
    // aeplay_keys.cpp
    void handleKey(const std::string &keys, size_t *pos);
    void seekBy(int seconds);
    void chapter(int direction);
    // aeplay_status.cpp: what is shown.
    void announceTrack();
    void message(const std::string &text, bool error = false);
    void refresh();
    std::string statusText();

    const Options &options_;
    tavrel::utilities::IPlayer *player_;
    const std::vector<std::string> &paths_;
    const bool keys_;
    const bool statusLine_;
    FILE *const errors_;

    bool quit_ = false;
    bool playedAny_ = false;
    int exitCode_ = 0;
    // What the open track tells about itself, read once when it starts (main thread), made
    // printable.
    std::string title_;
    std::string artist_;
    std::vector<tavrel::audio::AudioBook::Chapter> chapters_;
    int lastChapter_ = -1;
    std::string shownStatus_;

    // The state file of these inputs (empty: the place is not kept), the entries' absolute
    // paths as it names them, and what was last written to it.
    std::string placePath_;
    std::string identity_;
    std::vector<std::string> files_;
    Place kept_;
    std::chrono::steady_clock::time_point keptAt_;
    bool placeFailed_ = false; // a write failed (reported once)

    ae_ext *ext_ = nullptr;   // the player's listening features (null: not this library's)
    bool sleepArmed_ = false; // --sleep has been armed (when the first track started)
    int sleepPreset_ = 0;     // the 'z' key's place in its cycle
    bool listEnded_ = false;
};

} // namespace aeplay

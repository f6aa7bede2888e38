// What a user asks of the command while it works.

#ifndef STANDIN_APP_SIGNALS_H
#define STANDIN_APP_SIGNALS_H

#include <memory>

namespace flickr_app {

/// While this lives SIGINT, SIGTERM and SIGHUP are counted, and SIGUSR1 and SIGUSR2 set and clear the wish
/// for a pause; whoever works sees to the rest.
class Signals {
public:
    Signals();
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    static int stops();
    static bool isStopWanted() { return stops() > 0; }
    static bool isPauseWanted();

private:
    struct Earlier;
    std::unique_ptr<Earlier> earlier_;
};

/// Throws Stopped when a stop is wanted: for what leaves nothing half done.
void throwIfStopped();

}  // namespace flickr_app

#endif

#include "standin/app/Signals.h"

#include <signal.h>

#include <csignal>
#include <iterator>

#include "standin/app/Refusal.h"

namespace flickr_app {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2};

volatile std::sig_atomic_t stopSignals = 0;
volatile std::sig_atomic_t pauseSignal = 0;

}  // namespace

struct Signals::Earlier {
    struct sigaction actions[std::size(kSignals)] = {};
};

Signals::Signals() : earlier_(std::make_unique<Earlier>()) {
    stopSignals = 0;
    pauseSignal = 0;
    struct sigaction action {};
    action.sa_handler = [](int signal) {
        if (signal == SIGUSR1 || signal == SIGUSR2) {
            pauseSignal = signal == SIGUSR1;
        } else {
            stopSignals = stopSignals + 1;
        }
    };
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        struct sigaction& earlier = earlier_->actions[i];
        ::sigaction(kSignals[i], &action, &earlier);
        // What nohup has the program ignore stays ignored.
        if (kSignals[i] == SIGHUP && earlier.sa_handler == SIG_IGN) ::sigaction(SIGHUP, &earlier, nullptr);
    }
}

Signals::~Signals() {
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        ::sigaction(kSignals[i], &earlier_->actions[i], nullptr);
    }
}

int Signals::stops() {
    return stopSignals;
}

bool Signals::isPauseWanted() {
    return pauseSignal != 0;
}

void throwIfStopped() {
    if (Signals::isStopWanted()) throw Stopped();
}

}  // namespace flickr_app

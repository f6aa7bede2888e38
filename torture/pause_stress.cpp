// Pauses, resumes and stops backups at random moments, as a host with a hasty user would, and looks each time
// at the event, and at the end at every item.
//
//   pause_stress [SEQUENCES [SEED]]
//
// Each sequence is one backup with up to five pauses, of which some end before the backup has come to rest,
// and with or without a stop at the end. Before each the account gets new and edited items.

#include <Poco/Exception.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "standin/app/PluginHost.h"
#include "tests/BundleHost.h"
#include "tests/HostDriver.h"

namespace {

using flickr_sim::photo;

/// What the host has heard of the current backup.
struct Heard {
    std::mutex mutex;
    std::vector<std::string> events;
    std::string problem;
    BundleHost* host = nullptr;

    void report(const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex);
        problem += text + "\n";
    }
};

int finished(void* heard, int status, const char* detail, int, int hasSettings) {
    Heard& self = *static_cast<Heard*>(heard);
    const std::lock_guard<std::mutex> lock(self.mutex);
    // One without settings answers a stop that came when the backup had ended.
    if (hasSettings) self.events.push_back(std::to_string(status) + " " + detail);
    return 0;
}

void rests(void* heard) {
    Heard& self = *static_cast<Heard*>(heard);
    try {
        self.host->recover();
    } catch (const Poco::Exception& exception) {
        self.report(exception.displayText());
    }
}

void guard(void* heard, void (*work)(void*), void* argument) {
    try {
        work(argument);
    } catch (const std::exception& exception) {
        static_cast<Heard*>(heard)->report(std::string("An exception left the backup: ") + exception.what());
    }
}

class Stress {
public:
    Stress(BundleHost& host, unsigned seed) : host_(host), random_(seed) {
        heard_.host = &host;
        callbacks_.context = &heard_;
        callbacks_.finished = finished;
        callbacks_.ticked = [](void*, double, double, int) { return 0; };
        callbacks_.begins = [](void*) { return 0; };
        callbacks_.rests = rests;
        callbacks_.guard = guard;
        set_ = host.account.addSet("Trip");
    }

    /// Returns what went wrong; empty for nothing.
    std::string sequence(bool isLast) {
        changeAccount();
        host_.recover();
        heard_.events.clear();
        Host* host = HostNew(&callbacks_);
        HostSend(host, "initialize");
        HostTakePluginSettings(host);
        HostSet(host, "serviceOAuthToken", host_.sim.credentials().token.c_str());
        HostSet(host, "mountPoint", host_.device().c_str());
        HostSet(host, "deviceCulture", "en");
        HostSetBackupFrom(host, 2001, 1, 1);
        HostStart(host, "begin");

        const bool stops = !isLast && random_() % 2 == 0;
        std::thread user([&, pauses = isLast ? 0 : random_() % 6] { disturb(host, pauses, stops); });
        const bool ended = HostRunLoop(host, 120, nullptr, nullptr);
        user.join();
        if (!ended) return "the backup hangs";  // and cannot be cleaned up
        const int left = HostFree(host);

        std::string problem = heard_.problem;
        if (left != 0) problem += "the plug-in object is leaked\n";
        std::string events;
        for (const std::string& event : heard_.events) events += "(" + event + ")";
        // A stop can come before the beginning or behind the last item.
        const bool isRight = events == "(1 )" || (stops && events == "(2 501)");
        if (!isRight) problem += "events " + events + (stops ? ", stopped\n" : ", not stopped\n");
        stopped_ += events == "(2 501)";
        return problem;
    }

    long stopped() const { return stopped_; }
    long pauses() const { return pauses_; }

private:
    void changeAccount() {
        for (unsigned i = random_() % 4; i > 0; --i) {
            host_.account.addItem(random_() % 4 ? set_ : "", photo("picture", clock_++));
        }
        const auto items = host_.account.items(set_);
        if (!items.empty() && random_() % 2) {
            const std::string id = items[random_() % items.size()]->id;
            host_.account.edit(id, flickr_sim::contentOf(photo("edit " + std::to_string(clock_)), "Original"),
                               clock_);
            ++clock_;
        }
    }

    void pauseFor(unsigned milliseconds) {
        std::this_thread::sleep_for(std::chrono::microseconds(random_() % (1000 * milliseconds)));
    }

    void disturb(Host* host, unsigned long pauses, bool stops) {
        for (; pauses > 0; --pauses) {
            pauseFor(60);
            HostSend(host, "low");
            ++pauses_;
            pauseFor(random_() % 2 ? 1 : 60);
            HostSend(host, random_() % 2 ? "recovered" : "unholdWaitingCondition");
        }
        if (!stops) return;
        if (random_() % 2) HostSend(host, "low");
        pauseFor(80);
        HostSend(host, "stopBackup");
    }

    BundleHost& host_;
    std::mt19937 random_;
    Heard heard_;
    HostCallbacks callbacks_ = {};
    std::string set_;
    std::time_t clock_ = 1700000000;
    long stopped_ = 0, pauses_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    inApplicationFolder(argv);
    const long sequences = argc > 1 ? std::atol(argv[1]) : 10;
    const unsigned seed = argc > 2 ? static_cast<unsigned>(std::atol(argv[2])) : std::random_device()();
    std::printf("%ld sequences, seed %u\n", sequences, seed);
    PluginHostQuietSystemLog();

    BundleHost host;
    if (!HostLoadBundle(host.bundle().c_str())) {
        std::printf("The bundle cannot be loaded.\n");
        return 1;
    }
    Stress stress(host, seed);
    std::string problem;
    long done = 0;
    for (; done < sequences && problem.empty(); ++done) problem = stress.sequence(done + 1 == sequences);
    if (problem.empty()) {
        host.recover();
        problem = host.backupProblem();
    }
    std::printf("%ld backups, %ld pauses, %ld stopped, %zu items, %lu downloads\n%s", done, stress.pauses(),
                stress.stopped(), host.account.items(host.account.sets()[0].id).size(),
                static_cast<unsigned long>(host.sim.counts().media), problem.c_str());
    std::printf(problem.empty() ? "Every backup ended as it should, and every item is there once.\n"
                                : "FAILED\n");
    std::fflush(stdout);
    if (!problem.empty()) std::_Exit(1);
    return 0;
}

#include "standin/app/PerformRun.h"

#include <Poco/Exception.h>

#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>

#include "hostapi/Conventions.h"
#include "standin/app/PluginHost.h"
#include "standin/framework/base/Text.h"

namespace flickr_app {
namespace {

constexpr int kFailed = 2;
constexpr const char* kDetailStopped = "501";

/// Takes over a text that the Objective-C half has allocated.
std::string take(char* text) {
    const std::unique_ptr<char, void (*)(void*)> owned(text, std::free);
    return text == nullptr ? std::string() : std::string(text);
}

/// Between the listener and the Objective-C half. No exception of C++ passes there: the first one is kept,
/// stops the run, and is thrown when it has ended.
class Relay {
public:
    explicit Relay(RunListener& listener) : listener_(listener) {}

    void connect(PluginHostRun& run) {
        run.context = this;
        run.progress = [](void* relay, double items, double bytes) {
            of(relay).call([=](RunListener& listener) { listener.progress(items, bytes); });
        };
        run.stopRequested = [](void* relay) -> int {
            Relay& self = of(relay);
            self.call([&](RunListener& listener) { self.stop_ = listener.stopRequested(); });
            return self.stop_ || self.listenerFailure_;
        };
        run.pauseRequested = [](void* relay) -> int {
            bool pause = false;
            of(relay).call([&](RunListener& listener) { pause = listener.pauseRequested(); });
            return pause;
        };
        run.paused = [](void* relay, int isPaused) {
            of(relay).call([=](RunListener& listener) { listener.paused(isPaused != 0); });
        };
        run.guard = [](void* relay, void (*work)(void*), void* argument) {
            try {
                work(argument);
            } catch (...) {
                of(relay).runFailure_ = std::current_exception();
            }
        };
    }

    bool stopRequested() const { return stop_; }

    /// After the run.
    void rethrow() const {
        if (runFailure_) std::rethrow_exception(runFailure_);
        if (listenerFailure_) std::rethrow_exception(listenerFailure_);
    }

private:
    static Relay& of(void* relay) { return *static_cast<Relay*>(relay); }

    void call(const std::function<void(RunListener&)>& work) {
        if (listenerFailure_) return;
        try {
            work(listener_);
        } catch (...) {
            listenerFailure_ = std::current_exception();
        }
    }

    RunListener& listener_;
    bool stop_ = false;
    std::exception_ptr listenerFailure_;  // the main thread's
    std::exception_ptr runFailure_;       // the run's thread's, read when it has ended
};

/// The plug-in logs "Backup Info STATUS : TEXT" for a run that failed.
std::string errorTextOf(const std::string& message) {
    const std::string start = "Backup Info ";
    if (!flickr_standin::startsWith(message, start)) return message;
    const std::string::size_type colon = message.find(" : ");
    return colon == std::string::npos ? std::string() : message.substr(colon + 3);
}

}  // namespace

RunOutcome performRun(const RunRequest& request, RunListener& listener) {
    PluginHostQuietSystemLog();
    std::vector<const char*> dataTypes;
    for (const std::string& type : request.dataTypes) dataTypes.push_back(type.c_str());
    dataTypes.push_back(nullptr);

    PluginHostRun run = {};
    run.device = request.device.c_str();
    run.databaseName = request.databaseName.c_str();
    run.authToken = request.authToken.c_str();
    run.dataTypes = dataTypes.data();
    run.fromYear = request.fromYear;
    run.fromMonth = request.fromMonth;
    run.fromDay = request.fromDay;
    run.culture = request.culture.c_str();
    Relay relay(listener);
    relay.connect(run);

    PluginHostOutcome ended = {};
    const std::string problem = take(PluginHostBackUp(&run, &ended));
    RunOutcome outcome;
    outcome.detail = take(ended.detail);
    const std::string message = take(ended.message);
    outcome.items = ended.items;
    outcome.bytes = ended.bytes;
    if (!problem.empty()) throw Poco::RuntimeException(problem);
    relay.rethrow();
    if (ended.backupStatus == 0) {
        throw Poco::RuntimeException(message.empty() ? "The plug-in did not say how the run ended."
                                                     : message);
    }

    listener.progress(outcome.items, outcome.bytes);
    outcome.stopped = outcome.detail == kDetailStopped && relay.stopRequested();
    outcome.errorText = errorTextOf(message);
    outcome.status = ended.backupStatus == Norvale_Plugin_Core::kSuccess ? Norvale_Plugin_Core::kSuccess
                                                                         : std::atoi(outcome.detail.c_str());
    if (outcome.status == Norvale_Plugin_Core::kSuccess &&
        ended.backupStatus != Norvale_Plugin_Core::kSuccess)
        outcome.status = kFailed;
    return outcome;
}

std::vector<std::pair<std::string, std::string>> describePlugin() {
    PluginHostQuietSystemLog();
    std::vector<std::pair<std::string, std::string>> lines;
    const auto add = [](void* context, const char* label, const char* value) {
        static_cast<decltype(lines)*>(context)->emplace_back(label, value);
    };
    const std::string problem = take(PluginHostDescribe(add, &lines));
    if (!problem.empty()) throw Poco::RuntimeException(problem);
    return lines;
}

}  // namespace flickr_app

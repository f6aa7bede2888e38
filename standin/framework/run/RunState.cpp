#include "standin/framework/run/RunState.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

#include "standin/framework/base/Localisation.h"
#include "standin/framework/base/Paths.h"
#include "standin/framework/base/SqliteGuard.h"
#include "standin/framework/run/Secrets.h"

namespace flickr_standin {

namespace {

struct Settings {
    std::map<std::string, std::string> words = readKeywords("en");
    std::string serviceFolder;
    std::string mountPoint;
    RecordedError error;
};

// Never destroyed: threads of the plug-in's pool may outlast the statics of the program.
struct State {
    std::mutex mutex;
    Settings settings;
    std::atomic<bool> stoppedByUser{false};
    std::atomic<bool> catastrophe{false};
    std::atomic<bool> isDry{false};
    std::atomic<int> retryAttempts{0};
    std::atomic<std::uint64_t> items{0};
    std::atomic<std::uint64_t> bytes{0};
};

State& state() {
    static State& instance = *new State;
    return instance;
}

// Databases know nothing of runs.
[[maybe_unused]] const bool isObserving = [] {
    observeSqlite({isRunStopped, [](const std::string& path) {
                       recordCatastrophe(RunErrorDeviceGone,
                                         "The backup device is gone or does not answer: the database " +
                                             path + " is not there any more");
                   }});
    return true;
}();

void clearRun(State& s) {
    s.stoppedByUser = false;
    s.catastrophe = false;
    s.items = 0;
    s.bytes = 0;
    s.settings.error = {};
}

}  // namespace

void resetRunState() {
    State& s = state();
    const std::lock_guard<std::mutex> lock(s.mutex);
    clearRun(s);
    s.retryAttempts = 0;
    s.isDry = false;
    s.settings = Settings();
}

void beginRun() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    clearRun(state());
}

void stopRun() {
    state().stoppedByUser = true;
}

bool isRunStopped() {
    const State& s = state();
    return s.stoppedByUser || s.catastrophe;
}

bool isStoppedByUser() {
    return state().stoppedByUser;
}

void setDryRun(bool isDry) {
    state().isDry = isDry;
}

bool isDryRun() {
    return state().isDry;
}

void setWords(std::map<std::string, std::string> words) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().settings.words = std::move(words);
}

std::string wordOf(const std::string& key) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    const auto found = state().settings.words.find(key);
    return found == state().settings.words.end() ? std::string() : found->second;
}

void setServiceFolder(std::string folder, std::string mountPoint) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().settings.serviceFolder = withoutEndSlash(std::move(folder));
    state().settings.mountPoint = withoutEndSlash(std::move(mountPoint));
}

std::string currentServiceFolder() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().settings.serviceFolder;
}

std::string currentMountPoint() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().settings.mountPoint;
}

void setRetryAttempts(int attempts) {
    state().retryAttempts = std::max(attempts, 0);
}

int retryAttempts() {
    return state().retryAttempts;
}

void recordRunError(RunError code, const std::string& text) {
    std::string masked = maskSecrets(text);
    const std::lock_guard<std::mutex> lock(state().mutex);
    RecordedError& error = state().settings.error;
    if (error.code == 0) error = {code, std::move(masked)};
}

void recordCatastrophe(RunError code, const std::string& text) {
    recordRunError(code, text);
    state().catastrophe = true;
}

RecordedError recordedError() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().settings.error;
}

void addWrittenBytes(std::uint64_t count) {
    state().bytes += count;
}

void addFinishedItem() {
    ++state().items;
}

std::uint64_t writtenBytes() {
    return state().bytes;
}

std::uint64_t finishedItems() {
    return state().items;
}

}  // namespace flickr_standin

#include "standin/app/PerformRun.h"

#include <Poco/Exception.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <filesystem>
#include <mutex>
#include <thread>

#include "core/FlickrPluginCore.h"
#include "hostapi/HostServiceUsageParams.h"
#include "standin/app/ApplicationFolder.h"
#include "standin/app/Configuration.h"
#include "standin/app/DeviceLayout.h"

namespace flickr_app {
namespace {

namespace plugin = Norvale_Plugin_Flickr;
using Clock = std::chrono::steady_clock;

constexpr int kSuccess = 1;
constexpr auto kPollInterval = std::chrono::milliseconds(100);
constexpr auto kProgressInterval = std::chrono::seconds(1);

/// A buffer of a size for what the plug-in writes.
template <std::size_t Size>
struct Buffer {
    char text[Size] = {};
};
using TextBuffer = Buffer<plugin::kTextCapacity>;

char* mutableText(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

/// The core object for the length of a run.
class Core {
public:
    Core() {
        TextBuffer error;
        const std::string directory = pluginsDirectory();
        handle_ = plugin::createObject(mutableText(directory), mutableText(directory), error.text);
    }
    ~Core() {
        TextBuffer error;
        plugin::deleteObject(handle_, error.text);
    }
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;
    void* handle() const { return handle_; }

private:
    void* handle_;
};

std::string openedValue(void* core, int (*getter)(void*, char*, char*)) {
    TextBuffer value, error;
    if (getter(core, value.text, error.text) != kSuccess) throw Poco::RuntimeException(error.text);
    return openSecret(value.text);
}

RunOutcome backUp(void* core, const RunRequest& request) {
    const std::string apiKey = openedValue(core, plugin::getApiKey);
    const std::string apiSecret = openedValue(core, plugin::getApiSecret);
    std::string dataTypes;
    for (const std::string& type : request.dataTypes) dataTypes += type + ";";
    const std::string from = std::to_string(request.fromMonth) + "/" + std::to_string(request.fromDay) + "/" +
                             std::to_string(request.fromYear);
    const std::string serviceFolder = serviceFolderOn(request.device, request.culture);
    std::filesystem::create_directories(serviceFolder);
    const std::string database = (std::filesystem::path(request.device) / request.databaseName).string();

    Buffer<plugin::kVideoListCapacity> videos;
    TextBuffer error;
    RunOutcome outcome;
    outcome.status = plugin::backup(
        core, mutableText(database), mutableText(request.authToken), mutableText(from), mutableText(apiKey),
        mutableText(apiSecret), mutableText(dataTypes), videos.text, mutableText(serviceFolder),
        mutableText(""), mutableText(request.device), true, mutableText(request.culture), error.text);
    outcome.errorText = error.text;
    return outcome;
}

}  // namespace

RunOutcome performRun(const RunRequest& request, RunListener& listener) {
    const Core core;
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;
    RunOutcome outcome;
    std::exception_ptr failure;
    std::thread run([&] {
        try {
            outcome = backUp(core.handle(), request);
        } catch (...) {
            failure = std::current_exception();
        }
        const std::lock_guard<std::mutex> lock(mutex);
        done = true;
        ended.notify_one();
    });

    bool stopSent = false;
    const auto report = [&] {
        TextBuffer error;
        double items = 0, bytes = 0;
        plugin::getProgress(items, bytes, error.text);
        listener.progress(items, bytes);
    };
    Clock::time_point next = Clock::now() + kProgressInterval;
    for (std::unique_lock<std::mutex> lock(mutex); !done; ended.wait_for(lock, kPollInterval)) {
        lock.unlock();
        if (listener.stopRequested()) {
            TextBuffer error;
            stopSent = true;
            // Again where it was too early: a run's beginning clears the stop of an earlier one.
            if (!Norvale_Plugin_Core::HostServiceUsageParams::getInstance()->isManuallyStopped()) {
                plugin::stopBackup(core.handle(), error.text);
            }
        }
        if (Clock::now() >= next) {
            next += kProgressInterval;
            report();
        }
        lock.lock();
    }
    run.join();
    report();
    if (failure) std::rethrow_exception(failure);
    outcome.stopped = stopSent;
    outcome.detail = stopSent ? "501" : outcome.status == kSuccess ? "" : std::to_string(outcome.status);
    return outcome;
}

}  // namespace flickr_app

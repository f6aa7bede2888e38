#include "standin/framework/run/RunConfiguration.h"

#include <mutex>
#include <utility>

namespace flickr_standin {

namespace {

struct State {
    std::mutex mutex;
    ConfigurationValues values;
    ConfigurationValues defaults;
    std::string configurationFolder;
    std::string logFolder;
};

State& state() {
    static State& instance = *new State;
    return instance;
}

std::optional<std::string> find(const ConfigurationValues State::*values, const std::string& key) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    const auto found = (state().*values).find(key);
    if (found == (state().*values).end()) return std::nullopt;
    return found->second;
}

std::string inFolder(const std::string State::*folder, const std::string& path) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    const std::string& named = state().*folder;
    return named.empty() ? path : named + "/" + path.substr(path.rfind('/') + 1);
}

}  // namespace

void setRunConfiguration(ConfigurationValues values, ConfigurationValues defaults) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().values = std::move(values);
    state().defaults = std::move(defaults);
}

std::optional<std::string> runValue(const std::string& key) {
    return find(&State::values, key);
}

std::optional<std::string> runDefault(const std::string& key) {
    return find(&State::defaults, key);
}

bool hasRunDefaults() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return !state().defaults.empty();
}

void setUserFolders(std::string configuration, std::string log) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().configurationFolder = std::move(configuration);
    state().logFolder = std::move(log);
}

std::string inConfigurationFolder(const std::string& path) {
    return inFolder(&State::configurationFolder, path);
}

std::string inLogFolder(const std::string& path) {
    return inFolder(&State::logFolder, path);
}

}  // namespace flickr_standin

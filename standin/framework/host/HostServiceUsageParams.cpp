#include "hostapi/HostServiceUsageParams.h"

#include <Poco/NumberParser.h>
#include <Poco/URI.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <map>
#include <mutex>
#include <string_view>

#include "hostapi/Utils.h"
#include "standin/framework/base/Cipher.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/device/Device.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunState.h"

namespace Norvale_Plugin_Core {

namespace {

constexpr std::string_view kMask = "***";

struct Settings {
    std::map<std::string, std::string> keywords = readKeywords("en");
    std::string serviceFolder;
    std::string cek;
    bool modeFlag = false;
    int value = 0;
    std::string mountPoint;
    int errorCode = 0;  // 0: none is recorded
    std::string errorText;
};

// Never destroyed: threads of the plug-in's pool may outlast the statics of the program.
struct State {
    std::mutex mutex;
    Settings settings;
    std::atomic<bool> manuallyStopped{false};
    std::atomic<bool> catastrophe{false};
    std::atomic<int> retryAttempts{0};
    std::atomic<std::uint64_t> items{0};
    std::atomic<std::uint64_t> bytes{0};

    std::mutex secretsMutex;
    std::vector<std::string> secrets;
};

State& state() {
    static State& instance = *new State;
    return instance;
}

void clearRun(State& s) {
    s.manuallyStopped = false;
    s.catastrophe = false;
    s.items = 0;
    s.bytes = 0;
    s.settings.errorCode = 0;
    s.settings.errorText.clear();
}

std::string withoutEndSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

/// Replaces the value of every key=value in text, up to what ends a value in an address or a message.
void maskValues(std::string& text, std::string_view key) {
    for (std::string::size_type at = text.find(key); at != std::string::npos; at = text.find(key, at)) {
        at += key.size();
        const std::string::size_type end = std::min(text.find_first_of("&;#'\"<>() \t\r\n", at), text.size());
        text.replace(at, end - at, kMask);
    }
}

/// A letter or digit; bytes of other alphabets count as letters.
bool isWordByte(unsigned char c) {
    return c >= 0x80 || std::isalnum(c);
}

/// Whether text holds the secret at a place where it is a word of its own, not a part of one.
bool standsAlone(const std::string& text, std::size_t at, std::size_t size) {
    const std::size_t end = at + size;
    const bool joinedBefore = at > 0 && isWordByte(text[at]) && isWordByte(text[at - 1]);
    const bool joinedBehind = end < text.size() && isWordByte(text[end - 1]) && isWordByte(text[end]);
    return !joinedBefore && !joinedBehind;
}

/// Masks a secret wherever it stands. A short one can be a part of any word: it counts where it stands alone.
void maskSecret(std::string& text, const std::string& secret) {
    constexpr std::size_t kShort = 8;
    for (std::string::size_type at = text.find(secret); at != std::string::npos; at = text.find(secret, at)) {
        if (secret.size() < kShort && !standsAlone(text, at, secret.size())) {
            ++at;
        } else {
            text.replace(at, secret.size(), kMask);
            at += kMask.size();
        }
    }
}

}  // namespace

HostServiceUsageParams* HostServiceUsageParams::getInstance() {
    static HostServiceUsageParams& instance = *new HostServiceUsageParams;
    return &instance;
}

void HostServiceUsageParams::release() {
    Device::close();
    State& s = state();
    const std::lock_guard<std::mutex> lock(s.mutex);
    clearRun(s);
    s.retryAttempts = 0;
    s.settings = Settings();
}

void HostServiceUsageParams::setBackupState(bool stopped) {
    State& s = state();
    if (stopped) {
        s.manuallyStopped = true;
        return;
    }
    Device::close();
    {
        const std::lock_guard<std::mutex> lock(s.mutex);
        clearRun(s);
    }
    RunJournal::instance().begin();
}

bool HostServiceUsageParams::isBackupStopped() {
    const State& s = state();
    return s.manuallyStopped || s.catastrophe;
}

bool HostServiceUsageParams::isManuallyStopped() {
    return state().manuallyStopped;
}

void HostServiceUsageParams::setKeywords(std::string keywords) {
    std::map<std::string, std::string> words = readKeywords(keywords);
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().settings.keywords = std::move(words);
}

void HostServiceUsageParams::setCulture(std::string culture) {
    setKeywords(std::move(culture));
}

void HostServiceUsageParams::setParams(std::string serviceFolder, std::string cek, bool modeFlag, int value,
                                       std::string mountPoint) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    Settings& settings = state().settings;
    settings.serviceFolder = withoutEndSlash(std::move(serviceFolder));
    settings.cek = std::move(cek);
    settings.modeFlag = modeFlag;
    settings.value = value;
    settings.mountPoint = withoutEndSlash(std::move(mountPoint));
}

void HostServiceUsageParams::setRetryAttempts(std::string attempts) {
    int number = 0;
    if (!Poco::NumberParser::tryParse(Utils().trimString(std::move(attempts)), number)) number = 0;
    state().retryAttempts = std::max(number, 0);
}

int HostServiceUsageParams::getRetryAttempts() {
    return state().retryAttempts;
}

std::string HostServiceUsageParams::getValue(std::string key) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    const auto found = state().settings.keywords.find(key);
    return found == state().settings.keywords.end() ? std::string() : found->second;
}

std::string HostServiceUsageParams::getPluginRoot() {
    return currentServiceFolder();
}

void HostServiceUsageParams::getErrorDetails(int& code, std::string& text) {
    State& s = state();
    const std::lock_guard<std::mutex> lock(s.mutex);
    code = s.settings.errorCode;
    text = s.settings.errorText;
    if (code == 0 && !s.manuallyStopped) code = 1;
}

double HostServiceUsageParams::getTotalCount() {
    return static_cast<double>(state().items);
}

double HostServiceUsageParams::getTotalSize() {
    return static_cast<double>(state().bytes);
}

void recordRunError(RunError code, const std::string& text) {
    std::string masked = maskSecrets(text);
    const std::lock_guard<std::mutex> lock(state().mutex);
    Settings& settings = state().settings;
    if (settings.errorCode != 0) return;
    settings.errorCode = code;
    settings.errorText = std::move(masked);
}

void recordCatastrophe(RunError code, const std::string& text) {
    recordRunError(code, text);
    state().catastrophe = true;
}

void addWrittenBytes(std::uint64_t count) {
    state().bytes += count;
}

void addFinishedItem() {
    ++state().items;
}

std::string currentServiceFolder() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().settings.serviceFolder;
}

std::string currentMountPoint() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().settings.mountPoint;
}

void setLogSecrets(std::vector<std::string> secrets) {
    // As they stand and as they stand in an address; longer ones first, so that none survives in a part.
    std::vector<std::string> all;
    for (std::string& secret : secrets) {
        if (secret.empty()) continue;
        std::string encoded;
        Poco::URI::encode(secret, "+/=&?#", encoded);
        if (encoded != secret) all.push_back(encoded);
        all.push_back(secret);
        wipe(encoded);
        wipe(secret);
    }
    std::sort(all.begin(), all.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    const std::lock_guard<std::mutex> lock(state().secretsMutex);
    state().secrets.swap(all);
    for (std::string& former : all) wipe(former);
}

std::string maskSecrets(std::string text) {
    {
        const std::lock_guard<std::mutex> lock(state().secretsMutex);
        for (const std::string& secret : state().secrets) maskSecret(text, secret);
    }
    if (text.find('=') == std::string::npos) return text;
    for (const std::string_view key : {"auth_token=", "api_key=", "api_sig="}) maskValues(text, key);
    return text;
}

}  // namespace Norvale_Plugin_Core

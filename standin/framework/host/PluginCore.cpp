// The configuration is read from an XML file like
//
//   <config>
//       <plugin>
//           <name>...</name> <id/> <version/> <targetHostVersion/> <supportedDataTypes/>
//           <authenticationMechanism/> <retryAttempts/> <dataUrl/> ...
//       </plugin>
//   </config>
//
// in which the key "plugin.name" is the path of an element below the root. The host application may hold
// values that are in no file: RunConfiguration.h.

#include "hostapi/PluginCore.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/XMLConfiguration.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "hostapi/Conventions.h"
#include "hostapi/DevLogger.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/host/ExceptionCode.h"
#include "standin/framework/run/Log.h"
#include "standin/framework/run/RunConfiguration.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/Secrets.h"

namespace Norvale_Plugin_Core {

using namespace flickr_standin;

namespace {

constexpr std::size_t kBufferSize = 2048;

void copyOut(const std::string& text, char* buffer) {
    if (!buffer) return;
    const std::string fitting = cutUtf8(text.substr(0, text.find('\0')), kBufferSize - 1);
    std::memcpy(buffer, fitting.c_str(), fitting.size() + 1);
}

}  // namespace

struct PluginCore::Impl {
    std::string path;
    Poco::AutoPtr<Poco::Util::XMLConfiguration> configuration;
    std::string problem;  // why there is no configuration

    mutable std::mutex mutex;
    int exceptionCode = kSuccess;
    std::string exceptionText;
};

PluginCore::PluginCore(std::string configFilePath, std::string logFilePath)
    : impl_(std::make_unique<Impl>()) {
    nameLogFile(inLogFolder(logFilePath));
    impl_->path = inConfigurationFolder(configFilePath);
    if (hasRunDefaults() && ::access(impl_->path.c_str(), F_OK) != 0) return;
    try {
        impl_->configuration = new Poco::Util::XMLConfiguration(impl_->path);
    } catch (Poco::Exception& exception) {
        impl_->problem =
            "The configuration file " + impl_->path + " cannot be read: " + exception.displayText();
        DevLogger::writeLog(impl_->problem, LogLevelFailure, __FILE__, __LINE__);
    }
}

PluginCore::~PluginCore() = default;

int PluginCore::getValueString(std::string key, char* value, char* error) {
    if (const auto held = runValue(key)) {
        copyOut(*held, value);
        return kSuccess;
    }
    std::string problem = impl_->problem;
    if (impl_->configuration) {
        try {
            copyOut(trimmed(impl_->configuration->getRawString(key)), value);
            return kSuccess;
        } catch (Poco::Exception&) {
            problem = "The configuration file " + impl_->path + " has no value for \"" + key + "\"";
        }
    }
    if (const auto held = runDefault(key)) {
        copyOut(*held, value);
        return kSuccess;
    }
    copyOut(problem, error);
    return RunErrorConfiguration;
}

int PluginCore::getName(char* out, char* error) {
    return getValueString("plugin.name", out, error);
}
int PluginCore::getId(char* out, char* error) {
    return getValueString("plugin.id", out, error);
}
int PluginCore::getVersion(char* out, char* error) {
    return getValueString("plugin.version", out, error);
}
int PluginCore::getTargetHostVersion(char* out, char* error) {
    return getValueString("plugin.targetHostVersion", out, error);
}
int PluginCore::getSupportedDataTypes(char* out, char* error) {
    return getValueString("plugin.supportedDataTypes", out, error);
}
int PluginCore::getAutheticationMechanism(char* out, char* error) {
    return getValueString("plugin.authenticationMechanism", out, error);
}

void PluginCore::handleException(std::string source, Poco::Exception& exception, std::string message) {
    DevLogger::writeLog(source + ": " + message, LogLevelFailure, __FILE__, __LINE__);
    RunJournal::instance().exception(message, RunJournal::Next::Nothing);
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->exceptionCode = runErrorOf(exception);
    impl_->exceptionText = maskSecrets(std::move(message));
}

std::string PluginCore::getExceptionDetails() {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->exceptionText;
}

int PluginCore::getExceptionCode() {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->exceptionCode;
}

}  // namespace Norvale_Plugin_Core

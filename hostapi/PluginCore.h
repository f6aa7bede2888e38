// Base class of a plug-in's core object: configuration, identity and developer log.

#ifndef HOSTAPI_PLUGINCORE_H
#define HOSTAPI_PLUGINCORE_H

#include <Poco/Exception.h>

#include <memory>
#include <string>

namespace Norvale_Plugin_Core {

/// Base of a plug-in's core object.
///
/// Every output buffer is the caller's and holds at least 2,048 bytes; nothing is written past that, the
/// NUL included. Every getter returns 1 on success, and otherwise another status with an explanation in
/// error, which may be null.
class PluginCore {
public:
    /// Opens the configuration file and names the developer log's file. Neither has to exist: with a missing
    /// or broken configuration every getter says what is wrong.
    PluginCore(std::string configFilePath, std::string logFilePath);
    virtual ~PluginCore();
    PluginCore(const PluginCore&) = delete;
    PluginCore& operator=(const PluginCore&) = delete;

    int getName(char* out, char* error);
    int getId(char* out, char* error);
    int getVersion(char* out, char* error);
    int getTargetHostVersion(char* out, char* error);

    /// The data types that the plug-in can back up, each followed by ";": "Images;Videos;".
    int getSupportedDataTypes(char* out, char* error);

    /// The way in which users sign in to the service: "OAuth".
    int getAutheticationMechanism(char* out, char* error);

    /// Copies the configuration's value of key ("plugin.dataUrl") into value.
    int getValueString(std::string key, char* value, char* error);

    /// Records an exception that ended a run, and logs it. source names the service.
    void handleException(std::string source, Poco::Exception& exception, std::string message);

    /// Text of the exception recorded last; empty when there is none.
    std::string getExceptionDetails();

    /// Status of the exception recorded last, 2 or more; 1 when there is none.
    int getExceptionCode();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Norvale_Plugin_Core

#endif

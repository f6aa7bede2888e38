// What operations on a device throw.

#ifndef STANDIN_FRAMEWORK_DEVICE_DEVICEEXCEPTION_H
#define STANDIN_FRAMEWORK_DEVICE_DEVICEEXCEPTION_H

#include <Poco/Exception.h>

#include <string>

namespace flickr_standin {

/// A file operation that was refused or failed; the message is a sentence for the user.
class DeviceException : public Poco::Exception {
public:
    explicit DeviceException(const std::string& message) : Poco::Exception(message) {}
};

/// The device takes nothing any more: a run cannot go on.
class DeviceFailure : public DeviceException {
public:
    enum class Kind { Full, Gone, ReadOnly };

    /// summary: what is wrong, as a sentence; the message says the system's reason as well.
    DeviceFailure(Kind kind, const std::string& summary, const std::string& reason = "")
        : DeviceException(reason.empty() ? summary : summary + " (" + reason + ")"),
          kind_(kind),
          summary_(summary) {}

    Kind kind() const { return kind_; }
    const std::string& summary() const { return summary_; }

private:
    Kind kind_;
    std::string summary_;
};

}  // namespace flickr_standin

#endif

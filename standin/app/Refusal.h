// What keeps a command from its work, and how the command ends.

#ifndef STANDIN_APP_REFUSAL_H
#define STANDIN_APP_REFUSAL_H

#include <Poco/Exception.h>

#include <stdexcept>
#include <string>

#include "standin/app/Reason.h"

namespace flickr_app {

/// Exit statuses of the command.
enum ExitStatus {
    ExitSuccess = 0,      ///< complete
    ExitFailure = 1,      ///< something is not backed up, or a check found something
    ExitUsage = 2,        ///< wrong usage
    ExitCannotBegin = 3,  ///< device, configuration, credentials or service do not let it begin
    ExitStopped = 130     ///< by SIGINT, SIGTERM or SIGHUP
};

/// The statuses as each command's help tells them.
constexpr const char* kExitStatuses =
    "Exit status: 0 complete, 1 something is not backed up or not as it was, 2 wrong usage, 3 something\n"
    "outside (device, configuration, credentials, service) does not let it begin, 130 stopped.\n";

/// The user has to put something right before anything can be done. what() is one sentence that says what is
/// wrong and what to do.
class Refusal : public std::runtime_error {
public:
    ExitStatus status() const { return status_; }

protected:
    Refusal(const std::string& sentence, ExitStatus status) : std::runtime_error(sentence), status_(status) {}

private:
    ExitStatus status_;
};

/// A wrong argument.
class UsageError : public Refusal {
public:
    explicit UsageError(const std::string& sentence) : Refusal(sentence, ExitUsage) {}
};

/// The arguments are right, and what they name cannot be used.
class CannotBegin : public Refusal {
public:
    explicit CannotBegin(const std::string& sentence) : Refusal(sentence, ExitCannotBegin) {}
};

/// A signal ended a command that only looks.
class Stopped : public Refusal {
public:
    Stopped() : Refusal("Stopped", ExitStopped) {}
};

/// Does what comes before a command's work: a Poco::Exception out of it becomes CannotBegin.
template <typename Action>
auto beforehand(Action action) {
    try {
        return action();
    } catch (Poco::Exception& exception) {
        throw CannotBegin(whyNotBegun(exception));
    }
}

}  // namespace flickr_app

#endif

// What the user has to put right before anything can be done.

#ifndef STANDIN_APP_USAGEERROR_H
#define STANDIN_APP_USAGEERROR_H

#include <stdexcept>

namespace flickr_app {

/// A wrong argument, or a file given by the user that cannot be used: exit status 2. what() is one sentence
/// that says what is wrong and what to do.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Exit statuses of the command.
enum ExitStatus {
    ExitSuccess = 0,
    ExitFailure = 1,  ///< the run failed, or an item of it; a check found something
    ExitUsage = 2,
    ExitStopped = 130  ///< by SIGINT, SIGTERM or SIGHUP
};

}  // namespace flickr_app

#endif

// Where the plug-in reports the exceptions that it caught.

#ifndef HOSTAPI_EXCEPTIONHANDLERMAC_H
#define HOSTAPI_EXCEPTIONHANDLERMAC_H

#include <Poco/Exception.h>

#include <string>

namespace Norvale_Plugin_Core {

/// Records and logs exceptions that an activity caught and does not pass on.
class ExceptionHandlerMac {
public:
    /// source names the service in the log; the plug-in uses "Flickr".
    explicit ExceptionHandlerMac(std::string source);
    ~ExceptionHandlerMac();

    /// Logs the exception at level 0 and, when value (the number of the attempt that failed, from 1) has
    /// reached the run's retry count, records it as the run's error. The first error that a run records
    /// stays. A CSConfigException is catastrophic: it also stops the run.
    void handleException(Poco::Exception& exception, std::string message, int value);

private:
    std::string source_;
};

}  // namespace Norvale_Plugin_Core

#endif

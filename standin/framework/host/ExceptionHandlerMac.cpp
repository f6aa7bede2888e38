#include "hostapi/ExceptionHandlerMac.h"

#include <Poco/Data/DataException.h>

#include "hostapi/CSConfigException.h"
#include "hostapi/CSNetworkException.h"
#include "hostapi/DevLogger.h"
#include "hostapi/HostServiceUsageParams.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunState.h"

namespace Norvale_Plugin_Core {

RunError runErrorOf(const Poco::Exception& exception) {
    if (dynamic_cast<const CSConfigException*>(&exception)) {
        return exception.code() == 0 ? RunErrorAuthorisation : RunErrorConfiguration;
    }
    if (dynamic_cast<const Poco::Data::DataException*>(&exception)) return RunErrorDatabase;
    // The network library's exceptions are I/O exceptions, or time-outs.
    const bool network = dynamic_cast<const CSNetworkException*>(&exception) ||
                         dynamic_cast<const Poco::IOException*>(&exception) ||
                         dynamic_cast<const Poco::TimeoutException*>(&exception);
    return network ? RunErrorNetwork : RunErrorOther;
}

ExceptionHandlerMac::ExceptionHandlerMac(std::string source) : source_(std::move(source)) {}
ExceptionHandlerMac::~ExceptionHandlerMac() = default;

void ExceptionHandlerMac::handleException(Poco::Exception& exception, std::string message, int value) {
    DevLogger::writeLog(source_ + ": " + message, LogLevelFailure, __FILE__, __LINE__);

    const bool lastAttempt = value >= HostServiceUsageParams::getInstance()->getRetryAttempts();
    RunJournal::instance().exception(message, lastAttempt);
    if (dynamic_cast<CSConfigException*>(&exception)) {
        recordCatastrophe(runErrorOf(exception), message);
    } else if (lastAttempt) {
        recordRunError(runErrorOf(exception), message);
    }
}

}  // namespace Norvale_Plugin_Core

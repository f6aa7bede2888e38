#include "hostapi/ExceptionHandlerMac.h"

#include "hostapi/CSConfigException.h"
#include "hostapi/DevLogger.h"
#include "standin/framework/host/ExceptionCode.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunState.h"

namespace Norvale_Plugin_Core {

using namespace flickr_standin;

ExceptionHandlerMac::ExceptionHandlerMac(std::string source) : source_(std::move(source)) {}
ExceptionHandlerMac::~ExceptionHandlerMac() = default;

void ExceptionHandlerMac::handleException(Poco::Exception& exception, std::string message, int value) {
    DevLogger::writeLog(source_ + ": " + message, LogLevelFailure, __FILE__, __LINE__);

    const bool lastAttempt = value >= retryAttempts();
    const auto next = lastAttempt ? RunJournal::Next::Nothing : RunJournal::Next::AnotherAttempt;
    if (RunJournal::instance().exception(message, next) == RunJournal::Told::Already) return;
    if (dynamic_cast<CSConfigException*>(&exception)) {
        recordCatastrophe(runErrorOf(exception), message);
    } else if (lastAttempt) {
        recordRunError(runErrorOf(exception), message);
    }
}

}  // namespace Norvale_Plugin_Core

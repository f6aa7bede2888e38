#include "hostapi/DevLogger.h"

#include "standin/framework/run/Log.h"
#include "standin/framework/run/RunJournal.h"
#include "standin/framework/run/RunProgress.h"

namespace Norvale_Plugin_Core {

void DevLogger::writeLog(std::string message, LogLevel level, const char* sourceFile, int line) {
    flickr_standin::RunJournal::instance().logLine(message);
    flickr_standin::RunProgress::instance().logLine(message);
    const auto kind =
        level == LogLevelFailure ? flickr_standin::LogLine::Failure : flickr_standin::LogLine::Information;
    flickr_standin::writeLogLine(kind, std::move(message), sourceFile, line);
}

}  // namespace Norvale_Plugin_Core

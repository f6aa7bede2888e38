#include "standin/framework/host/ExceptionCode.h"

#include <Poco/Data/DataException.h>

#include "hostapi/CSConfigException.h"
#include "hostapi/CSNetworkException.h"

namespace Norvale_Plugin_Core {

using namespace flickr_standin;

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

}  // namespace Norvale_Plugin_Core

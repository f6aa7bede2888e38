// The codes under which exceptions of the host's kinds are recorded.

#ifndef STANDIN_FRAMEWORK_HOST_EXCEPTIONCODE_H
#define STANDIN_FRAMEWORK_HOST_EXCEPTIONCODE_H

#include <Poco/Exception.h>

#include "standin/framework/run/RunError.h"

namespace Norvale_Plugin_Core {

/// The code for an exception, by its class.
flickr_standin::RunError runErrorOf(const Poco::Exception& exception);

}  // namespace Norvale_Plugin_Core

#endif

// A part of a file in place of the whole: Range and If-Range, as RFC 9110 (section 14) describes them.

#ifndef SIM_BYTERANGE_H
#define SIM_BYTERANGE_H

#include <ctime>
#include <string>

#include "sim/Message.h"

namespace flickr_sim {

/// Gives a whole answer (200) its validators, and turns it into the part (206) that the request's Range asks
/// for, or into 416 when the file ends before it. The answer stays whole without a Range, with several of
/// them, with one that cannot be read, and when If-Range names another state of the file. tag: without
/// quotes. changed: seconds since 1970.
void offerRanges(const Request& request, Reply& reply, const std::string& tag, std::time_t changed);

}  // namespace flickr_sim

#endif

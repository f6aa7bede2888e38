// Bodies without transfer coding, RFC 9112 section 6.3: they end behind the announced number of bytes, or
// with the connection when none is announced.
//
// The network library reads them 4 KiB at a time. On a fast connection each of these small reads opens the
// sender's window by a little and wakes it, which cost more than all that is done with the bytes.

#ifndef CORE_PLAINBODY_H
#define CORE_PLAINBODY_H

#include <Poco/BufferedStreamBuf.h>

#include <cstdint>

#include "core/RawBytes.h"

namespace Norvale_Plugin_Flickr {

/// The body of a given length, or with length -1 all bytes up to the end of the connection. A body that
/// breaks off ends early; whoever reads it counts.
class PlainBody : public Poco::BufferedStreamBuf {
public:
    PlainBody(RawBytes& source, std::int64_t length);

private:
    int readFromDevice(char* buffer, std::streamsize length) override;

    RawBytes& source_;
    std::int64_t left_;
};

}  // namespace Norvale_Plugin_Flickr

#endif

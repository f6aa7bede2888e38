#ifndef CORE_RAWBYTES_H
#define CORE_RAWBYTES_H

#include <ios>

namespace Norvale_Plugin_Flickr {

/// The bytes behind an answer's header, as the connection brings them.
class RawBytes {
public:
    virtual ~RawBytes() = default;
    /// The next byte, or -1 at the end of the connection.
    virtual int nextByte() = 0;
    /// Reads up to count bytes; 0 or less at the end of the connection.
    virtual int readBytes(char* buffer, std::streamsize count) = 0;
};

}  // namespace Norvale_Plugin_Flickr

#endif

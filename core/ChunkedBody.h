// Bodies in chunked transfer coding, RFC 9112 section 7.1:
//
//   1a2b; extension CRLF       the chunk's size, hexadecimal
//   … that many bytes … CRLF
//   0 CRLF                     the last chunk
//   trailer fields CRLF
//
// The network library takes a connection that ends before the last chunk for the end of the body. A backup
// must not: the file would be cut off and count as whole. So chunks are read here, from the session's bytes.

#ifndef CORE_CHUNKEDBODY_H
#define CORE_CHUNKEDBODY_H

#include <Poco/BufferedStreamBuf.h>

#include <cstdint>

#include "core/RawBytes.h"

namespace Norvale_Plugin_Flickr {

/// The body behind the chunks. A body that breaks off or whose chunks make no sense ends with badbit set on
/// the stream that reads it.
class ChunkedBody : public Poco::BufferedStreamBuf {
public:
    explicit ChunkedBody(RawBytes& source);

private:
    int readFromDevice(char* buffer, std::streamsize length) override;
    std::uint64_t readChunkSize();
    void endChunk();
    void skipLine();
    int require();

    RawBytes& source_;
    std::uint64_t left_ = 0;  // of the current chunk
    bool atEnd_ = false;
};

}  // namespace Norvale_Plugin_Flickr

#endif

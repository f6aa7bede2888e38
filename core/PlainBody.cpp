#include "core/PlainBody.h"

#include <algorithm>

namespace Norvale_Plugin_Flickr {

namespace {

constexpr std::streamsize kBufferSize = 128 * 1024;

}  // namespace

PlainBody::PlainBody(RawBytes& source, std::int64_t length)
    : Poco::BufferedStreamBuf(kBufferSize, std::ios::in), source_(source), left_(length) {}

int PlainBody::readFromDevice(char* buffer, std::streamsize length) {
    if (left_ < 0) return source_.readBytes(buffer, length);
    if (left_ == 0) return 0;
    const int count = source_.readBytes(buffer, std::min<std::streamsize>(left_, length));
    left_ -= std::max(count, 0);
    return count;
}

}  // namespace Norvale_Plugin_Flickr

#include "core/ChunkedBody.h"

#include <Poco/Ascii.h>
#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>

#include <algorithm>
#include <string>

namespace Norvale_Plugin_Flickr {

namespace {

constexpr std::streamsize kBufferSize = 16384;
constexpr std::size_t kMaximumSizeDigits = 15;
constexpr std::size_t kMaximumLine = 8192;

}  // namespace

ChunkedBody::ChunkedBody(RawBytes& source)
    : Poco::BufferedStreamBuf(kBufferSize, std::ios::in), source_(source) {}

int ChunkedBody::readFromDevice(char* buffer, std::streamsize length) {
    if (atEnd_) return 0;
    if (left_ == 0) {
        left_ = readChunkSize();
        if (left_ == 0) {
            atEnd_ = true;
            return 0;
        }
    }
    const int count = source_.readBytes(buffer, static_cast<std::streamsize>(std::min<std::uint64_t>(
                                                    left_, static_cast<std::uint64_t>(length))));
    if (count <= 0) throw Poco::Net::MessageException("the body breaks off inside a chunk");
    left_ -= static_cast<std::uint64_t>(count);
    if (left_ == 0) endChunk();
    return count;
}

std::uint64_t ChunkedBody::readChunkSize() {
    std::string digits;
    int character = require();
    for (; Poco::Ascii::isHexDigit(character); character = require()) {
        digits += static_cast<char>(character);
        if (digits.size() > kMaximumSizeDigits) break;
    }
    if (digits.empty() || digits.size() > kMaximumSizeDigits) {
        throw Poco::Net::MessageException("a chunk has no proper size");
    }
    if (character != '\n') skipLine();
    return std::stoull(digits, nullptr, 16);
}

void ChunkedBody::endChunk() {
    int character = require();
    if (character == '\r') character = require();
    if (character != '\n') throw Poco::Net::MessageException("a chunk is longer than its size");
}

void ChunkedBody::skipLine() {
    for (std::size_t length = 0; require() != '\n'; ++length) {
        if (length > kMaximumLine) throw Poco::Net::MessageException("a chunk's first line has no end");
    }
}

int ChunkedBody::require() {
    const int character = source_.nextByte();
    if (character < 0) throw Poco::Net::MessageException("the body breaks off between chunks");
    return character;
}

}  // namespace Norvale_Plugin_Flickr

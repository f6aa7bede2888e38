#include "standin/framework/base/Descriptor.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace flickr_standin {

Descriptor::~Descriptor() {
    if (number_ >= 0) ::close(number_);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        if (number_ >= 0) ::close(number_);
        number_ = other.release();
    }
    return *this;
}

int Descriptor::release() {
    const int number = number_;
    number_ = -1;
    return number;
}

int writeAll(const Descriptor& file, const char* data, std::size_t size) {
    for (std::size_t at = 0; at < size;) {
        const ssize_t written = ::write(file.get(), data + at, size - at);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        at += static_cast<std::size_t>(written);
    }
    return 0;
}

int readAll(const Descriptor& file, std::string& text, std::size_t limit) {
    char block[1 << 16];
    for (std::size_t left = limit + 1; left > 0;) {
        const ssize_t count = ::read(file.get(), block, std::min(left, sizeof block));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count < 0 ? errno : 0;
        text.append(block, static_cast<std::size_t>(count));
        left -= static_cast<std::size_t>(count);
    }
    return 0;
}

}  // namespace flickr_standin

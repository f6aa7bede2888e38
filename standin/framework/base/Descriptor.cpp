#include "standin/framework/base/Descriptor.h"

#include <unistd.h>

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

}  // namespace flickr_standin

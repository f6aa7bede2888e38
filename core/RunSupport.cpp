#include "core/RunSupport.h"

#include <algorithm>

namespace Norvale_Plugin_Flickr {

bool fitsRequestLine(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > 0x20 && c != 0x7f; });
}

std::streamsize readBlock(std::istream& body, char* block) {
    constexpr auto capacity = static_cast<std::streamsize>(kBlockSize);
    std::streamsize count = 0;
    while (count < capacity && body.good() && body.peek() != std::istream::traits_type::eof()) {
        // peek() waited for bytes from the peer; take what came, so that a stop is seen between them.
        const std::streamsize available = std::max<std::streamsize>(body.rdbuf()->in_avail(), 1);
        body.read(block + count, std::min(available, capacity - count));
        count += body.gcount();
        if (Norvale_Plugin_Core::HostServiceUsageParams::getInstance()->isBackupStopped()) break;
    }
    return count;
}

}  // namespace Norvale_Plugin_Flickr

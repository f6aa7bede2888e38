#include "standin/framework/device/Flushes.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

namespace flickr_standin {

Flush flushOf(const Descriptor& opened, const std::string& path) {
    return {path, [&opened] { return ::fsync(opened.get()) == 0 ? 0 : errno; }};
}

std::optional<FailedFlush> waitFor(const std::vector<Flush>& flushes) {
    std::vector<int> errors(flushes.size(), 0);
    std::vector<std::thread> threads;
    for (std::size_t i = 1; i < flushes.size(); ++i) {
        const auto flush = [&, i] { errors[i] = flushes[i].call(); };
        try {
            threads.emplace_back(flush);
        } catch (std::system_error&) {
            flush();  // the system has no thread to give
        }
    }
    if (!flushes.empty()) errors[0] = flushes[0].call();
    for (std::thread& thread : threads) thread.join();
    for (std::size_t i = 0; i < flushes.size(); ++i) {
        if (errors[i] != 0) return FailedFlush{flushes[i].path, errors[i]};
    }
    return std::nullopt;
}

}  // namespace flickr_standin

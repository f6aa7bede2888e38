// Numbers of bytes on a command line.

#ifndef GATEWAY_SIZEOPTION_H
#define GATEWAY_SIZEOPTION_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>

namespace flickr_gateway {

/// Of a limit for bytes in a second: with less not even a list of items would come within a run.
constexpr std::uint64_t kLeastRate = 1024;

/// Has an option take a number of bytes as in "500k", "2MB" or "2MiB", each unit 1024 times the one before:
/// 0, or at least so many. Anything else is refused in one sentence.
void takeSize(CLI::Option& option, std::uint64_t least);

}  // namespace flickr_gateway

#endif

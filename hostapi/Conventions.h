// The numbers and words that both sides of the interface agree on.

#ifndef HOSTAPI_CONVENTIONS_H
#define HOSTAPI_CONVENTIONS_H

namespace Norvale_Plugin_Core {

/// Status of a success, wherever an operation answers with a number.
constexpr int kSuccess = 1;

/// Result word of a success, wherever the file service answers with words.
constexpr const char* kFileServiceSuccess = "SUC";

/// Id and title of the set that stands for all items in no set. Its folder is the service folder itself.
constexpr const char* kAnonymousSet = "Anonymous";

}  // namespace Norvale_Plugin_Core

#endif

// Calling the host's file service.

#ifndef CORE_FILESERVICECALL_H
#define CORE_FILESERVICECALL_H

#include <string>

#include "core/RunSupport.h"
#include "hostapi/Conventions.h"

namespace Norvale_Plugin_Flickr {

/// The three texts by which the file service answers.
struct FileServiceAnswer {
    std::string command;
    std::string result;
    std::string error;

    bool isSuccess() const { return result == Norvale_Plugin_Core::kFileServiceSuccess; }
};

/// Makes one call of the file service: call gets the three texts to hand on.
template <typename Call>
FileServiceAnswer askFileService(Call call) {
    FileServiceAnswer answer;
    call(answer.command, answer.result, answer.error);
    return answer;
}

/// The same; whether the call succeeded. When not, failureLine is logged at level 0 for the caller's source
/// position.
template <typename Call>
bool fileServiceDoes(Call call, const std::string& failureLine, const char* file = __builtin_FILE(),
                     int line = __builtin_LINE()) {
    if (askFileService(call).isSuccess()) return true;
    logFailure(failureLine, file, line);
    return false;
}

}  // namespace Norvale_Plugin_Flickr

#endif

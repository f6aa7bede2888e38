// Where the developer log goes.

#ifndef STANDIN_FRAMEWORK_RUN_LOG_H
#define STANDIN_FRAMEWORK_RUN_LOG_H

#include <string>

namespace Norvale_Plugin_Core {

/// Sends the developer log to the file at path from now on. It grows to at most 10 MiB; two older ones are
/// kept beside it.
void nameLogFile(const std::string& path);

/// Writes the lines that were gathered. They reach the file by themselves within a quarter of a second.
void flushLogFile();

}  // namespace Norvale_Plugin_Core

#endif

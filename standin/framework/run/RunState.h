// The framework's own way to the state behind HostServiceUsageParams.

#ifndef STANDIN_FRAMEWORK_RUN_RUNSTATE_H
#define STANDIN_FRAMEWORK_RUN_RUNSTATE_H

#include <cstdint>
#include <string>
#include <vector>

#include "standin/framework/run/RunError.h"

namespace Norvale_Plugin_Core {

/// Records the run's error; one that is recorded already stays.
void recordRunError(RunError code, const std::string& text);

/// The same for an error after which the run cannot go on: it also stops the run.
void recordCatastrophe(RunError code, const std::string& text);

void addWrittenBytes(std::uint64_t count);
void addFinishedItem();

/// As given to HostServiceUsageParams::setParams(); the folder without "/" at its end.
std::string currentServiceFolder();
std::string currentMountPoint();

/// Texts that the log and recorded errors show as "***" from now on: the run's token, key and secret.
/// Replaces the ones of an earlier call, which are overwritten. Values of auth_token, api_key and api_sig in
/// addresses are masked without being told.
void setLogSecrets(std::vector<std::string> secrets);

/// The text with every secret masked.
std::string maskSecrets(std::string text);

}  // namespace Norvale_Plugin_Core

#endif

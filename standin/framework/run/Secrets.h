// Texts that must not be shown.

#ifndef STANDIN_FRAMEWORK_RUN_SECRETS_H
#define STANDIN_FRAMEWORK_RUN_SECRETS_H

#include <string>
#include <vector>

namespace flickr_standin {

/// Texts that the log and recorded errors show as "***" from now on: the run's token, key and secret.
/// Replaces the ones of an earlier call, which are overwritten. Values of auth_token, api_key and api_sig in
/// addresses are masked without being told.
void setLogSecrets(std::vector<std::string> secrets);

/// The text with every secret masked.
std::string maskSecrets(std::string text);

}  // namespace flickr_standin

#endif

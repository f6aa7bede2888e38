// Why something failed, for a person.

#ifndef STANDIN_APP_REASON_H
#define STANDIN_APP_REASON_H

#include <Poco/Exception.h>

#include <string>

namespace flickr_app {

/// The text of a failure, as the plug-in and the network library put it together, as one sentence without its
/// end: "Exception occurred in getPhotoSetList() : Connection refused: example.org:80" becomes
/// "example.org:80 refuses the connection". Texts that are sentences already stay.
std::string plainReason(const std::string& text);

/// Why something could not begin, one sentence; of a damaged database also what helps.
std::string whyNotBegun(const Poco::Exception& exception);

}  // namespace flickr_app

#endif

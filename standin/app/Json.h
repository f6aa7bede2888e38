// What the commands print with --json: one object each, as docs/output.schema.json describes them.

#ifndef STANDIN_APP_JSON_H
#define STANDIN_APP_JSON_H

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>

#include <ostream>
#include <string>
#include <vector>

namespace flickr_app {

/// An object that begins with the command's name and the result: "success", "failed", "stopped" or "refused".
Poco::JSON::Object jsonReport(const std::string& command, const std::string& result);

/// Texts of any origin, as valid UTF-8.
Poco::JSON::Array jsonArray(const std::vector<std::string>& texts);

/// The object on a line of its own.
void printJson(std::ostream& out, const Poco::JSON::Object& object);

}  // namespace flickr_app

#endif

#include "standin/app/Json.h"

#include "standin/framework/base/Text.h"

namespace flickr_app {

Poco::JSON::Object jsonReport(const std::string& command, const std::string& result) {
    Poco::JSON::Object object(Poco::JSON_PRESERVE_KEY_ORDER);
    object.set("command", command);
    object.set("result", result);
    return object;
}

Poco::JSON::Array jsonArray(const std::vector<std::string>& texts) {
    Poco::JSON::Array values;
    for (const std::string& text : texts) values.add(flickr_standin::validUtf8(text));
    return values;
}

void printJson(std::ostream& out, const Poco::JSON::Object& object) {
    object.stringify(out);
    out << std::endl;
}

}  // namespace flickr_app

#include "standin/app/Configuration.h"

#include <Poco/AutoPtr.h>
#include <Poco/Base64Decoder.h>
#include <Poco/Base64Encoder.h>
#include <Poco/NumberParser.h>
#include <Poco/URI.h>
#include <Poco/Util/XMLConfiguration.h>
#include <unistd.h>

#include <iterator>
#include <sstream>

#include "standin/app/PrivateFile.h"
#include "standin/app/Profile.h"
#include "standin/app/Refusal.h"
#include "standin/framework/base/Cipher.h"

namespace flickr_app {
namespace {

constexpr const char* kCredentialsKey = "host.credentials";
constexpr const char* kRestPath = "/services/rest/";

const flickr_standin::Cipher& cipher() {
    static const flickr_standin::Cipher instance("", kPluginSalt);
    return instance;
}

}  // namespace

Configuration::~Configuration() {
    flickr_standin::wipe(apiKey);
    flickr_standin::wipe(apiSecret);
}

void checkDataUrl(const std::string& url) {
    Poco::URI uri;
    try {
        uri = url;
    } catch (Poco::Exception&) {
        throw UsageError("The data URL \"" + url + "\" is no address; give one like \"http://HOST" +
                         kRestPath + "\".");
    }
    if (uri.getScheme() != "http") {
        throw UsageError("The data URL \"" + url +
                         "\" has to begin with \"http://\": the plug-in speaks plain HTTP to the service.");
    }
    if (uri.getHost().empty() || uri.getPort() == 0 || !uri.getUserInfo().empty()) {
        throw UsageError("The data URL \"" + url +
                         "\" has to name a host, and a port where it is not 80, and nothing else before its "
                         "path.");
    }
    if (uri.getPath() != kRestPath || !uri.getRawQuery().empty() || !uri.getFragment().empty()) {
        throw UsageError("The data URL \"" + url + "\" has to end in the service's path: \"http://" +
                         uri.getAuthority() + kRestPath + "\".");
    }
}

std::string sealSecret(const std::string& secret) {
    std::ostringstream text;
    Poco::Base64Encoder encoder(text);
    encoder.rdbuf()->setLineLength(0);
    encoder << cipher().encrypt(secret);
    encoder.close();
    return text.str();
}

std::string openSecret(const std::string& sealed) {
    std::istringstream text(sealed);
    Poco::Base64Decoder decoder(text);
    return cipher().decrypt(std::string(std::istreambuf_iterator<char>(decoder), {}));
}

flickr_standin::ConfigurationValues configurationValues(const Configuration& configuration) {
    return {{"plugin.name", "Flickr"},
            {"plugin.id", "flickr"},
            {"plugin.version", FLICKR_BACKUP_VERSION},
            {"plugin.targetHostVersion", "1.0"},
            {"plugin.supportedDataTypes", "Images;Videos;"},
            {"plugin.authenticationMechanism", "OAuth"},
            {"plugin.legend", "Flickr photos and videos"},
            {"plugin.CEK", ""},
            {"plugin.dataUrl", configuration.dataUrl},
            {"plugin.retryAttempts", std::to_string(configuration.retryAttempts)},
            {"plugin.apiKey", sealSecret(configuration.apiKey)},
            {"plugin.apiSecret", sealSecret(configuration.apiSecret)}};
}

void writeConfiguration(const std::string& path, const Configuration& configuration) {
    if (!configuration.dataUrl.empty()) checkDataUrl(configuration.dataUrl);
    Poco::AutoPtr<Poco::Util::XMLConfiguration> file(new Poco::Util::XMLConfiguration);
    file->loadEmpty("config");
    for (const auto& [key, value] : configurationValues(configuration)) file->setString(key, value);
    file->setString(kCredentialsKey, configuration.credentialsFile);
    std::ostringstream text;
    file->save(text);
    const std::string reason = replacePrivateFile(path, text.str());
    if (reason.empty()) return;
    throw CannotBegin("The configuration file " + path + " cannot be written: " + reason +
                      "; make its folder writable, or name another with --config.");
}

Configuration readConfiguration(const std::string& path) {
    const std::string remedy = "; run \"flickr-backup configure\".";
    Poco::AutoPtr<Poco::Util::XMLConfiguration> file;
    if (::access(path.c_str(), F_OK) != 0) {
        throw CannotBegin("The program is not configured yet: " + path + " is missing" + remedy);
    }
    try {
        file = new Poco::Util::XMLConfiguration(path);
    } catch (Poco::Exception&) {
        throw CannotBegin("The configuration file " + path + " cannot be read" + remedy);
    }
    auto value = [&](const char* key) {
        const std::string name = std::string("plugin.") + key;
        if (!file->has(name)) {
            throw CannotBegin("The configuration file " + path + " has no value for \"" + name + "\"" +
                              remedy);
        }
        return file->getRawString(name);
    };
    Configuration configuration;
    configuration.dataUrl = value("dataUrl");
    if (!Poco::NumberParser::tryParse(value("retryAttempts"), configuration.retryAttempts)) {
        throw CannotBegin("The number of attempts in the configuration file " + path + " is no number" +
                          remedy);
    }
    configuration.credentialsFile = file->getRawString(kCredentialsKey, "");
    try {
        configuration.apiKey = openSecret(value("apiKey"));
        configuration.apiSecret = openSecret(value("apiSecret"));
    } catch (Poco::Exception&) {
        throw CannotBegin("The API key or secret in the configuration file " + path +
                          " cannot be deciphered" + remedy);
    }
    return configuration;
}

std::string credentialsFileFor(const Profile& profile, const std::string& named) {
    if (!named.empty()) return named;
    const std::string path = profile.configurationFile();
    if (::access(path.c_str(), F_OK) == 0) {
        const std::string configured = readConfiguration(path).credentialsFile;
        if (!configured.empty()) return configured;
    }
    return profile.credentialsFile();
}

}  // namespace flickr_app

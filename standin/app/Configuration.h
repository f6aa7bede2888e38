// The plug-in's configuration file, "Flickr_plugin_config.xml":
//
//   <config>
//       <plugin>
//           <name>Flickr</name>                       identity, as the host shows it
//           <id>…</id> <version>…</version> <targetHostVersion>…</targetHostVersion>
//           <supportedDataTypes>Images;Videos;</supportedDataTypes>
//           <authenticationMechanism>OAuth</authenticationMechanism>
//           <legend>…</legend> <CEK/>
//           <dataUrl>http://HOST/services/rest/</dataUrl>
//           <retryAttempts>3</retryAttempts>
//           <apiKey>…</apiKey> <apiSecret>…</apiSecret>   enciphered, in base64
//       </plugin>
//       <host>
//           <credentials>/home/me/flickr.ini</credentials>   the command's own: the file that "run" reads
//       </host>
//   </config>

#ifndef STANDIN_APP_CONFIGURATION_H
#define STANDIN_APP_CONFIGURATION_H

#include <string>

#include "standin/framework/run/RunConfiguration.h"

namespace flickr_app {

class Profile;

/// The salt of the key under which API key and secret are enciphered; the pass phrase is empty. It is the
/// plug-in's own, since the plug-in has them deciphered.
constexpr const char* kPluginSalt = "3c1a9e20-7d4b-4a61-b8f2-5e07c9d2a4b3";

/// What a user can set.
struct Configuration {
    std::string dataUrl;  ///< empty: only a sign-in of today can be used
    int retryAttempts = 3;
    std::string apiKey;  ///< key and secret in plain text
    std::string apiSecret;
    std::string credentialsFile{};  ///< absolute; empty: the one in the user's folder

    /// Overwrites key and secret.
    ~Configuration();
};

/// How often a request can be tried.
constexpr int kFewestAttempts = 1;
constexpr int kMostAttempts = 100;

/// Throws UsageError when the plug-in cannot use the address: it speaks plain HTTP to the service's REST
/// path.
void checkDataUrl(const std::string& url);

/// All values of a configuration by their names, as the file holds them.
flickr_standin::ConfigurationValues configurationValues(const Configuration& configuration);

/// Replaces the file, readable by its owner only, in one step: it holds either the old or the new content
/// whatever happens. Throws UsageError for an address that cannot be used, CannotBegin when the file cannot
/// be written.
void writeConfiguration(const std::string& path, const Configuration& configuration);

/// Reads what writeConfiguration() wrote. Throws CannotBegin when there is no file, and when it is broken or
/// lacks a value.
Configuration readConfiguration(const std::string& path);

/// The credentials file that holds for a command: the one that the user names, the one that is configured, or
/// the profile's own.
std::string credentialsFileFor(const Profile& profile, const std::string& named);

/// Key or secret in the form that the file holds, and back. The latter throws Poco::Exception for a text that
/// sealSecret() did not make.
std::string sealSecret(const std::string& secret);
std::string openSecret(const std::string& sealed);

}  // namespace flickr_app

#endif

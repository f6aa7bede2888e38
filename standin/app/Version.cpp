#include "standin/app/Version.h"

#include <Poco/Environment.h>
#include <curl/curl.h>
#include <openssl/crypto.h>
#include <sqlite3.h>
#include <utf8proc.h>

namespace flickr_app {

std::string versionText() {
    const auto poco = Poco::Environment::libraryVersion();
    return std::string("flickr-backup ") + FLICKR_BACKUP_VERSION + "\nwith POCO " +
           std::to_string(poco >> 24) + "." + std::to_string(poco >> 16 & 0xff) + "." +
           std::to_string(poco >> 8 & 0xff) + ", SQLite " + sqlite3_libversion() + ", OpenSSL " +
           OpenSSL_version(OPENSSL_VERSION_STRING) + ", utf8proc " + utf8proc_version() + ", " +
           curl_version();
}

}  // namespace flickr_app

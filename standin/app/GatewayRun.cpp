#include "standin/app/GatewayRun.h"

#include <Poco/DateTime.h>
#include <Poco/Exception.h>
#include <Poco/Timestamp.h>
#include <Poco/URI.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "hostapi/DbInterface.h"
#include "standin/app/Configuration.h"
#include "standin/app/PrivateFile.h"
#include "standin/app/Refusal.h"
#include "standin/framework/base/Descriptor.h"
#include "standin/framework/base/Names.h"
#include "standin/framework/run/RunConfiguration.h"
#include "standin/framework/run/RunState.h"

namespace flickr_app {
namespace {

using flickr_standin::BackupDatabase;
using flickr_standin::Descriptor;

bool holds(const std::vector<std::string>& types, const char* type) {
    return std::find(types.begin(), types.end(), type) != types.end();
}

flickr_gateway::GatewaySettings settingsOf(const Credentials& credentials, const GatewayOptions& options,
                                           BackupDatabase& database, const RunRequest& request) {
    flickr_gateway::GatewaySettings settings;
    const ServicePlace place = placeOf(credentials);
    settings.addresses = place.addresses;
    settings.trust = place.trust;
    settings.keys = keysOf(credentials);
    settings.userId = credentials.userId;
    settings.stateFolder = userStateFolder();
    settings.transfers.atATime = options.transfers;
    settings.transfers.temporaryFiles = options.readAhead;
    settings.bytesPerSecond = options.bytesPerSecond;
    settings.expectation.fromDate =
        Poco::DateTime(request.fromYear, request.fromMonth, request.fromDay).timestamp().epochTime();
    settings.expectation.photos = holds(request.dataTypes, "Images");
    settings.expectation.videos = holds(request.dataTypes, "Videos");
    settings.expectation.recorded = [&database, isDry = flickr_standin::isDryRun()](const std::string& item,
                                                                                    const std::string& set,
                                                                                    std::int64_t updated) {
        if (isDry) return true;  // nothing is fetched ahead
        const auto row = database.item(item + "_" + (set.empty() ? flickr_standin::kNoSetId : set));
        const Poco::DateTime date(Poco::Timestamp::fromEpochTime(updated));
        return row && row->updated == Norvale_Plugin_Core::DbInterface().convertToString(date);
    };
    return settings;
}

/// The account's file, seen from the service folder, without a way through links.
Descriptor openAccountFile(const std::string& serviceFolder, int flags) {
    constexpr int kFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor folder(::open(serviceFolder.c_str(), kFolder));
    const Descriptor descriptions(
        folder.isOpen() ? ::openat(folder.get(), flickr_standin::kDescriptionFolder, kFolder) : -1);
    if (!descriptions.isOpen()) return Descriptor();
    Descriptor file(::openat(descriptions.get(), ".account", flags | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.isOpen() && (flags & O_CREAT) != 0) ::fsync(descriptions.get());
    return file;
}

/// The first word of the file; empty when there is none, or when a power cut has left no whole one.
std::string accountOn(const std::string& serviceFolder) {
    const Descriptor file = openAccountFile(serviceFolder, O_RDONLY | O_NONBLOCK);
    std::string line;
    if (!file.isOpen() || flickr_standin::readAll(file, line, 255) != 0) return std::string();
    return line.find(' ') == std::string::npos ? std::string() : line.substr(0, line.find(' '));
}

}  // namespace

ServicePlace placeOf(const Credentials& credentials) {
    ServicePlace place;
    place.trust.caFile = credentials.ca;
    if (!credentials.service.empty()) {
        place.addresses = flickr_gateway::ServiceAddresses::below(credentials.service);
        place.trust.privateHost = Poco::URI(credentials.service).getHost();
    }
    return place;
}

flickr_gateway::OAuthKeys keysOf(const Credentials& credentials) {
    return {credentials.apiKey, credentials.apiSecret, credentials.token, credentials.tokenSecret};
}

GatewayRun::GatewayRun(const Credentials& credentials, const GatewayOptions& options,
                       BackupDatabase& database, RunRequest& request)
    : gateway_(
          std::make_unique<flickr_gateway::Gateway>(settingsOf(credentials, options, database, request))) {
    const flickr_gateway::InwardKeys& keys = gateway_->keys();
    request.authToken = keys.token;
    Configuration configuration;
    configuration.dataUrl = gateway_->dataUrl();
    configuration.apiKey = keys.apiKey;
    configuration.apiSecret = keys.apiSecret;
    const auto all = configurationValues(configuration);
    flickr_standin::ConfigurationValues values;
    for (const char* key : {"plugin.dataUrl", "plugin.apiKey", "plugin.apiSecret"}) values[key] = all.at(key);
    flickr_standin::setRunConfiguration(std::move(values), all);
}

GatewayRun::~GatewayRun() {
    flickr_standin::setRunConfiguration({}, {});
}

std::vector<std::string> GatewayRun::secrets() const {
    const flickr_gateway::InwardKeys& keys = gateway_->keys();
    return {keys.apiKey, keys.apiSecret, keys.token, keys.media};
}

std::string GatewayRun::waitText() const {
    return gateway_->waitText();
}

std::vector<std::string> GatewayRun::problems() const {
    return gateway_->problems();
}

void refuseOtherAccount(const DeviceLayout& layout, const Credentials& credentials) {
    const std::string account = accountOn(layout.serviceFolder);
    if (credentials.userId.empty() || account.empty() || account == credentials.userId) return;
    throw CannotBegin("The device " + layout.device + " holds the backup of the account " + account +
                      ", and the credentials are those of " + credentials.userId +
                      "; sign in as the other, or use another device.");
}

bool tieToAccount(const DeviceLayout& layout, const Credentials& credentials) {
    refuseOtherAccount(layout, credentials);
    if (credentials.userId.empty() || !accountOn(layout.serviceFolder).empty()) return true;
    const Descriptor file = openAccountFile(layout.serviceFolder, O_WRONLY | O_CREAT | O_TRUNC);
    const std::string line = credentials.userId + " " + credentials.userName + "\n";
    if (!file.isOpen() || flickr_standin::writeAll(file, line.data(), line.size()) != 0) return false;
    ::fsync(file.get());
    return true;
}

}  // namespace flickr_app

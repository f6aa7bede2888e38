#include "gateway/Gateway.h"

#include <Poco/DigestEngine.h>
#include <Poco/Exception.h>
#include <Poco/SHA1Engine.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "gateway/Catalog.h"
#include "gateway/ServiceClient.h"

namespace flickr_gateway {

namespace {

constexpr std::size_t kMostProblems = 100;

/// A file of the state folder that belongs to one key or token. Empty without a folder.
std::string stateFile(const std::string& folder, const char* name, const std::string& owner) {
    if (folder.empty()) return std::string();
    Poco::SHA1Engine sha1;
    sha1.update(owner);
    return folder + "/" + name + "-" + Poco::DigestEngine::digestToHex(sha1.digest()).substr(0, 16);
}

const std::string& made(const std::string& folder) {
    if (folder.empty()) return folder;
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!error) std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
    if (error)
        throw Poco::RuntimeException("The folder " + folder + " cannot be used: " + error.message() + ".");
    return folder;
}

}  // namespace

ServiceAddresses ServiceAddresses::below(const std::string& service) {
    std::string base = service;
    while (!base.empty() && base.back() == '/') base.pop_back();
    return {base + "/services/rest/", base + "/services/oauth/"};
}

struct Gateway::Parts {
    explicit Parts(const GatewaySettings& settings)
        : rate(settings.bytesPerSecond),
          store(stateFile(made(settings.stateFolder), "renditions", settings.keys.token)),
          service(settings.addresses.rest, settings.keys,
                  stateFile(settings.stateFolder, "requests", settings.keys.apiKey), settings.patience),
          inward(std::make_unique<InwardServer>(settings.port, settings.patience.sign)),
          catalog(service, store, settings.trust, rate, settings.userId, inward->mediaAddress(),
                  settings.expectation, [this](std::vector<KnownItemPtr> items, bool certain) {
                      transfers->plan(std::move(items), certain);
                  }) {
        transfers = std::make_unique<MediaTransfers>(
            settings.transfers, settings.trust, rate, settings.patience,
            [this](HttpClient& http, KnownItem& item, const Cancelled& cancelled) {
                catalog.settle(http, item, cancelled);
            },
            [this](const KnownItem& item, const std::string& sentence, Failure::Kind kind) {
                if (kind == Failure::Kind::NotFound) store.forget(item.id);
                report("\"" + item.title + "\" (" + item.id + "): " + sentence);
            });
        inward->serve(catalog, *transfers, [this](const std::string& sentence) { report(sentence); });
    }

    ~Parts() {
        inward.reset();
        catalog.stop();  // before what its threads hand plans to
        transfers.reset();
    }

    void report(const std::string& sentence) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (problems.size() >= kMostProblems) return;
        if (std::find(problems.begin(), problems.end(), sentence) == problems.end()) {
            problems.push_back(sentence);
        }
    }

    mutable std::mutex mutex;  // guards the problems
    std::vector<std::string> problems;
    RateLimit rate;
    RenditionStore store;
    ServiceClient service;
    std::unique_ptr<InwardServer> inward;
    Catalog catalog;
    std::unique_ptr<MediaTransfers> transfers;
};

Gateway::Gateway(const GatewaySettings& settings) : parts_(std::make_unique<Parts>(settings)) {}
Gateway::~Gateway() = default;

std::string Gateway::dataUrl() const {
    return parts_->inward->dataUrl();
}

const InwardKeys& Gateway::keys() const {
    return parts_->inward->keys();
}

std::string Gateway::waitText() const {
    const auto inSeconds = [](std::chrono::milliseconds time) {
        return std::to_string((time.count() + 999) / 1000) + " s";
    };
    const auto service = std::max(parts_->service.waitOfService(), parts_->transfers->wait());
    if (service.count() > 0) return "The service asks us to wait: " + inSeconds(service);
    const auto budget = parts_->service.waitOfBudget();
    if (budget.count() > 0) return "The hourly limit of requests is near: " + inSeconds(budget);
    return std::string();
}

std::vector<std::string> Gateway::problems() const {
    const std::lock_guard<std::mutex> lock(parts_->mutex);
    return parts_->problems;
}

}  // namespace flickr_gateway

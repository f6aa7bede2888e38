// flickr-gateway: the gateway as a program, for hosts of the plug-in other than flickr-backup.

#include <Poco/Exception.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/AutoPtr.h>
#include <Poco/URI.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <CLI/CLI.hpp>

#include <csignal>
#include <ctime>
#include <iostream>
#include <set>
#include <string>

#include "gateway/Gateway.h"
#include "gateway/SizeOption.h"
#include "gateway/UserFolder.h"

namespace {

using namespace flickr_gateway;

constexpr const char* kFooter = R"(
The credentials file is one of "flickr-backup login". The output tells the plug-in's host what to give the
plug-in: the address as "plugin.dataUrl", and a key, a secret and a token that are good while this runs and
for nothing else. Problems and waits go to standard error. SIGINT (Ctrl-C) and SIGTERM end it.

Example:
  flickr-gateway --credentials ~/.config/flickr-backup/credentials)";

struct Options {
    std::string credentials;
    std::string state;
    std::string ca;
    GatewaySettings gateway;
};

void readCredentials(const Options& options, GatewaySettings& settings) {
    struct stat status {};
    if (::stat(options.credentials.c_str(), &status) != 0 || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw Poco::RuntimeException("The credentials file " + options.credentials +
                                     " cannot be read, or is open to other users.");
    }
    const Poco::AutoPtr<Poco::Util::IniFileConfiguration> file(
        new Poco::Util::IniFileConfiguration(options.credentials));
    const auto value = [&](const char* key) {
        return file->has(key) ? file->getRawString(key) : std::string();
    };
    settings.keys = {value("api_key"), value("api_secret"), value("token"), value("token_secret")};
    settings.userId = value("user_id");
    settings.trust.caFile = options.ca.empty() ? value("ca") : options.ca;
    if (settings.keys.tokenSecret.empty()) {
        throw Poco::RuntimeException("The credentials file " + options.credentials +
                                     " holds no sign-in; run \"flickr-backup login\".");
    }
    if (const std::string service = value("service"); !service.empty()) {
        settings.addresses = ServiceAddresses::below(service);
        settings.trust.privateHost = Poco::URI(service).getHost();
    }
}

/// Shows what is new until a signal comes.
void watch(const Gateway& gateway, const sigset_t& signals) {
    const timespec second{1, 0};
    std::size_t told = 0;
    std::string waitText;
    while (::sigtimedwait(&signals, nullptr, &second) < 0) {
        const auto problems = gateway.problems();
        for (; told < problems.size(); ++told) std::cerr << problems[told] << std::endl;
        const std::string text = gateway.waitText();
        if (!text.empty() && waitText.empty()) std::cerr << text << std::endl;
        waitText = text;
    }
}

int serve(Options& options) {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    readCredentials(options, options.gateway);
    options.gateway.stateFolder = options.state;
    const Gateway gateway(options.gateway);
    std::cout << "plugin.dataUrl = " << gateway.dataUrl() << "\napi_key = " << gateway.keys().apiKey
              << "\napi_secret = " << gateway.keys().apiSecret << "\ntoken = " << gateway.keys().token
              << std::endl;
    watch(gateway, signals);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app(
        "Stands between the Flickr plug-in and the service as it is today. Listens on loopback only.",
        "flickr-gateway");
    Options options;
    GatewaySettings& gateway = options.gateway;
    app.add_option("--credentials", options.credentials, "File with the sign-in")
        ->required()
        ->type_name("FILE");
    options.state = userFolder("XDG_STATE_HOME", "/.local/state");
    app.add_option("--state", options.state,
                   "Folder for what is kept from run to run; flickr-backup's when it is left out")
        ->type_name("DIR");
    app.add_option("--ca", options.ca, "Authorities to trust instead of the system's")->type_name("FILE");
    app.add_option("--port", gateway.port, "Port on loopback; 0: the system picks")->capture_default_str();
    app.add_option("--transfers", gateway.transfers.atATime, "Files fetched at a time")
        ->check(CLI::Range(1, 8))
        ->capture_default_str();
    auto* readAhead = app.add_option("--read-ahead", gateway.transfers.temporaryFiles,
                                     "What may wait in temporary files, as in 256MiB")
                          ->default_str("256MiB");
    takeSize(*readAhead, 0);
    auto* rate =
        app.add_option("--limit-rate", gateway.bytesPerSecond, "Bytes in a second, as in 2MiB; 0: no limit")
            ->capture_default_str();
    takeSize(*rate, kLeastRate);
    app.footer(kFooter);
    CLI11_PARSE(app, argc, argv);
    try {
        return serve(options);
    } catch (Poco::Exception& exception) {
        std::cerr << "flickr-gateway: " << exception.displayText() << std::endl;
    } catch (std::exception& exception) {
        std::cerr << "flickr-gateway: " << exception.what() << std::endl;
    }
    return 1;
}

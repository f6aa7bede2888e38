#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "standin/app/Commands.h"
#include "standin/app/Configuration.h"
#include "standin/app/Credentials.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/Profile.h"
#include "standin/app/Refusal.h"
#include "standin/app/ServiceCheck.h"
#include "standin/framework/base/Text.h"

namespace flickr_app {
namespace {

using flickr_standin::validUtf8;

/// What is empty or 0 was not named, and stays as it is.
struct Options {
    std::string dataUrl;
    int retries = 0;
    std::string credentials;
    bool check = false;
};

/// What is configured; nothing yet, and nothing that can be kept of a file that is broken when the user names
/// what has to be there.
Configuration formerConfiguration(const std::string& path, const Options& options) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) return {};
    try {
        return readConfiguration(path);
    } catch (CannotBegin&) {
        if (options.dataUrl.empty() || options.credentials.empty()) throw;
        return {};
    }
}

void configure(const Options& options, const CommandContext& context) {
    const Profile& profile = context.profile;
    if (!options.dataUrl.empty()) checkDataUrl(options.dataUrl);
    profile.prepare();
    const std::string path = profile.configurationFile();
    Configuration configuration = formerConfiguration(path, options);
    if (!options.credentials.empty()) {
        configuration.credentialsFile = std::filesystem::absolute(options.credentials).string();
    }
    const std::string file =
        configuration.credentialsFile.empty() ? profile.credentialsFile() : configuration.credentialsFile;
    std::error_code error;
    if (options.credentials.empty() && !std::filesystem::exists(file, error)) {
        throw UsageError("There are no credentials in " + file +
                         "; name their file with --credentials, or sign in with \"flickr-backup login\".");
    }
    const Credentials credentials = readCredentials(file);
    configuration.apiKey = credentials.apiKey;
    configuration.apiSecret = credentials.apiSecret;
    if (!options.dataUrl.empty()) configuration.dataUrl = options.dataUrl;
    if (options.retries > 0) configuration.retryAttempts = options.retries;
    if (configuration.dataUrl.empty() && !credentials.isOfToday()) {
        throw UsageError("The service's address is not known yet; give it with --data-url.");
    }
    writeConfiguration(path, configuration);
    const std::string service =
        credentials.isOfToday() ? credentials.userName + ", signed in" : configuration.dataUrl;
    const std::string answer = options.check ? askService(configuration, credentials) : "";
    if (context.json) {
        Poco::JSON::Object object = jsonReport("configure", "success");
        object.set("configuration", validUtf8(path));
        object.set("credentials", validUtf8(file));
        object.set("service", validUtf8(service));
        object.set("attempts", configuration.retryAttempts);
        if (options.check) object.set("answer", validUtf8(answer));
        return printJson(std::cout, object);
    }
    std::cout << "Configured: " << printable(path) << "\n  credentials  " << printable(file)
              << "\n  service      " << printable(service) << "\n  attempts     "
              << configuration.retryAttempts << std::endl;
    if (options.check) std::cout << answer << std::endl;
}

}  // namespace

void addConfigureCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<Options>();
    CLI::App* command = program.add_subcommand("configure", "Set the service's address, key and secret");
    command
        ->add_option("--data-url", options->dataUrl,
                     "Address of the service's REST interface; not needed after \"flickr-backup login\"")
        ->type_name("URL");
    command
        ->add_option("--retries", options->retries,
                     "How often every request and download is tried; 3 at first")
        ->check(CLI::Range(kFewestAttempts, kMostAttempts))
        ->type_name("N");
    command->add_option("--credentials", options->credentials, "File with api_key, api_secret and token")
        ->type_name("FILE");
    command->add_flag("--check", options->check, "Ask the service whether it can be used so");
    addJsonOption(*command, context);
    context.profile.addOptions(*command);
    command->footer(
        std::string(
            "What is not named stays as it is. \"flickr-backup run\" reads the same credentials file.\n"
            "The file is for your eyes only (chmod 600) and holds three lines:\n"
            "  api_key = VALUE\n"
            "  api_secret = VALUE\n"
            "  token = VALUE\n"
            "Key and secret are stored enciphered; the token is not stored.\n") +
        kExitStatuses +
        "\n"
        "Example:\n"
        "  flickr-backup configure --data-url http://api.example.net/services/rest/ "
        "--credentials ~/.flickr.ini");
    command->callback([options, &context] {
        configure(*options, context);
        context.status = ExitSuccess;
    });
}

}  // namespace flickr_app

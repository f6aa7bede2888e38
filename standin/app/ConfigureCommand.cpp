#include <iostream>
#include <memory>
#include <string>

#include "standin/app/ApplicationFolder.h"
#include "standin/app/Commands.h"
#include "standin/app/Configuration.h"
#include "standin/app/Credentials.h"
#include "standin/app/UsageError.h"

namespace flickr_app {
namespace {

struct Options {
    std::string dataUrl;
    int retries = 3;
    std::string credentials;
};

void configure(const Options& options) {
    checkDataUrl(options.dataUrl);
    const Credentials credentials = readCredentials(options.credentials);
    writeConfiguration(configurationFile(),
                       {options.dataUrl, options.retries, credentials.apiKey, credentials.apiSecret});
    std::cout << "Configured: " << configurationFile() << std::endl;
}

}  // namespace

void addConfigureCommand(CLI::App& program, int& status) {
    auto options = std::make_shared<Options>();
    CLI::App* command = program.add_subcommand("configure", "Set the service's address, key and secret");
    command->add_option("--data-url", options->dataUrl, "Address of the service's REST interface")
        ->required()
        ->type_name("URL");
    command->add_option("--retries", options->retries, "How often every request and download is tried")
        ->check(CLI::Range(kFewestAttempts, kMostAttempts))
        ->type_name("N")
        ->capture_default_str();
    command->add_option("--credentials", options->credentials, "File with api_key, api_secret and token")
        ->required()
        ->type_name("FILE");
    command->footer(
        "The credentials file is for your eyes only (chmod 600) and holds three lines:\n"
        "  api_key = VALUE\n"
        "  api_secret = VALUE\n"
        "  token = VALUE\n"
        "Key and secret are stored enciphered; the token is not stored.\n"
        "\n"
        "Example:\n"
        "  flickr-backup configure --data-url http://api.example.net/services/rest/ "
        "--credentials ~/.flickr.ini");
    command->callback([options, &status] {
        configure(*options);
        status = ExitSuccess;
    });
}

}  // namespace flickr_app

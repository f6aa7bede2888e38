#include <Poco/Exception.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include "gateway/SignIn.h"
#include "standin/app/Commands.h"
#include "standin/app/Configuration.h"
#include "standin/app/Credentials.h"
#include "standin/app/Format.h"
#include "standin/app/GatewayRun.h"
#include "standin/app/Json.h"
#include "standin/app/Profile.h"
#include "standin/app/Refusal.h"
#include "standin/app/SignInPage.h"
#include "standin/framework/base/Text.h"

namespace flickr_app {
namespace {

using flickr_standin::validUtf8;

constexpr std::chrono::seconds kTimeForThePage{600};
const flickr_gateway::Cancelled kNever = [] { return false; };

struct Options {
    std::string credentials;
    std::string ca;
    bool noBrowser = false;
};

/// Keeps what is typed off the terminal.
class HiddenInput {
public:
    HiddenInput() : is_(::tcgetattr(STDIN_FILENO, &former_) == 0) {
        if (!is_) return;
        termios hidden = former_;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &hidden);
    }
    ~HiddenInput() {
        if (!is_) return;
        ::tcsetattr(STDIN_FILENO, TCSANOW, &former_);
        std::cerr << std::endl;
    }
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;

private:
    termios former_ = {};
    const bool is_;
};

/// A line from the user; blanks at its ends do not count. Throws UsageError when there is none.
std::string ask(const std::string& question) {
    std::cerr << question << std::flush;
    std::string line;
    std::getline(std::cin, line);
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        throw UsageError("Nothing was entered; run \"flickr-backup login\" again.");
    }
    return line.substr(first, line.find_last_not_of(" \t\r") + 1 - first);
}

/// Asks for what the file does not hold.
void completeApplication(Credentials& credentials) {
    if (!credentials.apiKey.empty() && !credentials.apiSecret.empty()) return;
    std::cerr << "Flickr knows programs by a key. Get one, free and in a few minutes, at\n"
                 "  https://www.flickr.com/services/apps/create/\n";
    if (credentials.apiKey.empty()) credentials.apiKey = ask("Key: ");
    const HiddenInput hidden;
    credentials.apiSecret = ask("Secret: ");
}

bool hasDesktop() {
    return std::getenv("DISPLAY") != nullptr || std::getenv("WAYLAND_DISPLAY") != nullptr;
}

/// Whether the desktop has taken the address.
bool openInBrowser(const std::string& address) {
    if (!hasDesktop()) return false;
    const pid_t child = ::fork();
    if (child == 0) {
        const int nowhere = ::open("/dev/null", O_RDWR);
        for (int stream = 0; stream <= 2; ++stream) ::dup2(nowhere, stream);
        ::execlp("xdg-open", "xdg-open", address.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

/// out: for the address of the page.
flickr_gateway::SignedIn signIn(const Credentials& credentials, bool noBrowser, std::ostream& out) {
    const ServicePlace place = placeOf(credentials);
    flickr_gateway::SignIn attempt(place.addresses, place.trust, credentials.apiKey, credentials.apiSecret);
    if (noBrowser) {
        attempt.begin("oob", kNever);
        out << attempt.page() << std::endl;
        return attempt.finish(ask("Open this address, allow the program to read, and enter the code: "),
                              kNever);
    }
    SignInPage page;
    attempt.begin(page.address(), kNever);
    if (openInBrowser(attempt.page())) {
        std::cerr << "The service's page is open in the browser; allow the program to read there."
                  << std::endl;
    } else {
        std::cerr << "Open this address in a browser on this machine, and allow the program to read:"
                  << std::endl;
        out << attempt.page() << std::endl;
    }
    const std::string verifier =
        beforehand([&] { return page.await(attempt.requestToken(), kTimeForThePage); });
    if (verifier.empty()) {
        throw CannotBegin(
            "The program was not allowed to read the account; run \"flickr-backup login\" again to allow "
            "it.");
    }
    return attempt.finish(verifier, kNever);
}

void login(const std::string& file, const Options& options, bool json) {
    Credentials credentials = readWhatThereIs(file);
    if (!options.ca.empty()) credentials.ca = std::filesystem::absolute(options.ca);
    completeApplication(credentials);
    flickr_gateway::SignedIn signedIn;
    try {
        signedIn = signIn(credentials, options.noBrowser, json ? std::cerr : std::cout);
    } catch (flickr_gateway::Failure& failure) {
        throw CannotBegin(failure.what());
    }
    changeCredentials(file, {{"api_key", credentials.apiKey},
                             {"api_secret", credentials.apiSecret},
                             {"token", signedIn.keys.token},
                             {"token_secret", signedIn.keys.tokenSecret},
                             {"user_id", signedIn.userId},
                             {"user_name", signedIn.userName},
                             {"ca", credentials.ca}});
    if (json) {
        Poco::JSON::Object object = jsonReport("login", "success");
        object.set("userId", validUtf8(signedIn.userId));
        object.set("userName", validUtf8(signedIn.userName));
        object.set("credentials", validUtf8(file));
        return printJson(std::cout, object);
    }
    std::cout << "Signed in as " << printable(signedIn.userName) << " (" << printable(signedIn.userId)
              << "), to read only.\n"
              << "Credentials: " << file << std::endl;
}

void logout(const std::string& file, bool json) {
    const bool wasSignedIn = !readWhatThereIs(file).token.empty();
    if (wasSignedIn) {
        changeCredentials(file, {{"token", ""}, {"token_secret", ""}, {"user_id", ""}, {"user_name", ""}});
    }
    if (json) {
        Poco::JSON::Object object = jsonReport("logout", "success");
        object.set("wasSignedIn", wasSignedIn);
        object.set("credentials", validUtf8(file));
        return printJson(std::cout, object);
    }
    if (!wasSignedIn) {
        std::cout << "Nobody is signed in." << std::endl;
        return;
    }
    std::cout << "Signed out: the token is removed from " << file
              << ".\nTo withdraw the permission as well, see https://www.flickr.com/services/auth/list.gne"
              << std::endl;
}

void addCredentialsOption(CLI::App& command, Options& options) {
    command
        .add_option(
            "--credentials", options.credentials,
            "File for the sign-in; without it the configured one, or \"credentials\" beside the settings")
        ->type_name("FILE");
}

}  // namespace

void addLoginCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<Options>();
    CLI::App* command = program.add_subcommand("login", "Sign in to the service, to read only");
    addCredentialsOption(*command, *options);
    command->add_option("--ca", options->ca, "Authorities to trust instead of the system's; kept in the file")
        ->check(CLI::ExistingFile.description(""))
        ->type_name("FILE");
    addJsonOption(*command, context);
    context.profile.addOptions(*command);
    command->add_flag("--no-browser", options->noBrowser,
                      "Print the service's address, and read the code that it shows from standard input");
    command->footer(
        "Asks for the key and the secret of an application that is registered at the service, unless the "
        "file\n"
        "holds api_key and api_secret, and writes the sign-in to the file, for your eyes only.\n" +
        std::string(kExitStatuses) +
        "\n"
        "Example:\n"
        "  flickr-backup login && flickr-backup run --device /media/usb");
    command->callback([options, &context] {
        login(credentialsFileFor(context.profile, options->credentials), *options, context.json);
        context.status = ExitSuccess;
    });
}

void addLogoutCommand(CLI::App& program, CommandContext& context) {
    auto options = std::make_shared<Options>();
    CLI::App* command = program.add_subcommand("logout", "Remove the sign-in from this machine");
    addCredentialsOption(*command, *options);
    addJsonOption(*command, context);
    context.profile.addOptions(*command);
    command->footer(kExitStatuses);
    command->callback([options, &context] {
        logout(credentialsFileFor(context.profile, options->credentials), context.json);
        context.status = ExitSuccess;
    });
}

}  // namespace flickr_app

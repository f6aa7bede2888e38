// flickr-sim: a simulated Flickr on loopback.

#include <Poco/Exception.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>

#include "sim/FlickrSim.h"
#include "sim/FolderAccount.h"
#include "sim/GeneratedAccount.h"

namespace {

using namespace flickr_sim;

constexpr const char* kFooter = R"(
The first line of the output is the data URL, for the client's configuration.

While it runs, the account and the faults can be changed by requests with word=WORD, a random word that is
the second line of the ready file:
  /sim/counts  /sim/list  /sim/reset-counts
  /sim/add?title=T[&set=ID][&media=video][&bytes=N]   (set=none: in no set)
  /sim/edit[?id=ID][&bytes=N]   /sim/retitle?title=T[&id=ID]   /sim/delete[?id=ID]
  /sim/add-set?title=T   /sim/rename-set?title=T[&id=ID]   /sim/delete-set[?id=ID]
  /sim/fault?spec=TEXT   /sim/clear-faults
  /sim/before-page?page=N&order=ORDER   (an order that waits for page N of a list, encoded)
An id that is left out is the first set or its first item. A folder given by --photos is never written to.

Faults are lists of key=value:
  which  kind=rest|media|thumbnail|oauth, method=NAME, item=ID, path=PART
  when   nth=N, from=N, count=N, every=N, rate=0..1, for=SECONDS
  what   status=CODE, error=CODE, drop=before|header|body, cut=BYTES, short=BYTES, slow=BYTES/MS,
         length=TEXT, framing=chunked|close, redirect=URL|self, malformed=1, headers=BYTES,
         retry-after=SECONDS, ignore-range=1, weak-tag=1

With --today the service is the one of today: HTTPS with an authority of its own, OAuth 1.0a. The line behind
the data URL (and the third one of the ready file) is then the address of the service; the data URL's port
takes orders only. Further orders:
  /sim/sign-in?oauth_token=T[&answer=deny]   /sim/expire-tokens   /sim/clock?offset=SECONDS
  /sim/limits?[list=N][&media=N][&window=SECONDS][&retry-after=0]

Example:
  flickr-sim --generate 3x20 --print-credentials-file creds.ini --ready-file ready &
  { read -r url; read -r word; } <ready
  curl "${url%/services/rest/}/sim/edit?word=$word"
)";

struct Settings {
    std::string photos;
    std::string generate;
    Generation generation;
    SimOptions sim;
    int httpsPort = -1;
    std::string framing = "length";
    std::vector<std::string> faults;
    std::string readyFile;
    std::string credentialsFile;
    bool isToday = false;
    TodayOptions today;
    unsigned limitWindow = 3600;
    std::string authorityFile;
    std::string applicationFile;
    bool exitWithParent = false;
    double seconds = 0;
};

void describe(CLI::App& app, Settings& settings) {
    auto* source = app.add_option_group("Account");
    source
        ->add_option("--photos", settings.photos,
                     "Serve a folder: each sub-directory a set, loose files in no set")
        ->check(CLI::ExistingDirectory);
    source
        ->add_option("--generate", settings.generate,
                     "Serve a made-up account of so many sets and items in each")
        ->type_name("SETSxITEMS");
    source->require_option(1);

    Generation& made = settings.generation;
    app.add_option("--videos", made.videos, "Generated: how many of the items are videos")
        ->capture_default_str();
    app.add_option("--loose", made.loose, "Generated: further items in no set")->capture_default_str();
    app.add_option("--item-bytes", made.itemBytes, "Generated: size of a photo")
        ->transform(CLI::AsSizeValue(false))
        ->capture_default_str();
    app.add_option("--video-bytes", made.videoBytes, "Generated: size of a video, as in 1GiB")
        ->transform(CLI::AsSizeValue(false))
        ->capture_default_str();
    app.add_flag("!--plain-titles", made.awkwardTitles, "Generated: no titles that are hard on file systems");
    app.add_option("--seed", made.seed, "Generated: other pictures")->capture_default_str();

    SimOptions& sim = settings.sim;
    app.add_option("--address", sim.address, "Loopback address to listen on")->capture_default_str();
    app.add_option("--port", sim.port, "HTTP port; 0: the system picks")->capture_default_str();
    app.add_option("--https-port", settings.httpsPort, "Listen for HTTPS too; 0: the system picks")
        ->check(CLI::Range(0, 65535));
    app.add_flag("--https-media", sim.delivery.https, "Media addresses are https");
    app.add_option("--redirects", sim.delivery.redirects, "Redirects before each media file");
    app.add_option("--redirect-status", sim.delivery.redirectStatus, "301, 302, 303 or 307")
        ->capture_default_str();
    app.add_flag("--relative-redirects", sim.delivery.relativeLocations, "Redirect to paths");
    app.add_flag("--redirect-to-https", sim.delivery.redirectToHttps, "The last redirect goes to https");
    app.add_option("--framing", settings.framing, "How the end of media files is told")
        ->check(CLI::IsMember({"length", "chunked", "close"}))
        ->capture_default_str();
    app.add_flag("--repeat-last-page", sim.repeatLastPage,
                 "Answer pages past the end of the items in no set");
    app.add_option("--fault", settings.faults, "Misbehave (see below); can be given several times")
        ->allow_extra_args(false);

    app.add_option("--print-credentials-file", settings.credentialsFile,
                   "Write the credentials that are accepted to a file that only the owner can read");
    app.add_option("--ready-file", settings.readyFile,
                   "Write the data URL and the word for orders, a line each, to a file that only the owner\n"
                   "can read, once requests are answered");
    app.add_option("--seconds", settings.seconds, "Stop by itself after so long");
    app.add_flag("--exit-with-parent", settings.exitWithParent, "Stop when the program that started it ends");
}

void describeToday(CLI::App& app, Settings& settings) {
    auto* today = app.add_flag("--today", settings.isToday, "Be the service of today (see below)");
    const auto add = [&](CLI::Option* option) { option->needs(today)->group("Today's service"); };
    add(app.add_option("--ca-file", settings.authorityFile, "Write the authority's certificate to a file"));
    add(app.add_option("--print-application-file", settings.applicationFile,
                       "Write the credentials file of an application that nobody has signed in to yet"));
    add(app.add_option("--user-id", settings.sim.credentials.userId, "Whose account it is")
            ->capture_default_str());
    add(app.add_option("--user-name", settings.sim.credentials.userName, "The name of that user")
            ->capture_default_str());
    add(app.add_option("--tls-name", settings.sim.tlsNames,
                       "A further name or address for the certificate; can be given several times")
            ->allow_extra_args(false));
    add(app.add_flag("--sign-in-at-once", settings.today.signInAtOnce, "Allow without asking the user"));
    add(app.add_flag("!--no-originals", settings.today.originals, "Keep originals from the caller"));
    add(app.add_flag("!--lists-without-originals", settings.today.originalsInLists,
                     "Give originals in the answer about one photo only"));
    add(app.add_option("--list-limit", settings.today.lists.requests,
                       "Calls that are answered in a window; 0: all"));
    add(app.add_option("--media-limit", settings.today.media.requests,
                       "Media files that are answered in a window; 0: all"));
    add(app.add_option("--limit-window", settings.limitWindow, "Length of a window in seconds")
            ->check(CLI::Range(1u, 86400u))
            ->capture_default_str());
    add(app.add_flag("!--no-retry-after", settings.today.announceWait,
                     "Refuse beyond a limit without saying how long to wait"));
}

/// The credentials file; signedIn: with the token and its user.
std::string credentialsText(const FlickrSim& sim, const std::string& authorityFile, bool signedIn) {
    const Credentials& known = sim.credentials();
    std::string text = "api_key = " + known.apiKey + "\napi_secret = " + known.apiSecret + '\n';
    if (signedIn) text += "token = " + known.token + '\n';
    if (!sim.isToday()) return text;
    if (signedIn) {
        text += "token_secret = " + known.tokenSecret + "\nuser_id = " + known.userId +
                "\nuser_name = " + known.userName + '\n';
    }
    text += "service = " + sim.serviceUrl() + '\n';
    if (!authorityFile.empty()) text += "ca = " + std::filesystem::absolute(authorityFile).string() + '\n';
    return text;
}

void fill(Account& account, Settings& settings) {
    if (!settings.photos.empty()) return addFolder(account, settings.photos);
    char end = 0;
    if (std::sscanf(settings.generate.c_str(), "%ux%u%c", &settings.generation.sets,
                    &settings.generation.itemsPerSet, &end) != 2) {
        throw Poco::SyntaxException("--generate wants SETSxITEMS, as in 3x20, not " + settings.generate +
                                    ".");
    }
    generate(account, settings.generation);
}

/// Writes beside the name and takes the name then, so that a reader finds a whole file or none; what others
/// may have put there is not written to.
void writeFile(const std::string& name, const std::string& text) {
    std::string partial = name + ".XXXXXX";
    const int file = ::mkstemp(partial.data());  // for its owner only
    const bool written =
        file >= 0 && ::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (file >= 0) ::close(file);
    if (!written || std::rename(partial.c_str(), name.c_str()) != 0) {
        const std::string reason = std::strerror(errno);
        if (file >= 0) ::unlink(partial.c_str());
        throw Poco::WriteFileException("The file " + name + " cannot be written: " + reason + ".");
    }
}

/// Waits for SIGINT, SIGTERM or the time to be over.
void waitForEnd(const sigset_t& signals, double seconds) {
    if (seconds <= 0) {
        int signal = 0;
        ::sigwait(&signals, &signal);
        return;
    }
    const timespec time{
        static_cast<std::time_t>(seconds),
        static_cast<long>((seconds - static_cast<double>(static_cast<std::time_t>(seconds))) * 1e9)};
    ::sigtimedwait(&signals, nullptr, &time);
}

int run(Settings& settings) {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (settings.exitWithParent) {
        const pid_t parent = ::getppid();
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) return 0;
    }

    Account account;
    fill(account, settings);
    if (settings.httpsPort >= 0) settings.sim.httpsPort = static_cast<std::uint16_t>(settings.httpsPort);
    if (settings.framing != "length") {
        settings.sim.delivery.framing = settings.framing == "chunked" ? Framing::Chunked : Framing::Close;
    }
    if (settings.isToday) {
        settings.today.lists.window = settings.today.media.window =
            std::chrono::seconds(settings.limitWindow);
        settings.sim.today = settings.today;
    }
    settings.sim.keepLog = false;
    FlickrSim sim(account, settings.sim);
    for (const std::string& fault : settings.faults) sim.faults().add(parseFault(fault));

    if (!settings.authorityFile.empty()) writeFile(settings.authorityFile, sim.authorityPem());
    for (const bool signedIn : {true, false}) {
        const std::string& file = signedIn ? settings.credentialsFile : settings.applicationFile;
        if (!file.empty()) writeFile(file, credentialsText(sim, settings.authorityFile, signedIn));
    }
    std::cout << sim.dataUrl() << std::endl;
    if (sim.httpsPort() != 0) std::cout << sim.baseUrl(Scheme::Https) << std::endl;
    if (!settings.readyFile.empty()) {
        writeFile(settings.readyFile, sim.dataUrl() + '\n' + sim.orderWord() + '\n' +
                                          (sim.isToday() ? sim.serviceUrl() + '\n' : ""));
    }
    waitForEnd(signals, settings.seconds);
    std::cout << toJson(sim.counts()) << std::endl;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("A simulated Flickr for demonstrations, tests and measurements. Listens on loopback only.",
                 "flickr-sim");
    Settings settings;
    describe(app, settings);
    describeToday(app, settings);
    app.footer(kFooter);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    const SimOptions& sim = settings.sim;
    if ((sim.delivery.https || sim.delivery.redirectToHttps) && settings.httpsPort < 0) {
        std::cerr << "Media over HTTPS needs --https-port (443 for clients that ignore the port).\n";
        return 2;
    }
    try {
        return run(settings);
    } catch (Poco::Exception& exception) {
        std::cerr << "flickr-sim: " << exception.message() << "\n";
        return 1;
    }
}

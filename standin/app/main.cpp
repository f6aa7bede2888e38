// flickr-backup: backs up a Flickr account to a directory, with the plug-in and the stand-in for its host.

#include <Poco/Exception.h>
#include <signal.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include "standin/app/CommandLine.h"
#include "standin/app/Commands.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/ProgramArguments.h"
#include "standin/app/Refusal.h"
#include "standin/app/Version.h"

namespace {

bool wantsJson() {
    for (char** argument = flickr_app::programArguments(); *argument != nullptr; ++argument) {
        const std::string text = *argument;
        if (text == "--json" || text == "--json-progress") return true;
    }
    return false;
}

/// A sentence to standard error, and with --json an object to standard output.
int fail(const CLI::App& program, const std::string& sentence, int status) {
    std::string line = flickr_app::printable(sentence);
    if (line.empty() || std::string(".!?").find(line.back()) == std::string::npos) line += '.';
    std::cerr << "flickr-backup: " << line << std::endl;
    if (wantsJson()) {
        const auto commands = program.get_subcommands();
        auto object = flickr_app::jsonReport(commands.empty() ? "" : commands.front()->get_name(), "refused");
        object.set("exitStatus", status);
        object.set("error", line);
        flickr_app::printJson(std::cout, object);
    }
    return status;
}

/// The status, or that of an output that could not be written: a full disk, a closed descriptor.
int finish(int status) {
    std::cout.flush();
    if (std::cout) return status;
    // What failed may be long ago: a further line fails for the same reason.
    std::cout.clear();
    errno = 0;
    std::cout << std::endl;
    std::cerr << "flickr-backup: The output cannot be written"
              << (errno == 0 ? std::string() : std::string(": ") + std::strerror(errno)) << "." << std::endl;
    return status == flickr_app::ExitSuccess ? flickr_app::ExitFailure : status;
}

int perform(CLI::App& program, const flickr_app::CommandContext& context, int argc) {
    try {
        program.parse(argc, flickr_app::programArguments());
        return context.status;
    } catch (const CLI::Success& help) {  // --help, --version
        return program.exit(help);
    } catch (const CLI::ParseError& error) {
        return fail(program, flickr_app::explain(program, error), flickr_app::ExitUsage);
    } catch (const flickr_app::Refusal& error) {
        return fail(program, error.what(), error.status());
    } catch (const Poco::Exception& error) {
        return fail(program, error.message().empty() ? error.displayText() : error.message(),
                    flickr_app::ExitFailure);
    } catch (const std::exception& error) {
        return fail(program, error.what(), flickr_app::ExitFailure);
    }
}

}  // namespace

int main(int argc, char**) {
    flickr_app::setUpFoundation();
    ::signal(SIGPIPE, SIG_IGN);  // of the service or of whoever reads the output
    CLI::App program("Backs up the photos and videos of a Flickr account to a directory.", "flickr-backup");
    program.require_subcommand(1);
    program.set_version_flag("--version", flickr_app::versionText);
    program.footer(std::string("flickr-backup COMMAND --help tells more.\n") + flickr_app::kExitStatuses);
    flickr_app::CommandContext context;
    for (const auto add :
         {flickr_app::addLoginCommand, flickr_app::addLogoutCommand, flickr_app::addConfigureCommand,
          flickr_app::addRunCommand, flickr_app::addStatusCommand, flickr_app::addVerifyCommand,
          flickr_app::addRebuildCommand, flickr_app::addFindCommand, flickr_app::addExportCommand,
          flickr_app::addVersionsCommand, flickr_app::addGalleryCommand, flickr_app::addInfoCommand,
          flickr_app::addCompletionCommand}) {
        add(program, context);
    }
    return finish(perform(program, context, argc));
}

// flickr-backup: backs up a Flickr account to a directory, with the plug-in and the stand-in for its host.

#include <Poco/Exception.h>
#include <signal.h>

#include <exception>
#include <iostream>
#include <string>

#include "standin/app/CommandLine.h"
#include "standin/app/Commands.h"
#include "standin/app/Format.h"
#include "standin/app/Profile.h"
#include "standin/app/ProgramArguments.h"
#include "standin/app/Refusal.h"

namespace {

int fail(const std::string& sentence, int status) {
    const std::string line = flickr_app::printable(sentence);
    const bool ended = !line.empty() && std::string(".!?").find(line.back()) != std::string::npos;
    std::cerr << "flickr-backup: " << line << (ended ? "" : ".") << std::endl;
    return status;
}

}  // namespace

int main(int argc, char**) {
    flickr_app::setUpFoundation();
    ::signal(SIGPIPE, SIG_IGN);  // of the service or of whoever reads the output
    CLI::App program("Backs up the photos and videos of a Flickr account to a directory.", "flickr-backup");
    program.require_subcommand(1);
    program.set_version_flag("--version", FLICKR_BACKUP_VERSION);
    program.footer(std::string("flickr-backup COMMAND --help tells more.\n") + flickr_app::kExitStatuses);
    flickr_app::Profile profile;
    int status = flickr_app::ExitUsage;
    flickr_app::addLoginCommand(program, profile, status);
    flickr_app::addLogoutCommand(program, profile, status);
    flickr_app::addConfigureCommand(program, profile, status);
    flickr_app::addRunCommand(program, profile, status);
    flickr_app::addStatusCommand(program, status);
    flickr_app::addVerifyCommand(program, status);
    flickr_app::addGalleryCommand(program, status);
    flickr_app::addInfoCommand(program, profile, status);
    try {
        program.parse(argc, flickr_app::programArguments());
        return status;
    } catch (const CLI::Success& help) {  // --help, --version
        return program.exit(help);
    } catch (const CLI::ParseError& error) {
        return fail(flickr_app::explain(program, error), flickr_app::ExitUsage);
    } catch (const flickr_app::Refusal& error) {
        return fail(error.what(), error.status());
    } catch (const Poco::Exception& error) {
        return fail(error.message().empty() ? error.displayText() : error.message(), flickr_app::ExitFailure);
    } catch (const std::exception& error) {
        return fail(error.what(), flickr_app::ExitFailure);
    }
}

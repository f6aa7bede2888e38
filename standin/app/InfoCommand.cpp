#include <algorithm>
#include <iomanip>
#include <iostream>

#include "standin/app/ApplicationFolder.h"
#include "standin/app/Commands.h"
#include "standin/app/Configuration.h"
#include "standin/app/Format.h"
#include "standin/app/PerformRun.h"
#include "standin/app/Profile.h"
#include "standin/app/Refusal.h"
#include "standin/framework/run/RunConfiguration.h"

namespace flickr_app {
namespace {

int showInfo(const Profile& profile) {
    profile.prepare();
    profile.use();
    // Without a configuration the plug-in has what it has behind a sign-in of today.
    flickr_standin::setRunConfiguration({}, configurationValues(Configuration()));
    auto lines = describePlugin();
    lines.insert(lines.end(), {{"Program", pluginsDirectory()},
                               {"Configuration", profile.configurationFile()},
                               {"Credentials", credentialsFileFor(profile, "")},
                               {"Log", profile.logFile()}});
    std::size_t width = 0;
    for (const auto& [label, value] : lines) width = std::max(width, label.size());
    for (const auto& [label, value] : lines) {
        std::cout << std::left << std::setw(static_cast<int>(width) + 2) << label << printable(value) << "\n";
    }
    std::cout << std::flush;
    return ExitSuccess;
}

}  // namespace

void addInfoCommand(CLI::App& program, Profile& profile, int& status) {
    CLI::App* command = program.add_subcommand("info", "Show the plug-in's identity and settings");
    profile.addOptions(*command);
    command->footer(
        "What the plug-in tells the host: who it is, and the settings with which a service begins, as an\n"
        "object and (service.…) as the older dictionary. Keys and tokens are masked.");
    command->callback([&profile, &status] { status = showInfo(profile); });
}

}  // namespace flickr_app

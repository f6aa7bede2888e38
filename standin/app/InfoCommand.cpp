#include <algorithm>
#include <iomanip>
#include <iostream>

#include "standin/app/ApplicationFolder.h"
#include "standin/app/Commands.h"
#include "standin/app/Configuration.h"
#include "standin/app/Format.h"
#include "standin/app/Json.h"
#include "standin/app/PerformRun.h"
#include "standin/app/Profile.h"
#include "standin/app/Refusal.h"
#include "standin/framework/base/Text.h"
#include "standin/framework/run/RunConfiguration.h"

namespace flickr_app {
namespace {

using flickr_standin::validUtf8;

int showInfo(const CommandContext& context) {
    const Profile& profile = context.profile;
    profile.prepare();
    profile.use();
    // Without a configuration the plug-in has what it has behind a sign-in of today.
    flickr_standin::setRunConfiguration({}, configurationValues(Configuration()));
    auto lines = describePlugin();
    lines.insert(lines.end(), {{"Program", pluginsDirectory()},
                               {"Configuration", profile.configurationFile()},
                               {"Credentials", credentialsFileFor(profile, "")},
                               {"Log", profile.logFile()}});
    if (context.json) {
        Poco::JSON::Object settings(Poco::JSON_PRESERVE_KEY_ORDER);
        for (const auto& [label, value] : lines) settings.set(validUtf8(label), validUtf8(value));
        Poco::JSON::Object object = jsonReport("info", "success");
        object.set("settings", settings);
        printJson(std::cout, object);
        return ExitSuccess;
    }
    std::size_t width = 0;
    for (const auto& [label, value] : lines) width = std::max(width, label.size());
    for (const auto& [label, value] : lines) {
        std::cout << std::left << std::setw(static_cast<int>(width) + 2) << label << printable(value) << "\n";
    }
    std::cout << std::flush;
    return ExitSuccess;
}

}  // namespace

void addInfoCommand(CLI::App& program, CommandContext& context) {
    CLI::App* command = program.add_subcommand("info", "Show the plug-in's identity and settings");
    addJsonOption(*command, context);
    context.profile.addOptions(*command);
    command->footer(
        "What the plug-in tells the host: who it is, and the settings with which a service begins, as an\n"
        "object and (service.…) as the older dictionary. Keys and tokens are masked.");
    command->callback([&context] { context.status = showInfo(context); });
}

}  // namespace flickr_app

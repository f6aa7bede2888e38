#include <algorithm>
#include <iomanip>
#include <iostream>

#include "standin/app/ApplicationFolder.h"
#include "standin/app/Commands.h"
#include "standin/app/Configuration.h"
#include "standin/app/Format.h"
#include "standin/app/PerformRun.h"
#include "standin/app/UsageError.h"

namespace flickr_app {
namespace {

int showInfo() {
    readConfiguration(configurationFile());  // says what to do when there is none
    const auto lines = describePlugin();
    std::size_t width = 0;
    for (const auto& [label, value] : lines) width = std::max(width, label.size());
    for (const auto& [label, value] : lines) {
        std::cout << std::left << std::setw(static_cast<int>(width) + 2) << label << printable(value) << "\n";
    }
    std::cout << std::flush;
    return ExitSuccess;
}

}  // namespace

void addInfoCommand(CLI::App& program, int& status) {
    CLI::App* command = program.add_subcommand("info", "Show the plug-in's identity and settings");
    command->footer(
        "What the plug-in tells the host: who it is, and the settings with which a service begins, as an\n"
        "object and (service.…) as the older dictionary. Keys and tokens are masked.");
    command->callback([&status] { status = showInfo(); });
}

}  // namespace flickr_app

#include "standin/app/CommandLine.h"

#include "standin/app/Commands.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace flickr_app {
namespace {

/// How many characters have to be put in, left out, changed or swapped with their neighbour to make one word
/// of the other: the distance of Damerau and Levenshtein, in its form without repeated edits of one place.
std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> steps(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                steps[i][j] = i + j;
                continue;
            }
            const std::size_t same = a[i - 1] == b[j - 1] ? 0 : 1;
            steps[i][j] = std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1, steps[i - 1][j - 1] + same});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
            }
        }
    }
    return steps[a.size()][b.size()];
}

/// The candidate that was probably meant: one that begins so, or the nearest one that differs in no more than
/// a third of the word. Empty for none.
std::string nearest(const std::string& word, const std::vector<std::string>& candidates) {
    std::string best;
    std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const std::string& candidate : candidates) {
        const bool isStart = word.size() > 1 && candidate.compare(0, word.size(), word) == 0;
        const std::size_t steps = isStart ? 0 : distance(word, candidate);
        if (steps >= least) continue;
        least = steps;
        best = candidate;
    }
    return best;
}

std::vector<std::string> namesOf(const std::vector<const CLI::App*>& commands) {
    std::vector<std::string> names;
    for (const CLI::App* command : commands) names.push_back(command->get_name());
    return names;
}

std::vector<std::string> optionsOf(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) names.push_back(name);
    }
    return names;
}

}  // namespace

std::vector<const CLI::App*> commandsOf(const CLI::App& program) {
    return program.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

void addJsonOption(CLI::App& command, CommandContext& context) {
    command.add_flag("--json", context.json, "Print what comes of it as one JSON object");
}

std::string explain(const CLI::App& program, const CLI::ParseError& error) {
    const CLI::App* given = &program;
    std::string names;  // of the commands that were given, each with a blank behind it
    std::vector<std::string> unknown = program.remaining();
    while (!given->get_subcommands().empty()) {
        given = given->get_subcommands().front();
        names += given->get_name() + " ";
        const std::vector<std::string> inner = given->remaining();
        unknown.insert(unknown.begin(), inner.begin(), inner.end());
    }
    const CLI::App& command = *given;
    const std::string help = "; see flickr-backup " + names + "--help.";
    const std::vector<std::string> further = namesOf(commandsOf(command));

    if (unknown.empty() && !further.empty() && !names.empty()) {
        return "Behind \"" + names.substr(0, names.size() - 1) + "\" belongs " + further.front() + " or " +
               further.back() + help;
    }
    if (unknown.empty() && error.get_name() == "ArgumentMismatch") {
        const std::string text = error.what();
        return "The option " + text.substr(0, text.find(':')) + " needs a value" + help;
    }
    if (unknown.empty()) return error.what() + help;
    const auto isOption = [](const std::string& word) { return word.size() > 1 && word[0] == '-'; };
    const std::string word = unknown.front();
    if (!further.empty() && !isOption(word)) {
        const std::string meant = nearest(word, further);
        return "There is no command \"" + names + word + "\"" +
               (meant.empty() ? help : "; did you mean " + meant + "?");
    }
    const auto dashed = std::find_if(unknown.begin(), unknown.end(), isOption);
    if (dashed == unknown.end()) return "\"" + word + "\" does not belong to an option" + help;
    const std::string option = dashed->substr(0, dashed->find('='));
    const std::string meant = nearest(option.substr(option.find_first_not_of('-')), optionsOf(command));
    return "There is no option \"" + option + "\"" +
           (meant.empty() ? help : "; did you mean --" + meant + "?");
}

}  // namespace flickr_app

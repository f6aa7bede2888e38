// What shells and manuals need to know of the commands and options, made from the very objects that read
// them.

#include <algorithm>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "standin/app/CommandLine.h"
#include "standin/app/Commands.h"

namespace flickr_app {
namespace {

/// An option as a shell sees it.
struct OptionInfo {
    std::string name;  ///< without "--"
    std::string help;
    std::string value;                 ///< the word for its value; empty for a flag
    std::vector<std::string> choices;  ///< of its value; empty: any, by the word
};

std::vector<std::string> choicesIn(const std::string& typeName) {
    std::vector<std::string> choices;
    const std::size_t start = typeName.find('{'), end = typeName.find('}');
    if (start == std::string::npos || end == std::string::npos) return choices;
    std::istringstream list(typeName.substr(start + 1, end - start - 1));
    for (std::string choice; std::getline(list, choice, ',');) choices.push_back(choice);
    return choices;
}

/// The command's options, and of those of its own commands the ones that it does not have itself.
std::vector<OptionInfo> optionsOf(const CLI::App& command) {
    std::vector<OptionInfo> options;
    for (const CLI::App* inner : commandsOf(command)) {
        for (OptionInfo& option : optionsOf(*inner)) {
            const bool isKnown = std::any_of(options.begin(), options.end(), [&](const OptionInfo& known) {
                return known.name == option.name;
            });
            if (!isKnown && option.name != "help") options.push_back(std::move(option));
        }
    }
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_lnames().empty()) continue;
        OptionInfo info{option->get_lnames().front(), option->get_description(), "", {}};
        if (option->get_items_expected_max() > 0) {
            const std::string type = option->get_type_name();
            info.value = type.substr(0, type.find(':'));
            info.choices = choicesIn(type);
        }
        if (info.name == "media") info.choices = {"images", "videos", "images,videos"};
        if (info.name == "culture") info.choices = {"de", "en", "fr", "ja"};
        options.push_back(std::move(info));
    }
    return options;
}

/// The words that may stand behind the command.
std::vector<std::string> wordsOf(const CLI::App& command) {
    if (command.get_name() == "completion") return {"bash", "zsh", "fish"};
    std::vector<std::string> words;
    for (const CLI::App* inner : commandsOf(command)) words.push_back(inner->get_name());
    return words;
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
    return text;
}

std::string join(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

/// In single quotes of a shell.
std::string inQuotes(const std::string& text) {
    return "'" + replaced(text, "'", "'\\''") + "'";
}

void printBash(std::ostream& out, const CLI::App& program) {
    std::vector<std::string> names;
    std::ostringstream cases, values;
    for (const CLI::App* command : commandsOf(program)) {
        names.push_back(command->get_name());
        std::vector<std::string> words = wordsOf(*command);
        for (const OptionInfo& option : optionsOf(*command)) {
            words.push_back("--" + option.name);
            if (option.value.empty()) continue;
            const std::string pattern = "        " + command->get_name() + ":--" + option.name + ") ";
            if (!option.choices.empty()) {
                values << pattern << "words=" << inQuotes(join(option.choices)) << " ;;\n";
            } else {
                values << pattern
                       << (option.value == "DIR"    ? "kind=-d"
                           : option.value == "FILE" ? "kind=-f"
                                                    : "return")
                       << " ;;\n";
            }
        }
        cases << "            " << command->get_name() << ") words=" << inQuotes(join(words)) << " ;;\n";
    }
    out << "# bash completion for flickr-backup; made by \"flickr-backup completion bash\"\n"
           "_flickr_backup() {\n"
           "    local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command= word "
           "words= kind=\n"
           "    for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
           "        case $word in "
        << replaced(join(names), " ", "|")
        << ") command=$word; break ;; esac\n"
           "    done\n"
           "    COMPREPLY=()\n"
           "    case $command:$before in\n"
        << values.str() << "        *) case $command in\n"
        << cases.str() << "            *) words=" << inQuotes(join(names) + " --help --version")
        << " ;;\n"
           "        esac ;;\n"
           "    esac\n"
           "    if [[ -n $kind ]]; then\n"
           "        compopt -o filenames\n"
           "        mapfile -t COMPREPLY < <(compgen \"$kind\" -- \"$current\")\n"
           "    else\n"
           "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
           "    fi\n"
           "}\n"
           "complete -F _flickr_backup flickr-backup\n";
}

void printZsh(std::ostream& out, const CLI::App& program) {
    const auto bracketed = [](const std::string& text) {
        return replaced(replaced(replaced(text, "[", "("), "]", ")"), ":", "\\:");
    };
    out << "#compdef flickr-backup\n"
           "# zsh completion for flickr-backup; made by \"flickr-backup completion zsh\"\n"
           "_flickr_backup() {\n"
           "    local curcontext=$curcontext state line\n"
           "    local -a commands\n"
           "    commands=(\n";
    for (const CLI::App* command : commandsOf(program)) {
        out << "        " << inQuotes(command->get_name() + ":" + bracketed(command->get_description()))
            << "\n";
    }
    out << "    )\n"
           "    _arguments -C '--help[Print help]' '--version[Print the version]' '1: :->command' '*:: "
           ":->options'\n"
           "    case $state in\n"
           "    command) _describe command commands ;;\n"
           "    options)\n"
           "        case $words[1] in\n";
    for (const CLI::App* command : commandsOf(program)) {
        out << "        " << command->get_name() << ")\n            _arguments";
        for (const OptionInfo& option : optionsOf(*command)) {
            std::string spec = "--" + option.name + "[" + bracketed(option.help) + "]";
            if (!option.value.empty()) {
                spec += ":" + option.value + ":";
                if (!option.choices.empty()) spec += "(" + join(option.choices) + ")";
                if (option.value == "DIR") spec += "_directories";
                if (option.value == "FILE") spec += "_files";
            }
            out << " \\\n                " << inQuotes(spec);
        }
        const std::vector<std::string> words = wordsOf(*command);
        if (!words.empty()) out << " \\\n                '1:word:(" << join(words) << ")'";
        out << "\n            ;;\n";
    }
    out << "        esac ;;\n"
           "    esac\n"
           "}\n"
           "_flickr_backup \"$@\"\n";
}

void printFish(std::ostream& out, const CLI::App& program) {
    out << "# fish completion for flickr-backup; made by \"flickr-backup completion fish\"\n"
           "complete -c flickr-backup -f\n"
           "complete -c flickr-backup -n __fish_use_subcommand -l help -d 'Print help'\n"
           "complete -c flickr-backup -n __fish_use_subcommand -l version -d 'Print the version'\n";
    const auto fishQuotes = [](const std::string& text) {
        return "'" + replaced(replaced(text, "\\", "\\\\"), "'", "\\'") + "'";
    };
    for (const CLI::App* command : commandsOf(program)) {
        out << "complete -c flickr-backup -n __fish_use_subcommand -a " << command->get_name() << " -d "
            << fishQuotes(command->get_description()) << "\n";
        if (const auto words = wordsOf(*command); !words.empty()) {
            out << "complete -c flickr-backup -n '__fish_seen_subcommand_from " << command->get_name()
                << "' -a '" << join(words) << "'\n";
        }
        for (const OptionInfo& option : optionsOf(*command)) {
            out << "complete -c flickr-backup -n '__fish_seen_subcommand_from " << command->get_name()
                << "' -l " << option.name;
            if (!option.value.empty()) out << (option.value == "FILE" ? " -r" : " -x");  // -x: no files
            if (!option.choices.empty()) out << " -a " << fishQuotes(join(option.choices));
            if (option.value == "DIR") out << " -a '(__fish_complete_directories)'";
            if (option.value == "FILE") out << " -F";
            out << " -d " << fishQuotes(option.help) << "\n";
        }
    }
}

/// The part of the manual page that lists commands and options. before: the words in front of the commands.
void printManual(std::ostream& out, const CLI::App& program, const std::string& before = "") {
    const auto roff = [](const std::string& text) {
        return replaced(replaced(text, "\\", "\\e"), "-", "\\-");
    };
    for (const CLI::App* command : commandsOf(program)) {
        out << ".SS " << before << command->get_name() << "\n" << roff(command->get_description()) << ".\n";
        if (!commandsOf(*command).empty()) {
            printManual(out, *command, command->get_name() + " ");
            continue;
        }
        for (const OptionInfo& option : optionsOf(*command)) {
            out << ".TP\n.B " << roff("--" + option.name);
            if (!option.value.empty()) out << " \\fI" << roff(option.value) << "\\fR";
            out << "\n" << roff(option.help);
            if (!option.choices.empty()) out << ": " << roff(join(option.choices));
            out << ".\n";
        }
    }
}

}  // namespace

void addCompletionCommand(CLI::App& program, CommandContext& context) {
    auto shell = std::make_shared<std::string>();
    CLI::App* command =
        program.add_subcommand("completion", "Print what a shell needs to complete this command");
    command->add_option("SHELL", *shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    command->footer(
        "Example:\n"
        "  flickr-backup completion bash > ~/.local/share/bash-completion/completions/flickr-backup");
    command->callback([&program, shell, &context] {
        if (*shell == "bash") printBash(std::cout, program);
        if (*shell == "zsh") printZsh(std::cout, program);
        if (*shell == "fish") printFish(std::cout, program);
        context.status = ExitSuccess;
    });
    // For the build alone.
    program.add_subcommand("manual", "")->group("")->callback([&program, &context] {
        printManual(std::cout, program);
        context.status = ExitSuccess;
    });
}

}  // namespace flickr_app

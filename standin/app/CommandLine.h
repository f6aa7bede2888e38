// What is wrong with a command line, in words that help.

#ifndef STANDIN_APP_COMMANDLINE_H
#define STANDIN_APP_COMMANDLINE_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace flickr_app {

/// The commands that a user is told of.
std::vector<const CLI::App*> commandsOf(const CLI::App& program);

/// One sentence about the error in which parsing by the program ended: what is wrong, what may have been
/// meant, and whose --help tells more.
std::string explain(const CLI::App& program, const CLI::ParseError& error);

}  // namespace flickr_app

#endif

#pragma once
/// @file
/// What rvxctl tells about its own command line.

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace Host {

/// The look of --help: an example for each command, what holds for all of them at the top alone.
std::shared_ptr<CLI::Formatter> HelpFormatter();

/// What is wrong with the words of the command line, and what to write instead. `words` are those behind the
/// program's name.
std::string UsageMessage(const CLI::App& app, const CLI::ParseError& error,
                         const std::vector<std::string>& words);

/// What is wrong with an empty word, or an option that ends with its "=", as --simulate=$FILE does when FILE
/// is unset: CLI11 would take it for what was not said, or take the next word. Empty where there is none.
std::string EmptyValueHint(const std::vector<std::string>& words);

/// From now on what CLI11 allows and nobody means is refused: a flag with a value ("--dry-run=false" behind
/// "--dry-run"), an option as the value of the one before, a file said twice.
void Strengthen(CLI::App& app);

/// The help of a command, "array create". Throws CError(EXIT_USAGE) when there is none of that name.
std::string HelpOf(const CLI::App& app, const std::vector<std::string>& command);

}  // namespace Host

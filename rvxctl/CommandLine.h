#pragma once
/// @file
/// The tree of commands: each file of commands hangs its own into it, with what they take.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

#include "rvxctl/Context.h"

namespace Host {

/// What is run after everything is parsed; returns the exit status or throws CError.
using Command = std::function<int(CContext&)>;

/// For options that are numbers from 0 to `most`: CLI11 would read "010" as eight and "0x10" as sixteen.
inline auto NumberTo(unsigned long most) {
  return [most](const std::string& value) -> std::string {
    const bool isDecimal = std::ranges::all_of(value, [](unsigned char c) { return std::isdigit(c) != 0; }) &&
                           (value == "0" || !value.starts_with("0"));
    if (!isDecimal) return value + " is no decimal number";
    return std::strtoul(value.c_str(), nullptr, 10) <= most ? ""
                                                            : value + " is more than " + std::to_string(most);
  };
}

/// A place in the tree.
class CGroup {
 public:
  CGroup(CLI::App& app, Command& chosen) : m_App(app), m_Chosen(chosen) {}

  /// A group below this one.
  CGroup Add(const char* name, const char* help) {
    CLI::App* const group = m_App.add_subcommand(name, help);
    group->require_subcommand(1);
    return {*group, m_Chosen};
  }
  /// The group of that name that stands below this one.
  CGroup At(const char* name) { return {*m_App.get_subcommand(name), m_Chosen}; }

  /// A command that takes nothing.
  void Leaf(const char* name, const char* help, Command run) {
    m_App.add_subcommand(name, help)->callback([&chosen = m_Chosen, run = std::move(run)] { chosen = run; });
  }
  /// A command that takes arguments: the caller says which, and where in TArguments each one goes.
  template <class TArguments>
  std::pair<CLI::App*, TArguments&> Leaf(const char* name, const char* help,
                                         std::function<int(CContext&, const TArguments&)> run) {
    const auto arguments = std::make_shared<TArguments>();
    CLI::App* const leaf = m_App.add_subcommand(name, help);
    leaf->callback([&chosen = m_Chosen, run = std::move(run), arguments] {
      chosen = [run, arguments](CContext& context) { return run(context, *arguments); };
    });
    return {leaf, *arguments};
  }

 private:
  CLI::App& m_App;
  Command& m_Chosen;
};

/// Commands that show the topology and its objects; they make the group "array" too.
void AddShowing(CGroup& all);
/// Commands that tell how the machine is; behind those that show.
void AddHealth(CGroup& all);
/// The answer of `check` when nothing could be looked at, or its words are wrong: UNKNOWN, which monitoring
/// tells from a warning.
int ShowUnknown(CContext& context, const CError& error);
/// Commands that follow what happens.
void AddFollowing(CGroup& all);
/// The command that writes simulated machines.
void AddPlayground(CGroup& all);
/// The command that asks rvxd anything.
void AddApi(CGroup& all);
/// For what rvxd alone knows. Throws CError when it does not run.
CRemote& RequireRemote(CContext& context);
/// Commands that change the machine.
void AddChanging(CGroup& all);
/// Commands of what rvxd tells people, and of what it is to expect; behind those that change.
void AddAlarms(CGroup& all);

}  // namespace Host

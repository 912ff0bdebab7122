/// @file
/// The command line of rvxctl as a whole, and what is the same for all commands.

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <iostream>

#include "host/CommandLine.h"
#include "host/Printable.h"

namespace rvxctl {

namespace {

constexpr char VERSION[] = "rvxctl " RVX_VERSION;

constexpr char FOOTER[] =
    R"(Objects are named by kernel name (sda, md_d0), path, device key or identifier; "plugin" and "adapter" too.

Examples:
  rvxctl --simulate topology            a machine that exists only in memory
  rvxctl status                         adapter, arrays and disks of this machine
  rvxctl array create --level raid1 sdb sdc --wait
  rvxctl spare add sdd md_d0
  rvxctl events --follow --json-lines

Exit status: 0 done; 1 the plug-in answered with an error; 2 usage; 3 no such object; 4 not confirmed; 5 busy;
6 not supported or not allowed; 8 not enough rights; 9 the plug-in cannot be loaded; 128+n ended by signal n.
)";

/// Shows the option that may have a value as a person writes it.
class CFormatter : public CLI::Formatter {
 public:
  std::string make_option_name(const CLI::Option* option, bool positional) const override {
    const std::string name = Formatter::make_option_name(option, positional);
    return name == "--simulate{-}" ? "--simulate[=FILE]" : name;
  }
};

void AddOptions(CLI::App& app, SOptions& options) {
  app.add_flag("--json", options.m_Json, "one JSON document on standard output");
  app.add_flag("--simulate{-}", options.m_Machine,
               "use a simulated machine: the demonstration, or FILE's description")
      ->each([&](const std::string&) { options.m_Simulate = true; });
  app.add_flag("--save", options.m_Save, "keep the simulated machine's state in its file");
  app.add_option("--plugin", options.m_Plugin, "the plug-in's library")->type_name("PATH");
  app.add_option("--trace", options.m_Trace, "trace classes to standard error, a sum of 2, 4, 8 and 16")
      ->type_name("MASK")
      ->check(CLI::Range(0, 30));
  app.add_flag("--no-color", options.m_Plain, "no colours (also: NO_COLOR)");
}

/// Runs a step; a failure is told in words, and as a document for scripts unless there is one already.
template <class TStep>
int Guarded(CContext& context, TStep step) {
  const auto report = [&](const CError& error) {
    std::cerr << "rvxctl: " << Printable(error.what(), true) << "\n";
    if (context.Options().m_Json && !context.Terminal().HasPrinted())
      context.Show("error", nullptr, "", Json::array({ErrorJson(error)}));
    return error.m_ExitStatus;
  };
  try {
    return step();
  } catch (const CError& error) {
    return report(error);
  } catch (const std::exception& error) {
    return report({EXIT_PLUGIN_ERROR, error.what()});
  }
}

/// What is wrong with the command line and what to do about it.
std::string UsageMessage(const CLI::App& app, const CLI::ParseError& error) {
  std::string path = "rvxctl";
  const CLI::App* deepest = &app;
  for (auto chosen = app.get_subcommands(); !chosen.empty(); chosen = deepest->get_subcommands()) {
    deepest = chosen.front();
    path += " " + deepest->get_name();
  }
  const auto rest = app.remaining(true);
  const bool wantsCommand = !deepest->get_subcommands(nullptr).empty();
  std::string what = error.what();
  if (wantsCommand && !rest.empty() && !rest.front().starts_with("-"))
    what = "unknown command \"" + rest.front() + "\"";
  else if (wantsCommand && rest.empty() && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr)
    what = "a command is missing after \"" + path + "\"";
  return what + "; '" + path + " --help' tells what there is";
}

void Describe(CLI::App& app, SOptions& options, Command& command) {
  app.footer(FOOTER);
  app.set_version_flag("--version", VERSION);
  app.require_subcommand(1);
  app.formatter(std::make_shared<CFormatter>());
  app.fallthrough();
  AddOptions(app, options);
  CGroup all(app, command);
  AddShowing(all);
  AddFollowing(all);
  AddChanging(all);
}

int Run(const SOptions& options, const Command& command) {
  // The node of a new array is all the data of its disks: it is for its owner and group, also before udev has
  // seen it.
  ::umask(S_IRWXO);
  // A reader that has gone is an error of Print, so that the plug-in is de-initialised.
  std::signal(SIGPIPE, SIG_IGN);
  CTerminal terminal(options.m_Trace != 0);
  CContext context(options, terminal);
  const int status = Guarded(context, [&] {
    if (options.m_Save && options.m_Machine.empty())
      throw CError(EXIT_USAGE, "--save needs a file: --simulate=FILE");
    return command(context);
  });
  const int closed = Guarded(context, [&] {
    context.Close();
    return EXIT_DONE;
  });
  return status == EXIT_DONE ? closed : status;
}

int Main(int count, char** words) {
  SOptions options;
  Command command;
  CLI::App app("md software RAID through the framework's plug-in", "rvxctl");
  Describe(app, options, command);
  try {
    app.parse(count, words);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(error);
    options.m_Json = std::find(words, words + count, std::string("--json")) != words + count;
    command = [message = UsageMessage(app, error)](CContext&) -> int { throw CError(EXIT_USAGE, message); };
  }
  if (options.m_Machine == "-") options.m_Machine.clear();
  return Run(options, command);
}

}  // namespace

}  // namespace rvxctl

int main(int count, char** words) { return rvxctl::Main(count, words); }

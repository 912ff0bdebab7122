/// @file
/// The command line of rvxctl as a whole, and what is the same for all commands.

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <sstream>

#include "host/Printable.h"
#include "host/Signals.h"
#include "rvxctl/CommandLine.h"
#include "rvxctl/Completion.h"
#include "rvxctl/Help.h"

namespace Host {

namespace {

constexpr char VERSION[] = "rvxctl " RVX_VERSION;

void AddOptions(CLI::App& app, SOptions& options) {
  app.add_flag("--json", options.m_Json, "one JSON document on standard output");
  app.add_flag("--simulate{-}", options.m_Machine, "a simulated machine: the demonstration or FILE")
      ->each([&](const std::string&) { options.m_Simulate = true; });
  app.add_flag("--save", options.m_Save, "keep the simulated machine in its file");
  app.add_option("--socket", options.m_Socket, "by way of the rvxd that listens there")->type_name("PATH");
  app.add_flag("--direct", options.m_Direct, "not by way of rvxd");
  app.add_option("--plugin", options.m_Plugin, "the plug-in's library")->type_name("PATH");
  app.add_option("--trace", options.m_Trace, "trace to standard error: 2 + 4 + 8 + 16")
      ->type_name("MASK")
      ->check(NumberTo(30));
  app.add_flag("--no-color", options.m_Plain, "no colours (also: NO_COLOR)");
}

/// Runs a step; a failure is told in words, and as a document for scripts unless there is one already.
template <class TStep>
int Guarded(CContext& context, TStep step) {
  const auto report = [&](const CError& error) {
    // Who closes a pipe has read enough.
    if (error.m_ExitStatus == EXIT_SIGNAL + SIGPIPE) return error.m_ExitStatus;
    std::cerr << "rvxctl: " << Printable(error.what(), true) << "\n";
    try {
      if (context.IsStream() || (context.Options().m_Json && !context.Terminal().HasPrinted()))
        context.Show("error", nullptr, "", Json::array({ErrorJson(error)}));
    } catch (const CError&) {  // it may have been the output itself that failed
    }
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

int ShowHelp(CContext& context, const CLI::App& app, const std::vector<std::string>& command) {
  context.Terminal().Print(HelpOf(app, command));
  return EXIT_DONE;
}

void Describe(CLI::App& app, SOptions& options, Command& command) {
  app.set_version_flag("--version", VERSION);
  app.require_subcommand(1);
  app.formatter(HelpFormatter());
  app.fallthrough();
  AddOptions(app, options);
  CGroup all(app, command);
  AddShowing(all);
  AddHealth(all);
  AddFollowing(all);
  AddChanging(all);
  AddAlarms(all);
  AddPlayground(all);
  AddApi(all);
  const auto [help, wanted] =
      all.Leaf<std::vector<std::string>>("help", "what there is, or what a command takes",
                                         [&app](CContext& context, const std::vector<std::string>& words) {
                                           return ShowHelp(context, app, words);
                                         });
  help->add_option("COMMAND", wanted, "the command");
  Strengthen(app);
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
    terminal.RequireOpen();
    if (options.m_Save && options.m_Machine.empty())
      throw CError(EXIT_USAGE, "--save needs a file: --simulate=FILE");
    return command(context);
  });
  const int closed = Guarded(context, [&] {
    context.Close();
    return EXIT_DONE;
  });
  if (status != EXIT_DONE || closed != EXIT_DONE) return status == EXIT_DONE ? closed : status;
  // One that came while a change could not be broken off: a script must not go on as if nobody had asked.
  const int signal = TakeEndSignal();
  return signal == 0 ? EXIT_DONE : EXIT_SIGNAL + signal;
}

/// What the words of the command line ask for: a command, help, or to be told what is wrong with them.
Command Parsed(CLI::App& app, SOptions& options, Command& chosen, const std::vector<std::string>& words) {
  std::string wrong = EmptyValueHint(words);
  try {
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));  // as CLI11 wants them
    if (options.m_Machine == "-") options.m_Machine.clear();
    if (wrong.empty()) return chosen;
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
      std::ostringstream text;
      app.exit(error, text, text);
      options = {};
      return [text = text.str()](CContext& context) {
        context.Terminal().Print(text);
        return EXIT_DONE;
      };
    }
    if (wrong.empty()) wrong = UsageMessage(app, error, words);
  }
  const auto isSaid = [&](const char* word) { return std::ranges::find(words, word) != words.end(); };
  options = {};
  options.m_Json = isSaid("--json");
  const bool isStream = isSaid("--json-lines") ||
                        (options.m_Json && (isSaid("--follow") || isSaid("--watch") || isSaid("watch")));
  return [wrong = CError(EXIT_USAGE, wrong), isStream,
          isCheck = app.got_subcommand("check")](CContext& context) {
    if (isStream) context.BeginStream();
    if (isCheck) return ShowUnknown(context, wrong);
    throw CError(wrong);
  };
}

/// For a shell, in the middle of what a person types: nothing is said but names, whatever happens.
int Complete(const CLI::App& app, const std::vector<std::string>& words) {
  try {
    CTerminal terminal(false);
    if (std::freopen("/dev/null", "w", stderr) == nullptr) return EXIT_DONE;
    std::string names;
    for (const std::string& name : Completions(app, words)) names += Printable(name) + "\n";
    terminal.Print(names);
  } catch (const std::exception&) {  // nothing to offer
  }
  return EXIT_DONE;
}

int Main(const std::vector<std::string>& words) {
  SOptions options;
  Command chosen;
  CLI::App app("md software RAID through the framework's plug-in", "rvxctl");
  Describe(app, options, chosen);
  if (!words.empty() && words.front() == "complete") return Complete(app, {words.begin() + 1, words.end()});
  const Command command = Parsed(app, options, chosen, words);
  return Run(options, command);
}

/// Who started the program, a shell or a service manager, tells an end that was wanted by the signal that
/// ended it: everything is cleaned up, so that signal may do it now.
int EndedAsWanted(int status) {
  const int signal = status - EXIT_SIGNAL;
  if (signal <= 0) return status;
  EndBy(signal);
  return status;
}

}  // namespace

}  // namespace Host

int main(int count, char** words) { return Host::EndedAsWanted(Host::Main({words + 1, words + count})); }

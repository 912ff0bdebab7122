/// @file
/// The command line of rvxctl.

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>

#include "host/Commands.h"

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

/// The chosen command; runs after everything is parsed.
using Command = std::function<int(CContext&)>;

/// What commands take beside the options for all.
struct SArguments {
  std::string m_Object;
  std::string m_Second;
  std::vector<std::string> m_Disks;
  std::string m_Level;
  int m_Stripe{0};
  unsigned int m_PropertyID{PI::PROP_ALL};
  int m_Seconds{0};
  bool m_Flag{false};   ///< --watch, --follow
  bool m_Lines{false};  ///< --json-lines
  bool m_Last{false};
  bool m_All{false};
  SConsent m_Consent;
};

CLI::App* Group(CLI::App& parent, const char* name, const char* help) {
  CLI::App* const group = parent.add_subcommand(name, help);
  group->require_subcommand(1);
  return group;
}

CLI::App* Leaf(CLI::App& parent, const char* name, const char* help, Command& command, Command run) {
  CLI::App* const leaf = parent.add_subcommand(name, help);
  leaf->callback([&command, run = std::move(run)] { command = run; });
  return leaf;
}

void AddConsent(CLI::App* leaf, SArguments& a, bool wait) {
  leaf->add_flag("--yes", a.m_Consent.m_Yes, "do not ask");
  leaf->add_flag("--dry-run", a.m_Consent.m_DryRun, "show the plan and the plug-in's check, change nothing");
  if (wait) leaf->add_flag("--wait", a.m_Consent.m_Wait, "follow the work that this sets off to its end");
}

void AddShowing(CLI::App& app, SArguments& a, Command& command) {
  Leaf(app, "topology", "every object with its properties", command, ShowTopology);
  Leaf(app, "status", "adapter, arrays and disks at a glance", command, [&a](CContext& c) {
    return ShowStatus(c, a.m_Flag);
  })->add_flag("--watch", a.m_Flag, "again every two seconds until interrupted");
  Leaf(*Group(app, "plugin", "the plug-in itself"), "show", "its properties", command,
       [](CContext& c) { return ShowObject(c, "plugin", PI::OBJ_PLUGIN); });
  Leaf(*Group(app, "adapter", "the virtual adapter"), "show", "its properties", command,
       [](CContext& c) { return ShowObject(c, "adapter", PI::OBJ_ADAPTER); });
  CLI::App* const disk = Group(app, "disk", "managed disks");
  Leaf(*disk, "list", "a line each", command, ListDisks);
  Leaf(*disk, "show", "the properties of one", command,
       [&a](CContext& c) { return ShowObject(c, a.m_Object, PI::OBJ_PHYSICAL_DRIVE); })
      ->add_option("DISK", a.m_Object, "the disk")
      ->required();
  Leaf(app, "operations", "what an object offers, and whether it is allowed now", command,
       [&a](CContext& c) { return ShowOperations(c, a.m_Object); })
      ->add_option("OBJECT", a.m_Object, "the object")
      ->required();
  CLI::App* const prop = Group(app, "prop", "properties by number");
  CLI::App* const get = Leaf(*prop, "get", "all properties of an object, or one", command,
                             [&a](CContext& c) { return GetProperty(c, a.m_Object, a.m_PropertyID); });
  get->add_option("OBJECT", a.m_Object, "the object")->required();
  get->add_option("ID", a.m_PropertyID, "the property's number");
  Leaf(*Group(*Group(*prop, "set", "changes a property"), "plugin", "of the plug-in"), "poll-interval",
       "seconds between two looks at the system, 2 to 255", command,
       [&a](CContext& c) { return SetPollInterval(c, a.m_Seconds); })
      ->add_option("N", a.m_Seconds, "seconds")
      ->required();
  Leaf(app, "levels", "RAID levels that can be made", command, ShowLevels);
}

void AddFollowing(CLI::App& app, CLI::App& array, SArguments& a, Command& command) {
  CLI::App* const events = Leaf(app, "events", "what happened, an event a line", command,
                                [&a](CContext& c) { return ShowEvents(c, a.m_Flag, a.m_Lines); });
  events->add_flag("--follow", a.m_Flag, "until interrupted");
  events->add_flag("--json-lines", a.m_Lines, "a JSON object a line");
  Leaf(array, "watch", "follows a rebuild or resync to its end (1: it was aborted)", command,
       [&a](CContext& c) { return WatchArray(c, a.m_Object); })
      ->add_option("ARRAY", a.m_Object, "the array")
      ->required();
}

void AddChanging(CLI::App& app, CLI::App& array, SArguments& a, Command& command) {
  CLI::App* const create =
      Leaf(array, "create", "makes an array of free disks; what is on them is lost", command,
           [&a](CContext& c) { return CreateArray(c, a.m_Level, a.m_Stripe, a.m_Disks, a.m_Consent); });
  create->add_option("--level", a.m_Level, "raid0, raid1 or linear")
      ->required()
      ->check(CLI::IsMember({"raid0", "raid1", "linear"}));
  create->add_option("--stripe", a.m_Stripe, "KiB: 4, 8, 16, 32, 64 or 128")
      ->check(CLI::IsMember({4, 8, 16, 32, 64, 128}));
  create->add_option("DISK", a.m_Disks, "the disks, in order")->required();
  AddConsent(create, a, true);

  CLI::App* const remove =
      Leaf(array, "delete", "stops an array and wipes its superblocks", command, [&a](CContext& c) {
        if (!a.m_Object.empty() + a.m_Last + a.m_All != 1)
          throw CError(EXIT_USAGE, "say which array: ARRAY, --last or --all");
        return DeleteArray(c, a.m_Object, a.m_Last, a.m_All, a.m_Consent);
      });
  remove->add_option("ARRAY", a.m_Object, "the array");
  remove->add_flag("--last", a.m_Last, "the last one of the list");
  remove->add_flag("--all", a.m_All, "every array");
  AddConsent(remove, a, false);

  CLI::App* const spare = Group(app, "spare", "hot spares of one array");
  CLI::App* const add = Leaf(*spare, "add", "makes a free disk a spare; what is on it is lost", command,
                             [&a](CContext& c) { return AddSpare(c, a.m_Object, a.m_Second, a.m_Consent); });
  add->add_option("DISK", a.m_Object, "the disk")->required();
  add->add_option("ARRAY", a.m_Second, "the array")->required();
  AddConsent(add, a, true);
  CLI::App* const release =
      Leaf(*spare, "release", "takes a spare or failed member out of its array", command,
           [&a](CContext& c) { return ReleaseSpare(c, a.m_Object, a.m_Consent); });
  release->add_option("DISK", a.m_Object, "the disk")->required();
  AddConsent(release, a, false);

  CLI::App* const rebuild = Group(app, "rebuild", "rebuilds of an array");
  for (const bool start : {true, false}) {
    CLI::App* const leaf =
        Leaf(*rebuild, start ? "start" : "cancel", start ? "of a failed member" : "of the one that runs",
             command, [&a, start](CContext& c) { return ChangeRebuild(c, a.m_Object, start, a.m_Consent); });
    leaf->add_option("ARRAY", a.m_Object, "the array")->required();
    AddConsent(leaf, a, start);
  }
  Leaf(app, "rescan", "looks at the system now", command, Rescan);
}

/// Shows the option that may have a value as a person writes it.
class CFormatter : public CLI::Formatter {
 public:
  std::string make_option_name(const CLI::Option* option, bool positional) const override {
    const std::string name = Formatter::make_option_name(option, positional);
    return name == "--simulate{-}" ? "--simulate[=FILE]" : name;
  }
};

void AddOptions(CLI::App& app, SOptions& options, bool& noColor) {
  app.add_flag("--json", options.m_Json, "one JSON document on standard output");
  app.add_flag("--simulate{-}", options.m_Machine,
               "use a simulated machine: the demonstration, or FILE's description")
      ->each([&](const std::string&) { options.m_Simulate = true; });
  app.add_flag("--save", options.m_Save, "keep the simulated machine's state in its file");
  app.add_option("--plugin", options.m_Plugin, "the plug-in's library")->type_name("PATH");
  app.add_option("--trace", options.m_Trace, "trace classes to standard error, a sum of 2, 4, 8 and 16")
      ->type_name("MASK")
      ->check(CLI::Range(0, 30));
  app.add_flag("--no-color", noColor, "no colours (also: NO_COLOR)");
}

/// Runs a step; a failure is told in words, and as a document for scripts unless there is one already.
template <class TStep>
int Guarded(CContext& context, TStep step) {
  const auto report = [&](const CError& error) {
    std::cerr << "rvxctl: " << error.what() << "\n";
    if (context.Options().m_Json && !context.Output().HasPrinted())
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

int Main(int count, char** words) {
  SOptions options;
  SArguments arguments;
  Command command;
  bool noColor = false;
  CLI::App app("md software RAID through the framework's plug-in", "rvxctl");
  app.footer(FOOTER);
  app.set_version_flag("--version", VERSION);
  app.require_subcommand(1);
  app.formatter(std::make_shared<CFormatter>());
  app.fallthrough();
  AddOptions(app, options, noColor);
  AddShowing(app, arguments, command);
  CLI::App* const array = Group(app, "array", "arrays");
  Leaf(*array, "list", "a line each", command, ListArrays);
  Leaf(*array, "show", "the properties of one", command,
       [&](CContext& c) { return ShowObject(c, arguments.m_Object, PI::OBJ_LOGICAL_DRIVE); })
      ->add_option("ARRAY", arguments.m_Object, "the array")
      ->required();
  AddFollowing(app, *array, arguments, command);
  AddChanging(app, *array, arguments, command);
  try {
    app.parse(count, words);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(error);
    options.m_Json = std::find(words, words + count, std::string("--json")) != words + count;
    command = [message = UsageMessage(app, error)](CContext&) -> int { throw CError(EXIT_USAGE, message); };
  }

  // The node of a new array is all the data of its disks: it is for its owner and group, also before udev has
  // seen it.
  ::umask(S_IRWXO);
  // A reader that has gone is an error of Print, so that the plug-in is de-initialised.
  std::signal(SIGPIPE, SIG_IGN);
  COutput output(options.m_Trace != 0);
  const char* const plain = std::getenv("NO_COLOR");
  options.m_Color = output.IsTerminal() && !noColor && (plain == nullptr || *plain == '\0');
  if (options.m_Machine == "-") options.m_Machine.clear();
  CContext context(options, output);
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

}  // namespace

}  // namespace rvxctl

int main(int count, char** words) { return rvxctl::Main(count, words); }

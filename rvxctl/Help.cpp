#include "rvxctl/Help.h"

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <numeric>

#include "host/Error.h"

namespace Host {

namespace {

constexpr char FOOTER[] =
    R"(Objects are named by kernel name (sda, md_d0), path, device key or, but for
changes, identifier; disks also by serial number, WWN and /dev/disk/by-id,
arrays by UUID. "plugin" and "adapter" name these two.

Examples:
  rvxctl --simulate topology      a machine that exists only in memory
  rvxctl status                   adapter, arrays and disks of this machine
  rvxctl help array create        what a command takes

Exit status: 0 done; 1 the plug-in answered with an error; 2 usage; 3 no such
object; 4 not confirmed; 5 busy; 6 not supported or not allowed; 8 not enough
rights; 9 the plug-in cannot be loaded. That of check: 0 in order; 1 warning;
2 critical; 3 unknown. What a signal ends is ended by that signal, which a shell
shows as 128 + its number.
)";

/// One that can be tried as it is, with --simulate before the command.
constexpr struct SExample {
  const char* m_Command;
  const char* m_Example;
} EXAMPLES[] = {{"topology", "rvxctl topology --json"},
                {"status", "rvxctl status"},
                {"plugin show", "rvxctl plugin show"},
                {"adapter show", "rvxctl adapter show"},
                {"disk list", "rvxctl disk list --ready --columns name,size,serial --bytes"},
                {"disk show", "rvxctl disk show sda"},
                {"disk locate", "rvxctl disk locate sda on"},
                {"check", "rvxctl check"},
                {"playground", "rvxctl --simulate=machine.json playground demo"},
                {"array list", "rvxctl array list --columns name,status,members"},
                {"array show", "rvxctl array show md_d0"},
                {"operations", "rvxctl operations md_d0"},
                {"prop get", "rvxctl prop get sda 30059"},
                {"prop set plugin poll-interval", "rvxctl prop set plugin poll-interval 20"},
                {"levels", "rvxctl levels"},
                {"events", "rvxctl events --json-lines"},
                {"api", "rvxctl api GET /v1/state"},
                {"condition list", "rvxctl condition list"},
                {"condition acknowledge", "rvxctl condition acknowledge array-degraded:md_d0"},
                {"notify list", "rvxctl notify list"},
                {"notify test", "rvxctl notify test mail"},
                {"array watch", "rvxctl array watch md_d0"},
                {"array create", "rvxctl array create --level raid0 --stripe 128 sdf sdg"},
                {"array delete", "rvxctl array delete md_d0"},
                {"spare add", "rvxctl spare add sdf md_d1"},
                {"spare release", "rvxctl spare release sde"},
                {"spare expect", "rvxctl spare expect md_d1 1"},
                {"rebuild start", "rvxctl rebuild start md_d1 --wait"},
                {"rebuild cancel", "rvxctl rebuild cancel md_d1"},
                {"rescan", "rvxctl rescan"},
                {"help", "rvxctl help array create"}};

/// "array create" of the command, "" of the program.
std::string PathOf(const CLI::App& app) {
  if (app.get_parent() == nullptr) return "";
  const std::string above = PathOf(*app.get_parent());
  return above + (above.empty() ? "" : " ") + app.get_name();
}

/// The commands below this one that a person is told about.
std::vector<const CLI::App*> CommandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

class CFormatter : public CLI::Formatter {
 public:
  /// Shows the option that may have a value as a person writes it.
  std::string make_option_name(const CLI::Option* option, bool positional) const override {
    const std::string name = Formatter::make_option_name(option, positional);
    return name == "--simulate{-}" ? "--simulate[=FILE]" : name;
  }
  std::string make_footer(const CLI::App* app) const override {
    const std::string path = PathOf(*app);
    if (path.empty()) return FOOTER;
    const auto* const example = std::ranges::find(EXAMPLES, path, &SExample::m_Command);
    return (example == std::end(EXAMPLES) ? "" : std::string("Example:\n  ") + example->m_Example + "\n\n") +
           "'rvxctl --help' tells the options of every command: --json, --simulate ...\n";
  }
};

/// How many letters have to be put, left out, changed or swapped with their neighbour to make one word of the
/// other.
std::size_t Distance(const std::string& one, const std::string& other) {
  std::vector<std::size_t> before, row(other.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 1; i <= one.size(); ++i) {
    const std::vector<std::size_t> last = std::move(row);
    row.assign(1, i);
    for (std::size_t j = 1; j <= other.size(); ++j) {
      const std::size_t changed = last[j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
      row.push_back(std::min({changed, last[j] + 1, row.back() + 1}));
      if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
        row.back() = std::min(row.back(), before[j - 2] + 1);
    }
    before = last;
  }
  return row.back();
}

/// The known word that was probably meant; none when all are too far off.
std::string Suggestion(const std::string& word, const std::vector<std::string>& known) {
  std::string nearest;
  std::size_t least = word.size() / 3 + 2;  // one more than may be wrong
  for (const std::string& one : known)
    if (const std::size_t distance = Distance(word, one); distance < least) {
      nearest = one;
      least = distance;
    }
  return nearest.empty() ? "" : " (did you mean " + nearest + "?)";
}

std::vector<std::string> NamesOf(const std::vector<const CLI::App*>& commands) {
  std::vector<std::string> names;
  for (const CLI::App* const command : commands) names.push_back(command->get_name());
  return names;
}

/// The options that may be said behind this command.
std::vector<std::string> OptionsOf(const CLI::App* app) {
  std::vector<std::string> names;
  for (; app != nullptr; app = app->get_parent())
    for (const CLI::Option* const option : app->get_options())
      for (const std::string& name : option->get_lnames())
        if (!option->get_group().empty()) names.push_back("--" + name);
  return names;
}

std::string ListOf(const CLI::App& app) {
  std::size_t width = 0;
  for (const std::string& name : NamesOf(CommandsOf(app))) width = std::max(width, name.size());
  std::string list;
  for (const CLI::App* const command : CommandsOf(app)) {
    const std::string& name = command->get_name();
    list += "\n  " + name + std::string(width + 2 - name.size(), ' ') + command->get_description();
  }
  return list;
}

/// What to write where a file follows --simulate as a word of its own; empty where none does.
std::string SimulateHint(const CLI::App& app, const std::vector<std::string>& words) {
  const auto found = std::ranges::find(words, "--simulate");
  if (found == words.end() || found + 1 == words.end()) return {};
  const std::string& file = *(found + 1);
  // A command's name is no file, whatever lies in the folder.
  const auto commands = NamesOf(CommandsOf(app));
  if (std::ranges::find(commands, file) != commands.end()) return {};
  boost::system::error_code error;
  const bool isFile = file.ends_with(".json") || boost::filesystem::is_regular_file(file, error);
  return isFile ? "the machine's file is a part of the option: write --simulate=" + file : "";
}

/// What is wrong with the words of a command that is known, for people: CLI11 says it for programmers.
std::string Reworded(const CLI::ParseError& error) {
  std::string text = error.what();
  const std::size_t colon = text.find(": ");
  const std::string name = text.substr(0, colon);
  const std::string rest = colon == std::string::npos ? "" : text.substr(colon + 2);
  if (const std::size_t flag = text.find(" was given a disallowed"); flag != std::string::npos)
    return "--" + text.substr(0, flag) + " takes no value";
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr)
    return name + (rest.starts_with("At Most") ? " is said more than once" : " needs a value");
  const std::size_t offered = rest.find(" not in {");
  if (offered != std::string::npos && rest.ends_with("}")) {
    const auto words = CLI::detail::split(rest.substr(offered + 9, rest.size() - offered - 10), ',');
    return name + ": " + rest.substr(0, offered) + " is none of " + CLI::detail::join(words, ", ");
  }
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) return "more than the command takes: " + rest;
  return text;
}

}  // namespace

std::shared_ptr<CLI::Formatter> HelpFormatter() { return std::make_shared<CFormatter>(); }

std::string EmptyValueHint(const std::vector<std::string>& words) {
  const auto found = std::ranges::find_if(words, [](const std::string& word) {
    return word.empty() || (word.starts_with("--") && word.ends_with("="));
  });
  if (found == words.end()) return {};
  return (found->empty() ? "an empty word says nothing" : *found + " has no value") +
         ": is a script's variable unset?";
}

void Strengthen(CLI::App& app) {
  for (CLI::Option* const option : app.get_options()) {
    if (option->check_name("--simulate"))
      option->multi_option_policy(CLI::MultiOptionPolicy::Throw);
    else if (option->get_items_expected_max() == 0)
      option->disable_flag_override();
    else if (!option->get_positional())
      option->check([](const std::string& value) {
        return value.starts_with("--") ? "a value is missing before " + value : std::string();
      });
  }
  for (CLI::App* const command : app.get_subcommands(nullptr)) Strengthen(*command);
}

std::string UsageMessage(const CLI::App& app, const CLI::ParseError& error,
                         const std::vector<std::string>& words) {
  const CLI::App* deepest = &app;
  for (auto chosen = app.get_subcommands(); !chosen.empty(); chosen = deepest->get_subcommands())
    deepest = chosen.front();
  const std::string path = PathOf(*deepest).empty() ? "rvxctl" : "rvxctl " + PathOf(*deepest);
  const std::string help = "; '" + path + " --help' tells what there is";
  const auto commands = CommandsOf(*deepest);
  const auto rest = app.remaining(true);
  const auto option =
      std::ranges::find_if(rest, [](const std::string& word) { return word.starts_with("-"); });
  if (std::string hint = SimulateHint(app, words); !hint.empty()) return hint;
  if (option != rest.end()) {
    const std::string name = option->substr(0, option->find('='));
    const auto known = OptionsOf(deepest);
    if (std::ranges::find(known, name) != known.end()) return name + " stands behind its command" + help;
    return "unknown option " + name + Suggestion(name, known) + help;
  }
  if (!commands.empty() && !rest.empty())
    return "unknown command \"" + rest.front() + "\"" + Suggestion(rest.front(), NamesOf(commands)) + help;
  if (!commands.empty() && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr)
    return "a command is missing after \"" + path + "\"; there are:" + ListOf(*deepest);
  return Reworded(error) + help;
}

std::string HelpOf(const CLI::App& app, const std::vector<std::string>& command) {
  const CLI::App* at = &app;
  for (const std::string& name : command) {
    const auto below = CommandsOf(*at);
    const auto found = std::ranges::find(below, name, [](const CLI::App* one) { return one->get_name(); });
    if (found == below.end())
      throw CError(EXIT_USAGE, "unknown command \"" + name + "\"" + Suggestion(name, NamesOf(below)) + "; '" +
                                   (at == &app ? "rvxctl help" : "rvxctl help " + PathOf(*at)) +
                                   "' tells what there is");
    at = *found;
  }
  // App::help would show the command that was chosen below it: "help".
  return at->get_formatter()->make_help(at, at == &app ? "rvxctl" : "rvxctl " + PathOf(*at),
                                        CLI::AppFormatMode::Normal);
}

}  // namespace Host

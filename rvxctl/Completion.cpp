#include "rvxctl/Completion.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "host/Inventory.h"
#include "host/Levels.h"
#include "host/ListView.h"
#include "host/Values.h"

namespace Host {

namespace {

namespace fs = boost::filesystem;
using T = SCandidate;

/// What the operands of a command may be: those with all of these traits.
constexpr struct SOperand {
  const char* m_Command;
  std::size_t m_Position;
  unsigned int m_Traits;
} OPERANDS[] = {{"disk show", 0, T::DISK},
                {"disk locate", 0, T::DISK},
                {"array show", 0, T::ARRAY},
                {"array watch", 0, T::ARRAY},
                {"array delete", 0, T::ARRAY},
                {"spare add", 0, T::DISK | T::READY},
                {"spare add", 1, T::ARRAY | T::REDUNDANT},
                {"spare release", 0, T::DISK | T::RELEASABLE},
                {"spare expect", 0, T::ARRAY | T::REDUNDANT},
                {"rebuild start", 0, T::ARRAY | T::DEGRADED},
                {"rebuild cancel", 0, T::ARRAY | T::REBUILDING},
                {"operations", 0, 0},
                {"prop get", 0, 0}};

constexpr char CREATION[] = "array create";  // any number of disks

std::string TextOf(const fs::path& file) {
  std::ifstream stream(file.string());
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string Word(const fs::path& file) {
  std::istringstream text(TextOf(file));
  std::string word;
  text >> word;
  return word;
}

std::vector<fs::path> Entries(const fs::path& folder) {
  boost::system::error_code error;
  std::vector<fs::path> entries;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
    entries.push_back(entry->path());
  return entries;
}

/// Numbers of what is mounted and names of what is swapped to, as /proc has them.
std::set<std::string> Mounted(const fs::path& root) {
  std::set<std::string> mounted;
  std::istringstream mounts(TextOf(root / "proc/self/mountinfo")), swaps(TextOf(root / "proc/swaps"));
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string number;
    fields >> number >> number >> number;
    mounted.insert(number);
  }
  for (std::string line; std::getline(swaps, line);) mounted.insert(line.substr(0, line.find(' ')));
  return mounted;
}

/// Whether nothing that the kernel tells of uses the disk or one of its partitions.
bool IsFree(const fs::path& device, const std::set<std::string>& mounted) {
  if (!Entries(device / "holders").empty() || mounted.contains(Word(device / "dev")) ||
      mounted.contains("/dev/" + device.filename().string()))
    return false;
  return std::ranges::all_of(Entries(device), [&](const fs::path& part) {
    boost::system::error_code error;
    return !fs::exists(part / "partition", error) || IsFree(part, mounted);
  });
}

unsigned int TraitsOf(const SMdArray& array) {
  unsigned int traits = T::ARRAY;
  if (array.m_Slots) traits |= T::REDUNDANT;  // md counts them where members can be missing
  if (array.m_Slots && array.m_Working < array.m_Slots) traits |= T::DEGRADED;
  if (array.m_Run && array.m_Run->m_Action == "recovery") traits |= T::REBUILDING;
  return traits;
}

bool IsOneOf(std::optional<long> value, std::initializer_list<long> values) {
  return value && std::ranges::find(values, *value) != values.end();
}

/// Those of a simulated machine, by the plug-in that works on it.
std::vector<SCandidate> SimulatedCandidates(const SOptions& options) {
  CSession session(options);
  const CTopology topology(session);
  std::vector<SCandidate> candidates{{"plugin", T::WHOLE_MODEL}, {"adapter", T::WHOLE_MODEL}};
  for (const PI::CObject* const disk : topology.OfKind(PI::OBJ_PHYSICAL_DRIVE)) {
    const auto status = NumberOf(*disk, PI::PROP_STATUS);
    const bool isLoose = IsOneOf(status, {PI::STATUS_SPARE, PI::STATUS_FAILED});
    candidates.push_back({NameOf(*disk), T::DISK | (status == PI::STATUS_READY ? T::READY : 0U) |
                                             (isLoose ? T::RELEASABLE : 0U)});
  }
  for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE)) {
    const auto status = NumberOf(*array, PI::PROP_STATUS);
    const auto level = NumberOf(*array, PI::PROP_RAID_LEVEL);
    const bool rebuilds = NumberOf(*array, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING;
    const bool isPlain = IsOneOf(level, {PI::LEVEL_RAID0, PI::LEVEL_CONCATENATION});
    candidates.push_back({NameOf(*array), T::ARRAY | (isPlain ? 0U : T::REDUNDANT) |
                                              (status == PI::STATUS_DEGRADED ? T::DEGRADED : 0U) |
                                              (rebuilds ? T::REBUILDING : 0U)});
  }
  return candidates;
}

/// The words so far, understood.
struct SLine {
  const CLI::App* m_App;
  std::string m_Command;                ///< "array create"
  std::vector<std::string> m_Operands;  ///< before the last word
  const CLI::Option* m_Awaiting;        ///< the option whose value is the last word; null
  SOptions m_Options;                   ///< what is said of the simulated machine
};

const CLI::Option* FindOption(const CLI::App* app, const std::string& name) {
  for (; app != nullptr; app = app->get_parent())
    if (const CLI::Option* const option = app->get_option_no_throw(name)) return option;
  return nullptr;
}

const CLI::App* FindCommand(const CLI::App& app, const std::string& name) {
  const auto found = app.get_subcommands([&](const CLI::App* one) { return one->get_name() == name; });
  return found.empty() ? nullptr : found.front();
}

SLine Understood(const CLI::App& app, const std::vector<std::string>& before) {
  constexpr std::string_view MACHINE = "--simulate=";
  SLine line{&app, "", {}, nullptr, {}};
  for (const std::string& word : before) {
    if (line.m_Awaiting != nullptr) {
      line.m_Awaiting = nullptr;
    } else if (word.starts_with("-")) {
      line.m_Options.m_Simulate |= word == "--simulate" || word.starts_with(MACHINE);
      if (word.starts_with(MACHINE)) line.m_Options.m_Machine = word.substr(MACHINE.size());
      const CLI::Option* const option = FindOption(line.m_App, word);
      if (option != nullptr && option->get_items_expected_min() > 0) line.m_Awaiting = option;
    } else if (const CLI::App* const command = FindCommand(*line.m_App, word)) {
      line.m_App = command;
      line.m_Command += (line.m_Command.empty() ? "" : " ") + word;
    } else {
      line.m_Operands.push_back(word);
    }
  }
  return line;
}

std::vector<std::string> Fit(const SLine& line, unsigned int traits) {
  std::vector<std::string> names;
  for (const SCandidate& one :
       line.m_Options.m_Simulate ? SimulatedCandidates(line.m_Options) : KernelCandidates("/"))
    if ((one.m_Traits & traits) == traits &&
        std::ranges::find(line.m_Operands, one.m_Name) == line.m_Operands.end())
      names.push_back(one.m_Name);
  return names;
}

/// The demonstration offers the levels and stripe sizes that a real machine does, and has no disks to touch.
std::vector<std::string> LevelWords(bool stripes) {
  SOptions options;
  options.m_Simulate = true;
  CSession session(options);
  std::vector<std::string> words;
  for (const PI::CLevel& level : OfferedLevels(CTopology(session))) {
    if (!stripes) words.push_back(WordOf(level.m_Level));
    for (const unsigned int stripe : level.m_StripeSizes)
      if (stripes && std::ranges::find(words, WordOf(stripe)) == words.end()) words.push_back(WordOf(stripe));
  }
  return words;
}

/// The columns that are not named yet, behind those that are.
std::vector<std::string> MoreColumns(const std::vector<std::string>& columns, const std::string& typed) {
  const std::string named = typed.substr(0, typed.rfind(',') + 1);
  std::vector<std::string> lists;
  for (const std::string& column : columns)
    if (("," + named).find("," + column + ",") == std::string::npos) lists.push_back(named + column);
  return lists;
}

/// What the option may be given, of which a part is typed.
std::vector<std::string> ValuesOf(const SLine& line, const std::string& option, const std::string& typed) {
  if (option == "--level" || option == "--stripe") return LevelWords(option == "--stripe");
  if (option == "--array") return Fit(line, T::ARRAY);
  if (option == "--columns")
    return MoreColumns(
        ColumnNames(line.m_Command == "disk list" ? PI::OBJ_PHYSICAL_DRIVE : PI::OBJ_LOGICAL_DRIVE), typed);
  return {};
}

std::vector<std::string> OptionNames(const SLine& line) {
  std::vector<std::string> names;
  for (const CLI::App* app = line.m_App; app != nullptr; app = app->get_parent())
    for (const CLI::Option* const option : app->get_options())
      for (const std::string& name : option->get_lnames())
        if (!option->get_group().empty()) names.push_back("--" + name);
  std::ranges::sort(names);
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

/// The values of the next operand where it has only some, which CLI11 keeps as a text alone: "TEXT:{on,off}".
std::vector<std::string> ChoicesOf(const SLine& line) {
  const auto operands =
      line.m_App->get_options([](const CLI::Option* option) { return option->get_positional(); });
  if (line.m_Operands.size() >= operands.size()) return {};
  const std::string type = operands[line.m_Operands.size()]->get_type_name();
  const std::size_t begin = type.find('{'), end = type.find('}');
  return end == std::string::npos ? std::vector<std::string>()
                                  : CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

std::vector<std::string> OperandsOf(const SLine& line) {
  const auto commands = line.m_App->get_subcommands(nullptr);
  std::vector<std::string> names;
  for (const CLI::App* const command : commands) names.push_back(command->get_name());
  if (!names.empty()) return names;
  if (line.m_Command == CREATION) return Fit(line, T::DISK | T::READY);
  if (auto choices = ChoicesOf(line); !choices.empty()) return choices;
  if (line.m_Command == "help") {
    const CLI::App* at = line.m_App->get_parent();
    for (const std::string& word : line.m_Operands)
      if (at != nullptr) at = FindCommand(*at, word);
    if (at != nullptr)
      for (const CLI::App* const command : at->get_subcommands(nullptr)) names.push_back(command->get_name());
    return names;
  }
  for (const SOperand& operand : OPERANDS)
    if (line.m_Command == operand.m_Command && line.m_Operands.size() == operand.m_Position)
      return Fit(line, operand.m_Traits);
  return {};
}

}  // namespace

std::vector<SCandidate> KernelCandidates(const std::string& root) {
  const fs::path base = root;
  const std::vector<SMdArray> arrays = ParseMdStat(TextOf(base / "proc/mdstat"));
  const std::set<std::string> mounted = Mounted(base);
  std::vector<SCandidate> candidates{{"plugin", T::WHOLE_MODEL}, {"adapter", T::WHOLE_MODEL}};
  std::set<std::string> loose;
  for (const SMdArray& array : arrays) {
    candidates.push_back({array.m_Name, TraitsOf(array)});
    for (const SMdMember& member : array.m_Members)
      if (member.m_Mark == 'S' || member.m_Mark == 'F') loose.insert(member.m_Name);
  }
  for (const fs::path& device : Entries(base / "sys/block")) {
    boost::system::error_code error;
    // md, device mapper, loops and the like hang on no device; a drive without a medium has no size.
    if (!fs::exists(device / "device", error) || Word(device / "size") == "0") continue;
    const std::string name = device.filename().string();
    candidates.push_back({name, T::DISK | (IsFree(device, mounted) ? T::READY : 0U) |
                                    (loose.contains(name) ? T::RELEASABLE : 0U)});
  }
  return candidates;
}

std::vector<std::string> Completions(const CLI::App& app, const std::vector<std::string>& words) {
  const std::string current = words.empty() ? "" : words.back();
  const SLine line = Understood(app, {words.begin(), words.empty() ? words.end() : words.end() - 1});
  const std::size_t sign = current.starts_with("-") ? current.find('=') : std::string::npos;
  std::vector<std::string> names;
  if (line.m_Awaiting != nullptr) {
    names = ValuesOf(line, line.m_Awaiting->get_name(), current);
  } else if (sign != std::string::npos) {
    for (const std::string& value : ValuesOf(line, current.substr(0, sign), current.substr(sign + 1)))
      names.push_back(current.substr(0, sign + 1) + value);
  } else if (current.starts_with("-")) {
    names = OptionNames(line);
  } else {
    names = OperandsOf(line);
  }
  std::erase_if(names, [&](const std::string& name) { return !name.starts_with(current); });
  std::ranges::sort(names);
  return names;
}

}  // namespace Host

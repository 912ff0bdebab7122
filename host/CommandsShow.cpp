/// @file
/// Commands that show the topology and its objects.

#include <algorithm>

#include "host/CommandLine.h"
#include "host/Health.h"
#include "host/Keys.h"
#include "host/Levels.h"
#include "host/Reasons.h"
#include "host/Rules.h"
#include "host/Table.h"
#include "host/TextView.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace rvxctl {

namespace {

constexpr std::chrono::seconds WATCH_INTERVAL{2};

/// A kind of objects that there are several of.
struct SKind {
  PI::_OBJECT_KIND m_Kind;
  const char* m_Name;  ///< of its commands
  const char* m_Help;
  const char* m_ListHelp;
  const char* m_ShowHelp;
  const char* m_Argument;
  const char* m_ArgumentHelp;
  const char* m_Schema;
  std::string (*m_Table)(const CContext&, const CInventory&, const Objects&);
};
constexpr SKind DISKS{PI::OBJ_PHYSICAL_DRIVE,
                      "disk",
                      "managed disks",
                      "all managed disks, a line each",
                      "the properties of one disk",
                      "DISK",
                      "the disk",
                      "disks",
                      DiskTable};
constexpr SKind ARRAYS{PI::OBJ_LOGICAL_DRIVE,
                       "array",
                       "arrays",
                       "all arrays, a line each",
                       "the properties of one array",
                       "ARRAY",
                       "the array",
                       "arrays",
                       ArrayTable};

int ShowTopology(CContext& context) {
  const CTopology topology(context.Session());
  const CInventory inventory(topology, context.Machine());
  const auto data = [&] {
    Json objects = Json::array();
    for (const PI::CObject& object : topology.Objects()) objects.push_back(ObjectJson(inventory, object));
    return Json{{"objects", std::move(objects)}};
  };
  const auto text = [&] {
    std::string all;
    for (const PI::CObject& object : topology.Objects())
      all += Texts::Of(object.m_Kind) + " " + NameOf(object) + "\n" +
             ObjectText(context, inventory, object, "  ") + "\n";
    if (topology.OfKind(PI::OBJ_PHYSICAL_DRIVE).empty()) all += DiskTable(context, inventory, {});
    return all;
  };
  context.Show("topology", data, text);
  return EXIT_DONE;
}

struct SStatus {
  bool m_Watch{false};
  bool m_OnlyProblems{false};
};

/// Health first; of arrays and disks all, or those that have problems.
Json StatusData(const CInventory& inventory, bool onlyProblems) {
  const SHealth health = HealthOf(inventory);
  Json data = health.ToJson();
  data.update(StatusJson(
      inventory, [&](const PI::CObject& object) { return !onlyProblems || health.Concerns(object); }));
  return data;
}

/// What rolls off the terminal is told again below.
std::string OnceText(const CContext& context, const CInventory& inventory, EOrder order) {
  std::string text = StatusText(context, inventory, order);
  const std::size_t rows = context.Terminal().Size().m_Rows;
  const SHealth health = HealthOf(inventory);
  if (rows == 0 || health.m_Problems.empty() ||
      static_cast<std::size_t>(std::ranges::count(text, '\n')) < rows)
    return text;
  text += "\n" + health.m_Headline + "\n";
  return order == EOrder::ONLY_PROBLEMS ? text : text + "'rvxctl status --only-problems' shows what\n";
}

int ShowStatus(CContext& context, const SStatus& wanted) {
  const bool watch = wanted.m_Watch;
  const auto order = [&](EOrder usual) { return wanted.m_OnlyProblems ? EOrder::ONLY_PROBLEMS : usual; };
  if (watch && context.Options().m_Json) context.BeginStream();
  if (watch) context.Session().Start();
  const bool isScreen = watch && context.Terminal().IsTerminal();
  while (true) {
    const CTopology topology(context.Session());
    const CInventory inventory(topology, context.Machine());
    context.Show(
        "status", [&] { return StatusData(inventory, wanted.m_OnlyProblems); },
        [&] {
          if (!isScreen) return OnceText(context, inventory, order(EOrder::BY_NAME));
          return Screen(StatusText(context, inventory, order(EOrder::PROBLEMS_FIRST)),
                        context.Terminal().Size());
        });
    if (!watch) return EXIT_DONE;
    context.Session().FetchEvents();
    context.Session().Pause(WATCH_INTERVAL);
  }
}

struct SList {
  SFilter m_Filter;
  SListStyle m_Style;
};

int ListObjects(CContext& context, const SKind& kind, const SList& list) {
  const CTopology topology(context.Session());
  const CInventory inventory(topology, context.Machine());
  const Objects objects = Listed(inventory, kind.m_Kind, list.m_Filter);
  const auto isListed = [&](const Json& object) {
    return std::ranges::any_of(objects, [&](const auto* one) { return NameOf(*one) == object["name"]; });
  };
  const auto data = [&] {
    Json chosen = Json::array();
    for (const Json& object : ListJson(inventory, kind.m_Kind))
      if (isListed(object)) chosen.push_back(object);
    return chosen;
  };
  const SListStyle& style = list.m_Style;
  const bool isPlain = style.m_Columns.empty() && !style.m_Bytes && !style.m_NoHeadings;
  context.Show(kind.m_Schema, data, [&]() -> std::string {
    const bool noneMatches = objects.empty() && !inventory.Topology().OfKind(kind.m_Kind).empty();
    if (isPlain && noneMatches) return "No disk matches.\n";
    return isPlain ? kind.m_Table(context, inventory, objects)
                   : ListText(context, inventory, kind.m_Kind, objects, style);
  });
  return EXIT_DONE;
}

/// All properties of one object; `kind` narrows what an address may name.
int ShowObject(CContext& context, const std::string& address, PI::_OBJECT_KIND kind) {
  const CTopology topology(context.Session());
  const CInventory inventory(topology, context.Machine());
  const PI::CObject& object = inventory.Find(address, kind);
  context.Show(
      "object", [&] { return ObjectJson(CInventory(topology, context.Machine()), object); },
      [&] { return ObjectText(context, inventory, object, ""); });
  return EXIT_DONE;
}

/// The operation's text; the catalogue's question where another one has the same text.
std::string TitleOf(const PI::CObject& object, const PI::COperation& operation) {
  const auto count = std::ranges::count(object.m_Operations, operation.m_Code, &PI::COperation::m_Code);
  const auto question = Texts::Find(operation.m_ConfirmationCode);
  if (count < 2 || !question) return Texts::Of(operation.m_Code);
  return question->substr(0, question->find('?'));
}

/// What rvxctl refuses by itself although the plug-in would let it begin; empty: nothing.
std::string RuleAgainst(const CInventory& inventory, const PI::CObject& object, unsigned int operation) {
  return Rules::WhyNot([&] {
    if (operation == PI::OP_DELETE_LOGICAL_DRIVE) Rules::RequireDeletable(inventory, object, false);
    if (operation == PI::OP_DELETE_DEDICATED_HOTSPARE) Rules::RequireRelease(inventory, object);
    if (operation == PI::OP_START_REBUILD || operation == PI::OP_CANCEL_REBUILD)
      Rules::RequireRebuild(inventory, object, operation == PI::OP_START_REBUILD);
  });
}

int ShowOperations(CContext& context, const std::string& address) {
  const CTopology topology(context.Session());
  const CInventory inventory(topology, context.Machine());
  const PI::CObject& object = inventory.Find(address, PI::OBJ_NONE);
  Json data = Json::array();
  Rows rows;
  for (PI::COperation operation : object.m_Operations) {
    const unsigned int status = context.Session().Check(object.m_ID, operation);
    const bool asks = operation.m_ConfirmationCode > 1;
    const std::string why = status == PI::OK ? RuleAgainst(inventory, object, operation.m_Code)
                                             : RefusalText(topology, object, operation.m_Code, status);
    const bool allowed = why.empty();
    data.push_back({{"code", operation.m_Code},
                    {"key", Keys::OfOperation(operation.m_Code)},
                    {"text", TitleOf(object, operation)},
                    {"allowed", allowed},
                    {"status", status},
                    {"why", allowed ? Json(nullptr) : Json(why)},
                    {"confirmation",
                     asks ? Json(Texts::Find(operation.m_ConfirmationCode).value_or("")) : Json(nullptr)}});
    rows.push_back({TitleOf(object, operation), allowed ? "yes" : "no", why});
  }
  context.Show("operations", data,
               Table({"OPERATION", "ALLOWED", "WHY NOT"}, rows, context.Terminal().Width()));
  return EXIT_DONE;
}

struct SProperty {
  std::string m_Object;
  unsigned int m_ID{PI::PROP_ALL};
};

int GetProperty(CContext& context, const SProperty& wanted) {
  const CTopology topology(context.Session());
  const PI::CObject& object = CInventory(topology, context.Machine()).Find(wanted.m_Object, PI::OBJ_NONE);
  std::vector<PI::CProperty> properties;
  if (wanted.m_ID == PI::PROP_ALL)
    properties = context.Session().Properties(object.m_ID);
  else
    properties.push_back(context.Session().Property(object.m_ID, static_cast<PI::_PROPERTY_ID>(wanted.m_ID)));
  Json data = Json::array();
  Rows rows;
  for (const PI::CProperty& property : properties) {
    data.push_back(PropertyJson(property, object.m_Kind));
    rows.push_back({std::to_string(property.m_ID), LabelOf(property),
                    IsUnknown(property) ? "unknown" : TextOf(property)});
  }
  context.Show("properties", data, Table({"ID", "PROPERTY", "VALUE"}, rows, context.Terminal().Width()));
  return EXIT_DONE;
}

int SetPollInterval(CContext& context, const int& seconds) {
  CSession& session = context.Session();
  const CTopology topology(session);
  PI::CProperty property = session.Property(topology.Plugin().m_ID, PI::PROP_POLL_INTERVAL);
  int value = 0;
  int minimum = 0;
  int maximum = 0;
  unsigned int step = 0;
  property.GetValue(value, minimum, maximum, step);
  if (seconds < minimum || seconds > maximum)
    throw CError(EXIT_USAGE, "the poll interval lies between " + std::to_string(minimum) + " and " +
                                 std::to_string(maximum) + " seconds");
  property.SetValue(seconds, minimum, maximum, step);
  if (const unsigned int status = session.Set(topology.Plugin().m_ID, property); status != PI::OK)
    throw PluginError(
        status, "set the poll interval",
        "The new interval counts until the server ends, but could not be written to piRVX.ini.");
  context.Show("poll-interval", {{"seconds", seconds}}, "Poll interval: " + std::to_string(seconds) + " s\n");
  return EXIT_DONE;
}

int ShowLevels(CContext& context) {
  Json data = Json::array();
  Rows rows;
  for (const PI::CLevel& level : OfferedLevels(CTopology(context.Session()))) {
    Json stripes = Json::array();
    std::string list;
    for (const unsigned int stripe : level.m_StripeSizes) {
      stripes.push_back({{"value", stripe}, {"key", WordOf(stripe)}, {"text", Texts::Of(stripe)}});
      list += (list.empty() ? "" : ", ") + WordOf(stripe);
    }
    const bool hasDefault = level.m_DefaultStripeSize != 0;
    data.push_back({{"level", level.m_Level},
                    {"key", WordOf(level.m_Level)},
                    {"text", Texts::Of(level.m_Level)},
                    {"minimumDrives", level.m_MinimumDrives},
                    {"maximumDrives", level.m_MaximumDrives},
                    {"stripeSizes", stripes},
                    {"defaultStripeSize", hasDefault ? Json(level.m_DefaultStripeSize) : Json(nullptr)}});
    rows.push_back(
        {WordOf(level.m_Level), Texts::Of(level.m_Level),
         level.m_MinimumDrives == level.m_MaximumDrives
             ? std::to_string(level.m_MinimumDrives)
             : std::to_string(level.m_MinimumDrives) + " to " + std::to_string(level.m_MaximumDrives),
         hasDefault ? Texts::Of(level.m_DefaultStripeSize) : "-", list.empty() ? "-" : list + " KiB"});
  }
  context.Show(
      "levels", data,
      Table({"NAME", "LEVEL", "DISKS", "DEFAULT", "STRIPE SIZES"}, rows, context.Terminal().Width()));
  return EXIT_DONE;
}

/// "list" and "show".
void AddKind(CGroup& all, const SKind& kind) {
  CGroup group = all.Add(kind.m_Name, kind.m_Help);
  const auto [listing, list] = group.Leaf<SList>(
      "list", kind.m_ListHelp,
      [&kind](CContext& context, const SList& wanted) { return ListObjects(context, kind, wanted); });
  listing->add_option("--columns", list.m_Style.m_Columns, "these columns alone, a word a cell")
      ->type_name("A,B,C");
  listing->add_flag("--bytes", list.m_Style.m_Bytes, "sizes as numbers of bytes");
  listing->add_flag("--no-headings", list.m_Style.m_NoHeadings, "without the first line");
  if (kind.m_Kind == PI::OBJ_PHYSICAL_DRIVE) {
    listing->add_flag("--ready", list.m_Filter.m_Ready, "free disks alone");
    listing->add_flag("--failed", list.m_Filter.m_Failed, "failed and missing disks alone");
    listing->add_option("--array", list.m_Filter.m_Array, "the disks of one array alone")->type_name("ARRAY");
  }
  const auto [show, address] =
      group.Leaf<std::string>("show", kind.m_ShowHelp, [&kind](CContext& context, const std::string& wanted) {
        return ShowObject(context, wanted, kind.m_Kind);
      });
  show->add_option(kind.m_Argument, address, kind.m_ArgumentHelp)->required();
}

void AddProperties(CGroup& all) {
  CGroup group = all.Add("prop", "properties by number");
  const auto [get, wanted] = group.Leaf<SProperty>("get", "all properties of an object, or one", GetProperty);
  get->add_option("OBJECT", wanted.m_Object, "the object")->required();
  get->add_option("ID", wanted.m_ID, "the property's number")->check(NumberTo(99999));
  const auto [set, seconds] =
      group.Add("set", "changes a property")
          .Add("plugin", "a property of the plug-in")
          .Leaf<int>("poll-interval", "2 to 255 s between two looks at the system", SetPollInterval);
  set->add_option("N", seconds, "seconds")->required()->check(NumberTo(99999));
}

}  // namespace

void AddShowing(CGroup& all) {
  all.Leaf("topology", "every object with its properties", ShowTopology);
  const auto [status, wanted] =
      all.Leaf<SStatus>("status", "how the machine is; arrays and disks at a glance", ShowStatus);
  status->add_flag("--watch", wanted.m_Watch, "again every two seconds until interrupted");
  status->add_flag("--only-problems", wanted.m_OnlyProblems, "only what needs somebody's hand");
  all.Add("plugin", "the plug-in itself")
      .Leaf("show", "the properties of the plug-in",
            [](CContext& context) { return ShowObject(context, "plugin", PI::OBJ_PLUGIN); });
  all.Add("adapter", "the virtual adapter")
      .Leaf("show", "the properties of the adapter",
            [](CContext& context) { return ShowObject(context, "adapter", PI::OBJ_ADAPTER); });
  AddKind(all, DISKS);
  const auto [operations, object] =
      all.Leaf<std::string>("operations", "what an object offers, what is allowed now", ShowOperations);
  operations->add_option("OBJECT", object, "the object")->required();
  AddProperties(all);
  all.Leaf("levels", "RAID levels that can be made", ShowLevels);
  AddKind(all, ARRAYS);
}

}  // namespace rvxctl

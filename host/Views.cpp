#include "host/Views.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "host/Keys.h"
#include "host/Levels.h"
#include "host/Printable.h"
#include "host/Reasons.h"
#include "host/Rules.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace Host {

namespace {

template <class TData, class TText>
SView Made(const SForm& form, const char* schema, TData data, TText text) {
  return form.m_Json ? SView{schema, data(), {}} : SView{schema, {}, text()};
}

/// What rolls off the terminal is told again below.
std::string WithHeadline(std::string text, const SHealth& health, const SStatusView& wanted) {
  if (wanted.m_Rows == 0 || health.m_Problems.empty() ||
      static_cast<std::size_t>(std::ranges::count(text, '\n')) < wanted.m_Rows)
    return text;
  text += "\n" + health.m_Headline + "\n";
  return wanted.m_OnlyProblems ? text : text + "'rvxctl status --only-problems' shows what\n";
}

/// The operation's text; the catalogue's question where another one has the same text.
std::string TitleOf(const PI::CObject& object, const PI::COperation& operation) {
  const auto count = std::ranges::count(object.m_Operations, operation.m_Code, &PI::COperation::m_Code);
  const auto question = Texts::Find(operation.m_ConfirmationCode);
  if (count < 2 || !question) return Texts::Of(operation.m_Code);
  return question->substr(0, question->find('?'));
}

/// What is refused here although the plug-in would let it begin.
void AskRules(const CInventory& inventory, const PI::CObject& object, SOffer& offer) {
  const unsigned int operation = offer.m_Operation.m_Code;
  try {
    if (operation == PI::OP_DELETE_LOGICAL_DRIVE) Rules::RequireDeletable(inventory, object, false);
    if (operation == PI::OP_DELETE_DEDICATED_HOTSPARE) Rules::RequireRelease(inventory, object);
    if (operation == PI::OP_START_REBUILD || operation == PI::OP_CANCEL_REBUILD)
      Rules::RequireRebuild(inventory, object, operation == PI::OP_START_REBUILD);
  } catch (const CError& error) {
    offer.m_Why = error.what();
    offer.m_Rule = error.m_Rule;
  }
}

/// "RAID OK - all in order"
std::string CheckLine(EHealth health, const std::string& text) {
  std::string word = WordOf(health);
  std::ranges::transform(word, word.begin(), [](unsigned char c) { return std::toupper(c); });
  std::string one = text;
  std::ranges::replace(one, '\n', ' ');
  std::ranges::replace(one, '|', '/');  // what stands behind a bar are figures
  return "RAID " + word + " - " + Printable(one);
}

}  // namespace

SView TopologyView(const CInventory& inventory, const SForm& form) {
  const CTopology& topology = inventory.Topology();
  const auto data = [&] {
    Json objects = Json::array();
    for (const PI::CObject& object : topology.Objects()) objects.push_back(ObjectJson(inventory, object));
    return Json{{"objects", std::move(objects)}};
  };
  const auto text = [&] {
    std::string all;
    for (const PI::CObject& object : topology.Objects())
      all += Texts::Of(object.m_Kind) + " " + NameOf(object) + "\n" +
             ObjectText(form.m_Style, inventory, object, "  ") + "\n";
    if (topology.OfKind(PI::OBJ_PHYSICAL_DRIVE).empty()) all += DiskTable(form.m_Style, inventory, {});
    return all;
  };
  return Made(form, "topology", data, text);
}

SView StatusView(const CInventory& inventory, const SHealth& health, const SStatusView& wanted,
                 const SForm& form) {
  const auto data = [&] {
    Json all = health.ToJson();
    all.update(StatusJson(inventory, [&](const PI::CObject& object) {
      return !wanted.m_OnlyProblems || health.Concerns(object);
    }));
    return all;
  };
  const EOrder order = wanted.m_OnlyProblems ? EOrder::ONLY_PROBLEMS
                       : wanted.m_IsScreen   ? EOrder::PROBLEMS_FIRST
                                             : EOrder::BY_NAME;
  return Made(form, "status", data, [&] {
    return WithHeadline(StatusText(form.m_Style, inventory, health, order), health, wanted);
  });
}

SView ListView(const CInventory& inventory, const SListView& wanted, const SForm& form) {
  const bool areDisks = wanted.m_Kind == PI::OBJ_PHYSICAL_DRIVE;
  const Objects objects = Listed(inventory, wanted.m_Kind, wanted.m_Filter);
  const Objects all = inventory.Topology().OfKind(wanted.m_Kind);
  const auto data = [&] {
    Json chosen = Json::array();
    for (const PI::CObject* const object : all)
      if (std::ranges::find(objects, object) != objects.end())
        chosen.push_back(ObjectJson(inventory, *object));
    return chosen;
  };
  const auto text = [&]() -> std::string {
    const SListStyle& list = wanted.m_List;
    if (!list.m_Columns.empty() || list.m_Bytes || list.m_NoHeadings)
      return ListText(form.m_Style, inventory, wanted.m_Kind, objects, list);
    if (objects.empty() && !all.empty()) return "No disk matches.\n";
    return areDisks ? DiskTable(form.m_Style, inventory, objects)
                    : ArrayTable(form.m_Style, inventory, objects);
  };
  return Made(form, areDisks ? "disks" : "arrays", data, text);
}

SView ObjectView(const CInventory& inventory, const PI::CObject& object, const SForm& form) {
  return Made(
      form, "object", [&] { return ObjectJson(inventory, object); },
      [&] { return ObjectText(form.m_Style, inventory, object, ""); });
}

std::vector<SOffer> OffersOf(const CInventory& inventory, const PI::CObject& object, const Checker& check) {
  std::vector<SOffer> offers;
  for (const PI::COperation& operation : object.m_Operations) {
    SOffer& offer = offers.emplace_back(SOffer{operation});
    offer.m_Status = check(object, offer.m_Operation);
    if (offer.m_Status == PI::OK)
      AskRules(inventory, object, offer);
    else
      offer.m_Why = RefusalText(inventory.Topology(), object, operation.m_Code, offer.m_Status);
  }
  return offers;
}

SView OperationsView(const PI::CObject& object, const std::vector<SOffer>& offers, const SForm& form) {
  Json data = Json::array();
  Rows rows;
  for (const SOffer& offer : offers) {
    const PI::COperation& operation = offer.m_Operation;
    const bool asks = operation.m_ConfirmationCode > 1;
    const bool allowed = offer.m_Why.empty();
    data.push_back({{"code", operation.m_Code},
                    {"key", Keys::OfOperation(operation.m_Code)},
                    {"text", TitleOf(object, operation)},
                    {"allowed", allowed},
                    {"status", offer.m_Status},
                    {"why", allowed ? Json(nullptr) : Json(offer.m_Why)},
                    {"confirmation",
                     asks ? Json(Texts::Find(operation.m_ConfirmationCode).value_or("")) : Json(nullptr)}});
    rows.push_back({TitleOf(object, operation), allowed ? "yes" : "no", offer.m_Why});
  }
  return {"operations", data, Table({"OPERATION", "ALLOWED", "WHY NOT"}, rows, form.m_Style.m_Width)};
}

SView PropertiesView(const PI::CObject& object, const std::vector<PI::CProperty>& properties,
                     const SForm& form) {
  Json data = Json::array();
  Rows rows;
  for (const PI::CProperty& property : properties) {
    data.push_back(PropertyJson(property, object.m_Kind));
    rows.push_back({std::to_string(property.m_ID), LabelOf(property),
                    IsUnknown(property) ? "unknown" : TextOf(property)});
  }
  return {"properties", data, Table({"ID", "PROPERTY", "VALUE"}, rows, form.m_Style.m_Width)};
}

SView LevelsView(const CTopology& topology, const SForm& form) {
  Json data = Json::array();
  Rows rows;
  for (const PI::CLevel& level : OfferedLevels(topology)) {
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
  return {"levels", data,
          Table({"NAME", "LEVEL", "DISKS", "DEFAULT", "STRIPE SIZES"}, rows, form.m_Style.m_Width)};
}

SView CheckView(const CInventory& inventory, const SHealth& health) {
  std::string text = health.m_Headline;
  for (const SProblem& problem : health.m_Problems) text += "; " + problem.m_Object + ": " + problem.m_Text;
  for (const std::string& note : health.m_Notes) text += "; " + note;
  Json data = health.ToJson();
  std::string performance = " |";  // as monitoring plug-ins give figures
  for (const auto& [label, figure] : FiguresOf(inventory, health)) {
    data["figures"][label] = figure;
    performance += std::string(" ") + label + "=" + std::to_string(figure) + ";;;0";
  }
  return {"check", data, CheckLine(health.m_Health, text) + performance + "\n"};
}

SView UnknownView(const std::string& why) {
  SHealth unknown;
  unknown.m_Health = EHealth::UNKNOWN;
  unknown.m_Headline = why;
  return {"check", unknown.ToJson(), CheckLine(EHealth::UNKNOWN, why) + "\n"};
}

SView RunView(const CInventory& inventory, const std::string& address) {
  const SArrayEntry& entry = inventory.EntryOf(inventory.Find(address, PI::OBJ_LOGICAL_DRIVE));
  const PI::CObject& array = entry.m_Object;
  const auto status = NumberOf(array, PI::PROP_STATUS);
  const std::string waiting = entry.m_Md && entry.m_Md->m_Run ? entry.m_Md->m_Run->m_Waiting : "";
  Json run = nullptr;
  const bool isRebuild = NumberOf(array, PI::PROP_ACTIVITY) == PI::ACTIVITY_REBUILDING;
  if (isRebuild || NumberOf(array, PI::PROP_ACTIVITY) == PI::ACTIVITY_RESYNCING) {
    const auto percent = NumberOf(array, isRebuild ? PI::PROP_REBUILD_PROGRESS : PI::PROP_RESYNC_PROGRESS);
    // md's own figure is of now, the plug-in's of its last pass.
    double reached = static_cast<double>(percent.value_or(0));
    if (entry.m_Md && entry.m_Md->m_Run)
      reached = std::max(reached, entry.m_Md->m_Run->m_Percent.value_or(0));
    const char* const basis = EstimateBasis(array);
    const std::string remaining = TextOf(array, PI::PROP_TIME_REMAINING);
    run = {{"text", TextOf(array, PI::PROP_ACTIVITY)},
           {"percent", reached},
           {"remaining", remaining.empty() ? Json(nullptr) : Json(remaining)},
           {"estimateBasis", basis == nullptr ? Json(nullptr) : Json(basis)}};
  }
  return {"run",
          {{"array", entry.m_Name},
           {"activityText", entry.ActivityText()},
           {"run", run},
           {"waiting", waiting.empty() ? Json(nullptr) : Json(waiting)},
           {"rebuilding", entry.Of(ERole::REBUILDING)},
           {"active", entry.Of(ERole::ACTIVE)},
           {"status", status ? Json(*status) : Json(nullptr)},
           {"statusText", TextOf(array, PI::PROP_STATUS)}}};
}

const std::string& SViewRequest::operator[](const std::string& word) const {
  static const std::string none;
  const auto found = m_Words.find(word);
  return found == m_Words.end() ? none : found->second;
}

unsigned long SViewRequest::Number(const std::string& word, unsigned long otherwise) const {
  const std::string& text = (*this)[word];
  if (text.empty()) return otherwise;
  unsigned long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size())
    throw CError(EXIT_USAGE, "\"" + text + "\" is no number for \"" + word + "\"");
  return number;
}

SView ViewOf(const CInventory& inventory, const SQuestions& questions, const SViewRequest& request,
             const SForm& form) {
  const auto isSaid = [&](const char* word) { return request[word] == "1"; };
  const auto object = [&]() -> const PI::CObject& {
    return inventory.Find(request["address"],
                          static_cast<PI::_OBJECT_KIND>(request.Number("kind", PI::OBJ_NONE)));
  };
  const auto health = [&](const SSmartLimits& limits) {
    return HealthOf(inventory, questions.m_ArrayHealth(), limits);
  };
  const auto list = [&](PI::_OBJECT_KIND kind) {
    return ListView(inventory,
                    {kind,
                     {isSaid("ready"), isSaid("failed"), request["array"]},
                     {request["columns"], isSaid("bytes"), isSaid("no-headings")}},
                    form);
  };
  const std::pair<const char*, std::function<SView()>> views[] = {
      {"status",
       [&] {
         return StatusView(inventory, health({}),
                           {isSaid("only-problems"), isSaid("screen"), request.Number("rows", 0)}, form);
       }},
      {"disks", [&] { return list(PI::OBJ_PHYSICAL_DRIVE); }},
      {"arrays", [&] { return list(PI::OBJ_LOGICAL_DRIVE); }},
      {"object", [&] { return ObjectView(inventory, object(), form); }},
      {"operations", [&] { return OperationsView(object(), questions.m_Offers(object()), form); }},
      {"properties",
       [&] {
         return PropertiesView(
             object(),
             questions.m_Properties(object(), static_cast<unsigned int>(request.Number("id", PI::PROP_ALL))),
             form);
       }},
      {"topology", [&] { return TopologyView(inventory, form); }},
      {"levels", [&] { return LevelsView(inventory.Topology(), form); }},
      {"check",
       [&] {
         SSmartLimits limits;
         limits.m_Wear =
             static_cast<long>(request.Number("warn-smart", static_cast<unsigned long>(limits.m_Wear)));
         return CheckView(inventory, health(limits));
       }},
      {"run", [&] { return RunView(inventory, request["address"]); }},
  };
  for (const auto& [name, make] : views)
    if (request.m_Name == name) return make();
  throw CError(EXIT_NO_OBJECT, "there is no view \"" + request.m_Name + "\"");
}

int ExitStatusOf(const SView& view) {
  if (view.m_Schema != "check") return EXIT_DONE;
  for (const EHealth health : {EHealth::OK, EHealth::WARNING, EHealth::CRITICAL})
    if (view.m_Data["health"] == WordOf(health)) return static_cast<int>(health);
  return static_cast<int>(EHealth::UNKNOWN);
}

}  // namespace Host

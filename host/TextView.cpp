#include "host/TextView.h"

#include <algorithm>

#include "host/Printable.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace Host {

namespace {

/// Why no disk is managed: which controllers the machine's disks hang on.
std::string WhyNoDisk(const CInventory& inventory, const SStyle& style) {
  std::string text =
      "No disk is managed: only whole disks on PCI controllers of vendor 0x1000 or 0x8086 with the driver "
      "ahci, ata_piix, mptsas, mpt2sas or mpt3sas are.";
  if (const std::size_t width = style.m_Width; width != 0) text = Wrapped(text, width);
  text += "\n";
  const auto controllers = inventory.Machine().Controllers();
  if (!controllers) return text;
  if (controllers->empty()) return text + "This machine shows no disk on a PCI controller.\n";
  text += "Controllers seen:";
  for (const std::string& controller : *controllers) text += "\n  " + controller;
  return text + "\n";
}

/// States that a person should notice.
constexpr struct SStateColor {
  PI::_CHOICE m_State;
  Color m_Color;
} COLORS[] = {
    {PI::STATUS_FAILED, RED},       {PI::STATUS_MISSING, RED},       {PI::STATUS_DEGRADED, YELLOW},
    {PI::ADAPTER_DEGRADED, YELLOW}, {PI::STATUS_REBUILDING, YELLOW}, {PI::ACTIVITY_RESYNCING, YELLOW},
    {PI::STATUS_OK, GREEN},         {PI::ADAPTER_OK, GREEN},         {PI::STATUS_READY, GREEN}};

const char* SeverityName(unsigned int severity) {
  return severity >= PI::SEV_ERROR ? "error" : severity == PI::SEV_WARNING ? "warning" : "information";
}

}  // namespace

SCell StateCell(const SStyle& style, const PI::CObject& object, PI::_PROPERTY_ID id) {
  SCell cell = id == PI::PROP_ACTIVITY ? ActivityText(object) : TextOf(object, id);
  const auto state = NumberOf(object, id);
  // Whether a disk in use is well is its array's to tell.
  const bool isUsedDisk = object.m_Kind == PI::OBJ_PHYSICAL_DRIVE && state == PI::STATUS_OK;
  const auto* const found = std::ranges::find(COLORS, state, &SStateColor::m_State);
  if (style.m_Color && !isUsedDisk && found != std::end(COLORS)) cell.m_Color = found->m_Color;
  return cell;
}

std::string DiskTable(const SStyle& style, const CInventory& inventory, const Objects& disks) {
  if (inventory.Topology().OfKind(PI::OBJ_PHYSICAL_DRIVE).empty()) return WhyNoDisk(inventory, style);
  return ListText(style, inventory, PI::OBJ_PHYSICAL_DRIVE, disks);
}

std::string ArrayTable(const SStyle& style, const CInventory& inventory, const Objects& arrays) {
  if (inventory.Topology().OfKind(PI::OBJ_LOGICAL_DRIVE).empty()) return "There is no array.\n";
  return ListText(style, inventory, PI::OBJ_LOGICAL_DRIVE, arrays);
}

/// What kernel and udev know of a disk, beside the plug-in's properties.
void AddFacts(const SDeviceFacts& facts, const std::string& indent, Rows& pairs) {
  const auto add = [&](const char* label, const std::string& text) {
    if (!text.empty()) pairs.push_back({indent + label, text});
  };
  add("Serial number", facts.m_Serial);
  add("WWN", facts.m_WWN);
  add("SCSI address", facts.m_Address);
  for (const std::string& path : facts.m_ByID) add("Path by identity", path);
}

std::string ObjectText(const SStyle& style, const CInventory& inventory, const PI::CObject& object,
                       const std::string& indent) {
  Rows pairs = {{indent + "Identifier", HexadecimalID(object.m_ID)}};
  for (const PI::CProperty& property : object.m_Properties) {
    if (property.m_AttributeWord == 0) continue;
    std::string text = TextOf(property);
    if (property.m_UnitTextID == PI::UNIT_MIB)
      if (const auto number = NumberOf(object, property.m_ID); number && *number >= 1024)
        text += " (" + SizeText(number) + ")";
    const char* const basis = property.m_ID == PI::PROP_TIME_REMAINING ? EstimateBasis(object) : nullptr;
    if (basis != nullptr && basis[0] == 'a') text = "not known yet";
    pairs.push_back({indent + LabelOf(property), text});
  }
  if (object.m_Busy) pairs.push_back({indent + "Busy", "a change is being carried out"});
  if (object.m_Kind == PI::OBJ_PHYSICAL_DRIVE) AddFacts(inventory.FactsOf(object), indent, pairs);
  if (object.m_Kind == PI::OBJ_LOGICAL_DRIVE) {
    const SArrayEntry& entry = inventory.EntryOf(object);
    pairs.push_back({indent + "Members", entry.MembersText()});
    pairs.push_back({indent + "Members that work",
                     std::to_string(entry.m_Present) + " of " + std::to_string(entry.m_Wanted)});
    if (const std::string activity = entry.ActivityText(); activity != ActivityText(object))
      pairs.push_back({indent + "Activity by md", activity});
  }
  return Table({}, pairs, style.m_Width);
}

/// "1 array degraded (8 disks, 2 arrays)", and what to do about each.
std::string HealthText(const SStyle& style, const CInventory& inventory, const SHealth& health) {
  const auto count = [&](PI::_OBJECT_KIND kind, const std::string& what) {
    const std::size_t number = inventory.Topology().OfKind(kind).size();
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
  };
  constexpr Color COLORS_OF_HEALTH[] = {GREEN, YELLOW, RED, YELLOW};
  SCell headline = health.m_Headline;
  if (style.m_Color) headline.m_Color = COLORS_OF_HEALTH[static_cast<std::size_t>(health.m_Health)];
  std::string text =
      Printable(TextOf(inventory.Topology().Adapter(), PI::PROP_NAME)) + ": " + Colored(headline);
  const std::string counts =
      "(" + count(PI::OBJ_PHYSICAL_DRIVE, "disk") + ", " + count(PI::OBJ_LOGICAL_DRIVE, "array") + ")";
  const std::size_t width = style.m_Width;
  const bool fits = width == 0 || WidthOf(text) + 1 + counts.size() <= width;
  text += (fits ? " " : "\n  ") + counts + "\n";
  Rows rows;
  for (const SProblem& problem : health.m_Problems) {
    rows.push_back({"  " + problem.m_Object, problem.m_Text});
    if (!problem.m_Next.empty()) rows.push_back({"", problem.m_Next});
  }
  return text + (rows.empty() ? "" : Table({}, rows, style.m_Width));
}

std::string StatusText(const SStyle& style, const CInventory& inventory, const SHealth& health,
                       EOrder order) {
  const Objects arrays = Listed(inventory, PI::OBJ_LOGICAL_DRIVE);
  const Objects disks = Listed(inventory, PI::OBJ_PHYSICAL_DRIVE);
  std::string text = HealthText(style, inventory, health);
  const auto tables = [&](const Objects& someArrays, const Objects& someDisks) {
    for (const std::string& table :
         {ArrayTable(style, inventory, someArrays), DiskTable(style, inventory, someDisks)})
      if (!table.empty()) text += "\n" + table;
  };
  const auto some = [&](Objects objects, bool bad) {
    std::erase_if(objects, [&](const PI::CObject* object) { return health.Concerns(*object) != bad; });
    return objects;
  };
  if (order == EOrder::ONLY_PROBLEMS && health.m_Problems.empty()) return text;
  if (order == EOrder::BY_NAME || health.m_Problems.empty()) {
    tables(arrays, disks);
    return text;
  }
  tables(some(arrays, true), some(disks, true));
  if (order == EOrder::PROBLEMS_FIRST) tables(some(arrays, false), some(disks, false));
  return text;
}

std::string EventLine(const Json& event) {
  const auto name = [&](const char* key, const char* id) {
    return event[key].is_null() ? event[id].get<std::string>()
                                : event[id].get<std::string>() + " (" + event[key].get<std::string>() + ")";
  };
  std::string line = event["time"].get<std::string>() + " " +
                     std::to_string(event["code"].get<unsigned int>()) + " " +
                     SeverityName(event["severity"].get<unsigned int>()) + " object " +
                     name("objectName", "object") + " source " + name("sourceName", "source") + " [";
  line += event["placeholders"][0].get<std::string>() + "|" + event["placeholders"][1].get<std::string>();
  return Printable(line + "] " + event["text"].get<std::string>()) + "\n";
}

}  // namespace Host

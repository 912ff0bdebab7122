#include "host/TextView.h"

#include <algorithm>

#include "host/Health.h"
#include "host/Printable.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace rvxctl {

namespace {

/// Why no disk is managed: which controllers the machine's disks hang on.
std::string WhyNoDisk(const CContext& context) {
  std::string text =
      "No disk is managed: only whole disks on PCI controllers of vendor 0x1000 or 0x8086 with the driver "
      "ahci, ata_piix, mptsas, mpt2sas or mpt3sas are.\n";
  const auto controllers = context.Machine().Controllers();
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

SCell StateCell(const CContext& context, const PI::CObject& object, PI::_PROPERTY_ID id) {
  SCell cell = id == PI::PROP_ACTIVITY ? ActivityText(object) : TextOf(object, id);
  const auto state = NumberOf(object, id);
  // Whether a disk in use is well is its array's to tell.
  const bool isUsedDisk = object.m_Kind == PI::OBJ_PHYSICAL_DRIVE && state == PI::STATUS_OK;
  const auto* const found = std::ranges::find(COLORS, state, &SStateColor::m_State);
  if (context.HasColor() && !isUsedDisk && found != std::end(COLORS)) cell.m_Color = found->m_Color;
  return cell;
}

std::string DiskTable(const CContext& context, const CInventory& inventory, const Objects& disks) {
  if (inventory.Topology().OfKind(PI::OBJ_PHYSICAL_DRIVE).empty()) return WhyNoDisk(context);
  return ListText(context, inventory, PI::OBJ_PHYSICAL_DRIVE, disks);
}

std::string ArrayTable(const CContext& context, const CInventory& inventory, const Objects& arrays) {
  if (inventory.Topology().OfKind(PI::OBJ_LOGICAL_DRIVE).empty()) return "There is no array.\n";
  return ListText(context, inventory, PI::OBJ_LOGICAL_DRIVE, arrays);
}

std::string ObjectText(const CContext& context, const CTopology& topology, const PI::CObject& object,
                       const std::string& indent) {
  Rows pairs = {{indent + "Identifier", HexadecimalID(object.m_ID)}};
  for (const PI::CProperty& property : object.m_Properties) {
    if (property.m_AttributeWord == 0) continue;
    std::string text = TextOf(property);
    if (property.m_UnitTextID == PI::UNIT_MIB)
      if (const auto number = NumberOf(object, property.m_ID); number && *number >= 1024)
        text += " (" + SizeText(number) + ")";
    pairs.push_back({indent + LabelOf(property), text});
  }
  if (object.m_Busy) pairs.push_back({indent + "Busy", "a change is being carried out"});
  std::string text = Table({}, pairs, context.Terminal().Width());
  if (object.m_Kind != PI::OBJ_LOGICAL_DRIVE) return text;
  return text + indent + "Disks: " + topology.Names(object.m_Children) + "\n";
}

std::string StatusText(const CContext& context, const CInventory& inventory, EOrder order) {
  const CTopology& topology = inventory.Topology();
  const Objects arrays = Listed(inventory, PI::OBJ_LOGICAL_DRIVE);
  const Objects disks = Listed(inventory, PI::OBJ_PHYSICAL_DRIVE);
  std::string text = Printable(TextOf(topology.Adapter(), PI::PROP_NAME)) + ": " +
                     Colored(StateCell(context, topology.Adapter(), PI::PROP_STATUS)) + ", " +
                     std::to_string(disks.size()) + " disks, " + std::to_string(arrays.size()) + " arrays\n";
  const auto tables = [&](const Objects& someArrays, const Objects& someDisks) {
    for (const std::string& table :
         {ArrayTable(context, inventory, someArrays), DiskTable(context, inventory, someDisks)})
      if (!table.empty()) text += "\n" + table;
  };
  const SHealth health = HealthOf(inventory);
  if (order == EOrder::BY_NAME || health.m_Problems.empty()) {
    tables(arrays, disks);
    return text;
  }
  const auto isBad = [&](const PI::CObject* object) {
    return std::ranges::find(health.m_Problems, NameOf(*object), &SProblem::m_Object) !=
           health.m_Problems.end();
  };
  const auto some = [&](Objects objects, bool bad) {
    std::erase_if(objects, [&](const PI::CObject* object) { return isBad(object) != bad; });
    return objects;
  };
  tables(some(arrays, true), some(disks, true));
  tables(some(arrays, false), some(disks, false));
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

}  // namespace rvxctl

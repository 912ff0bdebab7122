#include "host/TextView.h"

#include "host/Table.h"
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

const char* SeverityName(unsigned int severity) {
  return severity >= PI::SEV_ERROR ? "error" : severity == PI::SEV_WARNING ? "warning" : "information";
}

}  // namespace

std::string DiskTable(const CContext& context, const CTopology& topology) {
  std::vector<std::vector<std::string>> rows;
  for (const PI::CObject* const disk : topology.OfKind(PI::OBJ_PHYSICAL_DRIVE)) {
    const PI::CObject* const array = topology.ArrayOf(*disk);
    rows.push_back({NameOf(*disk), context.Colored(TextOf(*disk, PI::PROP_STATUS)),
                    SizeText(NumberOf(*disk, PI::PROP_CAPACITY)), TextOf(*disk, PI::PROP_VENDOR),
                    TextOf(*disk, PI::PROP_MODEL), TextOf(*disk, PI::PROP_MEDIUM),
                    TextOf(*disk, PI::PROP_ATTACHMENT), array == nullptr ? "-" : NameOf(*array)});
  }
  return rows.empty()
             ? WhyNoDisk(context)
             : Table({"DISK", "STATUS", "SIZE", "VENDOR", "MODEL", "MEDIUM", "ATTACHED", "ARRAY"}, rows);
}

std::string ArrayTable(const CContext& context, const CTopology& topology) {
  std::vector<std::vector<std::string>> rows;
  for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE))
    rows.push_back({NameOf(*array), context.Colored(TextOf(*array, PI::PROP_STATUS)),
                    TextOf(*array, PI::PROP_RAID_LEVEL), SizeText(NumberOf(*array, PI::PROP_ARRAY_CAPACITY)),
                    context.Colored(ActivityText(*array)), topology.Names(array->m_Children)});
  return rows.empty() ? "There is no array.\n"
                      : Table({"ARRAY", "STATUS", "LEVEL", "SIZE", "ACTIVITY", "DISKS"}, rows);
}

std::string ObjectText(const CTopology& topology, const PI::CObject& object) {
  std::vector<std::pair<std::string, std::string>> pairs = {{"Identifier", HexadecimalID(object.m_ID)}};
  for (const PI::CProperty& property : object.m_Properties) {
    if (property.m_AttributeWord == 0) continue;
    std::string text = TextOf(property);
    if (property.m_UnitTextID == PI::UNIT_MIB)
      if (const auto number = NumberOf(object, property.m_ID); number && *number >= 1024)
        text += " (" + SizeText(number) + ")";
    pairs.emplace_back(LabelOf(property), text);
  }
  if (object.m_Busy) pairs.emplace_back("Busy", "a change is being carried out");
  const bool isArray = object.m_Kind == PI::OBJ_LOGICAL_DRIVE;
  return Pairs(pairs) + (isArray ? "Disks: " + topology.Names(object.m_Children) + "\n" : "");
}

std::string StatusText(const CContext& context, const CTopology& topology) {
  return TextOf(topology.Adapter(), PI::PROP_NAME) + ": " +
         context.Colored(TextOf(topology.Adapter(), PI::PROP_STATUS)) + ", " +
         std::to_string(topology.OfKind(PI::OBJ_PHYSICAL_DRIVE).size()) + " disks, " +
         std::to_string(topology.OfKind(PI::OBJ_LOGICAL_DRIVE).size()) + " arrays\n\n" +
         ArrayTable(context, topology) + "\n" + DiskTable(context, topology);
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
  return line + "] " + event["text"].get<std::string>() + "\n";
}

}  // namespace rvxctl

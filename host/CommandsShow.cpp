/// @file
/// Commands that show the topology and its objects.

#include <boost/filesystem.hpp>
#include <fstream>
#include <set>

#include "host/Commands.h"
#include "host/Reasons.h"

namespace rvxctl {

namespace {

/// Why no disk is managed: which controllers the machine's disks hang on.
std::string WhyNoDisk(const CContext& context) {
  std::string text =
      "No disk is managed: only whole disks on PCI controllers of vendor 0x1000 or 0x8086 with the driver "
      "ahci, ata_piix, mptsas, mpt2sas or mpt3sas are.\n";
  if (context.Options().m_Simulate) return text;
  std::set<std::string> drivers;
  boost::system::error_code error;
  for (boost::filesystem::directory_iterator disk("/sys/block", error), end; !error && disk != end;
       disk.increment(error)) {
    // Walk up from the disk to the first PCI function: its vendor and driver are what counts.
    boost::system::error_code ignored;
    for (auto path = boost::filesystem::canonical(disk->path() / "device", ignored);
         !ignored && path.has_parent_path(); path = path.parent_path()) {
      if (boost::filesystem::canonical(path / "subsystem", ignored).filename() != "pci") {
        ignored.clear();
        continue;
      }
      std::string vendor;
      std::ifstream((path / "vendor").string()) >> vendor;
      drivers.insert(boost::filesystem::canonical(path / "driver", ignored).filename().string() + " (" +
                     path.filename().string() + ", vendor " + vendor + ")");
      break;
    }
  }
  if (drivers.empty()) return text + "This machine shows no disk on a PCI controller.\n";
  text += "Controllers seen:";
  for (const std::string& driver : drivers) text += "\n  " + driver;
  return text + "\n";
}

std::string DiskTable(const CContext& context, const CTexts& texts, const CTopology& topology) {
  std::vector<std::vector<std::string>> rows;
  for (const PI::CObject* const disk : topology.OfKind(PI::OBJ_PHYSICAL_DRIVE)) {
    const PI::CObject* const array = topology.ArrayOf(*disk);
    rows.push_back({NameOf(*disk), context.Colored(TextOf(texts, *disk, PI::PROP_STATUS)),
                    SizeText(NumberOf(*disk, PI::PROP_CAPACITY)), TextOf(texts, *disk, PI::PROP_VENDOR),
                    TextOf(texts, *disk, PI::PROP_MODEL), TextOf(texts, *disk, PI::PROP_MEDIUM),
                    TextOf(texts, *disk, PI::PROP_ATTACHMENT), array == nullptr ? "-" : NameOf(*array)});
  }
  return rows.empty()
             ? WhyNoDisk(context)
             : Table({"DISK", "STATUS", "SIZE", "VENDOR", "MODEL", "MEDIUM", "ATTACHED", "ARRAY"}, rows);
}

std::string ArrayTable(const CContext& context, const CTexts& texts, const CTopology& topology) {
  std::vector<std::vector<std::string>> rows;
  for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE))
    rows.push_back({NameOf(*array), context.Colored(TextOf(texts, *array, PI::PROP_STATUS)),
                    TextOf(texts, *array, PI::PROP_RAID_LEVEL),
                    SizeText(NumberOf(*array, PI::PROP_ARRAY_CAPACITY)),
                    context.Colored(ActivityText(texts, *array)), topology.Names(array->m_Children)});
  return rows.empty() ? "There is no array.\n"
                      : Table({"ARRAY", "STATUS", "LEVEL", "SIZE", "ACTIVITY", "DISKS"}, rows);
}

std::string ObjectText(const CTexts& texts, const PI::CObject& object) {
  std::vector<std::pair<std::string, std::string>> pairs = {{"Identifier", HexadecimalID(object.m_ID)}};
  for (const PI::CProperty& property : object.m_Properties) {
    if (property.m_AttributeWord == 0) continue;
    std::string text = TextOf(texts, property);
    if (property.m_UnitTextID == PI::UNIT_MIB)
      if (const auto number = NumberOf(object, property.m_ID); number && *number >= 1024)
        text += " (" + SizeText(number) + ")";
    pairs.emplace_back(LabelOf(texts, property), text);
  }
  if (object.m_Busy) pairs.emplace_back("Busy", "a change is being carried out");
  return Pairs(pairs);
}

Json ListJson(const CTexts& texts, const CTopology& topology, PI::_OBJECT_KIND kind) {
  Json list = Json::array();
  for (const PI::CObject* const object : topology.OfKind(kind)) list.push_back(ObjectJson(texts, *object));
  return list;
}

std::string StatusText(const CContext& context, const CTexts& texts, const CTopology& topology) {
  return TextOf(texts, topology.Adapter(), PI::PROP_NAME) + ": " +
         context.Colored(TextOf(texts, topology.Adapter(), PI::PROP_STATUS)) + ", " +
         std::to_string(topology.OfKind(PI::OBJ_PHYSICAL_DRIVE).size()) + " disks, " +
         std::to_string(topology.OfKind(PI::OBJ_LOGICAL_DRIVE).size()) + " arrays\n\n" +
         ArrayTable(context, texts, topology) + "\n" + DiskTable(context, texts, topology);
}

Json StatusJson(const CTexts& texts, const CTopology& topology) {
  const auto brief = [&](const PI::CObject& object) {
    const auto status = NumberOf(object, PI::PROP_STATUS);
    return Json{{"id", HexadecimalID(object.m_ID)},
                {"name", NameOf(object)},
                {"status", status ? Json(*status) : Json(nullptr)},
                {"statusText", TextOf(texts, object, PI::PROP_STATUS)}};
  };
  Json json = {{"adapter", brief(topology.Adapter())}, {"arrays", Json::array()}, {"disks", Json::array()}};
  for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE)) {
    json["arrays"].push_back(brief(*array));
    json["arrays"].back()["activity"] = ActivityText(texts, *array);
  }
  for (const PI::CObject* const disk : topology.OfKind(PI::OBJ_PHYSICAL_DRIVE))
    json["disks"].push_back(brief(*disk));
  return json;
}

}  // namespace

int ShowTopology(CContext& context) {
  const CTopology topology(context.Session());
  const CTexts& texts = context.Session().Texts();
  Json data = {{"objects", Json::array()}};
  std::string text;
  for (const PI::CObject& object : topology.Objects()) {
    data["objects"].push_back(ObjectJson(texts, object));
    text += texts.Of(object.m_Kind) + " " + NameOf(object) + "\n";
    const std::string properties = ObjectText(texts, object);
    for (std::size_t place = 0; place < properties.size();) {
      const std::size_t end = properties.find('\n', place) + 1;
      text += "  " + properties.substr(place, end - place);
      place = end;
    }
    if (object.m_Kind == PI::OBJ_LOGICAL_DRIVE)
      text += "  Disks: " + topology.Names(object.m_Children) + "\n";
    text += "\n";
  }
  if (topology.OfKind(PI::OBJ_PHYSICAL_DRIVE).empty()) text += WhyNoDisk(context);
  context.Show("topology", data, text);
  return EXIT_DONE;
}

int ShowStatus(CContext& context, bool watch) {
  const CTexts& texts = context.Session().Texts();
  if (watch) context.Session().Start();
  while (true) {
    const CTopology topology(context.Session());
    const bool terminal = watch && context.Output().IsTerminal() && !context.Options().m_Json;
    context.Show("status", StatusJson(texts, topology),
                 (terminal ? "\033[H\033[J" : "") + StatusText(context, texts, topology));
    if (!watch) return EXIT_DONE;
    context.Session().FetchEvents();
    context.Session().Pause(std::chrono::seconds(2));
  }
}

int ShowObject(CContext& context, const std::string& address, PI::_OBJECT_KIND kind) {
  const CTopology topology(context.Session());
  const PI::CObject& object = topology.Find(address, kind);
  const CTexts& texts = context.Session().Texts();
  std::string text = ObjectText(texts, object);
  if (object.m_Kind == PI::OBJ_LOGICAL_DRIVE) text += "Disks: " + topology.Names(object.m_Children) + "\n";
  context.Show("object", ObjectJson(texts, object), text);
  return EXIT_DONE;
}

int ListDisks(CContext& context) {
  const CTopology topology(context.Session());
  const CTexts& texts = context.Session().Texts();
  context.Show("disks", ListJson(texts, topology, PI::OBJ_PHYSICAL_DRIVE),
               DiskTable(context, texts, topology));
  return EXIT_DONE;
}

int ListArrays(CContext& context) {
  const CTopology topology(context.Session());
  const CTexts& texts = context.Session().Texts();
  context.Show("arrays", ListJson(texts, topology, PI::OBJ_LOGICAL_DRIVE),
               ArrayTable(context, texts, topology));
  return EXIT_DONE;
}

int ShowOperations(CContext& context, const std::string& address) {
  const CTopology topology(context.Session());
  const PI::CObject& object = topology.Find(address);
  const CTexts& texts = context.Session().Texts();
  Json data = Json::array();
  std::vector<std::vector<std::string>> rows;
  for (PI::COperation operation : object.m_Operations) {
    const unsigned int status = context.Session().Check(object.m_ID, operation);
    const std::string why =
        status == PI::OK ? "" : RefusalText(texts, topology, object, operation.m_Code, status);
    const std::string label =
        texts.Find(operation.m_ConfirmationCode > 1 ? operation.m_ConfirmationCode : 0).value_or("");
    data.push_back({{"code", operation.m_Code},
                    {"text", texts.Of(operation.m_Code)},
                    {"allowed", status == PI::OK},
                    {"status", status},
                    {"why", status == PI::OK ? Json(nullptr) : Json(why)},
                    {"confirmation", operation.m_ConfirmationCode > 1 ? Json(label) : Json(nullptr)}});
    rows.push_back({texts.Of(operation.m_Code), status == PI::OK ? "yes" : "no", why});
  }
  context.Show("operations", data, Table({"OPERATION", "ALLOWED", "WHY NOT"}, rows));
  return EXIT_DONE;
}

int GetProperty(CContext& context, const std::string& address, unsigned int id) {
  const CTopology topology(context.Session());
  const PI::CObject& object = topology.Find(address);
  const CTexts& texts = context.Session().Texts();
  std::vector<PI::CProperty> properties;
  if (id == PI::PROP_ALL)
    properties = context.Session().Properties(object.m_ID);
  else
    properties.push_back(context.Session().Property(object.m_ID, static_cast<PI::_PROPERTY_ID>(id)));
  Json data = Json::array();
  std::vector<std::vector<std::string>> rows;
  for (const PI::CProperty& property : properties) {
    data.push_back(PropertyJson(texts, property));
    rows.push_back({std::to_string(property.m_ID), LabelOf(texts, property),
                    IsUnknown(property) ? "unknown" : TextOf(texts, property)});
  }
  context.Show("properties", data, Table({"ID", "PROPERTY", "VALUE"}, rows));
  return EXIT_DONE;
}

int SetPollInterval(CContext& context, int seconds) {
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
        session.Texts(), status, "set the poll interval",
        "The new interval counts until the server ends, but could not be written to piRVX.ini.");
  context.Show("poll-interval", {{"seconds", seconds}}, "Poll interval: " + std::to_string(seconds) + " s\n");
  return EXIT_DONE;
}

int ShowLevels(CContext& context) {
  const CTopology topology(context.Session());
  const CTexts& texts = context.Session().Texts();
  Json data = Json::array();
  std::vector<std::vector<std::string>> rows;
  for (const PI::COperation& operation : topology.Adapter().m_Operations) {
    for (const PI::CLevel& level : operation.m_Levels) {
      Json stripes = Json::array();
      std::string list;
      for (const unsigned int stripe : level.m_StripeSizes) {
        stripes.push_back({{"value", stripe}, {"text", texts.Of(stripe)}});
        list += (list.empty() ? "" : ", ") + texts.Of(stripe);
      }
      const bool hasDefault = level.m_DefaultStripeSize != 0;
      data.push_back({{"level", level.m_Level},
                      {"text", texts.Of(level.m_Level)},
                      {"minimumDrives", level.m_MinimumDrives},
                      {"maximumDrives", level.m_MaximumDrives},
                      {"stripeSizes", stripes},
                      {"defaultStripeSize", hasDefault ? Json(level.m_DefaultStripeSize) : Json(nullptr)}});
      rows.push_back({texts.Of(level.m_Level), std::to_string(level.m_MinimumDrives),
                      std::to_string(level.m_MaximumDrives), list.empty() ? "-" : list,
                      hasDefault ? texts.Of(level.m_DefaultStripeSize) : "-"});
    }
  }
  context.Show("levels", data, Table({"LEVEL", "MIN DISKS", "MAX DISKS", "STRIPE SIZES", "DEFAULT"}, rows));
  return EXIT_DONE;
}

}  // namespace rvxctl

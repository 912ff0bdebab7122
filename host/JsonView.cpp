#include "host/JsonView.h"

#include <cmath>
#include <cstdio>

#include "host/Keys.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace rvxctl {

namespace {

constexpr int SCHEMA_VERSION = 2;

Json SchemaJson(const std::string& name) { return {{"name", "rvxctl." + name}, {"version", SCHEMA_VERSION}}; }

Json Ids(const std::vector<unsigned long>& ids) {
  Json list = Json::array();
  for (const unsigned long id : ids) list.push_back(HexadecimalID(id));
  return list;
}

/// Puts type and value of each variant into the property's JSON.
struct SValueJson {
  Json& m_Json;
  unsigned int m_Kind;  ///< of the object

  std::string KeyOf(int choice) const { return Keys::OfChoice(static_cast<unsigned int>(choice), m_Kind); }
  void Put(const char* type, Json value) const {
    m_Json["type"] = type;
    m_Json["value"] = std::move(value);
  }
  void operator()(std::monostate) const { Put("none", nullptr); }
  void operator()(const std::string& text) const { Put("text", text); }
  void operator()(const PI::SRange& range) const {
    Put("range", range.m_Value);
    m_Json["minimum"] = range.m_Minimum;
    m_Json["maximum"] = range.m_Maximum;
    m_Json["step"] = range.m_Step;
  }
  void operator()(const PI::SChoice& choice) const {
    Put("choice", choice.m_Selected);
    m_Json["valueKey"] = KeyOf(choice.m_Selected);
    Json choices = Json::array();
    for (const int number : choice.m_Choices)
      choices.push_back({{"value", number},
                         {"key", KeyOf(number)},
                         {"text", Texts::Of(static_cast<unsigned int>(number))}});
    m_Json["choices"] = choices;
  }
  void operator()(float number) const { Put("float", number); }
  void operator()(unsigned long number) const { Put("number", number); }
  void operator()(const PI::SNumberLists& lists) const { Put("list", lists.m_Values); }
  void operator()(const KVT::XML::CMarkup& document) const { Put("xml", document.GetDoc()); }
};

/// A value in a unit of 2^shift bytes, in bytes; null when they are too many for a signed number of 64 bits,
/// as programs read it.
Json BytesJson(unsigned long number, unsigned int shift) {
  return number >> (63 - shift) == 0 ? Json(number << shift) : Json(nullptr);
}
Json BytesJson(float number, unsigned int shift) {
  const double bytes = std::ldexp(static_cast<double>(number), static_cast<int>(shift));
  return bytes < 0x1p63 ? Json(std::llround(bytes)) : Json(nullptr);
}

Json TextOrNull(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

/// The word of a choice; null when the object does not have it.
Json KeyJson(const PI::CObject& object, PI::_PROPERTY_ID id) {
  const auto choice = NumberOf(object, id);
  return choice ? Json(Keys::OfChoice(static_cast<unsigned int>(*choice), object.m_Kind)) : Json(nullptr);
}

/// A size that is given in MiB, in bytes.
Json SizeJson(const PI::CObject& object, PI::_PROPERTY_ID id) {
  const auto size = NumberOf(object, id);
  return size ? BytesJson(static_cast<unsigned long>(*size), 20) : Json(nullptr);
}

/// What the plug-in's time remaining rests on. Before it has seen progress it says a minute for each percent
/// that is missing, which tells nothing of this run.
const char* EstimateBasis(const PI::CObject& array) {
  const auto percent = ProgressOf(array);
  int hours = 0;
  int minutes = 0;
  int seconds = 0;
  const std::string time = TextOf(array, PI::PROP_TIME_REMAINING);
  if (!percent || std::sscanf(time.c_str(), "%d:%d:%d", &hours, &minutes, &seconds) != 3) return nullptr;
  constexpr long MINUTE = 60;
  const long missing = 100 - *percent;
  const long left = (hours * MINUTE + minutes) * MINUTE + seconds;
  // The looks of one command lie less than a second apart.
  return left >= missing * MINUTE && left < missing * (MINUTE + 1) ? "assumed" : "computed";
}

/// What a member is to its array, by its status.
Json RoleJson(const PI::CObject& disk) {
  return NumberOf(disk, PI::PROP_STATUS) == PI::STATUS_OK ? Json("active") : KeyJson(disk, PI::PROP_STATUS);
}

void AddArray(const CTopology& topology, const PI::CObject& array, Json& json) {
  json["level"] = KeyJson(array, PI::PROP_RAID_LEVEL);
  json["bytes"] = SizeJson(array, PI::PROP_ARRAY_CAPACITY);
  json["activity"] = KeyJson(array, PI::PROP_ACTIVITY);
  json["activityText"] = ActivityText(array);
  const auto progress = ProgressOf(array);
  json["progress"] = progress ? Json(*progress) : Json(nullptr);
  const PI::CProperty* const time = FindProperty(array, PI::PROP_TIME_REMAINING);
  const bool isKnown = time != nullptr && !IsUnknown(*time);
  json["timeRemaining"] = isKnown ? Json(std::get<std::string>(time->m_Value)) : Json(nullptr);
  const char* const basis = isKnown ? EstimateBasis(array) : nullptr;
  json["estimateBasis"] = basis == nullptr ? Json(nullptr) : Json(basis);
  json["members"] = Json::array();
  for (const unsigned long id : array.m_Children)
    if (const PI::CObject* const disk = topology.FindID(id))
      json["members"].push_back(
          {{"name", NameOf(*disk)}, {"role", RoleJson(*disk)}, {"status", KeyJson(*disk, PI::PROP_STATUS)}});
}

void AddDisk(const CTopology& topology, const PI::CObject& disk, Json& json) {
  json["bytes"] = SizeJson(disk, PI::PROP_CAPACITY);
  json["usableBytes"] = SizeJson(disk, PI::PROP_USABLE_CAPACITY);
  json["vendor"] = TextOrNull(TextOf(disk, PI::PROP_VENDOR));
  json["model"] = TextOrNull(TextOf(disk, PI::PROP_MODEL));
  json["medium"] = KeyJson(disk, PI::PROP_MEDIUM);
  json["attachment"] = KeyJson(disk, PI::PROP_ATTACHMENT);
  const PI::CObject* const array = topology.ArrayOf(disk);
  json["array"] = array == nullptr ? Json(nullptr) : Json(NameOf(*array));
}

/// The names of an array's members that failed.
Json FailedMembers(const CTopology& topology, const PI::CObject& array) {
  Json names = Json::array();
  for (const unsigned long id : array.m_Children) {
    const PI::CObject* const disk = topology.FindID(id);
    if (disk != nullptr && NumberOf(*disk, PI::PROP_STATUS) == PI::STATUS_FAILED)
      names.push_back(NameOf(*disk));
  }
  return names;
}

}  // namespace

std::string Envelope(const std::string& name, const Json& data, const Json& errors) {
  const Json document = {{"schema", SchemaJson(name)}, {"data", data}, {"errors", errors}};
  return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string StreamLine(unsigned long sequence, const std::string& type, const Json& data) {
  const Json line = {
      {"schema", SchemaJson("stream")}, {"sequence", sequence}, {"type", type}, {"data", data}};
  return line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json ErrorJson(const CError& error) {
  Json json = {
      {"message", error.what()}, {"exitStatus", error.m_ExitStatus}, {"status", nullptr}, {"name", nullptr}};
  if (error.m_Status != PI::OK) {
    json["status"] = error.m_Status;
    json["name"] = Texts::StatusName(error.m_Status);
  }
  return json;
}

Json PropertyJson(const PI::CProperty& property, unsigned int kind) {
  Json json = {{"id", static_cast<unsigned int>(property.m_ID)},
               {"key", Keys::OfProperty(property.m_ID, kind)}};
  std::visit(SValueJson{json, kind}, property.m_Value);
  json["text"] = TextOf(property);
  json["label"] = LabelOf(property);
  json["unit"] = property.m_UnitTextID == 0 ? Json(nullptr) : Json(Texts::Of(property.m_UnitTextID));
  json["hidden"] = property.m_AttributeWord == 0;
  // Others are marked as writable for front ends that sort by it, but only this one can be set.
  json["writable"] = property.m_ID == PI::PROP_POLL_INTERVAL;
  if (property.m_UnitTextID >= PI::UNIT_BYTES && property.m_UnitTextID <= PI::UNIT_TIB) {
    const unsigned int shift = 10 * (property.m_UnitTextID - PI::UNIT_BYTES);
    if (const auto* const number = std::get_if<unsigned long>(&property.m_Value))
      json["bytes"] = BytesJson(*number, shift);
    if (const auto* const number = std::get_if<float>(&property.m_Value))
      json["bytes"] = BytesJson(*number, shift);
  }
  if (IsUnknown(property)) json["value"] = json["text"] = nullptr;
  return json;
}

Json EntryJson(const CTopology& topology, const PI::CObject& object) {
  const auto status = NumberOf(object, PI::PROP_STATUS);
  Json json = {{"id", HexadecimalID(object.m_ID)},
               {"kind", object.m_Kind},
               {"kindKey", Keys::OfKind(object.m_Kind)},
               {"name", NameOf(object)},
               {"status", KeyJson(object, PI::PROP_STATUS)},
               {"statusNumber", status ? Json(*status) : Json(nullptr)},
               {"statusText", TextOrNull(TextOf(object, PI::PROP_STATUS))}};
  if (object.m_Kind == PI::OBJ_LOGICAL_DRIVE) AddArray(topology, object, json);
  if (object.m_Kind == PI::OBJ_PHYSICAL_DRIVE) AddDisk(topology, object, json);
  return json;
}

Json ObjectJson(const CTopology& topology, const PI::CObject& object) {
  Json json = EntryJson(topology, object);
  json["kindText"] = Texts::Of(object.m_Kind);
  json["parents"] = Ids(object.m_Parents);
  json["children"] = Ids(object.m_Children);
  json["updateCounter"] = object.m_UpdateCounter;
  json["busy"] = object.m_Busy;
  json["properties"] = Json::array();
  for (const PI::CProperty& property : object.m_Properties)
    json["properties"].push_back(PropertyJson(property, object.m_Kind));
  json["operations"] = Json::array();
  for (const PI::COperation& operation : object.m_Operations)
    json["operations"].push_back({{"code", operation.m_Code},
                                  {"key", Keys::OfOperation(operation.m_Code)},
                                  {"text", Texts::Of(operation.m_Code)}});
  return json;
}

Json ListJson(const CTopology& topology, PI::_OBJECT_KIND kind) {
  Json list = Json::array();
  for (const PI::CObject* const object : topology.OfKind(kind)) list.push_back(ObjectJson(topology, *object));
  return list;
}

Json StatusJson(const CTopology& topology) {
  const auto entries = [&](PI::_OBJECT_KIND kind) {
    Json list = Json::array();
    for (const PI::CObject* const object : topology.OfKind(kind))
      list.push_back(EntryJson(topology, *object));
    return list;
  };
  return {{"adapter", EntryJson(topology, topology.Adapter())},
          {"arrays", entries(PI::OBJ_LOGICAL_DRIVE)},
          {"disks", entries(PI::OBJ_PHYSICAL_DRIVE)}};
}

Json EventJson(const CTopology& topology, const PI::CEvent& event) {
  const PI::CObject* const object = topology.FindID(event.m_ObjectID);
  const PI::CObject* const source = topology.FindID(event.m_SourceID);
  std::string text = Texts::OfEvent(event);
  const bool isLoss = object != nullptr && (event.m_Code == PI::EVT_LOGICALDRIVE_DEGRADED ||
                                            event.m_Code == PI::EVT_LOGICALDRIVE_FAILED);
  const Json failed = isLoss ? FailedMembers(topology, *object) : Json::array();
  for (const Json& name : failed)
    text += (&name == &failed.front() ? " Failed: " : ", ") + name.get<std::string>();
  return {{"time", TimeText(event.m_Time)},
          {"code", event.m_Code},
          {"key", Keys::OfEvent(event.m_Code)},
          {"severity", event.m_Severity},
          {"severityKey", Keys::OfSeverity(event.m_Severity)},
          {"object", HexadecimalID(event.m_ObjectID)},
          {"objectName", object == nullptr ? Json(nullptr) : Json(NameOf(*object))},
          {"source", HexadecimalID(event.m_SourceID)},
          {"sourceName", source == nullptr ? Json(nullptr) : Json(NameOf(*source))},
          {"placeholders", {event.m_PlaceHolder1, event.m_PlaceHolder2}},
          {"failedMembers", failed},
          {"text", text}};
}

}  // namespace rvxctl

#include "host/JsonView.h"

#include <boost/algorithm/string/join.hpp>
#include <cmath>
#include <cstdio>

#include "host/Keys.h"
#include "host/Texts.h"
#include "host/Values.h"

namespace Host {

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

void AddArray(const SArrayEntry& entry, Json& json) {
  const PI::CObject& array = entry.m_Object;
  json["level"] = TextOrNull(entry.m_Level);
  json["bytes"] = SizeJson(array, PI::PROP_ARRAY_CAPACITY);
  json["activity"] = KeyJson(array, PI::PROP_ACTIVITY);
  json["activityText"] = entry.ActivityText();
  json["firstSync"] = entry.m_IsFirstSync;
  const auto progress = ProgressOf(array);
  json["progress"] = progress ? Json(*progress) : Json(nullptr);
  const PI::CProperty* const time = FindProperty(array, PI::PROP_TIME_REMAINING);
  const bool isKnown = time != nullptr && !IsUnknown(*time);
  json["timeRemaining"] = isKnown ? Json(std::get<std::string>(time->m_Value)) : Json(nullptr);
  const char* const basis = isKnown ? EstimateBasis(array) : nullptr;
  json["estimateBasis"] = basis == nullptr ? Json(nullptr) : Json(basis);
  json["membersWanted"] = entry.m_Wanted;
  json["membersPresent"] = entry.m_Present;
  json["members"] = Json::array();
  for (const SMember& member : entry.m_Members)
    json["members"].push_back(
        {{"name", member.m_Name},
         {"role", WordOf(member.m_Role)},
         {"status", member.m_Disk == nullptr ? Json(nullptr) : KeyJson(*member.m_Disk, PI::PROP_STATUS)}});
}

void AddDisk(const CInventory& inventory, const PI::CObject& disk, Json& json) {
  json["bytes"] = SizeJson(disk, PI::PROP_CAPACITY);
  json["usableBytes"] = SizeJson(disk, PI::PROP_USABLE_CAPACITY);
  json["vendor"] = TextOrNull(TextOf(disk, PI::PROP_VENDOR));
  json["model"] = TextOrNull(TextOf(disk, PI::PROP_MODEL));
  const SDeviceFacts facts = inventory.FactsOf(disk);
  json["serial"] = TextOrNull(facts.m_Serial);
  json["wwn"] = TextOrNull(facts.m_WWN);
  json["byId"] = facts.m_ByID;
  json["address"] = TextOrNull(facts.m_Address);
  json["medium"] = KeyJson(disk, PI::PROP_MEDIUM);
  json["attachment"] = KeyJson(disk, PI::PROP_ATTACHMENT);
  const PI::CObject* const array = inventory.Topology().ArrayOf(disk);
  json["array"] = array == nullptr ? Json(nullptr) : Json(NameOf(*array));
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
    json["name"] = error.m_Name.empty() ? Texts::StatusName(error.m_Status) : error.m_Name;
  }
  if (!error.m_Rule.empty()) {
    json["rule"] = error.m_Rule;
    json["object"] = error.m_Object;
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

Json EntryJson(const CInventory& inventory, const PI::CObject& object) {
  const auto status = NumberOf(object, PI::PROP_STATUS);
  Json json = {{"id", HexadecimalID(object.m_ID)},
               {"kind", object.m_Kind},
               {"kindKey", Keys::OfKind(object.m_Kind)},
               {"name", NameOf(object)},
               {"status", KeyJson(object, PI::PROP_STATUS)},
               {"statusNumber", status ? Json(*status) : Json(nullptr)},
               {"statusText", TextOrNull(TextOf(object, PI::PROP_STATUS))}};
  if (object.m_Kind == PI::OBJ_LOGICAL_DRIVE) AddArray(inventory.EntryOf(object), json);
  if (object.m_Kind == PI::OBJ_PHYSICAL_DRIVE) AddDisk(inventory, object, json);
  return json;
}

Json ObjectJson(const CInventory& inventory, const PI::CObject& object) {
  Json json = EntryJson(inventory, object);
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

Json StatusJson(const CInventory& inventory, const std::function<bool(const PI::CObject&)>& isWanted) {
  const auto entries = [&](PI::_OBJECT_KIND kind) {
    Json list = Json::array();
    for (const PI::CObject* const object : inventory.Topology().OfKind(kind))
      if (isWanted(*object)) list.push_back(EntryJson(inventory, *object));
    return list;
  };
  return {{"adapter", EntryJson(inventory, inventory.Topology().Adapter())},
          {"arrays", entries(PI::OBJ_LOGICAL_DRIVE)},
          {"disks", entries(PI::OBJ_PHYSICAL_DRIVE)}};
}

Json EventJson(const CInventory& inventory, const PI::CEvent& event) {
  const CTopology& topology = inventory.Topology();
  const PI::CObject* const object = topology.FindID(event.m_ObjectID);
  const PI::CObject* const source = topology.FindID(event.m_SourceID);
  std::string text = Texts::OfEvent(event);
  const bool isLoss =
      object != nullptr && object->m_Kind == PI::OBJ_LOGICAL_DRIVE &&
      (event.m_Code == PI::EVT_LOGICALDRIVE_DEGRADED || event.m_Code == PI::EVT_LOGICALDRIVE_FAILED);
  const auto failed = isLoss ? inventory.EntryOf(*object).Of(ERole::FAILED) : std::vector<std::string>();
  if (!failed.empty()) text += " Failed: " + boost::algorithm::join(failed, ", ");
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

}  // namespace Host

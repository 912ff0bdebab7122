#include "host/JsonView.h"

#include <cmath>

#include "host/Texts.h"
#include "host/Values.h"

namespace rvxctl {

namespace {

constexpr int SCHEMA_VERSION = 1;

Json Ids(const std::vector<unsigned long>& ids) {
  Json list = Json::array();
  for (const unsigned long id : ids) list.push_back(HexadecimalID(id));
  return list;
}

/// Puts type and value of each variant into the property's JSON.
struct SValueJson {
  Json& m_Json;

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
    Json choices = Json::array();
    for (const int number : choice.m_Choices)
      choices.push_back({{"value", number}, {"text", Texts::Of(static_cast<unsigned int>(number))}});
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

}  // namespace

std::string Envelope(const std::string& name, const Json& data, const Json& errors) {
  const Json document = {{"schema", {{"name", "rvxctl." + name}, {"version", SCHEMA_VERSION}}},
                         {"data", data},
                         {"errors", errors}};
  return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
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

Json PropertyJson(const PI::CProperty& property) {
  Json json = {{"id", static_cast<unsigned int>(property.m_ID)}};
  std::visit(SValueJson{json}, property.m_Value);
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

Json ObjectJson(const PI::CObject& object) {
  Json json = {{"id", HexadecimalID(object.m_ID)},
               {"kind", object.m_Kind},
               {"kindText", Texts::Of(object.m_Kind)},
               {"name", NameOf(object)},
               {"parents", Ids(object.m_Parents)},
               {"children", Ids(object.m_Children)},
               {"updateCounter", object.m_UpdateCounter},
               {"busy", object.m_Busy},
               {"properties", Json::array()},
               {"operations", Json::array()}};
  for (const PI::CProperty& property : object.m_Properties)
    json["properties"].push_back(PropertyJson(property));
  for (const PI::COperation& operation : object.m_Operations)
    json["operations"].push_back({{"code", operation.m_Code}, {"text", Texts::Of(operation.m_Code)}});
  return json;
}

Json ListJson(const CTopology& topology, PI::_OBJECT_KIND kind) {
  Json list = Json::array();
  for (const PI::CObject* const object : topology.OfKind(kind)) list.push_back(ObjectJson(*object));
  return list;
}

Json StatusJson(const CTopology& topology) {
  const auto brief = [&](const PI::CObject& object) {
    const auto status = NumberOf(object, PI::PROP_STATUS);
    return Json{{"id", HexadecimalID(object.m_ID)},
                {"name", NameOf(object)},
                {"status", status ? Json(*status) : Json(nullptr)},
                {"statusText", TextOf(object, PI::PROP_STATUS)}};
  };
  Json json = {{"adapter", brief(topology.Adapter())}, {"arrays", Json::array()}, {"disks", Json::array()}};
  for (const PI::CObject* const array : topology.OfKind(PI::OBJ_LOGICAL_DRIVE)) {
    json["arrays"].push_back(brief(*array));
    json["arrays"].back()["activity"] = ActivityText(*array);
  }
  for (const PI::CObject* const disk : topology.OfKind(PI::OBJ_PHYSICAL_DRIVE))
    json["disks"].push_back(brief(*disk));
  return json;
}

Json EventJson(const CTopology& topology, const PI::CEvent& event) {
  const PI::CObject* const object = topology.FindID(event.m_ObjectID);
  const PI::CObject* const source = topology.FindID(event.m_SourceID);
  return {{"time", TimeText(event.m_Time)},
          {"code", event.m_Code},
          {"severity", event.m_Severity},
          {"object", HexadecimalID(event.m_ObjectID)},
          {"objectName", object == nullptr ? Json(nullptr) : Json(NameOf(*object))},
          {"source", HexadecimalID(event.m_SourceID)},
          {"sourceName", source == nullptr ? Json(nullptr) : Json(NameOf(*source))},
          {"placeholders", {event.m_PlaceHolder1, event.m_PlaceHolder2}},
          {"text", Texts::OfEvent(event)}};
}

}  // namespace rvxctl

#include "host/Output.h"

#include <algorithm>
#include <boost/format.hpp>
#include <cmath>
#include <ctime>

namespace rvxctl {

namespace {

constexpr int SCHEMA_VERSION = 1;

/// Columns that a text takes: colours and the bytes that continue a character take none.
std::size_t Width(const std::string& text) {
  std::size_t width = 0;
  bool color = false;
  for (const char character : text) {
    if (character == '\033') color = true;
    if (!color && (static_cast<unsigned char>(character) & 0xC0) != 0x80) ++width;
    if (color && character == 'm') color = false;
  }
  return width;
}

std::string Padded(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, Width(text)), ' ');
}

Json Ids(const std::vector<unsigned long>& ids) {
  Json list = Json::array();
  for (const unsigned long id : ids) list.push_back(HexadecimalID(id));
  return list;
}

/// Puts type and value of each variant into the property's JSON.
struct SValueJson {
  const CTexts& m_Texts;
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
      choices.push_back({{"value", number}, {"text", m_Texts.Of(static_cast<unsigned int>(number))}});
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

CSession& CContext::Session() {
  if (!m_Session) m_Session.emplace(m_Options);
  return *m_Session;
}

void CContext::Show(const std::string& name, const Json& data, const std::string& text, const Json& errors) {
  m_Output.Print(m_Options.m_Json ? Envelope(name, data, errors) : text);
}

void CContext::Close() {
  if (m_Session) m_Session->End();
}

std::string CContext::Colored(const std::string& text) const {
  if (!m_Options.m_Color) return text;
  const auto contains = [&](const char* word) { return text.find(word) != std::string::npos; };
  const char* color = nullptr;
  if (contains("Failed") || contains("Missing"))
    color = "31";
  else if (contains("Degraded") || contains("ebuilding") || contains("esyncing"))
    color = "33";
  else if (contains("In order") || contains("Ready"))
    color = "32";
  return color == nullptr ? text : std::string("\033[") + color + "m" + text + "\033[0m";
}

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
    json["name"] = CTexts().StatusName(error.m_Status);
  }
  return json;
}

std::string Table(const std::vector<std::string>& heading,
                  const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const std::string& title : heading) widths.push_back(Width(title));
  for (const auto& row : rows)
    for (std::size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], Width(row[column]));
  std::string text;
  const auto add = [&](const std::vector<std::string>& row) {
    std::string line;
    for (std::size_t column = 0; column < row.size(); ++column)
      line += column + 1 == row.size() ? row[column] : Padded(row[column], widths[column]) + "  ";
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  };
  add(heading);
  for (const auto& row : rows) add(row);
  return text;
}

std::string Pairs(const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::size_t width = 0;
  for (const auto& [label, value] : pairs) width = std::max(width, Width(label));
  std::string text;
  for (const auto& [label, value] : pairs) text += Padded(label, width) + "  " + value + "\n";
  return text;
}

Json PropertyJson(const CTexts& texts, const PI::CProperty& property) {
  Json json = {{"id", static_cast<unsigned int>(property.m_ID)}};
  std::visit(SValueJson{texts, json}, property.m_Value);
  json["text"] = TextOf(texts, property);
  json["label"] = LabelOf(texts, property);
  json["unit"] = property.m_UnitTextID == 0 ? Json(nullptr) : Json(texts.Of(property.m_UnitTextID));
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

Json ObjectJson(const CTexts& texts, const PI::CObject& object) {
  Json json = {{"id", HexadecimalID(object.m_ID)},
               {"kind", object.m_Kind},
               {"kindText", texts.Of(object.m_Kind)},
               {"name", NameOf(object)},
               {"parents", Ids(object.m_Parents)},
               {"children", Ids(object.m_Children)},
               {"updateCounter", object.m_UpdateCounter},
               {"busy", object.m_Busy},
               {"properties", Json::array()},
               {"operations", Json::array()}};
  for (const PI::CProperty& property : object.m_Properties)
    json["properties"].push_back(PropertyJson(texts, property));
  for (const PI::COperation& operation : object.m_Operations)
    json["operations"].push_back({{"code", operation.m_Code}, {"text", texts.Of(operation.m_Code)}});
  return json;
}

std::string TimeText(unsigned long milliseconds) {
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[32] = "";
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return (boost::format("%s.%03dZ") % text % (milliseconds % 1000)).str();
}

Json EventJson(const CTexts& texts, const CTopology& topology, const PI::CEvent& event) {
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
          {"text", texts.OfEvent(event)}};
}

}  // namespace rvxctl

#include "host/Values.h"

#include <algorithm>
#include <boost/format.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "host/Texts.h"

namespace Host {

namespace {

struct SValueText {
  const PI::CProperty& m_Property;

  std::string WithUnit(std::string text) const {
    if (m_Property.m_UnitTextID == 0 || text.empty()) return text;
    const std::string unit = Texts::Of(m_Property.m_UnitTextID);
    return text + (unit == "%" ? "" : " ") + unit;
  }
  std::string operator()(std::monostate) const { return {}; }
  std::string operator()(const std::string& text) const { return WithUnit(text); }
  std::string operator()(const PI::SRange& range) const { return WithUnit(std::to_string(range.m_Value)); }
  std::string operator()(const PI::SChoice& choice) const {
    return Texts::Of(static_cast<unsigned int>(choice.m_Selected));
  }
  std::string operator()(float number) const { return WithUnit((boost::format("%.2f") % number).str()); }
  std::string operator()(unsigned long number) const { return WithUnit(std::to_string(number)); }
  std::string operator()(const PI::SNumberLists& lists) const {
    std::string text;
    for (const int number : lists.m_Values)
      text += (text.empty() ? "" : ", ") + Texts::Of(static_cast<unsigned int>(number));
    return text;
  }
  std::string operator()(const KVT::XML::CMarkup& document) const { return document.GetDoc(); }
};

}  // namespace

const PI::CProperty* FindProperty(const PI::CObject& object, PI::_PROPERTY_ID id) {
  for (const PI::CProperty& property : object.m_Properties)
    if (property.m_ID == id) return &property;
  return nullptr;
}

std::optional<long> NumberOf(const PI::CObject& object, PI::_PROPERTY_ID id) {
  const PI::CProperty* const property = FindProperty(object, id);
  if (property == nullptr) return std::nullopt;
  if (const auto* const range = std::get_if<PI::SRange>(&property->m_Value)) return range->m_Value;
  if (const auto* const choice = std::get_if<PI::SChoice>(&property->m_Value)) return choice->m_Selected;
  if (const auto* const number = std::get_if<unsigned long>(&property->m_Value))
    return static_cast<long>(*number);
  return std::nullopt;
}

bool IsOneOf(const PI::CObject& object, PI::_PROPERTY_ID id, std::initializer_list<PI::_CHOICE> choices) {
  const auto number = NumberOf(object, id);
  return std::any_of(choices.begin(), choices.end(), [&](PI::_CHOICE choice) { return number == choice; });
}

std::string TextOf(const PI::CProperty& property) {
  // A text of its own for the value says more than the choice's.
  if (property.m_ValueTextID != 0)
    if (const auto text = Texts::Find(property.m_ValueTextID)) return *text;
  return std::visit(SValueText{property}, property.m_Value);
}

std::string TextOf(const PI::CObject& object, PI::_PROPERTY_ID id) {
  const PI::CProperty* const property = FindProperty(object, id);
  return property == nullptr ? std::string() : TextOf(*property);
}

std::string ActivityText(const PI::CObject& array) {
  const auto activity = NumberOf(array, PI::PROP_ACTIVITY);
  std::string text = TextOf(array, PI::PROP_ACTIVITY);
  if (activity == PI::ACTIVITY_RESYNCING) text += " " + TextOf(array, PI::PROP_RESYNC_PROGRESS);
  if (activity == PI::ACTIVITY_REBUILDING) text += " " + TextOf(array, PI::PROP_REBUILD_PROGRESS);
  return text;
}

std::optional<int> ProgressOf(const PI::CObject& array) {
  const auto activity = NumberOf(array, PI::PROP_ACTIVITY);
  const bool resync = activity == PI::ACTIVITY_RESYNCING;
  if (!resync && activity != PI::ACTIVITY_REBUILDING) return std::nullopt;
  const auto percent = NumberOf(array, resync ? PI::PROP_RESYNC_PROGRESS : PI::PROP_REBUILD_PROGRESS);
  return percent ? std::optional(static_cast<int>(*percent)) : std::nullopt;
}

std::string LabelOf(const PI::CProperty& property) {
  // Where one label serves several properties of an object, the property's own text tells them apart.
  const bool shared =
      property.m_ID == PI::PROP_TIME_REMAINING || property.m_Group == 1 || property.m_Group == 2;
  const bool own = property.m_LabelTextID == 0 || shared;
  return Texts::Of(own ? static_cast<unsigned int>(property.m_ID) : property.m_LabelTextID);
}

bool IsUnknown(const PI::CProperty& property) {
  switch (property.m_ID) {
    case PI::PROP_TIME_REMAINING: {
      const auto* const text = std::get_if<std::string>(&property.m_Value);
      return text == nullptr || text->empty();
    }
    case PI::PROP_END_OF_LIFE:
    case PI::PROP_SMART_RESERVE:
    case PI::PROP_SMART_WEAR:
    case PI::PROP_SMART_BYTES_WRITTEN:
    case PI::PROP_SMART_POWER_ON_HOURS:
    case PI::PROP_RESYNC_PROGRESS:
    case PI::PROP_REBUILD_PROGRESS:
      return property.m_AttributeWord == 0;
    default:
      return false;
  }
}

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

std::string NameOf(const PI::CObject& object) {
  if (object.m_Kind == PI::OBJ_PLUGIN) return "plugin";
  if (object.m_Kind == PI::OBJ_ADAPTER) return "adapter";
  const PI::CProperty* const path = FindProperty(object, PI::PROP_DEVICE_PATH);
  const auto* const text = path == nullptr ? nullptr : std::get_if<std::string>(&path->m_Value);
  if (text == nullptr) return HexadecimalID(object.m_ID);
  return text->starts_with("/dev/") ? text->substr(5) : *text;
}

std::string HexadecimalID(unsigned long id) { return (boost::format("0x%016x") % id).str(); }

std::string SizeText(std::optional<long> mebibytes) {
  if (!mebibytes) return {};
  if (*mebibytes < 1024) return std::to_string(*mebibytes) + " MiB";
  const double gibibytes = static_cast<double>(*mebibytes) / 1024;
  return gibibytes < 1023.95 ? (boost::format("%.1f GiB") % gibibytes).str()
                             : (boost::format("%.1f TiB") % (gibibytes / 1024)).str();
}

std::string SizeOfKiB(std::uint64_t kibibytes) {
  return kibibytes < 1024 ? std::to_string(kibibytes) + " KiB" : SizeText(static_cast<long>(kibibytes >> 10));
}

std::string Joined(const std::vector<std::string>& texts, const char* separator) {
  std::string all;
  for (const std::string& text : texts) all.append(all.empty() ? "" : separator).append(text);
  return all;
}

std::string TimeText(unsigned long milliseconds) {
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[32] = "";
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return (boost::format("%s.%03dZ") % text % (milliseconds % 1000)).str();
}

std::uint64_t MillisecondsOf(const std::string& time) {
  std::tm parts{};
  const char* const rest = ::strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr || *rest != '.') return 0;
  return static_cast<std::uint64_t>(::timegm(&parts)) * 1000 + std::strtoul(rest + 1, nullptr, 10);
}

std::uint64_t NowMilliseconds() {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  return static_cast<std::uint64_t>(
      duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}

}  // namespace Host

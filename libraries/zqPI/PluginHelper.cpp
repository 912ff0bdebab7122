#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "PI/Helpers.h"

namespace PI {
namespace {

constexpr std::string_view SEPARATORS = " _-";

/// Makers whose name is more than one word or is followed by another separator than a blank.
constexpr std::array<std::string_view, 5> MAKERS{"Crucial", "KIOXIA", "Micron", "OCZ", "SK hynix"};

/// Makers that leave their name out, by how their models begin; "#" stands for one digit.
struct SModelPrefix {
  std::string_view m_Prefix;
  const char* m_Vendor;
};
constexpr std::array<SModelPrefix, 25> PREFIXES{
    {{"ST#", "Seagate"},  {"XA#", "Seagate"},    {"ZA#", "Seagate"},    {"WDS#", "WDC"},
     {"WD#", "WDC"},      {"CT#", "Crucial"},    {"M4-CT#", "Crucial"}, {"MTFD", "Micron"},
     {"MZ#", "Samsung"},  {"SSDSA", "Intel"},    {"SSDSC", "Intel"},    {"SSDMAE", "Intel"},
     {"SSDMCE", "Intel"}, {"SA400", "Kingston"}, {"SKC", "Kingston"},   {"SEDC", "Kingston"},
     {"HDS#", "Hitachi"}, {"HTS#", "Hitachi"},   {"HUA#", "Hitachi"},   {"HUS#", "HGST"},
     {"DT#", "Toshiba"},  {"MQ#", "Toshiba"},    {"THN", "Toshiba"},    {"HFS#", "SK hynix"},
     {"SDSSD", "SanDisk"}}};

/// Vendor of a model that tells none.
constexpr const char* NO_VENDOR = "ATA";

/// Hours. Wear is told in whole percent: the first one of a new drive says nothing about the next.
constexpr unsigned long SHORTEST_PAST = 168;

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

bool BeginsWithMaker(std::string_view model, std::string_view maker) {
  return model.size() > maker.size() && strncasecmp(model.data(), maker.data(), maker.size()) == 0 &&
         SEPARATORS.find(model[maker.size()]) != std::string_view::npos;
}

bool BeginsWithPrefix(std::string_view model, std::string_view prefix) {
  return model.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), model.begin(),
                    [](char wanted, char found) { return wanted == '#' ? IsDigit(found) : wanted == found; });
}

/// Length of the maker's name at the beginning of a model. Any other first word counts as a name
/// when it holds no digit and more words follow.
std::size_t MakerLength(std::string_view model) {
  const auto* const known = std::find_if(MAKERS.begin(), MAKERS.end(),
                                         [model](auto maker) { return BeginsWithMaker(model, maker); });
  if (known != MAKERS.end()) return known->size();
  const std::size_t blank = model.find(' ');
  const std::string_view word = model.substr(0, blank);
  const bool isName = blank != std::string_view::npos && std::none_of(word.begin(), word.end(), IsDigit);
  return isName ? blank : 0;
}

std::uint64_t Project(unsigned long hours, std::uint64_t used, std::uint64_t all) {
  if (used >= all) return 0;
  const long double left =
      static_cast<long double>(hours) * static_cast<long double>(all - used) / static_cast<long double>(used);
  constexpr std::uint64_t LONGEST = CSmartValues::UNKNOWN64 - 1;
  return left < static_cast<long double>(LONGEST) ? static_cast<std::uint64_t>(left) : LONGEST;
}

}  // namespace

void CPluginHelper::SplitSATAModelName(const std::string& model, std::string& vendor, std::string& product) {
  const std::size_t begin = model.find_first_not_of(' ');
  const std::string text =
      begin == std::string::npos ? "" : model.substr(begin, model.find_last_not_of(' ') + 1 - begin);
  if (const std::size_t length = MakerLength(text); length != 0) {
    vendor = text.substr(0, length);
    product = text.substr(std::min(text.find_first_not_of(SEPARATORS, length), text.size()));
  } else {
    const auto* const prefix = std::find_if(PREFIXES.begin(), PREFIXES.end(), [&text](const auto& candidate) {
      return BeginsWithPrefix(text, candidate.m_Prefix);
    });
    vendor = prefix != PREFIXES.end() ? prefix->m_Vendor : NO_VENDOR;
    product = text;
  }
}

bool CPluginHelper::ConvertBytesToOtherUnit(unsigned long bytes, float& value, _UNITS& unit) {
  constexpr std::array UNITS{UNIT_BYTES, UNIT_KIB, UNIT_MIB, UNIT_GIB, UNIT_TIB};
  const bool known = bytes != CSmartValues::UNKNOWN64;
  std::size_t step = 0;
  while (known && step + 1 < UNITS.size() && (bytes >> (10 * (step + 1))) != 0) ++step;
  value =
      static_cast<float>(static_cast<double>(bytes) / static_cast<double>(std::uint64_t{1} << (10 * step)));
  unit = UNITS[step];
  return known;
}

bool CPluginHelper::ComputeRemainingLifeTime(unsigned long powerOnHours, unsigned long bytesWritten,
                                             unsigned int wearUsed, unsigned long ratedWriteVolume,
                                             unsigned long& hours) {
  hours = CSmartValues::UNKNOWN64;
  if (powerOnHours < SHORTEST_PAST || powerOnHours == CSmartValues::UNKNOWN64) return false;
  if (wearUsed != 0 && wearUsed != CSmartValues::UNKNOWN32) hours = Project(powerOnHours, wearUsed, 100);
  const bool writtenKnown = bytesWritten != 0 && bytesWritten != CSmartValues::UNKNOWN64;
  if (writtenKnown && ratedWriteVolume != 0 && ratedWriteVolume != CSmartValues::UNKNOWN64)
    hours = std::min<unsigned long>(hours, Project(powerOnHours, bytesWritten, ratedWriteVolume));
  return hours != CSmartValues::UNKNOWN64;
}

}  // namespace PI

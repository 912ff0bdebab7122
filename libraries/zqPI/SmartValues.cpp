#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <optional>

#include "PI/Helpers.h"

namespace PI {
namespace {

/// Attribute of the power-on hours, the same in every family. Some keep more in the upper two bytes of the
/// raw value.
constexpr std::uint8_t POWER_ON_HOURS = 9;
constexpr std::uint64_t HOURS_MASK = 0xFFFFFFFF;

constexpr std::uint64_t SECTOR = 512;
constexpr std::uint64_t MIB32 = std::uint64_t{32} << 20;
constexpr std::uint64_t GB = 1'000'000'000;
constexpr std::uint64_t GIB = std::uint64_t{1} << 30;

/// Which attributes a family of drives reports; 0: none. docs/smart.md says where each row comes from.
struct SFamily {
  const char* m_Vendor;
  const char* m_Models;         ///< a pattern as for file names, with alternatives
  std::uint8_t m_Written;       ///< raw value: volume written by the host
  std::uint64_t m_WrittenUnit;  ///< bytes
  std::uint8_t m_Reserve;       ///< normalised value: percent of the reserve that is left
  std::uint8_t m_LifeLeft;      ///< normalised value: 100 less the percent worn
};

// The first row that fits counts. The kernel cuts the models of ATA disks to 16 characters, the maker's name
// included: a pattern must fit what is left.
constexpr std::array<SFamily, 16> FAMILIES{{
    {"Intel", "SSDSC*[78]R*", 233, SECTOR, 170, 245},  // Dell's firmware; with "INTEL" the R is cut off
    {"Intel", "@(SSDSA|SSDMAE|SSDSC2MH)*", 225, MIB32, 232, 233},
    {"Intel", "@(SSDSC|SSDMCE)*", 241, MIB32, 232, 233},
    {"Samsung", "@(SSD 8|MZ)*", 241, SECTOR, 179, 177},
    {"Crucial", "M4-CT*", 0, 0, 0, 202},
    {"Crucial", "CT*@(MX[1-5]*|BX5*|M5[05]*|MX|M5)", 246, SECTOR, 0, 202},
    {"Micron", "@(*MTFD|M5?0DC_|5300HC_)*", 246, SECTOR, 0, 202},
    {"WDC", "WDS*", 241, GIB, 232, 0},
    {"SanDisk", "@(SDSSDP|SDSSDRC|SD7[SU]B?Q)*", 241, SECTOR, 232, 0},
    {"SanDisk", "@(SD[789]|SDSS|SSD PLUS|Ultra)*", 241, GIB, 232, 0},
    {"Kingston", "SKC600*", 241, MIB32, 0, 231},
    {"Kingston", "@(SA400|SEDC[45]|SV300)*", 241, GIB, 0, 231},
    {"Seagate", "@(XA|ZA)[0-9]*", 241, GB, 0, 231},
    {"Toshiba", "THN*", 0, 0, 0, 0},
    {"KIOXIA", "*", 0, 0, 0, 0},
    {"SK hynix", "@(SC[34]|HFS)*", 0, 0, 0, 0},
}};

// SMART READ DATA: a version word, then 30 entries of 12 bytes: identifier, two bytes of flags, normalised
// value, worst value, six bytes of raw value (low byte first), a spare byte. The last byte makes the sum of
// all bytes 0.
constexpr std::size_t FIRST_ENTRY = 2;
constexpr std::size_t ENTRY_SIZE = 12;
constexpr std::size_t ENTRY_COUNT = 30;

struct SAttribute {
  std::uint8_t m_Normalised;
  std::uint64_t m_Raw;
};

std::optional<SAttribute> FindAttribute(const _IDE_SMART_DATA& data, std::uint8_t identifier) {
  if (identifier == 0) return std::nullopt;
  for (std::size_t i = 0; i < ENTRY_COUNT; ++i) {
    const std::uint8_t* entry = data.m_Bytes.data() + FIRST_ENTRY + i * ENTRY_SIZE;
    if (*entry != identifier) continue;
    SAttribute attribute{entry[3], 0};
    for (unsigned int byte = 0; byte < 6; ++byte)
      attribute.m_Raw |= std::uint64_t{entry[5 + byte]} << (8 * byte);
    return attribute;
  }
  return std::nullopt;
}

/// A normalised percentage; nothing when it is beyond 100, as some drives show a value they do not keep yet.
std::optional<std::uint32_t> FindPercentage(const _IDE_SMART_DATA& data, std::uint8_t identifier) {
  const auto attribute = FindAttribute(data, identifier);
  if (!attribute || attribute->m_Normalised > 100) return std::nullopt;
  return attribute->m_Normalised;
}

bool IsChecksumRight(const _IDE_SMART_DATA& data) {
  return std::accumulate(data.m_Bytes.begin(), data.m_Bytes.end(), 0U) % 256 == 0;
}

int FindFamily(const std::string& vendor, const std::string& model) {
  const auto fits = [](const char* pattern, const std::string& text) {
    return fnmatch(pattern, text.c_str(), FNM_CASEFOLD | FNM_EXTMATCH) == 0;
  };
  const auto* const found = std::find_if(FAMILIES.begin(), FAMILIES.end(), [&](const SFamily& family) {
    return fits(family.m_Vendor, vendor) && fits(family.m_Models, model);
  });
  return found == FAMILIES.end() ? -1 : static_cast<int>(found - FAMILIES.begin());
}

}  // namespace

CSmartValues::CSmartValues(const std::string& vendor, const std::string& model)
    : m_Family(FindFamily(vendor, model)) {}

bool CSmartValues::Evaluate(const _IDE_SMART_DATA& data) {
  m_PowerOnHours = m_BytesWritten = UNKNOWN64;
  m_AvailableReserve = m_WearUsed = UNKNOWN32;
  if (!IsSupported() || !IsChecksumRight(data)) return false;
  const SFamily& family = FAMILIES[static_cast<std::size_t>(m_Family)];
  if (const auto hours = FindAttribute(data, POWER_ON_HOURS)) m_PowerOnHours = hours->m_Raw & HOURS_MASK;
  const auto written = FindAttribute(data, family.m_Written);
  if (written && written->m_Raw <= UNKNOWN64 / family.m_WrittenUnit)
    m_BytesWritten = written->m_Raw * family.m_WrittenUnit;
  m_AvailableReserve = FindPercentage(data, family.m_Reserve).value_or(UNKNOWN32);
  if (const auto left = FindPercentage(data, family.m_LifeLeft)) m_WearUsed = 100 - *left;
  return true;
}

}  // namespace PI

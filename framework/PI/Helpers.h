#pragma once
/// @file
/// Configuration file, SMART evaluation and conversions that the framework does for its plug-ins.

#include <array>
#include <cstdint>
#include <string>

#include "KVT/Api.h"
#include "PI/Numbers.h"

namespace PI {

/// A configuration file of lines `key=value`. A relative name lies in CKvtApplication::GetConfigDirectory().
class ZQ_API CConfigFile {
 public:
  CConfigFile();
  void SetFileName(const std::string& name);
  /// Reads a key as text, as it stands. The last two arguments address sections of other files and are -1
  /// here. PI::OK; ERR_GENERAL when the file or the key is not there.
  unsigned int ReadKeyValue(const std::string& key, std::string& value, int section, int index) const;
  /// Writes a key and keeps all others; the file is replaced as a whole or not at all. An empty key touches
  /// nothing and is answered with PI::OK. ERR_DEVICE_IO when the file cannot be written.
  unsigned int WriteKeyValue(const std::string& key, const std::string& value, int section, int index);
  unsigned int WriteKeyValue(const std::string& key, int value, int section, int index);

 private:
  std::string m_FileName;
};

/// The 512 bytes that the ATA command SMART READ DATA returns.
struct _IDE_SMART_DATA {
  std::array<std::uint8_t, 512> m_Bytes;
};
static_assert(sizeof(_IDE_SMART_DATA) == 512);

/// Understands the SMART data of known families of solid-state disks. All ones: the drive does not tell.
class ZQ_API CSmartValues {
 public:
  /// @param vendor,model as SplitSATAModelName gave them
  CSmartValues(const std::string& vendor, const std::string& model);

  bool IsSupported() const { return m_Family >= 0; }
  /// Fills the fields; false (and they are all ones) for an unknown family or data with a wrong checksum.
  bool Evaluate(const _IDE_SMART_DATA& data);

  static constexpr std::uint64_t UNKNOWN64 = ~std::uint64_t{0};
  static constexpr std::uint32_t UNKNOWN32 = ~std::uint32_t{0};

  /// Bytes. Always all ones: what the kernel leaves of a model's name tells no maker's rating.
  std::uint64_t m_RatedWriteVolume{UNKNOWN64};
  std::uint64_t m_PowerOnHours{UNKNOWN64};
  std::uint64_t m_BytesWritten{UNKNOWN64};
  std::uint32_t m_AvailableReserve{UNKNOWN32};  ///< percent left
  std::uint32_t m_WearUsed{UNKNOWN32};          ///< percent used

 private:
  int m_Family;  ///< row of the table of families, -1: none
};

class ZQ_API CPluginHelper {
 public:
  /// Splits the model text of an ATA disk into maker and product, by what is known of makers' habits.
  static void SplitSATAModelName(const std::string& model, std::string& vendor, std::string& product);
  /// Scales a byte count to the largest binary unit in which it is at least 1. False for the all-ones count;
  /// the value is then the count as it stands, in bytes.
  static bool ConvertBytesToOtherUnit(unsigned long bytes, float& value, _UNITS& unit);
  /// Projects wear and written volume over the time so far; the nearer end counts. All ones (and false) when
  /// neither tells or the drive has run for less than a week.
  /// @param bytesWritten,ratedWriteVolume bytes
  /// @param wearUsed percent; @param hours receives the hours left
  static bool ComputeRemainingLifeTime(unsigned long powerOnHours, unsigned long bytesWritten,
                                       unsigned int wearUsed, unsigned long ratedWriteVolume,
                                       unsigned long& hours);
};

}  // namespace PI

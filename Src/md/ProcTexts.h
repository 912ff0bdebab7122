#pragma once
/// @file
/// Understanding of the texts that Linux hands out. Free functions without state or input and output.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Md {

/// Bytes that one read of a line of /proc/mdstat takes at most; a longer line comes in pieces.
inline constexpr std::size_t MDSTAT_READ = 127;

/// The first line with its end, at most `limit` characters.
std::string_view FirstLine(std::string_view text, std::size_t limit);
/// Without surrounding white space.
std::string Trimmed(std::string_view text);
bool ContainsText(std::string_view text, std::string_view part);
/// Without its last character, whatever that is.
std::string_view WithoutLast(std::string_view text);

/// Hands out a text line by line, each with its end, in pieces of at most `limit` characters.
class CLineReader {
 public:
  CLineReader(std::string_view text, std::size_t limit) : m_Rest(text), m_Limit(limit) {}
  /// The next piece; none at the end.
  std::optional<std::string_view> Next();

 private:
  std::string_view m_Rest;
  std::size_t m_Limit;
};

/// A line of /proc/partitions.
struct SPartition {
  std::uint32_t m_Major;
  std::uint32_t m_Minor;
  std::uint64_t m_Blocks;  ///< KiB
  std::string m_Name;      ///< at most 31 characters
};
/// The entries below the two lines of heading, up to the first that is none.
std::vector<SPartition> ParsePartitions(const std::string& text);

/// The major number of partitionable md devices ("mdp") in /proc/devices; -1 when the kernel has none.
std::int64_t ParseMdMajor(const std::string& text);

/// The sysfs folder of the PCI function in a disk's udev record; empty when the record has no device path.
std::string HostPathOfRecord(const std::vector<std::string>& lines);

/// Whether a kernel name is that of a whole SCSI or IDE disk.
bool IsDiskName(const std::string& name);
/// The number of an array's kernel name ("md7", "md_d7"); none for other names.
std::optional<std::uint32_t> ArrayNumber(const std::string& name);

/// What a progress line of /proc/mdstat says.
struct SRunProgress {
  bool m_Resync;            ///< else a rebuild
  std::uint32_t m_Percent;  ///< 0 when there is no number
};
/// None when the line shows no running rebuild or resync.
std::optional<SRunProgress> ParseProgress(std::string_view line);
/// The progress lines of all blocks of /proc/mdstat whose first line contains the name anywhere: "md1" finds
/// md10 too.
std::vector<std::string_view> ProgressLines(std::string_view mdstat, std::string_view name);

}  // namespace Md

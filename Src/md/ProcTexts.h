#pragma once
/// @file
/// Understanding of the texts that Linux hands out: /proc, sysfs, udev. Nothing here reads a file.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
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

/// What stands in each progress line of /proc/mdstat that shows a running rebuild or resync, and nowhere
/// else.
inline constexpr std::string_view RUN_MARK = "]  re";
/// What a progress line of /proc/mdstat says.
struct SRunProgress {
  bool m_Resync;            ///< else a rebuild
  std::uint32_t m_Percent;  ///< 0 when there is no number
};
/// None when the line shows no running rebuild or resync.
std::optional<SRunProgress> ParseProgress(std::string_view line);
/// Lines of a block of /proc/mdstat below its first, the array's own.
inline constexpr int DETAILS_LINE = 1;
inline constexpr int PROGRESS_LINE = 2;
/// A walk over the blocks of /proc/mdstat that have one of the named objects in a line, also as a part of a
/// longer name: "md1" finds md10 too.
template <class TObjects, class TName>
class CMdstatWalk {
 public:
  /// @param name the member of an object, or a function, that tells its name
  /// @param below how many lines below the one with the name the wanted one lies
  CMdstatWalk(std::string_view mdstat, TObjects& objects, TName name, int below)
      : m_Lines(mdstat, MDSTAT_READ), m_Objects(objects), m_Name(name), m_Below(below) {}

  struct SHit {
    decltype(&*std::begin(std::declval<TObjects&>())) m_Object;
    std::optional<std::string_view> m_Line;  ///< none: the text has ended
  };
  /// The next object; none at the end. Further names in the same line take lines further down, whatever these
  /// belong to.
  std::optional<SHit> Next() {
    for (; m_Line; m_Line = m_Lines.Next(), m_At = std::begin(m_Objects)) {
      while (m_At != std::end(m_Objects)) {
        SHit hit{&*m_At++, std::nullopt};
        if (!ContainsText(*m_Line, std::invoke(m_Name, *hit.m_Object))) continue;
        for (int line = 0; line < m_Below; ++line) hit.m_Line = m_Lines.Next();
        return hit;
      }
    }
    return std::nullopt;
  }

 private:
  CLineReader m_Lines;
  TObjects& m_Objects;
  TName m_Name;
  int m_Below;
  std::optional<std::string_view> m_Line{m_Lines.Next()};
  decltype(std::begin(m_Objects)) m_At{std::begin(m_Objects)};
};

}  // namespace Md

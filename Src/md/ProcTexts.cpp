#include "Src/md/ProcTexts.h"

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <limits>

namespace Md {

std::string_view FirstLine(std::string_view text, std::size_t limit) {
  return CLineReader(text, limit).Next().value_or(std::string_view{});
}

std::string Trimmed(std::string_view text) { return boost::algorithm::trim_copy(std::string(text)); }

bool ContainsText(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

std::string_view WithoutLast(std::string_view text) {
  if (!text.empty()) text.remove_suffix(1);
  return text;
}

std::optional<std::string_view> CLineReader::Next() {
  if (m_Rest.empty()) return std::nullopt;
  const std::size_t end = m_Rest.find('\n');
  const std::size_t length = std::min(end == std::string_view::npos ? m_Rest.size() : end + 1, m_Limit);
  const std::string_view line = m_Rest.substr(0, length);
  m_Rest.remove_prefix(length);
  return line;
}

/// What the next entry may take of the text: four words, or the 70 characters that its fields read at most.
/// Bounded, so that a long file is not measured again for each of its entries.
static std::string NextEntry(const std::string& text, std::size_t position) {
  constexpr std::size_t WORDS = 4;
  constexpr std::size_t FIELD_CHARACTERS = 10 + 10 + 19 + 31;
  std::size_t words = 0;
  std::size_t characters = 0;
  std::size_t end = position;
  for (bool inWord = false; end < text.size() && characters <= FIELD_CHARACTERS; ++end) {
    const bool blank = std::isspace(static_cast<unsigned char>(text[end])) != 0;
    if (blank && inWord && ++words == WORDS) break;
    inWord = !blank;
    if (inWord) ++characters;
  }
  return text.substr(position, end - position);
}

std::vector<SPartition> ParsePartitions(const std::string& text) {
  constexpr std::size_t HEADING_READ = 255;
  constexpr long MAX_NUMBER = std::numeric_limits<std::uint32_t>::max();
  CLineReader heading(text, HEADING_READ);
  std::size_t position = 0;
  for (int line = 0; line < 2; ++line) position += heading.Next().value_or(std::string_view{}).size();

  std::vector<SPartition> entries;
  while (true) {
    const std::string entry = NextEntry(text, position);
    long major = 0;
    long minor = 0;
    long blocks = 0;
    char name[32] = "";
    int length = 0;
    if (std::sscanf(entry.c_str(), "%10ld %10ld %19ld %31s%n", &major, &minor, &blocks, name, &length) != 4)
      break;
    if (major < 0 || major > MAX_NUMBER || minor < 0 || minor > MAX_NUMBER || blocks < 0) break;
    entries.push_back({static_cast<std::uint32_t>(major), static_cast<std::uint32_t>(minor),
                       static_cast<std::uint64_t>(blocks), name});
    position += static_cast<std::size_t>(length);
  }
  return entries;
}

std::int64_t ParseMdMajor(const std::string& text) {
  CLineReader lines(text, std::string::npos);
  bool blockSection = false;  // a character device may have the same name
  while (const auto line = lines.Next()) {
    const std::string entry = Trimmed(*line);
    if (entry == "Block devices:") blockSection = true;
    const std::size_t blank = entry.find(' ');
    if (!blockSection || blank == std::string::npos || Trimmed(entry.substr(blank)) != "mdp") continue;
    std::int64_t major = -1;
    const char* const end = entry.data() + blank;
    if (const auto read = std::from_chars(entry.data(), end, major);
        read.ec == std::errc{} && read.ptr == end)
      return major;
  }
  return -1;
}

std::string HostPathOfRecord(const std::vector<std::string>& lines) {
  constexpr std::string_view RECORD = "P: /devices";
  const auto record = std::find_if(lines.begin(), lines.end(),
                                   [&](const std::string& line) { return line.starts_with(RECORD); });
  if (record == lines.end()) return {};
  std::string path = record->substr(0, record->find('\0'));  // where the name of a file ends too
  if (const std::size_t host = path.find("/host"); host != std::string::npos) {
    path.resize(host);
    // Only behind a SCSI host: an "/ata" elsewhere is no port.
    if (const std::size_t port = path.rfind("/ata"); port != std::string::npos) path.resize(port);
  }
  return "/sys" + path.substr(std::string_view("P: ").size());
}

bool IsDiskName(const std::string& name) {
  const auto isLetter = [](char one) { return one >= 'a' && one <= 'z'; };
  return (name.size() == 3 || name.size() == 4) && (name.starts_with("sd") || name.starts_with("hd")) &&
         std::all_of(name.begin(), name.end(), isLetter);
}

std::optional<std::uint32_t> ArrayNumber(const std::string& name) {
  for (const std::string_view prefix : {"md", "md_d"}) {
    if (!name.starts_with(prefix)) continue;
    // Signed: a greater number would read as "no array" in the drives, and deleting it would wipe the free
    // ones.
    std::int32_t number = 0;
    const char* const end = name.data() + name.size();
    const char* const digits = name.data() + prefix.size();
    if (digits == end || *digits == '-') continue;
    if (const auto read = std::from_chars(digits, end, number); read.ec == std::errc{} && read.ptr == end)
      return static_cast<std::uint32_t>(number);
  }
  return std::nullopt;
}

std::optional<SRunProgress> ParseProgress(std::string_view line) {
  if (!ContainsText(line, RUN_MARK)) return std::nullopt;
  SRunProgress progress{ContainsText(line, "resync"), 0};
  constexpr std::string_view RESYNC = "resync = ";
  constexpr std::string_view RECOVERY = "covery = ";
  static_assert(RESYNC.size() == RECOVERY.size());
  std::size_t place = line.find(RESYNC);
  if (place == std::string_view::npos) place = line.find(RECOVERY);
  if (place == std::string_view::npos) return progress;
  int percent = 0;
  const std::string number(line.substr(place + RESYNC.size(), 9));
  if (std::sscanf(number.c_str(), "%d", &percent) == 1 && percent >= 0 && percent <= 100)
    progress.m_Percent = static_cast<std::uint32_t>(percent);
  return progress;
}

}  // namespace Md

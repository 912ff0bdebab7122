#include <fcntl.h>
#include <unistd.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/property_tree/ini_parser.hpp>
#include <cerrno>
#include <optional>
#include <sstream>

#include "KVT/Misc.h"
#include "PI/Helpers.h"
#include "libraries/common/CancellationGuard.h"
#include "libraries/common/FileDescriptor.h"
#include "libraries/common/ReplaceFile.h"

namespace PI {
namespace {

namespace fs = boost::filesystem;
using KVT::Internal::CCancellationGuard;
using KVT::Internal::CFileDescriptor;
using KVT::Internal::ReplaceFile;

constexpr mode_t NEW_FILE_MODE = 0644;  // all may read it

/// The file itself, behind all symbolic links: those stay when the file is replaced.
fs::path Locate(const std::string& name) {
  const fs::path path =
      fs::path(name).is_absolute() ? name : KVT::Misc::CKvtApplication::GetConfigDirectory() / name;
  boost::system::error_code error;
  const fs::path real = fs::canonical(path, error);
  return error ? path : real;
}

/// What the file holds; nothing when it cannot be read (errno tells why).
std::optional<std::string> ReadFile(const fs::path& path) {
  const CFileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) return std::nullopt;
  std::string text;
  std::array<char, 4096> buffer;
  ssize_t got = 0;
  while ((got = read(file.Get(), buffer.data(), buffer.size())) != 0) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    text.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return text;
}

/// The keys of a file; nothing when it is malformed.
std::optional<boost::property_tree::ptree> Parse(const std::string& text) {
  try {
    std::istringstream stream(text);
    boost::property_tree::ptree tree;
    boost::property_tree::read_ini(stream, tree);
    return tree;
  } catch (const boost::property_tree::ini_parser_error&) {
    return std::nullopt;
  }
}

/// The text of a key outside all sections; nothing when it is not there or the file is malformed.
std::optional<std::string> FindKey(const std::string& text, const std::string& key) {
  const auto tree = Parse(text);
  if (!tree) return std::nullopt;
  const auto found = tree->find(key);  // not get(): a dot in a key is no path
  if (found == tree->not_found() || !found->second.empty()) return std::nullopt;
  return found->second.data();
}

/// The text with the key's line replaced, or added in front of the first section. All other lines stay.
std::string ReplaceKey(const std::string& text, const std::string& key, const std::string& value) {
  const std::string newLine = key + '=' + value + '\n';
  std::string result;
  bool done = false;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    const std::string trimmed = boost::trim_copy(line);
    const bool isKey = boost::trim_copy(trimmed.substr(0, trimmed.find('='))) == key;
    if (!done && (isKey || boost::starts_with(trimmed, "["))) {
      result += newLine;
      done = true;
      if (isKey) continue;
    }
    result += line + '\n';
  }
  return done ? result : result + newLine;
}

}  // namespace

CConfigFile::CConfigFile() = default;

void CConfigFile::SetFileName(const std::string& name) { m_FileName = name; }

unsigned int CConfigFile::ReadKeyValue(const std::string& key, std::string& value, int /*section*/,
                                       int /*index*/) const {
  const CCancellationGuard noCancel;
  const auto text = ReadFile(Locate(m_FileName));
  const auto found = text ? FindKey(*text, key) : std::nullopt;
  if (!found) return ERR_GENERAL;
  value = *found;
  return OK;
}

unsigned int CConfigFile::WriteKeyValue(const std::string& key, const std::string& value, int /*section*/,
                                        int /*index*/) {
  if (key.empty()) return OK;
  const CCancellationGuard noCancel;
  const fs::path path = Locate(m_FileName);
  auto text = ReadFile(path);
  if (!text && errno == ENOENT) text.emplace();
  if (!text || !Parse(*text)) return ERR_DEVICE_IO;
  const std::string replaced = ReplaceKey(*text, key, value);
  // Reading it back refuses what a line cannot hold: a line break, a key with "=" or one that begins a
  // comment.
  if (FindKey(replaced, key) != value) return ERR_DEVICE_IO;
  return ReplaceFile(path.string(), replaced, NEW_FILE_MODE) ? OK : ERR_DEVICE_IO;
}

unsigned int CConfigFile::WriteKeyValue(const std::string& key, int value, int section, int index) {
  return WriteKeyValue(key, std::to_string(value), section, index);
}

}  // namespace PI

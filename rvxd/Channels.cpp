#include "rvxd/Channels.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <boost/locale/encoding_utf.hpp>
#include <cerrno>
#include <cstring>
#include <functional>
#include <regex>
#include <sstream>

#include "host/Values.h"
#include "libraries/common/FileDescriptor.h"

namespace Rvxd {

namespace {

namespace fs = boost::filesystem;

constexpr std::size_t FILE_LIMIT = 64U << 10;
constexpr Milliseconds SECOND = 1000;
constexpr unsigned int LINK_LIMIT = 40;  ///< as the kernel's
constexpr Milliseconds LEAST_REMINDER = 3600 * SECOND;

/// A person's mistake in a channel's file.
struct CMistake : std::runtime_error {
  using std::runtime_error::runtime_error;
};

enum class ESafe { FROM_WRITING, FROM_READING };

/// The text of a file that nobody but root, or whoever runs this, may write to; with FROM_READING nobody else
/// may read it either. Throws CMistake.
std::string ReadSafely(const std::string& path, ESafe safe) {
  const KVT::Internal::CFileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat facts {};
  if (!file.IsOpen() || ::fstat(file.Get(), &facts) != 0) throw CMistake(path + ": " + std::strerror(errno));
  if (!S_ISREG(facts.st_mode)) throw CMistake(path + " is no file");
  if (facts.st_uid != 0 && facts.st_uid != ::geteuid())
    throw CMistake(path + " belongs to somebody else: 'chown root " + path + "'");
  if ((facts.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    throw CMistake("others may write to " + path + ": 'chmod go-w " + path + "'");
  if (safe == ESafe::FROM_READING && (facts.st_mode & (S_IRGRP | S_IROTH)) != 0)
    throw CMistake("others may read the secret in " + path + ": 'chmod 600 " + path + "'");
  std::string text(FILE_LIMIT + 1, '\0');
  const ssize_t size = ::read(file.Get(), text.data(), text.size());
  if (size < 0) throw CMistake(path + ": " + std::strerror(errno));
  if (static_cast<std::size_t>(size) > FILE_LIMIT) throw CMistake(path + " has more than 64 KiB");
  text.resize(static_cast<std::size_t>(size));
  try {  // other bytes would arrive as other bytes, and an address lead elsewhere
    boost::locale::conv::utf_to_utf<char>(text, boost::locale::conv::stop);
  } catch (const boost::locale::conv::conversion_error&) {
    throw CMistake(path + " is not written in UTF-8");
  }
  return text;
}

std::string Absolute(const std::string& path) {
  if (!path.starts_with("/")) throw CMistake("the path does not begin with a slash");
  return path;
}

/// What runs or is read with our rights is nobody else's to change: a file, the folders above it, and all
/// that links on the way lead through.
/// @param harm what comes of it otherwise
void RequireOurs(const fs::path& path, const std::string& harm, unsigned int links = 0) {
  if (links > LINK_LIMIT) throw CMistake(path.string() + ": " + std::strerror(ELOOP));
  fs::path way;
  for (auto part = path.begin(); part != path.end(); ++part) {
    way /= *part;
    struct stat facts {};
    if (::lstat(way.c_str(), &facts) != 0) throw CMistake(way.string() + ": " + std::strerror(errno));
    const bool isTheirs = facts.st_uid != 0 && facts.st_uid != ::geteuid();
    // In a folder such as /tmp nobody can put another file in the place of one that is ours.
    const bool isSticky = S_ISDIR(facts.st_mode) && (facts.st_mode & S_ISVTX) != 0;
    const bool isLink = S_ISLNK(facts.st_mode);
    if (isTheirs || (!isSticky && !isLink && (facts.st_mode & (S_IWGRP | S_IWOTH)) != 0))
      throw CMistake("others may change " + way.string() + ", and " + harm + ": 'chown root " + way.string() +
                     "' and 'chmod go-w " + way.string() + "'");
    if (!isLink) continue;
    boost::system::error_code error;
    const fs::path target = fs::read_symlink(way, error);
    if (error) throw CMistake(way.string() + ": " + error.message());
    fs::path whole = target.is_absolute() ? target : way.parent_path() / target;
    while (++part != path.end()) whole /= *part;
    return RequireOurs(whole, harm, links + 1);
  }
}

/// The same of a file that a channel's file names, wherever that is: it may hold a secret.
std::string ReadNamed(const std::string& path) {
  RequireOurs(Absolute(path), "what " + path + " says would be theirs");
  return ReadSafely(path, ESafe::FROM_READING);
}

/// In a mail or a request it would begin a line of its own, or end an address.
bool HasControl(const std::string& line) {
  return std::ranges::any_of(line, [](unsigned char c) { return (c < ' ' && c != '\t') || c == 127; });
}

std::string Trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

std::vector<std::string> Listed(const std::string& text) {
  std::vector<std::string> words;
  std::string spaced = text;
  std::ranges::replace(spaced, ',', ' ');
  std::istringstream stream(spaced);
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

/// "30s", "5min", "2h", "1d".
Milliseconds Duration(const std::string& text) {
  static const std::regex form("([0-9]{1,6})(s|min|h|d)");
  std::smatch parts;
  if (!std::regex_match(text, parts, form))
    throw CMistake("\"" + text + "\" is no time such as 30s, 5min, 2h or 1d");
  const std::string unit = parts[2];
  return std::stoul(parts[1]) * SECOND * (unit == "s" ? 1 : unit == "min" ? 60 : unit == "h" ? 3600 : 86400);
}

std::optional<Milliseconds> DurationOrNo(const std::string& text) {
  return text == "no" ? std::nullopt : std::optional(Duration(text));
}

/// Addresses as every mail program takes them.
std::string Ascii(const std::string& text) {
  if (std::ranges::any_of(text, [](unsigned char c) { return c >= 127; }))
    throw CMistake("an address is written in ASCII, without a name that is not");
  return text;
}

std::string Url(const std::string& url) {
  if (!url.starts_with("http://") && !url.starts_with("https://"))
    throw CMistake("the address does not begin with http:// or https://");
  if (HasControl(url)) throw CMistake("the address is more than one line of text");
  return url;
}

/// Where an address leads, without what may be secret in it.
std::string HostOf(const std::string& url) {
  const std::size_t host = url.find("//") + 2, end = url.find_first_of("/?#", host);
  // Such a character in a password ends the host too early.
  if (end != std::string::npos && url.find('@', end) != std::string::npos) return url.substr(0, host) + "...";
  std::string text = url.substr(host, end - host);
  return url.substr(0, host) + text.substr(text.rfind('@') == std::string::npos ? 0 : text.rfind('@') + 1);
}

/// A file's lines, as they are taken in.
class CReader {
 public:
  explicit CReader(std::string path) : m_Path(std::move(path)) {}

  SChannel Read() {
    m_Channel.m_Limit = 30 * SECOND;
    m_Channel.m_Interval = 300 * SECOND;
    std::size_t number = 0;
    try {
      std::istringstream lines(ReadSafely(m_Path, ESafe::FROM_WRITING));
      for (std::string line; std::getline(lines, line);) {
        ++number;
        line = Trimmed(line);
        if (line.empty() || line.starts_with("#")) continue;
        if (HasControl(line)) throw CMistake("there is a control character in it");
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) throw CMistake("it is not of the form \"key = value\"");
        Take(Trimmed(line.substr(0, equals)), Trimmed(line.substr(equals + 1)));
      }
      number = 0;
      Complete();
    } catch (const CMistake& mistake) {
      m_Channel.m_Refusal =
          m_Path + (number == 0 ? "" : " line " + std::to_string(number)) + ": " + mistake.what();
    }
    return m_Channel;
  }

 private:
  void Take(const std::string& key, const std::string& value) {
    struct SKey {
      const char* m_Name;
      const char* m_Types;  ///< of channels that have it
      std::function<void(CReader&, const std::string&)> m_Take;
    };
    const auto put = [](const char* name) {
      return [name](CReader& reader, const std::string& text) { reader.m_Channel.m_Settings[name] = text; };
    };
    static const SKey KEYS[] = {
        {"severity", "journal mail program webhook",
         [](CReader& reader, const std::string& text) {
           if (text != "warning" && text != "critical") throw CMistake("\"severity\" is warning or critical");
           reader.Policy().m_Severity = text == "critical" ? Host::EHealth::CRITICAL : Host::EHealth::WARNING;
         }},
        {"conditions", "journal mail program webhook",
         [](CReader& reader, const std::string& text) { reader.Policy().m_Conditions = Listed(text); }},
        {"objects", "journal mail program webhook",
         [](CReader& reader, const std::string& text) { reader.Policy().m_Objects = Listed(text); }},
        {"delay", "journal mail program webhook",
         [](CReader& reader, const std::string& text) { reader.Policy().m_Delay = Duration(text); }},
        {"cleared", "journal mail program webhook",
         [](CReader& reader, const std::string& text) { reader.Policy().m_Cleared = DurationOrNo(text); }},
        {"reminder", "journal mail program webhook",
         [](CReader& reader, const std::string& text) {
           reader.Policy().m_Reminder = DurationOrNo(text);
           if (reader.Policy().m_Reminder.value_or(LEAST_REMINDER) < LEAST_REMINDER)
             throw CMistake("a reminder comes once an hour at most");
         }},
        {"timeout", "mail program webhook heartbeat",
         [](CReader& reader, const std::string& text) {
           reader.m_Channel.m_Limit = std::clamp(Duration(text), SECOND, 300 * SECOND);
         }},
        {"interval", "heartbeat",
         [](CReader& reader, const std::string& text) {
           reader.m_Channel.m_Interval = std::max(Duration(text), SECOND);
         }},
        {"to", "mail",
         [](CReader& reader, const std::string& text) {
           reader.m_Channel.m_Settings["to"] = Ascii(Host::Joined(Listed(text)));
         }},
        {"from", "mail",
         [](CReader& reader, const std::string& text) { reader.m_Channel.m_Settings["from"] = Ascii(text); }},
        {"sendmail", "mail",
         [](CReader& reader, const std::string& text) {
           reader.m_Channel.m_Settings["program"] = Absolute(text);
         }},
        {"program", "program",
         [](CReader& reader, const std::string& text) {
           reader.m_Channel.m_Settings["program"] = Absolute(text);
         }},
        {"url", "webhook heartbeat",
         [](CReader& reader, const std::string& text) {
           ReadSafely(reader.m_Path, ESafe::FROM_READING);  // an address may be all that it takes
           reader.m_Channel.m_Settings["url"] = Url(text);
         }},
        {"url-file", "webhook heartbeat",
         [](CReader& reader, const std::string& text) {
           reader.m_Channel.m_Settings["url"] = Url(Trimmed(ReadNamed(text)));
         }},
        {"header", "webhook",
         [](CReader& reader, const std::string& text) {
           ReadSafely(reader.m_Path, ESafe::FROM_READING);
           reader.AddHeader(text);
         }},
        {"header-file", "webhook",
         [](CReader& reader, const std::string& text) { reader.AddHeader(Trimmed(ReadNamed(text))); }},
        {"template", "webhook",
         [](CReader& reader, const std::string& text) {
           reader.m_Channel.m_Settings["template"] = ReadNamed(text);
         }},
        {"content-type", "webhook", put("content-type")},
    };
    if (key == "type") {
      const auto types = Listed("journal mail program webhook heartbeat");
      if (std::ranges::find(types, value) == types.end())
        throw CMistake("\"type\" is journal, mail, program, webhook or heartbeat");
      m_Channel.m_Type = value;
      return;
    }
    if (m_Channel.m_Type.empty())
      throw CMistake("\"type\" comes first: journal, mail, program, webhook or heartbeat");
    const auto known = std::ranges::find(KEYS, key, &SKey::m_Name);
    const auto types = known == std::end(KEYS) ? std::vector<std::string>() : Listed(known->m_Types);
    if (std::ranges::find(types, m_Channel.m_Type) == types.end()) {
      std::string others;
      for (const SKey& one : KEYS)
        if (const auto of = Listed(one.m_Types); std::ranges::find(of, m_Channel.m_Type) != of.end())
          others += (others.empty() ? "" : ", ") + std::string(one.m_Name);
      // What is no word at all may be a secret that lost its key.
      const bool isWord = key.find_first_not_of("abcdefghijklmnopqrstuvwxyz-") == std::string::npos;
      throw CMistake((isWord ? "\"" + key + "\" is" : std::string("it has")) + " no key of type " +
                     m_Channel.m_Type + ": " + others);
    }
    known->m_Take(*this, value);
  }

  void Complete() {
    Json& settings = m_Channel.m_Settings;
    const std::string& type = m_Channel.m_Type;
    if (type.empty()) throw CMistake("\"type\" is missing: journal, mail, program, webhook or heartbeat");
    if (type == "mail") {
      if (!settings.contains("to")) throw CMistake("\"to\" is missing: who gets the mail");
      if (!settings.contains("program")) settings["program"] = "/usr/sbin/sendmail";
      m_Channel.m_Target = settings["to"];
    }
    if (type == "program" && !settings.contains("program"))
      throw CMistake("\"program\" is missing: its path");
    if (type == "mail" || type == "program") RequireSafe(settings["program"]);
    if (type == "program") m_Channel.m_Target = settings["program"];
    if (type == "webhook" || type == "heartbeat") {
      if (!settings.contains("url")) throw CMistake("\"url\" is missing, or \"url-file\": where to send it");
      m_Channel.m_Target = HostOf(settings["url"]);
    }
  }

  static void RequireSafe(const std::string& program) {
    RequireOurs(program, program + " would run with the rights of rvxd");
    struct stat facts {};
    if (::stat(program.c_str(), &facts) != 0) throw CMistake(program + ": " + std::strerror(errno));
    if (!S_ISREG(facts.st_mode) || ::access(program.c_str(), X_OK) != 0)
      throw CMistake(program + " cannot be run");
  }

  void AddHeader(const std::string& header) {
    if (header.find(':') == std::string::npos || HasControl(header))
      throw CMistake("a header is one line of the form \"Name: value\"");
    m_Channel.m_Settings["headers"].push_back(header);
  }

  SPolicy& Policy() { return m_Channel.m_Policy; }

  const std::string m_Path;
  SChannel m_Channel;
};

}  // namespace

Channels ReadChannels(const std::string& folder) {
  Channels channels;
  boost::system::error_code error;
  fs::directory_iterator entry(folder, error);
  for (const fs::directory_iterator end; !error && entry != end; entry.increment(error))
    // Editors keep what they work on beside it.
    if (const fs::path file = entry->path();
        file.extension() == ".conf" && !file.filename().string().starts_with("."))
      channels[file.stem().string()] = CReader(file.string()).Read();
  if (error && error != boost::system::errc::no_such_file_or_directory && !folder.empty())
    throw std::runtime_error(folder + ": " + error.message());
  // Always, unless a file says how.
  const auto isJournal = [](const auto& one) {
    return one.second.m_Type == "journal" && one.second.m_Refusal.empty();
  };
  if (std::ranges::none_of(channels, isJournal)) {
    SChannel journal{"journal"};
    journal.m_Limit = 30 * SECOND;
    channels.try_emplace(channels.contains("journal") ? "system-journal" : "journal", std::move(journal));
  }
  return channels;
}

}  // namespace Rvxd

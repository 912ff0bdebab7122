#include "rvxd/Feed.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>

#include "PI/Numbers.h"
#include "host/Values.h"
#include "rvxd/Document.h"

namespace Rvxd {

namespace {

constexpr char FILE_NAME[] = "/events.jsonl";
constexpr char OLDER_NAME[] = "/events.1.jsonl";
constexpr std::size_t JOURNAL_LIMIT = 5U << 20;
constexpr std::size_t EVENT_LIMIT = 8192;
constexpr std::size_t NOTICE_LIMIT = 512;
constexpr std::size_t FRAMES_LIMIT = 64U << 10;
constexpr std::chrono::seconds BEAT{5};
/// The plug-in says the same again with each pass, which are 255 s apart at most.
constexpr std::uint64_t REPEAT_LIMIT = 600'000;
/// After an end that was none, events may have been told that the disk does not have: their numbers are not
/// given again.
constexpr std::uint64_t SKIP = 1000;
constexpr std::size_t EPOCH_SIZE = 8;
/// What every client can count to.
constexpr std::uint64_t NUMBER_LIMIT = std::uint64_t{1} << 53;

bool Repeats(unsigned int code) {
  return code == PI::EVT_FAILED_DRIVE_IN_USE || code == PI::EVT_USED_DRIVE_OFFLINE ||
         code == PI::EVT_LOGICALDRIVE_OK;
}

std::string Dumped(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

/// Whom it is about: an array that is gone, or a disk that the adapter speaks of, stands in the placeholders.
std::string NameIn(const Json& event) {
  const Json name = event.value("objectName", Json(nullptr));
  if (name.is_string() && name != "adapter") return name;
  for (const Json& text : event.value("placeholders", Json::array()))
    if (text.is_string() && !text.get_ref<const std::string&>().empty()) return text;
  return name.is_string() ? name.get<std::string>() : event.value("object", "");
}

/// Whether a later event ends what an earlier one about the same object began.
bool Ends(unsigned int later, unsigned int earlier) {
  const auto isOneOf = [](unsigned int code, std::initializer_list<unsigned int> codes) {
    return std::ranges::find(codes, code) != codes.end();
  };
  switch (later) {
    case PI::EVT_RESYNC_COMPLETED:
    case PI::EVT_RESYNC_ABORTED:
      return earlier == PI::EVT_RESYNC_STARTED;
    case PI::EVT_REBUILD_COMPLETED:
    case PI::EVT_REBUILD_ABORTED:
      return earlier == PI::EVT_REBUILD_STARTED;
    case PI::EVT_LOGICALDRIVE_OK:
    case PI::EVT_LOGICALDRIVE_ADDED:
    case PI::EVT_LOGICALDRIVE_DELETED:
      return isOneOf(earlier, {PI::EVT_LOGICALDRIVE_DEGRADED, PI::EVT_LOGICALDRIVE_FAILED,
                               PI::EVT_RESYNC_STARTED, PI::EVT_REBUILD_STARTED});
    case PI::EVT_LOGICALDRIVE_DEGRADED:
      return isOneOf(earlier, {PI::EVT_LOGICALDRIVE_OK, PI::EVT_LOGICALDRIVE_FAILED});
    case PI::EVT_LOGICALDRIVE_FAILED:
      return isOneOf(earlier, {PI::EVT_LOGICALDRIVE_OK, PI::EVT_LOGICALDRIVE_DEGRADED});
    case PI::EVT_PHYSICALDRIVE_ADDED:
    case PI::EVT_PHYSICALDRIVE_REMOVED:
    case PI::EVT_FAILED_DRIVE_READY:
    case PI::EVT_USED_DRIVE_READY:
      return isOneOf(earlier, {PI::EVT_READY_DRIVE_OFFLINE, PI::EVT_READY_DRIVE_IN_USE,
                               PI::EVT_FAILED_DRIVE_IN_USE, PI::EVT_USED_DRIVE_OFFLINE});
    default:
      return false;
  }
}

std::string RepeatKey(const Json& event) {
  return std::to_string(event.value("code", 0U)) + " " + NameIn(event);
}

std::string NewEpoch() {
  std::array<char, EPOCH_SIZE + 1> text{};
  std::snprintf(text.data(), text.size(), "%08x", static_cast<unsigned int>(std::random_device()()));
  return text.data();
}

/// A number that the journal tells; 0: it tells none.
std::uint64_t NumberIn(const Json& line, const char* key) {
  const Json number = line.value(key, Json());
  return number.is_number_unsigned() && number <= NUMBER_LIMIT ? number.get<std::uint64_t>() : 0;
}

/// The identifier of a line that is an event, with all that is read of it again.
std::optional<std::pair<std::string, std::uint64_t>> EventIn(const Json& line) {
  using Type = Json::value_t;
  for (const auto& [key, type] : {std::pair{"id", Type::string},
                                  {"code", Type::number_unsigned},
                                  {"severity", Type::number_unsigned},
                                  {"object", Type::string},
                                  {"count", Type::number_unsigned}})
    if (line.value(key, Json()).type() != type) return std::nullopt;
  auto id = ParseEventID(line["id"]);
  return id && id->second != 0 && id->second <= NUMBER_LIMIT ? id : std::nullopt;
}

/// The documents of a file's whole lines, and how many bytes these are. Others are nothing: somebody has
/// written into it, or the disk has.
struct SLines {
  explicit SLines(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    for (std::string line; std::getline(file, line) && !file.eof();) {
      m_Bytes += line.size() + 1;
      if (Json json = Parsed(line); json.is_object()) m_Lines.push_back(std::move(json));
    }
  }
  /// The epoch, as the first line tells it, or the first event; empty: it is no journal.
  std::string Epoch() const {
    for (const Json& line : m_Lines) {
      const Json epoch = line.value("epoch", Json());
      if (epoch.is_string() && ParseEventID(epoch.get<std::string>() + "-0")) return epoch;
      if (const auto id = EventIn(line)) return id->first;
    }
    return {};
  }

  std::vector<Json> m_Lines;
  std::size_t m_Bytes{0};
};

}  // namespace

std::optional<std::pair<std::string, std::uint64_t>> ParseEventID(const std::string& id) {
  const std::size_t dash = id.find('-');
  if (dash != EPOCH_SIZE || id.find_first_not_of("0123456789abcdef") != dash) return std::nullopt;
  std::uint64_t number = 0;
  const char* const end = id.data() + id.size();
  const auto [rest, error] = std::from_chars(id.data() + dash + 1, end, number);
  if (error != std::errc() || rest != end || rest == id.data() + dash + 1) return std::nullopt;
  return std::pair(id.substr(0, dash), number);
}

CFeed::CFeed(const std::string& folder, CCounters& counters) : m_Folder(folder), m_Counters(counters) {
  Load();
}

void CFeed::Close() {
  const std::lock_guard lock(m_Mutex);
  if (!std::exchange(m_Closed, true) && m_WriteError.empty()) Write(R"({"closed":true})", true);
}

void CFeed::Load() {
  const std::string path = m_Folder + FILE_NAME;
  const SLines current(path);
  const std::string epoch = current.Epoch();
  if (epoch.empty()) {
    m_Epoch = NewEpoch();
    Begin(1);
    return;
  }
  m_Epoch = epoch;
  const SLines older(m_Folder + OLDER_NAME);
  bool isBegun = false, isClosed = false;
  for (const SLines* const lines : {&older, &current}) {
    if (lines->Epoch() != epoch) continue;
    for (const Json& line : lines->m_Lines) {
      const auto id = EventIn(line);
      const std::uint64_t first = id ? id->second : NumberIn(line, "next");
      if (first != 0 && (!isBegun || (m_Events.empty() && first <= m_First))) {
        m_First = first - 1;
        isBegun = true;
      }
      isClosed = line.contains("closed");
      m_Last = std::max(m_Last.load(), NumberIn(line, "skipped"));
      if (id && id->first == epoch && id->second > m_Last) Push(id->second, line);
    }
  }
  m_Last = std::max(m_Last.load(), m_First);
  m_File = KVT::Internal::CFileDescriptor(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW));
  m_Written = current.m_Bytes;
  if (!m_File.IsOpen() || ::ftruncate(m_File.Get(), static_cast<off_t>(m_Written)) != 0) {
    m_WriteError = path + ": " + std::strerror(errno);
    return;
  }
  if (isClosed) return;
  m_Last += SKIP;
  Write(Dumped({{"skipped", m_Last.load()}}), true);
}

void CFeed::Begin(std::uint64_t next) {
  const std::string path = m_Folder + FILE_NAME;
  m_File = KVT::Internal::CFileDescriptor(::open(
      path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  m_Written = 0;
  if (!m_File.IsOpen())
    m_WriteError = path + ": " + std::strerror(errno);
  else
    Write(Dumped({{"epoch", m_Epoch}, {"next", next}}), true);
}

void CFeed::Write(const std::string& line, bool sync) {
  const std::string whole = line + "\n";
  const ssize_t written = ::write(m_File.Get(), whole.data(), whole.size());
  if (written == static_cast<ssize_t>(whole.size()) && (!sync || ::fdatasync(m_File.Get()) == 0)) {
    m_Written += whole.size();
    m_WriteError.clear();
    return;
  }
  m_WriteError = m_Folder + FILE_NAME + ": " + (written < 0 ? std::strerror(errno) : "the disk is full");
  // A part of a line would take the next one with it.
  if (::ftruncate(m_File.Get(), static_cast<off_t>(m_Written)) != 0) m_WriteError += ", and its end is torn";
}

void CFeed::Push(std::uint64_t number, const Json& event) {
  m_Last = number;
  m_Events.push_back({number, event.value("code", 0U), event.value("severity", 0U), NameIn(event),
                      std::make_shared<const std::string>(Dumped(event))});
  if (Repeats(event.value("code", 0U)))
    m_Repeats[RepeatKey(event)] = {number, Host::NowMilliseconds()};
  else
    DropRepeats(NameIn(event));
  if (m_Events.size() <= EVENT_LIMIT) return;
  m_First = m_Events.front().m_Number;
  m_Events.pop_front();
}

void CFeed::Count(std::uint64_t number, const Json& event) {
  const auto kept = std::ranges::lower_bound(m_Events, number, {}, &SEvent::m_Number);
  if (kept == m_Events.end() || kept->m_Number != number) return;
  Json counted = Json::parse(*kept->m_Json);
  counted["count"] = counted.value("count", 1UL) + 1;
  counted["last"] = event["time"];
  kept->m_Json = std::make_shared<const std::string>(Dumped(counted));
}

void CFeed::DropRepeats(const std::string& name) {
  std::erase_if(m_Repeats, [&](const auto& one) { return one.first.ends_with(" " + name); });
}

void CFeed::EndRepeats(const std::string& name) {
  const std::lock_guard lock(m_Mutex);
  DropRepeats(name);
}

bool CFeed::Fold(const Json& event, std::uint64_t now) {
  const auto repeat = m_Repeats.find(RepeatKey(event));
  if (repeat == m_Repeats.end() || now > repeat->second.m_Last + REPEAT_LIMIT) return false;
  repeat->second.m_Last = now;
  Count(repeat->second.m_Number, event);
  return true;
}

bool CFeed::FoldFound(const Json& event) {
  const std::string name = NameIn(event);
  const auto code = event.value("code", 0U);
  for (auto earlier = m_Events.rbegin(); earlier != m_Events.rend(); ++earlier) {
    if (earlier->m_Object != name) continue;
    if (earlier->m_Code == code) {
      Count(earlier->m_Number, event);
      return true;
    }
    if (Ends(earlier->m_Code, code)) return false;
  }
  return false;
}

void CFeed::Add(Json event, std::uint64_t now, EFound found) {
  {
    const std::lock_guard lock(m_Mutex);
    if (Fold(event, now) || (found == EFound::AT_START && FoldFound(event))) return;
    const std::uint64_t number = m_Last + 1;
    Json whole = {{"id", IdOf(number)}};
    whole.update(event);
    whole["count"] = 1;
    whole["last"] = event["time"];
    const bool isMoved = m_Written > JOURNAL_LIMIT &&
                         ::rename((m_Folder + FILE_NAME).c_str(), (m_Folder + OLDER_NAME).c_str()) == 0;
    if (isMoved || !m_File.IsOpen()) Begin(number);  // also where the last beginning failed
    // On the disk before anybody is told: an identifier that a client has seen is known after a restart.
    Write(Dumped(whole), event.value("severity", 0U) >= PI::SEV_WARNING);
    Push(number, whole);
    m_Counters.Count("rvx_events_total", {{"code", std::to_string(whole.value("code", 0U))},
                                          {"severity", whole.value("severityKey", "")}});
  }
  m_News.notify_all();
}

void CFeed::Notify(const std::string& type, const Json& data) {
  {
    const std::lock_guard lock(m_Mutex);
    m_Notices.push_back({++m_LastNotice, type, std::make_shared<const std::string>(Dumped(data))});
    if (m_Notices.size() > NOTICE_LIMIT) m_Notices.pop_front();
  }
  m_News.notify_all();
}

void CFeed::Stop() {
  {
    const std::lock_guard lock(m_Mutex);
    m_Stopped = true;
  }
  m_News.notify_all();
}

std::string CFeed::Cursor() const {
  const std::lock_guard lock(m_Mutex);
  return IdOf(m_Last);
}

std::string CFeed::WriteError() const {
  const std::lock_guard lock(m_Mutex);
  return m_WriteError;
}

std::optional<std::uint64_t> CFeed::NumberOf(const std::string& since) const {
  if (since.empty()) return m_First;
  if (since == "now") return m_Last;
  const auto id = ParseEventID(since);
  if (!id || id->first != m_Epoch) return std::nullopt;
  if (id->second == m_Last || id->second == m_First) return id->second;
  const auto found = std::ranges::lower_bound(m_Events, id->second, {}, &SEvent::m_Number);
  if (found == m_Events.end() || found->m_Number != id->second) return std::nullopt;
  return id->second;
}

SEventPage CFeed::Page(const std::string& since, std::size_t limit, const SEventFilter& filter) const {
  const std::lock_guard lock(m_Mutex);
  SEventPage page;
  const auto number = NumberOf(since);
  page.m_Reset = !number;
  std::uint64_t last = number.value_or(m_First);
  for (auto event = std::ranges::upper_bound(m_Events, last, {}, &SEvent::m_Number); event != m_Events.end();
       ++event) {
    const bool isMeant = event->m_Severity >= filter.m_Severity &&
                         (filter.m_Object.empty() || filter.m_Object == event->m_Object);
    if (isMeant && page.m_Events.size() == limit) {
      page.m_More = true;
      break;
    }
    if (isMeant) page.m_Events.push_back(event->m_Json);
    last = event->m_Number;
  }
  // Behind the last one stands what was skipped, too.
  page.m_Cursor = IdOf(page.m_More ? last : m_Last.load());
  return page;
}

SCursor CFeed::CursorAt(const std::string& since) const {
  const std::lock_guard lock(m_Mutex);
  const auto number = NumberOf(since);
  return {number.value_or(m_Last), m_LastNotice, !number};
}

std::string CFeed::FramesBehind(SCursor& cursor, const SEventFilter& filter) const {
  std::string frames;
  if (cursor.m_Event < m_First) {  // too slow: what it missed is not kept any more
    cursor.m_Event = m_Last;
    cursor.m_Reset = true;
  }
  if (!m_Notices.empty() && cursor.m_Notice + 1 < m_Notices.front().m_Number) {
    cursor.m_Notice = m_LastNotice;
    cursor.m_Reset = true;
  }
  if (std::exchange(cursor.m_Reset, false)) {
    const std::string id = IdOf(cursor.m_Event);
    frames = "event: reset\nid: " + id + "\ndata: " + Dumped({{"cursor", id}}) + "\n\n";
  }
  for (auto event = std::ranges::upper_bound(m_Events, cursor.m_Event, {}, &SEvent::m_Number);
       event != m_Events.end() && frames.size() < FRAMES_LIMIT; ++event) {
    cursor.m_Event = event->m_Number;
    if (event->m_Severity < filter.m_Severity ||
        (!filter.m_Object.empty() && filter.m_Object != event->m_Object))
      continue;
    frames += "event: event\nid: " + IdOf(event->m_Number) + "\ndata: " + *event->m_Json + "\n\n";
  }
  for (const SNotice& notice : m_Notices) {
    if (notice.m_Number <= cursor.m_Notice) continue;
    if (frames.size() >= FRAMES_LIMIT) break;
    cursor.m_Notice = notice.m_Number;
    frames += "event: " + notice.m_Type + "\n";
    // Who goes on behind it has had all events up to this stream's last one.
    if (notice.m_Type != "state") frames += "id: " + IdOf(cursor.m_Event) + "\n";
    frames += "data: " + *notice.m_Json + "\n\n";
  }
  return frames;
}

std::string CFeed::Next(SCursor& cursor, const SEventFilter& filter) const {
  std::unique_lock lock(m_Mutex);
  std::string frames;
  const auto hasNews = [&] {
    if (m_Stopped) return true;
    frames = FramesBehind(cursor, filter);
    return !frames.empty();
  };
  if (!m_News.wait_for(lock, BEAT, hasNews)) return ": beat\n\n";
  return m_Stopped ? std::string() : frames;
}

}  // namespace Rvxd

#pragma once
/// @file
/// What happened: events with lasting identifiers, kept on disk, and beside them what else a stream tells of.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/JsonView.h"
#include "libraries/common/FileDescriptor.h"
#include "rvxd/Counters.h"

namespace Rvxd {

using Host::Json;
using Text = std::shared_ptr<const std::string>;

/// Which events are meant, by what a request says.
struct SEventFilter {
  unsigned int m_Severity{0};  ///< the least
  std::string m_Object{};      ///< the name; empty: of any
};

/// Where a stream is. Each has its own, so that no reader waits for another and none has a queue.
struct SCursor {
  std::uint64_t m_Event{0};   ///< the last one's number
  std::uint64_t m_Notice{0};  ///< the same of what has no lasting identifier
  bool m_Reset{false};        ///< what was asked for is not known: to be told first
};

struct SEventPage {
  std::vector<Text> m_Events{};
  std::string m_Cursor{};  ///< the last one's identifier
  bool m_More{false};
  bool m_Reset{false};
};

enum class EFound { AT_START, LATER };

/// An event's identifier is "EPOCH-NUMBER": the epoch is that of the journal, numbers rise. All functions may
/// be called by any thread.
class CFeed {
 public:
  /// Takes up the journal in the folder, or begins one. A line that is torn is cut off.
  CFeed(const std::string& folder, CCounters& counters);
  ~CFeed() { Close(); }
  CFeed(const CFeed&) = delete;
  CFeed& operator=(const CFeed&) = delete;

  /// Keeps an event (EventJson) and tells it. What is told again is counted, no more: what the plug-in
  /// repeats on every pass, and the states that it finds AT_START as if they were new. `now` is in
  /// milliseconds since 1970.
  void Add(Json event, std::uint64_t now, EFound found);
  /// What was repeated of this array or disk has ended: the next time it is told again.
  void EndRepeats(const std::string& name);
  /// Tells the streams, and keeps nothing: "operation", "condition", "state".
  void Notify(const std::string& type, const Json& data);
  /// Ends all streams and waits.
  void Stop();
  /// Marks the journal as ended in order: nothing comes behind it.
  void Close();

  const std::string& Epoch() const { return m_Epoch; }
  /// The last event's identifier.
  std::string Cursor() const;
  /// Behind `since`: an identifier, "now", or empty for all that are kept.
  SEventPage Page(const std::string& since, std::size_t limit, const SEventFilter& filter) const;

  SCursor CursorAt(const std::string& since) const;
  /// Waits for the frames of what comes behind the cursor, which is moved on; a beat when nothing does.
  /// Empty: the daemon stops.
  std::string Next(SCursor& cursor, const SEventFilter& filter) const;
  /// Who holds it is counted as a stream.
  std::shared_ptr<const void> Streaming() const { return m_Streaming; }
  long Streams() const { return m_Streaming.use_count() - 1; }
  /// The last event's number. It waits for no disk, as all that takes the lock does while a line is written.
  std::uint64_t Last() const { return m_Last; }
  /// Why the journal could not be written to; empty when it could.
  std::string WriteError() const;

 private:
  struct SEvent {
    std::uint64_t m_Number;
    unsigned int m_Code;
    unsigned int m_Severity;
    std::string m_Object;
    Text m_Json;
  };
  struct SNotice {
    std::uint64_t m_Number;
    std::string m_Type;
    Text m_Json;
  };
  /// What is repeated: its event, and when it was last.
  struct SRepeat {
    std::uint64_t m_Number;
    std::uint64_t m_Last;
  };

  void Load();
  void Begin(std::uint64_t next);
  void Write(const std::string& line, bool sync);
  void Push(std::uint64_t number, const Json& event);
  /// An event that is kept was told once more.
  void Count(std::uint64_t number, const Json& event);
  bool Fold(const Json& event, std::uint64_t now);
  void DropRepeats(const std::string& name);
  /// A state that was told before this start, and has not ended since.
  bool FoldFound(const Json& event);
  std::string IdOf(std::uint64_t number) const { return m_Epoch + "-" + std::to_string(number); }
  /// The number behind which `since` asks for; none when that is not known.
  std::optional<std::uint64_t> NumberOf(const std::string& since) const;
  std::string FramesBehind(SCursor& cursor, const SEventFilter& filter) const;

  const std::string m_Folder;
  CCounters& m_Counters;
  const std::shared_ptr<const void> m_Streaming{std::make_shared<char>()};
  mutable std::mutex m_Mutex;
  mutable std::condition_variable m_News;
  std::string m_Epoch;
  std::atomic<std::uint64_t> m_Last{0};  ///< event's number
  std::uint64_t m_First{0};              ///< behind this one nothing is missing
  std::deque<SEvent> m_Events;
  std::uint64_t m_LastNotice{0};
  std::deque<SNotice> m_Notices;
  std::map<std::string, SRepeat> m_Repeats;
  KVT::Internal::CFileDescriptor m_File;
  std::size_t m_Written{0};
  std::string m_WriteError;
  bool m_Stopped{false};
  bool m_Closed{false};
};

/// The epoch and number of "EPOCH-NUMBER"; none when it is not written so.
std::optional<std::pair<std::string, std::uint64_t>> ParseEventID(const std::string& id);

}  // namespace Rvxd

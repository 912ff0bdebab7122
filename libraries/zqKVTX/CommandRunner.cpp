#include "libraries/zqKVTX/CommandRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <mutex>
#include <optional>

#include "KVT/Threading.h"
#include "KVTX/System.h"
#include "libraries/common/FileDescriptor.h"
#include "libraries/common/TextStream.h"
#include "libraries/zqKVT/ErrorLog.h"
#include "libraries/zqKVTX/DeviceRecord.h"

extern "C" {  // glibc 2.36 does not say so itself
#include <sys/pidfd.h>
}

namespace KVTX {
namespace Internal {
namespace {

using KVT::Internal::CCancellationGuard;
using KVT::Internal::CFileDescriptor;
using KVT::Internal::TextStream;

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int OUT_OF_TIME = static_cast<int>(KVT::Threading::WAIT_TIMED_OUT);

/// Milliseconds until then, 0 when that has passed.
int Until(steady_clock::time_point end) {
  const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

/// A child process. Handled by its descriptor: when the server ignores SIGCHLD or reaps every child, the
/// number may be another process's by the time that it is used.
class CChild {
 public:
  CChild(pid_t id, CFileDescriptor handle) : m_ID(id), m_Handle(std::move(handle)) {}

  /// Waits for the end and reaps; none when the time ran out. True when it returned with status 0, and when
  /// others have reaped it: they took the status, and the end alone counts.
  std::optional<bool> Reap(milliseconds time) const {
    const CCancellationGuard noCancel;
    const auto end = steady_clock::now() + time;
    for (pollfd ended{m_Handle.Get(), POLLIN, 0};;) {
      siginfo_t info{};
      if (waitid(P_PIDFD, Number(), &info, WEXITED | WNOHANG) != 0) return true;
      if (info.si_pid != 0) return info.si_code == CLD_EXITED && info.si_status == 0;
      const int left = Until(end);
      if (left == 0) return std::nullopt;
      poll(&ended, 1, left);
    }
  }
  /// Kills it with its group.
  void Kill() const {
    siginfo_t info{};
    if (waitid(P_PIDFD, Number(), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return;
    kill(-m_ID, SIGKILL);  // as long as nobody has reaped it, the group's number is its own
    pidfd_send_signal(m_Handle.Get(), SIGKILL, nullptr, 0);  // it may have left its group
  }

 private:
  id_t Number() const { return static_cast<id_t>(m_Handle.Get()); }

  pid_t m_ID;
  CFileDescriptor m_Handle;
};

/// The children that were killed and did not end, such as one that waits for a dead disk.
class CLeftChildren {
 public:
  /// Why a command is not started: the result it has without, none when it may be. An equal one that is left
  /// would wait for the same thing; and there may not be more than so many.
  std::optional<int> Refuses(const std::string& command, std::size_t most) {
    const std::lock_guard guard(m_Lock);
    std::erase_if(m_Children,
                  [](const SLeft& left) { return left.m_Child.Reap(milliseconds(0)).has_value(); });
    for (const SLeft& left : m_Children)
      if (left.m_Command == command) return OUT_OF_TIME;
    const bool full = m_Children.size() >= most;
    if (full && !m_Told)
      KVT::Internal::LogToolkitError(
          "System", __LINE__,
          "programs that were killed have not ended: no other is started (" + command + ")");
    m_Told = full;
    return full ? std::optional(0) : std::nullopt;
  }
  void Add(CChild child, const std::string& command) {
    const std::lock_guard guard(m_Lock);
    try {
      m_Children.push_back({std::move(child), command});
    } catch (const std::bad_alloc&) {  // destructors add: a zombie is the lesser evil
    }
  }

 private:
  struct SLeft {
    CChild m_Child;
    std::string m_Command;
  };

  std::mutex m_Lock;
  std::vector<SLeft> m_Children;
  bool m_Told{false};
};

/// Never destroyed: threads run programs until the process ends.
CLeftChildren& LeftChildren() {
  static auto* const left = new CLeftChildren;
  return *left;
}

/// Kills a child when the scope ends before the child does.
class CChildGuard {
 public:
  /// `command` must outlive it: a copy could fail, and the child runs already.
  CChildGuard(CChild child, milliseconds killTime, const std::string& command)
      : m_Child(std::move(child)), m_KillTime(killTime), m_Command(command) {}
  CChildGuard(const CChildGuard&) = delete;
  CChildGuard& operator=(const CChildGuard&) = delete;
  ~CChildGuard() {
    if (m_Reaped) return;
    m_Child.Kill();
    if (!m_Child.Reap(m_KillTime)) LeftChildren().Add(std::move(m_Child), m_Command);
  }
  /// How a child that has ended did so, as CChild::Reap says it.
  bool Reap() {
    const std::optional<bool> succeeded = m_Child.Reap(milliseconds(0));
    m_Reaped = succeeded.has_value();
    return succeeded.value_or(false);
  }

 private:
  CChild m_Child;
  milliseconds m_KillTime;
  const std::string& m_Command;
  bool m_Reaped{false};
};

/// What posix_spawn does in the child. The server's signal set-up and whatever descriptors it leaks end here,
/// and the child leads a group of its own so that its children can be killed with it.
class CSpawnSettings {
 public:
  CSpawnSettings(int output, bool withErrors) {
    posix_spawn_file_actions_init(&m_Actions);
    posix_spawn_file_actions_adddup2(&m_Actions, output, STDOUT_FILENO);  // first: `output` may be 0 or 2
    posix_spawn_file_actions_addopen(&m_Actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (withErrors)
      posix_spawn_file_actions_adddup2(&m_Actions, STDOUT_FILENO, STDERR_FILENO);
    else
      posix_spawn_file_actions_addopen(&m_Actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&m_Actions, STDERR_FILENO + 1);

    sigset_t signals;
    posix_spawnattr_init(&m_Attributes);
    posix_spawnattr_setflags(&m_Attributes,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&m_Attributes, 0);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&m_Attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&m_Attributes, &signals);
  }
  ~CSpawnSettings() {
    posix_spawn_file_actions_destroy(&m_Actions);
    posix_spawnattr_destroy(&m_Attributes);
  }
  CSpawnSettings(const CSpawnSettings&) = delete;
  CSpawnSettings& operator=(const CSpawnSettings&) = delete;

  /// The new process, or -1.
  pid_t Spawn(std::vector<std::string> words) const {
    std::array environment{std::string("LC_ALL=C"), std::string("PATH=/usr/sbin:/usr/bin:/sbin:/bin")};
    std::vector<char*> arguments;
    for (auto& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const std::array<char*, 3> variables{environment[0].data(), environment[1].data(), nullptr};
    pid_t id = -1;
    const int error =
        posix_spawn(&id, arguments[0], &m_Actions, &m_Attributes, arguments.data(), variables.data());
    return error == 0 ? id : -1;
  }

 private:
  posix_spawn_file_actions_t m_Actions{};
  posix_spawnattr_t m_Attributes{};
};

enum class EEnd { ByItself, OutOfTime, Otherwise };

/// Appends what there is to the text; false when it cannot be read. At the end of the output `source` is
/// closed to poll().
bool ReadSome(pollfd& source, std::string& text) {
  std::array<char, 4096> buffer;
  const ssize_t got = read(source.fd, buffer.data(), buffer.size());
  if (got > 0) text.append(buffer.data(), static_cast<std::size_t>(got));
  if (got == 0) source.fd = -1;
  return got >= 0 || errno == EINTR;
}

/// Reads until the process has ended and nothing more is there. The process counts, not the end of the
/// output: a grandchild may hold that open for ever. A `process` of -1 has ended and was reaped by others.
EEnd Collect(int output, int process, const SCommandLimits& limits, std::string& text) {
  const auto end = steady_clock::now() + limits.m_Time;
  std::array<pollfd, 2> sources{{{output, POLLIN, 0}, {process, POLLIN, 0}}};
  for (bool ended = process < 0; text.size() <= limits.m_OutputBytes;) {
    const int left = Until(end);
    const bool hadEnded = ended;
    const int ready = poll(sources.data(), sources.size(), hadEnded ? 0 : left);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) break;
    ended = hadEnded || sources[1].revents != 0;
    if (sources[0].revents != 0) {
      if (!ReadSome(sources[0], text)) break;
    } else if (hadEnded) {  // only a look after the end tells that nothing more comes
      return EEnd::ByItself;
    }
    // The process was looked at with no time left too: a server short of processors takes none from it.
    if (left == 0 && !ended) return EEnd::OutOfTime;
  }
  return EEnd::Otherwise;
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  auto stream = TextStream(text);
  for (std::string line; std::getline(stream, line);) {
    if (line.ends_with('\r')) line.pop_back();
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace

SCommandResult RunCommand(const boost::filesystem::path& program, const std::string& arguments,
                          const SCommandLimits& limits) {
  const std::string command = program.string() + ' ' + arguments;
  if (const auto result = LeftChildren().Refuses(command, limits.m_LeftChildren)) return {*result, {}};
  std::vector<std::string> words{program.string()};
  auto stream = TextStream(arguments);
  for (std::string word; stream >> word;) words.push_back(std::move(word));
  const bool withErrors = std::erase(words, "2>&1") != 0;

  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  const CFileDescriptor output(ends[0]);
  CFileDescriptor input(ends[1]);
  const pid_t id = CSpawnSettings(input.Get(), withErrors).Spawn(std::move(words));
  if (id < 0) return {};
  input.Close();  // first: its number is there for the handle when the server has no other left
  CFileDescriptor handle(pidfd_open(id, 0));
  if (!handle.IsOpen() && errno != ESRCH) {
    const CCancellationGuard noCancel;
    kill(-id, SIGKILL);
    while (waitpid(id, nullptr, 0) < 0 && errno == EINTR) {
    }
    return {};
  }
  const int process = handle.Get();
  CChildGuard child(CChild(id, std::move(handle)), limits.m_KillTime, command);

  std::string text;
  const EEnd end = Collect(output.Get(), process, limits, text);
  const bool succeeded = end == EEnd::ByItself && child.Reap();
  const int failed = end == EEnd::OutOfTime ? OUT_OF_TIME : 2;
  return {succeeded ? 1 : failed, SplitLines(text)};
}

}  // namespace Internal

int CSystem::ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                            std::vector<std::string>& lines) {
  constexpr std::string_view RECORD_OF = "info -q all -n ";
  if (program.filename() == "udevadm" && arguments.starts_with(RECORD_OF)) {
    if (auto record = Internal::DeviceRecord(arguments.substr(RECORD_OF.size()))) {
      lines = std::move(*record);
      return 1;
    }
  }
  auto result = Internal::RunCommand(program, arguments, {});
  lines = std::move(result.m_Lines);
  return result.m_Result;
}

}  // namespace KVTX

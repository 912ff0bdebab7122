#include "libraries/zqKVTX/CommandRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <sstream>

#include "KVTX/System.h"
#include "libraries/common/FileDescriptor.h"

namespace KVTX {
namespace Internal {
namespace {

using KVT::Internal::CCancellationGuard;
using KVT::Internal::CFileDescriptor;

/// A child process; killed with its whole group and reaped when it is given up.
class CChild {
 public:
  explicit CChild(pid_t id) : m_ID(id) {}
  CChild(const CChild&) = delete;
  CChild& operator=(const CChild&) = delete;
  ~CChild() {
    if (m_ID == 0) return;
    kill(-m_ID, SIGKILL);
    kill(m_ID, SIGKILL);  // it may have left its group
    Reap();
  }
  /// Waits for the end; true when that was a return with status 0. A server that ignores SIGCHLD or reaps
  /// every child takes the status away: then the end alone counts.
  bool Reap() {
    const CCancellationGuard noCancel;
    int status = 0;
    while (waitpid(m_ID, &status, 0) < 0 && errno == EINTR) {
    }
    m_ID = 0;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

 private:
  pid_t m_ID;
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

struct SOutput {
  std::string m_Text;
  bool m_Ended{false};  ///< the program ended by itself, within the limits
};

/// Reads until the process has ended and nothing more is there. The process counts, not the end of the
/// output: a grandchild may hold that open for ever. A `process` of -1 has ended and was reaped by others.
SOutput Collect(int output, int process, const SCommandLimits& limits) {
  using std::chrono::steady_clock;
  const auto end = steady_clock::now() + limits.m_Time;
  std::array<pollfd, 2> sources{{{output, POLLIN, 0}, {process, POLLIN, 0}}};
  SOutput result;
  while (result.m_Text.size() <= limits.m_OutputBytes) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
    if (left <= 0) break;
    const int ready = poll(sources.data(), sources.size(), process < 0 ? 0 : static_cast<int>(left));
    if (ready == 0 && process < 0) {
      result.m_Ended = true;
      break;
    }
    if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
    if (ready < 0) break;
    if (sources[0].revents != 0) {
      std::array<char, 4096> buffer;
      const ssize_t got = read(output, buffer.data(), buffer.size());
      if (got > 0) result.m_Text.append(buffer.data(), static_cast<std::size_t>(got));
      if (got == 0) sources[0].fd = -1;  // closed; poll passes over it from now on
      if (got < 0 && errno != EINTR) break;
    } else {
      result.m_Ended = true;
      break;
    }
  }
  return result;
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (line.ends_with('\r')) line.pop_back();
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace

SCommandResult RunCommand(const boost::filesystem::path& program, const std::string& arguments,
                          const SCommandLimits& limits) {
  std::vector<std::string> words{program.string()};
  std::istringstream stream(arguments);
  for (std::string word; stream >> word;) words.push_back(std::move(word));
  const bool withErrors = std::erase(words, "2>&1") != 0;

  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  const CFileDescriptor output(ends[0]);
  CFileDescriptor input(ends[1]);
  const pid_t id = CSpawnSettings(input.Get(), withErrors).Spawn(std::move(words));
  if (id < 0) return {};
  CChild child(id);
  input.Close();
  const CFileDescriptor process(static_cast<int>(syscall(SYS_pidfd_open, id, 0)));
  if (!process.IsOpen() && errno != ESRCH) return {};

  const SOutput collected = Collect(output.Get(), process.Get(), limits);
  const bool succeeded = collected.m_Ended && child.Reap();
  return {succeeded ? 1 : 2, SplitLines(collected.m_Text)};
}

}  // namespace Internal

int CSystem::ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                            std::vector<std::string>& lines) {
  auto result = Internal::RunCommand(program, arguments, {});
  lines = std::move(result.m_Lines);
  return result.m_Result;
}

}  // namespace KVTX

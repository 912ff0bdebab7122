/// @file
/// Programs: mail's, and the administrator's own.

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "libraries/common/FileDescriptor.h"
#include "notify/Ways.h"

namespace Notify {

namespace {

using KVT::Internal::CFileDescriptor;

constexpr std::size_t WORDS_LIMIT = 2000;

std::string Trimmed(std::string text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) text.pop_back();
  return text;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

SResult Run(const std::vector<std::string>& words, const std::vector<std::string>& variables,
            const std::string& input) {
  // Files in memory: neither side waits for the other, and what goes on in the background holds nothing up.
  const CFileDescriptor in(::memfd_create("message", MFD_CLOEXEC)), out(::memfd_create("words", MFD_CLOEXEC));
  if (::pwrite(in.Get(), input.data(), input.size(), 0) != static_cast<ssize_t>(input.size()))
    return {false, std::string("no memory for the message: ") + std::strerror(errno)};
  std::vector<std::string> arguments = words, all = variables;
  for (char** one = environ; *one != nullptr; ++one) all.emplace_back(*one);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.Get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.Get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.Get(), STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  pid_t process = 0;
  const int error = ::posix_spawn(&process, words.front().c_str(), &actions, nullptr,
                                  Pointers(arguments).data(), Pointers(all).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return {false, words.front() + " cannot be run: " + std::strerror(error)};
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  std::array<char, WORDS_LIMIT> said{};
  const ssize_t size = ::pread(out.Get(), said.data(), said.size(), 0);
  const std::string text = Trimmed({said.data(), static_cast<std::size_t>(std::max<ssize_t>(0, size))});
  const std::string end = WIFEXITED(status) ? "ended with status " + std::to_string(WEXITSTATUS(status))
                                            : "was ended by signal " + std::to_string(WTERMSIG(status));
  return {WIFEXITED(status) && WEXITSTATUS(status) == 0, words.front() + " " + end, text};
}

std::string TextIn(const Json& json, const char* key) {
  const auto found = json.find(key);
  return found == json.end() || !found->is_string() ? std::string() : found->get<std::string>();
}

SResult ByProgram(const SOrder& order) {
  const Json& message = order.m_Message;
  std::vector<std::string> variables;
  for (const char* const key : {"phase", "level", "host", "object", "condition", "event", "component",
                                "serial", "since", "time", "subject", "text", "next"}) {
    std::string name = "RVX_";
    for (const char* c = key; *c != 0; ++c)
      name += static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
    variables.push_back(name + "=" + TextIn(message, key));
  }
  // As mdadm's monitor calls its program: what happened, the array's device, the member's where there is one.
  const std::string device = TextIn(message, "device"), component = TextIn(message, "component");
  std::vector<std::string> words{TextIn(order.m_Settings, "program"), TextIn(message, "event"),
                                 device.empty() ? TextIn(message, "object") : device};
  if (!component.empty()) words.push_back("/dev/" + component);
  return Run(words, variables, message.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

}  // namespace Notify

#include "Program.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace rvxctl_test {

namespace {

using Clock = std::chrono::steady_clock;

/// Never returns.
void Execute(const Words& words, const SHow& how) {
  for (const auto& [name, value] : how.m_Environment) ::setenv(name.c_str(), value.c_str(), 1);
  if (!how.m_Folder.empty() && ::chdir(how.m_Folder.c_str()) != 0) ::_exit(127);
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execvp(arguments[0], arguments.data());
  ::_exit(127);
}

/// Appends what there is to read; closes at the end.
void Drain(int& descriptor, std::string& text) {
  char buffer[4096];
  const ssize_t size = ::read(descriptor, buffer, sizeof buffer);
  if (size > 0) return void(text.append(buffer, static_cast<std::size_t>(size)));
  ::close(descriptor);  // a terminal answers EIO when its last user is gone
  descriptor = -1;
}

}  // namespace

CProgram::CProgram(const Words& words, const SHow& how) {
  if (how.m_Terminal) {
    m_Process = ::forkpty(&m_Terminal, nullptr, nullptr, nullptr);
    if (m_Process == 0) Execute(words, how);
    m_OutPipe = ::dup(m_Terminal);
    return;
  }
  int out[2];
  int err[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  m_Process = ::fork();
  if (m_Process == 0) {
    const int output = how.m_Output.empty() ? out[1] : ::open(how.m_Output.c_str(), O_WRONLY | O_CLOEXEC);
    ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(err[1], STDERR_FILENO);
    Execute(words, how);
  }
  ::close(out[1]);
  ::close(err[1]);
  m_OutPipe = out[0];
  m_ErrPipe = err[0];
}

CProgram::~CProgram() {
  if (m_Process > 0) {
    ::kill(m_Process, SIGKILL);
    ::waitpid(m_Process, nullptr, 0);
  }
  for (const int descriptor : {m_OutPipe, m_ErrPipe, m_Terminal})
    if (descriptor >= 0) ::close(descriptor);
}

bool CProgram::ReadSome(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
  if ((m_OutPipe < 0 && m_ErrPipe < 0) || left <= 0) return false;
  pollfd both[] = {{m_OutPipe, POLLIN, 0}, {m_ErrPipe, POLLIN, 0}};
  ::poll(both, 2, static_cast<int>(left));
  if (both[0].revents != 0) Drain(m_OutPipe, m_Out);
  if (both[1].revents != 0) Drain(m_ErrPipe, m_Err);
  return true;
}

bool CProgram::ReadUntil(const std::string& text) {
  const auto end = Clock::now() + std::chrono::seconds(60);
  while (m_Out.find(text) == std::string::npos)
    if (!ReadSome(end)) return false;
  return true;
}

void CProgram::Type(const std::string& text) {
  if (::write(m_Terminal, text.data(), text.size()) < 0) throw std::runtime_error("the terminal is gone");
}

void CProgram::Signal(int signal) const { ::kill(m_Process, signal); }

void CProgram::CloseOutput() {
  ::close(m_OutPipe);
  m_OutPipe = -1;
}

int CProgram::Wait(std::chrono::seconds limit) {
  const auto end = Clock::now() + limit;
  while (ReadSome(end)) {
  }
  if (m_OutPipe >= 0 || m_ErrPipe >= 0) return -1;
  int status = 0;
  ::waitpid(m_Process, &status, 0);
  m_Process = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Words RvxctlWords(Words words) {
  const char* const other = std::getenv("RVXCTL");  // one with a fault, whose tests are tried
  words.insert(words.begin(), other != nullptr ? other : RVXCTL);
  return words;
}

SResult Rvxctl(const Words& words, const SHow& how) {
  CProgram program(RvxctlWords(words), how);
  const int status = program.Wait();
  return {status, program.Out(), program.Err()};
}

std::string Simulate(const std::string& machine) {
  return "--simulate=" RVX_SOURCE_DIR "/tests/host/machines/" + machine + ".json";
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace rvxctl_test

#include "Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace {

/// What programs told programs: at the end all of it must be as the schema says.
class CDocuments : public testing::Environment {
 public:
  void Add(const std::string& text) {
    // What rvxd answers is described elsewhere.
    if (text.starts_with("{") && text.find("\"schema\"") < 8) m_All += text;
  }
  void TearDown() override {
    if (m_All.empty()) return;
    const CTemporaryFolder folder;
    CProgram check({"/usr/bin/python3", RVX_SOURCE_DIR "/tests/host/validate.py",
                    RVX_SOURCE_DIR "/docs/schema/rvxctl-2.schema.json", folder.Write("documents", m_All)});
    EXPECT_EQ(check.Wait(), 0) << check.Out() << check.Err();
  }

 private:
  std::string m_All;
};

CDocuments& s_Documents =
    dynamic_cast<CDocuments&>(*testing::AddGlobalTestEnvironment(new CDocuments));  // the framework's own

}  // namespace

CProgram::CProgram(Words words, bool terminal) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const std::string errors = m_Folder.Write("errors", "");
  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  m_Output = pipe[0];
  m_Process = terminal ? ::forkpty(&m_Output, nullptr, nullptr, nullptr) : ::fork();
  if (m_Process == 0) {
    if (!terminal) {
      ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
      ::dup2(pipe[1], STDOUT_FILENO);
      ::dup2(::open(errors.c_str(), O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    }
    ::alarm(60);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
  }
  ::close(pipe[1]);
  if (terminal) ::close(pipe[0]);
}

CProgram::~CProgram() {
  if (m_Process > 0) {
    ::kill(m_Process, SIGKILL);
    ::waitpid(m_Process, nullptr, 0);
  }
  ::close(m_Output);
}

bool CProgram::ReadSome() {
  char buffer[4096];
  const ssize_t size = ::read(m_Output, buffer, sizeof buffer);
  if (size > 0) m_Out.append(buffer, static_cast<std::size_t>(size));
  return size > 0;  // a terminal answers EIO when its last user is gone
}

bool CProgram::ReadUntil(const std::string& text) {
  while (m_Out.find(text) == std::string::npos)
    if (!ReadSome()) return false;
  return true;
}

void CProgram::Type(const std::string& text) const {
  if (::write(m_Output, text.data(), text.size()) < 0) throw std::runtime_error("the terminal is gone");
}

void CProgram::Resize(unsigned short rows, unsigned short columns) const {
  const winsize size{rows, columns, 0, 0};
  if (::ioctl(m_Output, TIOCSWINSZ, &size) != 0) throw std::runtime_error("no terminal");
}

int CProgram::Wait() {
  while (ReadSome()) {
  }
  int status = 0;
  ::waitpid(m_Process, &status, 0);
  m_Process = -1;
  s_Documents.Add(m_Out);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Words RvxctlWords(const Words& words, const Words& surroundings) {
  const char* const other = std::getenv("RVXCTL");  // one with a fault, whose tests are tried
  Words all{"env"};
  all.insert(all.end(), surroundings.begin(), surroundings.end());
  all.emplace_back(other != nullptr ? other : RVXCTL);
  all.insert(all.end(), words.begin(), words.end());
  return all;
}

SResult ResultOf(const Words& words) {
  CProgram program(words);
  const int status = program.Wait();
  return {status, program.Out(), program.Err()};
}

SResult Rvxctl(const Words& words, const Words& surroundings) {
  return ResultOf(RvxctlWords(words, surroundings));
}

std::string Simulate(const std::string& machine) {
  return "--simulate=" RVX_SOURCE_DIR "/tests/host/machines/" + machine + ".json";
}

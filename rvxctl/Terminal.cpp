#include "rvxctl/Terminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <sstream>
#include <vector>

#include "host/Error.h"
#include "host/Printable.h"

namespace Host {

CTerminal::CTerminal(bool tracing) {
  const bool isOpen = ::fcntl(STDOUT_FILENO, F_GETFD) >= 0;
  int spare = ::open("/dev/null", O_RDWR);
  while (spare >= 0 && spare <= STDERR_FILENO) spare = ::open("/dev/null", O_RDWR);
  if (spare >= 0) ::close(spare);
  m_IsTerminal = ::isatty(STDOUT_FILENO) == 1;
  const int own = isOpen ? ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3) : -1;
  m_File = own < 0 ? nullptr : ::fdopen(own, "w");
  const int other = tracing ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (other >= 0) {
    ::dup2(other, STDOUT_FILENO);
    ::close(other);
  }
}

CTerminal::~CTerminal() {
  if (m_File != nullptr) std::fclose(m_File);
}

void CTerminal::RequireOpen() const {
  if (m_File == nullptr) throw CError(EXIT_PLUGIN_ERROR, "standard output is closed");
}

void CTerminal::Print(const std::string& text) {
  m_HasPrinted = true;
  errno = EBADF;
  if (m_File != nullptr && std::fwrite(text.data(), 1, text.size(), m_File) == text.size() &&
      std::fflush(m_File) == 0)
    return;
  const int error = errno;
  throw CError(error == EPIPE ? EXIT_SIGNAL + SIGPIPE : EXIT_PLUGIN_ERROR,
               std::string("cannot write to standard output: ") + std::strerror(error));
}

void CTerminal::PrintDocument(const std::string& text) { Print(IsTerminal() ? Printable(text, true) : text); }

SScreenSize CTerminal::Size() const {
  winsize size{};  // libsmartcols would ask descriptor 1, which is the plug-in's
  if (m_File == nullptr || ::ioctl(::fileno(m_File), TIOCGWINSZ, &size) != 0) return {0, 0};
  return {size.ws_col, size.ws_row};
}

std::string Screen(const std::string& text, SScreenSize size) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  if (size.m_Rows != 0 && lines.size() > size.m_Rows) {
    const std::size_t left = lines.size() - size.m_Rows + 1;
    lines.resize(size.m_Rows - 1);
    lines.push_back("... " + std::to_string(left) + " more lines: 'rvxctl status' shows them");
  }
  std::string screen = "\033[H\033[J";
  for (const std::string& line : lines) {
    if (&line != &lines.front()) screen += "\r\n";  // none behind the last one: the screen would roll
    const bool fits = size.m_Columns == 0 || WidthOf(line) <= size.m_Columns;
    screen += fits ? line : Cut(line, size.m_Columns - 1) + ">";
  }
  return screen;
}

void Confirm(const std::string& question) {
  if (::isatty(STDIN_FILENO) != 1)
    throw CError(EXIT_NOT_CONFIRMED,
                 "nothing was changed: this needs a yes, and there is no terminal to ask on; say --yes");
  ::tcflush(STDIN_FILENO, TCIFLUSH);  // what was typed before the question is no answer to it
  std::cerr << Printable(question) << " [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "Y" && answer != "yes")
    throw CError(EXIT_NOT_CONFIRMED, "nothing was changed");
}

}  // namespace Host

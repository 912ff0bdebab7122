/// @file
/// What the name rvxctl starts: the whole program, but for `status` into a pipe or file where rvxd answers.
/// That one is asked every few seconds by those who watch, and to start the whole with its libraries takes
/// longer than rvxd's answer. It uses C alone, so that nothing but the C library is loaded, and whatever is
/// not as expected is left to the whole.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct SAsked {
  bool m_IsStatus{false};
  bool m_Json{false};
  bool m_OnlyProblems{false};
  const char* m_Socket{nullptr};
};

/// Whether these words, and no others, ask for the status.
bool Parse(int count, char** words, SAsked& asked) {
  for (int i = 1; i < count; ++i) {
    const char* const word = words[i];
    if (std::strcmp(word, "status") == 0 && !asked.m_IsStatus)
      asked.m_IsStatus = true;
    else if (std::strcmp(word, "--json") == 0)
      asked.m_Json = true;
    else if (std::strcmp(word, "--only-problems") == 0)
      asked.m_OnlyProblems = asked.m_IsStatus;  // it belongs behind
    else if (std::strcmp(word, "--socket") == 0 && i + 1 < count && words[i + 1][0] == '/' &&
             asked.m_Socket == nullptr)
      asked.m_Socket = words[++i];
    else if (std::strcmp(word, "--no-color") != 0)
      return false;
  }
  return asked.m_IsStatus;
}

int Connected(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  if (length >= sizeof address.sun_path) return -1;
  std::memcpy(address.sun_path, path, length);  // the rest is zero
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const timeval limit{30, 0};
  if (socket < 0 || ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
      ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (socket >= 0) ::close(socket);
    return -1;
  }
  return socket;
}

/// All that comes until the end, with a zero behind; null when something fails.
char* ReadAll(int socket, std::size_t& size) {
  std::size_t room = 64U << 10;
  static char* text = nullptr;  // it goes with the process
  text = static_cast<char*>(std::malloc(room));
  for (size = 0; text != nullptr;) {
    const ssize_t count = ::read(socket, text + size, room - size - 1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return nullptr;
    size += static_cast<std::size_t>(count);
    text[size] = '\0';
    if (count == 0) return text;
    if (room - size > 1) continue;
    room *= 2;
    text = static_cast<char*>(std::realloc(text, room));
  }
  return nullptr;
}

/// Prints rvxd's status; false when nothing was printed.
bool Show(const SAsked& asked) {
  int socket = -1;
  if (asked.m_Socket != nullptr)
    socket = Connected(asked.m_Socket);
  else if ((socket = Connected("/run/rvx/rvxd.sock")) < 0)
    socket = Connected("/run/rvx/rvxd-ro.sock");
  if (socket < 0) return false;
  // HTTP/1.0 ends with the connection, and has no chunks.
  char request[256];
  const int length =
      std::snprintf(request, sizeof request,
                    "GET /v1/views/status?width=0&form=%s%s HTTP/1.0\r\nAccept: text/plain\r\n\r\n",
                    asked.m_Json ? "json" : "text", asked.m_OnlyProblems ? "&only-problems=1" : "");
  std::size_t size = 0;
  const char* const answer = ::send(socket, request, static_cast<std::size_t>(length), MSG_NOSIGNAL) == length
                                 ? ReadAll(socket, size)
                                 : nullptr;
  if (answer == nullptr || std::strncmp(answer, "HTTP/1.", 7) != 0 ||
      std::strncmp(answer + 8, " 200 ", 5) != 0)
    return false;
  const char* body = std::strstr(answer, "\r\n\r\n");
  const char* const told = std::strstr(answer, "Content-Length: ");
  if (body == nullptr || told == nullptr || told > body) return false;
  body += 4;
  const std::size_t rest = size - static_cast<std::size_t>(body - answer);
  if (std::strtoul(told + 16, nullptr, 10) != rest) return false;  // it was cut off
  for (std::size_t done = 0; done < rest;) {
    const ssize_t count = ::write(STDOUT_FILENO, body + done, rest - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && done == 0) return false;  // the whole says what is wrong with the output
    if (count < 0) {
      std::fprintf(stderr, "rvxctl: cannot write to standard output: %s\n", std::strerror(errno));
      std::exit(EXIT_FAILURE);
    }
    done += static_cast<std::size_t>(count);
  }
  return true;
}

/// Starts the whole program, which lies where the installation has it, seen from this one.
int StartWhole(char** words) {
  char path[PATH_MAX + sizeof RVX_WHOLE];
  const ssize_t length = ::readlink("/proc/self/exe", path, PATH_MAX);
  if (length > 0) {
    path[length] = '\0';
    std::memcpy(std::strrchr(path, '/') + 1, RVX_WHOLE, sizeof RVX_WHOLE);
    ::execv(path, words);
  }
  std::fprintf(stderr, "rvxctl: cannot start %s: %s\n", length > 0 ? path : "the program",
               std::strerror(errno));
  return 9;  // as where the plug-in cannot be loaded
}

}  // namespace

int main(int count, char** words) {
  SAsked asked;
  struct stat out {};
  // What a terminal is shown depends on the terminal.
  if (Parse(count, words, asked) && std::getenv("RVX_PLUGIN") == nullptr &&
      ::fstat(STDOUT_FILENO, &out) == 0 && ::isatty(STDOUT_FILENO) == 0 && Show(asked))
    return EXIT_SUCCESS;
  return StartWhole(words);
}

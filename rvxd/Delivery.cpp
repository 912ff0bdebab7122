#include "rvxd/Delivery.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <list>

#include "host/Installation.h"

namespace Rvxd {

namespace {

using Clock = std::chrono::steady_clock;
using KVT::Internal::CFileDescriptor;

/// Above the limit that the program keeps by itself.
constexpr std::chrono::seconds GRACE{5};
constexpr std::size_t ANSWER_LIMIT = 64U << 10;

/// Those of this process that were given up.
std::list<pid_t>& Ending() {
  static std::list<pid_t> ending;
  return ending;
}

}  // namespace

CDelivery::CDelivery(const std::string& socket, const Json& order, std::chrono::milliseconds limit)
    : m_End(Clock::now() + limit + GRACE),
      m_Order(order.dump(-1, ' ', false, Json::error_handler_t::replace)) {
  if (!Connect(socket)) Spawn();
  Send();
}

CDelivery::~CDelivery() {
  m_Socket.Close();
  if (m_Process == 0) return;
  // What it has left behind goes on behind its answer: a mail program may deliver then.
  if (!m_IsOver) ::kill(-m_Process, SIGKILL);
  Ending().push_back(m_Process);
  Reap();
}

void CDelivery::Reap() {
  std::erase_if(Ending(), [](pid_t process) { return ::waitpid(process, nullptr, WNOHANG) != 0; });
}

void CDelivery::Send() {
  if (!m_Socket.IsOpen() || m_Order.empty()) return;
  const ssize_t sent = ::send(m_Socket.Get(), m_Order.data(), m_Order.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent > 0) m_Order.erase(0, static_cast<std::size_t>(sent));
  if (m_Order.empty()) ::shutdown(m_Socket.Get(), SHUT_WR);  // one that has ended is seen by its answer
}

pollfd CDelivery::Source() const {
  return {m_Socket.Get(), static_cast<short>(m_Order.empty() ? POLLIN : POLLIN | POLLOUT), 0};
}

bool CDelivery::Connect(const std::string& socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socket.empty() || socket.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, socket.c_str(), socket.size() + 1);
  m_Socket = CFileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (::connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    return true;
  m_Socket.Close();
  return false;
}

void CDelivery::Spawn() {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    m_Failure = std::string("rvx-notify cannot be started: ") + std::strerror(errno);
    return;
  }
  m_Socket = CFileDescriptor(pair[0]);
  const CFileDescriptor theirs(pair[1]);
  const std::string program = Host::NotifierPath();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, theirs.Get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, theirs.Get(), STDOUT_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setpgroup(&attributes, 0);
  sigset_t signals;
  ::sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  ::sigaddset(&signals, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
  const int error = ::posix_spawn(&m_Process, program.c_str(), &actions, &attributes, arguments, environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error == 0) return;
  m_Process = 0;
  m_Socket.Close();
  m_Failure = program + " cannot be started: " + std::strerror(error);
}

std::optional<SDelivered> CDelivery::Result() {
  if (!m_Socket.IsOpen()) return SDelivered{false, m_Failure};
  Send();
  char part[4096];
  ssize_t count = 0;
  while ((count = ::recv(m_Socket.Get(), part, sizeof part, MSG_DONTWAIT)) > 0 &&
         m_Answer.size() < ANSWER_LIMIT)
    m_Answer.append(part, static_cast<std::size_t>(count));
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
    if (Clock::now() < m_End) return std::nullopt;
    return SDelivered{false, "rvx-notify does not answer"};
  }
  m_IsOver = true;
  const Json answer = Json::parse(m_Answer, nullptr, false);
  if (!answer.is_object()) return SDelivered{false, "rvx-notify ended without an answer"};
  const auto textIn = [&](const char* key) {
    const Json text = answer.value(key, Json());
    return text.is_string() ? text.get<std::string>() : std::string();
  };
  return SDelivered{answer.value("delivered", Json()) == true, textIn("text"), textIn("said")};
}

}  // namespace Rvxd

#include "rvxd/Sockets.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "host/Error.h"

namespace Rvxd {

namespace {

using KVT::Internal::CFileDescriptor;

[[noreturn]] void Fail(const std::string& what) {
  throw Host::CError(Host::EXIT_PLUGIN_ERROR, what + ": " + std::strerror(errno));
}

/// `mode`: who may connect. It is set before anybody can.
CFileDescriptor Listen(const std::string& path, mode_t mode) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path)
    throw Host::CError(Host::EXIT_USAGE, "the socket's path is too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  CFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.IsOpen()) Fail("no socket");
  if (struct stat old{}; ::lstat(path.c_str(), &old) == 0 && S_ISSOCK(old.st_mode)) {
    const CFileDescriptor other(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(other.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      throw Host::CError(Host::EXIT_BUSY, "another program listens at " + path);
    ::unlink(path.c_str());
  }
  const mode_t mask = ::umask(~mode & (S_IRWXU | S_IRWXG | S_IRWXO));
  const int bound = ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  ::umask(mask);
  if (bound != 0 || ::listen(socket.Get(), SOMAXCONN) != 0) Fail("cannot listen at " + path);
  return socket;
}

/// TCP, for programs of this machine alone.
CFileDescriptor ListenLoopback(const std::string& where) {
  const std::size_t colon = std::min(where.rfind(':'), where.size());
  const std::string host = where.substr(0, colon);
  const std::string number = colon < where.size() ? where.substr(colon + 1) : std::string();
  const char* const end = number.data() + number.size();
  std::uint16_t port = 0;
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  const bool isV6 = host == "[::1]";
  const bool isLoopback = isV6 || (::inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1 &&
                                   ntohl(v4.sin_addr.s_addr) >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET);
  if (!isLoopback || std::from_chars(number.data(), end, port).ptr != end || port == 0)
    throw Host::CError(
        Host::EXIT_USAGE,
        "--metrics takes a loopback address and a port, such as 127.0.0.1:9634 or [::1]:9634, not \"" +
            where + "\"; for other machines let a collector on this one, or ssh, hand them on");
  v4.sin_family = AF_INET;
  v6.sin6_family = AF_INET6;
  v6.sin6_addr = in6addr_loopback;
  v4.sin_port = v6.sin6_port = htons(port);
  CFileDescriptor socket(::socket(isV6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket.IsOpen() && errno == EAFNOSUPPORT)  // it will not be there at the next start either
    throw Host::CError(Host::EXIT_USAGE,
                       "--metrics: the service has no network; 'rvxd-metrics.socket' listens for it");
  const int on = 1;
  const auto* const address =
      isV6 ? reinterpret_cast<const sockaddr*>(&v6) : reinterpret_cast<const sockaddr*>(&v4);
  if (!socket.IsOpen() || ::setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::bind(socket.Get(), address, isV6 ? sizeof v6 : sizeof v4) != 0 ||
      ::listen(socket.Get(), SOMAXCONN) != 0)
    Fail("cannot listen at " + where);
  return socket;
}

}  // namespace

std::string ReadingPath(const std::string& path) {
  constexpr std::string_view END = ".sock";
  return path.ends_with(END) ? path.substr(0, path.size() - END.size()) + "-ro.sock" : path + "-ro";
}

SSockets OpenSockets(const std::string& path, const std::string& metrics) {
  char** names = nullptr;
  const int count = ::sd_listen_fds_with_names(1, &names);
  SSockets sockets;
  for (int i = 0; i < count; ++i) {
    const std::string name = names[i];
    std::free(names[i]);
    CFileDescriptor given(SD_LISTEN_FDS_START + i);
    if (name == "rvxd-ro")
      sockets.m_Reading = std::move(given);
    else if (name == "rvxd")
      sockets.m_Changing = std::move(given);
    else if (name == "rvxd-metrics")
      sockets.m_Metrics = std::move(given);
  }
  std::free(names);
  if (!metrics.empty() && !sockets.m_Metrics.IsOpen()) sockets.m_Metrics = ListenLoopback(metrics);
  if (count > 0) {
    if (!sockets.m_Changing.IsOpen() && !sockets.m_Reading.IsOpen())
      throw Host::CError(Host::EXIT_USAGE,
                         "of the sockets that were handed over none is named rvxd or rvxd-ro");
    return sockets;
  }
  if (path.empty()) throw Host::CError(Host::EXIT_USAGE, "--socket is missing: it says where to listen");
  sockets.m_Where = path;
  sockets.m_Changing = Listen(path, S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP);
  if (const group* const rvx = ::getgrnam("rvx"); rvx != nullptr && ::geteuid() == 0)
    if (::chown(path.c_str(), 0, rvx->gr_gid) != 0) Fail("cannot give " + path + " to the group rvx");
  sockets.m_Reading = Listen(ReadingPath(path), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH);
  return sockets;
}

}  // namespace Rvxd

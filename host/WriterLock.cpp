#include "host/WriterLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "host/Error.h"
#include "host/Printable.h"

namespace Host {

namespace {

/// "rvxd (process 812)", as the holder has written it.
std::string HolderOf(int file) {
  std::array<char, 64> text{};
  const ssize_t count = ::pread(file, text.data(), text.size(), 0);
  if (count <= 0) return "another program";
  return Printable(std::string(text.data(), static_cast<std::size_t>(count)));
}

}  // namespace

KVT::Internal::CFileDescriptor LockWriter(const std::string& file, const std::string& who) {
  ::mkdir(file.substr(0, file.rfind('/')).c_str(), S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH);
  KVT::Internal::CFileDescriptor lock(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock.IsOpen())
    throw CError(EXIT_PLUGIN_ERROR,
                 "cannot open " + file + ": " + std::strerror(errno) + "; it keeps two changes apart");
  if (::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0)
    throw CError(EXIT_BUSY, errno == EWOULDBLOCK ? HolderOf(lock.Get()) + " holds " + file +
                                                       " and alone changes this machine; nothing was done"
                                                 : "cannot lock " + file + ": " + std::strerror(errno));
  const std::string text = who + " (process " + std::to_string(::getpid()) + ")";
  // What stands there is for people alone: the lock holds without it.
  if (::ftruncate(lock.Get(), 0) != 0 || ::pwrite(lock.Get(), text.data(), text.size(), 0) < 0) return lock;
  return lock;
}

}  // namespace Host

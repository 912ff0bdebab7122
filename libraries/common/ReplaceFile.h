#pragma once
/// @file
/// Files that are replaced as a whole or not at all.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "libraries/common/FileDescriptor.h"

namespace KVT::Internal {

inline bool WriteAll(int file, const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const ssize_t written = write(file, text.data() + at, text.size() - at);
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) at += static_cast<std::size_t>(written);
  }
  return true;
}

/// Removes a file that is still there at the end of the scope.
struct STemporaryFile {
  std::string m_Path;
  ~STemporaryFile() {
    if (!m_Path.empty()) unlink(m_Path.c_str());
  }
};

/// Whether a file is on the disk before anybody is told so, and keeps its owner. What is written anew every
/// few seconds need not be, and is its writer's.
enum class ESync { DISK, NONE };

/// Puts a new file in the place of the old one, which stays whole whatever fails (errno tells why). Where
/// only the folder could not be synced, the new one is there, but a power cut may bring the old one back. The
/// new one has the old one's owner and permissions; `mode` is for where there was none.
inline bool ReplaceFile(const std::string& path, const std::string& text, mode_t mode,
                        ESync sync = ESync::DISK) {
  struct stat before {};
  const bool existed = sync == ESync::DISK && stat(path.c_str(), &before) == 0;
  std::string name = path + ".XXXXXX";
  CFileDescriptor file(mkostemp(name.data(), O_CLOEXEC));
  if (!file.IsOpen()) return false;
  STemporaryFile temporary{name};
  if (existed && fchown(file.Get(), before.st_uid, before.st_gid) != 0) return false;
  if (fchmod(file.Get(), existed ? before.st_mode & 07777U : mode) != 0) return false;
  if (!WriteAll(file.Get(), text) || (sync == ESync::DISK && fsync(file.Get()) != 0) || !file.Close())
    return false;
  if (rename(name.c_str(), path.c_str()) != 0) return false;
  temporary.m_Path.clear();
  if (sync == ESync::NONE) return true;
  const CFileDescriptor folder(
      open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.IsOpen() && fsync(folder.Get()) == 0;
}

}  // namespace KVT::Internal

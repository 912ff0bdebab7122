#pragma once
/// @file
/// The plug-in's one door to Linux. With it come the flags of Open, the modes of nodes and device numbers.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>

#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KVTX/System.h"

namespace OS {

/// Everything that the plug-in asks of the machine, in Linux's own terms. Where nothing else is said, -1
/// means failure with the reason in errno, and 0 success. A call that a signal interrupts is repeated: EINTR
/// is never seen. All operations may be called from several threads at once; a descriptor and its position
/// are shared by those that use it. Cancellation points are Open, Read, Write, Sync, WaitExceptional,
/// ExecuteCommand and Sleep. The others are none: a thread that waits in Ioctl for a dead disk is not
/// cancelled before Ioctl has come back.
class COperatingSystem {
 public:
  COperatingSystem() = default;
  virtual ~COperatingSystem() = default;
  COperatingSystem(const COperatingSystem&) = delete;
  COperatingSystem& operator=(const COperatingSystem&) = delete;

  /// Opens a file or device; implementations add close-on-exec and large-file support. Returns a descriptor.
  virtual int Open(const std::string& path, int flags) = 0;
  /// Never a cancellation point: destructors call it.
  virtual int Close(int descriptor) = 0;
  /// From the position on, which moves along. Returns the bytes that came: fewer than `size` at the end of a
  /// file or as it pleases, 0 at the end.
  virtual ssize_t Read(int descriptor, void* buffer, std::size_t size) = 0;
  /// The same for writing. Fewer bytes than `size` are no failure here: who writes a record looks.
  virtual ssize_t Write(int descriptor, const void* buffer, std::size_t size) = 0;
  /// Sets the position, bytes from the beginning. Returns the position.
  virtual std::int64_t Seek(int descriptor, std::int64_t position) = 0;
  /// Waits until what was written is on the medium.
  virtual int Sync(int descriptor) = 0;
  /// `argument` is a pointer to the request's record or a number, as the request wants it. What a success
  /// returns is the request's own: RUN_ARRAY may answer 1.
  virtual int Ioctl(int descriptor, unsigned long request, void* argument) = 0;
  /// select() for an exceptional condition alone: 1 it came, 0 the time ran out. Descriptors of any size.
  virtual int WaitExceptional(int descriptor, std::uint64_t milliseconds) = 0;
  /// mknod(): a block-device node; the process's umask applies to `mode`.
  virtual int MakeNode(const std::string& path, mode_t mode, dev_t device) = 0;
  /// chmod().
  virtual int ChangeMode(const std::string& path, mode_t mode) = 0;
  /// stat(): of what a symbolic link points to.
  virtual int Status(const std::string& path, struct stat& status) = 0;
  /// fstat().
  virtual int Status(int descriptor, struct stat& status) = 0;
  /// What a symbolic link points to; none when the path is no link or cannot be read.
  virtual std::optional<std::string> ReadLink(const std::string& path) = 0;

  /// As KVT::Misc::CKvtApplication::GetCommandPath: 1 when found.
  virtual int GetCommandPath(const std::string& name, boost::filesystem::path& path) = 0;
  /// As KVTX::CSystem::ExecuteCommand: 1 when it ran and ended with status 0, 0 when it could not be started,
  /// 130 when it was given up after 3 s or an earlier run of it, given up too, has not ended; 2 when it ended
  /// otherwise.
  virtual int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                             std::vector<std::string>& lines) = 0;
  /// As KVTX::CSystemPartitionTable::GetPartitions.
  virtual std::vector<KVTX::CPartition> GetPartitions(const std::string& device) = 0;

  /// Milliseconds since 1970-01-01 00:00 UTC.
  virtual std::uint64_t Now() = 0;
  virtual void Sleep(std::uint64_t milliseconds) = 0;
};

}  // namespace OS

#pragma once
/// @file
/// A machine that exists in memory.

#include <memory>

#include "simulator/machine/MachineError.h"
#include "system/OperatingSystem.h"

namespace Simulation {

/// Controllers, disks, sysfs, udev, an md driver and a clock, made from a description, whose form
/// simulator/README.md tells. It behaves as Linux 6.1 does below the plug-in and knows nothing of the
/// plug-in. What it leaves out: the data of arrays (they read as zeros and refuse to be written) and bitmaps.
/// All operations are safe for several threads.
class CSimulatedSystem final : public OS::COperatingSystem {
 public:
  /// Manual: time stands still but for Advance() and Sleep(), which moves it at once. Real: time follows the
  /// clock on the wall, and Sleep() sleeps. WaitExceptional() waits in real time under both.
  enum class EClock { Manual, Real };

  /// Builds the machine that `description` (JSON text) tells of. Throws CMachineError.
  explicit CSimulatedSystem(const std::string& description, EClock clock = EClock::Manual);
  ~CSimulatedSystem() override;

  /// Eight disks on two controllers: a RAID 0, a resyncing RAID 1, its spare, free disks, one of them
  /// solid-state.
  static std::string DemoDescription();
  /// The present state as a description: loading it gives an equal machine. What was written to the disks is
  /// part of it; open descriptors and the texts given to SetFile() are not.
  std::string Describe() const;

  /// Moves the clock on: scripted changes happen, resyncs and recoveries make progress and end.
  void Advance(std::uint64_t milliseconds);
  /// Makes one change now. It has the form of a script's entry without "at", such as {"remove_disk": "sdc"}.
  /// Throws CMachineError, and nothing has changed then.
  void Apply(const std::string& change);
  /// Replaces what is at a path by a file with this text; none: nothing is there. For malformed input.
  void SetFile(const std::string& path, std::optional<std::string> text);
  /// What was given to SetFile() and nobody looked at since: at a test's end a path with a typing error.
  std::vector<std::string> UnusedFiles() const;

  /// What is on a disk or partition, in bytes. Throws CMachineError when there is no such disk.
  std::string DiskBytes(const std::string& disk, std::uint64_t offset, std::size_t size) const;
  /// Descriptors that are open now.
  std::size_t OpenDescriptors() const;
  /// How often a request was made, answered or refused.
  std::uint64_t IoctlCount(unsigned long request) const;
  /// How often a program was run, by its name without folder.
  std::uint64_t CommandCount(const std::string& program) const;

  int Open(const std::string& path, int flags) override;
  int Close(int descriptor) override;
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override;
  ssize_t Write(int descriptor, const void* buffer, std::size_t size) override;
  std::int64_t Seek(int descriptor, std::int64_t position) override;
  int Sync(int descriptor) override;
  int Ioctl(int descriptor, unsigned long request, void* argument) override;
  int WaitExceptional(int descriptor, std::uint64_t milliseconds) override;
  int MakeNode(const std::string& path, mode_t mode, dev_t device) override;
  int ChangeMode(const std::string& path, mode_t mode) override;
  int Status(const std::string& path, struct stat& status) override;
  int Status(int descriptor, struct stat& status) override;
  std::optional<std::string> ReadLink(const std::string& path) override;
  int GetCommandPath(const std::string& name, boost::filesystem::path& path) override;
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override;
  std::vector<KVTX::CPartition> GetPartitions(const std::string& device) override;
  std::uint64_t Now() override;
  void Sleep(std::uint64_t milliseconds) override;

 private:
  class CInside;  ///< the machine itself; this class is its lock and its door
  std::unique_ptr<CInside> m_Inside;
};

}  // namespace Simulation

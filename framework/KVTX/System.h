#pragma once
/// @file
/// Programs, partitions and time of the system.

#include <boost/filesystem/path.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "KVT/Api.h"

namespace KVTX {

class ZQ_API CSystem {
 public:
  /// Runs a program and collects its standard output, one element a line without line ends.
  /// The arguments are cut at blanks; no shell takes part. "2>&1" as an argument adds standard error to the
  /// lines, otherwise it is dropped. A program that runs longer than 3 s or prints more than 1 MiB is killed
  /// with its process group; one that does not end within another second (it waits for a dead disk, say) is
  /// left to itself. As long as it is there it is not started a second time; with eight of those nothing is.
  /// "info -q all -n NODE" of a program named udevadm, wherever it lies, is answered from the same database
  /// without running it: with what it prints, lines of one kind in another order, without "L:". It is run
  /// where that finds no such device. A cancellation point where a program runs: it is killed. Safe in a
  /// server that ignores SIGCHLD or reaps all children.
  /// @return 1 when it ran and ended with status 0; 0 when it could not be started; 130
  ///         (KVT::Threading::WAIT_TIMED_OUT) when it was given up for want of time, now or before
  ///         and not ended since; 2 when it ended otherwise. What it printed is in `lines` in every case.
  static int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                            std::vector<std::string>& lines);
};

/// A partition of a block device.
struct ZQ_API CPartition {
  std::string m_Device;       ///< such as "/dev/md_d0p1"
  std::string m_DriveLetter;  ///< empty on Linux
  std::string m_MountPoint;   ///< first mount point, empty when not mounted
};

class ZQ_API CSystemPartitionTable {
 public:
  /// The partitions of a device in order; a device that is itself mounted or used for swap comes first
  /// ("[SWAP]" as the mount point of swap). Empty when the device has none or cannot be read.
  static std::vector<CPartition> GetPartitions(const std::string& device);
};

/// A moment in local time. Eight signed 32-bit fields in this order.
struct ZQ_API CDate {
  std::int32_t m_Year;
  std::int32_t m_Month;      ///< 1 to 12
  std::int32_t m_Day;        ///< 1 to 31
  std::int32_t m_Weekday;    ///< 0 is Sunday
  std::int32_t m_DayOfYear;  ///< 1 to 366
  std::int32_t m_Hour;
  std::int32_t m_Minute;
  std::int32_t m_Second;
};

class ZQ_API CSystemTime_Lx {
 public:
  /// Milliseconds since 1970-01-01 00:00 UTC.
  static std::uint64_t Now();
  static CDate GetDate(std::uint64_t milliseconds);
};

}  // namespace KVTX

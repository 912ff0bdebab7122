#pragma once
/// @file
/// The machine that the process runs on.

#include "system/OperatingSystem.h"

namespace OS {

/// Hands every call to Linux or to the toolkit, and retries what a signal interrupted. No state of its own.
class CLinux final : public COperatingSystem {
 public:
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
};

}  // namespace OS

#pragma once
/// @file
/// A machine that passes everything on to another one, for classes that override a call or two.

#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

class CForwardingMachine : public COperatingSystem {
 public:
  explicit CForwardingMachine(COperatingSystem& machine) : m_Machine(machine) {}

  int Open(const std::string& path, int flags) override { return m_Machine.Open(path, flags); }
  int Close(int descriptor) override { return m_Machine.Close(descriptor); }
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    return m_Machine.Read(descriptor, buffer, size);
  }
  ssize_t Write(int descriptor, const void* buffer, std::size_t size) override {
    return m_Machine.Write(descriptor, buffer, size);
  }
  std::int64_t Seek(int descriptor, std::int64_t position) override {
    return m_Machine.Seek(descriptor, position);
  }
  int Sync(int descriptor) override { return m_Machine.Sync(descriptor); }
  int Ioctl(int descriptor, unsigned long request, void* argument) override {
    return m_Machine.Ioctl(descriptor, request, argument);
  }
  int WaitExceptional(int descriptor, std::uint64_t milliseconds) override {
    return m_Machine.WaitExceptional(descriptor, milliseconds);
  }
  int MakeNode(const std::string& path, mode_t mode, dev_t device) override {
    return m_Machine.MakeNode(path, mode, device);
  }
  int ChangeMode(const std::string& path, mode_t mode) override { return m_Machine.ChangeMode(path, mode); }
  int Status(const std::string& path, struct stat& status) override { return m_Machine.Status(path, status); }
  int Status(int descriptor, struct stat& status) override { return m_Machine.Status(descriptor, status); }
  std::optional<std::string> ReadLink(const std::string& path) override { return m_Machine.ReadLink(path); }
  int GetCommandPath(const std::string& name, boost::filesystem::path& path) override {
    return m_Machine.GetCommandPath(name, path);
  }
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override {
    return m_Machine.ExecuteCommand(program, arguments, lines);
  }
  std::vector<KVTX::CPartition> GetPartitions(const std::string& device) override {
    return m_Machine.GetPartitions(device);
  }
  std::uint64_t Now() override { return m_Machine.Now(); }
  void Sleep(std::uint64_t milliseconds) override { m_Machine.Sleep(milliseconds); }

 private:
  COperatingSystem& m_Machine;
};

}  // namespace NAMESPACE_piRVX

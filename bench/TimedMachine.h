#pragma once
/// @file
/// Parts the time that the plug-in takes from the time that the machine below it takes.

#include <chrono>
#include <type_traits>
#include <utility>

#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// Adds up the time that the other machine takes. For one thread.
class CTimedMachine final : public COperatingSystem {
 public:
  explicit CTimedMachine(COperatingSystem& machine) : m_Machine(machine) {}

  /// Seconds since the last asking.
  double TakeSeconds() { return std::exchange(m_Seconds, 0.0); }

  int Open(const std::string& path, int flags) override {
    return Timed([&] { return m_Machine.Open(path, flags); });
  }
  int Close(int descriptor) override {
    return Timed([&] { return m_Machine.Close(descriptor); });
  }
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    return Timed([&] { return m_Machine.Read(descriptor, buffer, size); });
  }
  ssize_t Write(int descriptor, const void* buffer, std::size_t size) override {
    return Timed([&] { return m_Machine.Write(descriptor, buffer, size); });
  }
  std::int64_t Seek(int descriptor, std::int64_t position) override {
    return Timed([&] { return m_Machine.Seek(descriptor, position); });
  }
  int Sync(int descriptor) override {
    return Timed([&] { return m_Machine.Sync(descriptor); });
  }
  int Ioctl(int descriptor, unsigned long request, void* argument) override {
    return Timed([&] { return m_Machine.Ioctl(descriptor, request, argument); });
  }
  int WaitExceptional(int descriptor, std::uint64_t milliseconds) override {
    return Timed([&] { return m_Machine.WaitExceptional(descriptor, milliseconds); });
  }
  int MakeNode(const std::string& path, mode_t mode, dev_t device) override {
    return Timed([&] { return m_Machine.MakeNode(path, mode, device); });
  }
  int ChangeMode(const std::string& path, mode_t mode) override {
    return Timed([&] { return m_Machine.ChangeMode(path, mode); });
  }
  int Status(const std::string& path, struct stat& status) override {
    return Timed([&] { return m_Machine.Status(path, status); });
  }
  int Status(int descriptor, struct stat& status) override {
    return Timed([&] { return m_Machine.Status(descriptor, status); });
  }
  std::optional<std::string> ReadLink(const std::string& path) override {
    return Timed([&] { return m_Machine.ReadLink(path); });
  }
  int GetCommandPath(const std::string& name, boost::filesystem::path& path) override {
    return Timed([&] { return m_Machine.GetCommandPath(name, path); });
  }
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override {
    return Timed([&] { return m_Machine.ExecuteCommand(program, arguments, lines); });
  }
  std::vector<KVTX::CPartition> GetPartitions(const std::string& device) override {
    return Timed([&] { return m_Machine.GetPartitions(device); });
  }
  std::uint64_t Now() override {
    return Timed([&] { return m_Machine.Now(); });
  }
  void Sleep(std::uint64_t milliseconds) override {
    Timed([&] { m_Machine.Sleep(milliseconds); });
  }

 private:
  template <class TCall>
  std::invoke_result_t<TCall> Timed(TCall call) {
    const struct SStopwatch {
      double& m_Seconds;
      std::chrono::steady_clock::time_point m_Begin{std::chrono::steady_clock::now()};
      ~SStopwatch() {
        m_Seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - m_Begin).count();
      }
    } stopwatch{m_Seconds};
    return call();
  }

  COperatingSystem& m_Machine;
  double m_Seconds{0.0};
};

}  // namespace NAMESPACE_piRVX

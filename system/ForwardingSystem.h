#pragma once
/// @file
/// A machine that passes everything on to another one, for classes that look at its calls.

#include <functional>
#include <type_traits>

#include "system/OperatingSystem.h"

namespace OS {

/// Which operation a call is of.
enum class ECall {
  Open,
  Close,
  Read,
  Write,
  Seek,
  Sync,
  Ioctl,
  WaitExceptional,
  MakeNode,
  ChangeMode,
  Status,
  ReadLink,
  GetCommandPath,
  ExecuteCommand,
  GetPartitions,
  Now,
  Sleep
};

struct SCall {
  ECall m_Kind;
  std::string m_Detail{};        ///< the path or program, or the time in milliseconds
  std::size_t* m_Size{nullptr};  ///< of Read and Write, for a shorter one
  int m_Flags{0};                ///< of Open
};

/// Passes on what a derived class does not override, through its one hook.
class CForwardingSystem : public COperatingSystem {
 public:
  /// `machine` must outlive this one.
  explicit CForwardingSystem(COperatingSystem& machine) : m_Machine(machine) {}

  int Open(const std::string& path, int flags) override {
    return Pass<int>({ECall::Open, path, nullptr, flags}, [&] { return m_Machine.Open(path, flags); });
  }
  int Close(int descriptor) override {
    return Pass<int>({ECall::Close}, [&] { return m_Machine.Close(descriptor); });
  }
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    return Pass<ssize_t>({ECall::Read, {}, &size}, [&] { return m_Machine.Read(descriptor, buffer, size); });
  }
  ssize_t Write(int descriptor, const void* buffer, std::size_t size) override {
    return Pass<ssize_t>({ECall::Write, {}, &size},
                         [&] { return m_Machine.Write(descriptor, buffer, size); });
  }
  std::int64_t Seek(int descriptor, std::int64_t position) override {
    return Pass<std::int64_t>({ECall::Seek}, [&] { return m_Machine.Seek(descriptor, position); });
  }
  int Sync(int descriptor) override {
    return Pass<int>({ECall::Sync}, [&] { return m_Machine.Sync(descriptor); });
  }
  int Ioctl(int descriptor, unsigned long request, void* argument) override {
    return Pass<int>({ECall::Ioctl}, [&] { return m_Machine.Ioctl(descriptor, request, argument); });
  }
  int WaitExceptional(int descriptor, std::uint64_t time) override {
    return Pass<int>({ECall::WaitExceptional, std::to_string(time)},
                     [&] { return m_Machine.WaitExceptional(descriptor, time); });
  }
  int MakeNode(const std::string& path, mode_t mode, dev_t device) override {
    return Pass<int>({ECall::MakeNode, path}, [&] { return m_Machine.MakeNode(path, mode, device); });
  }
  int ChangeMode(const std::string& path, mode_t mode) override {
    return Pass<int>({ECall::ChangeMode, path}, [&] { return m_Machine.ChangeMode(path, mode); });
  }
  int Status(const std::string& path, struct stat& status) override {
    return Pass<int>({ECall::Status, path}, [&] { return m_Machine.Status(path, status); });
  }
  int Status(int descriptor, struct stat& status) override {
    return Pass<int>({ECall::Status}, [&] { return m_Machine.Status(descriptor, status); });
  }
  std::optional<std::string> ReadLink(const std::string& path) override {
    return Pass<std::optional<std::string>>({ECall::ReadLink, path},
                                            [&] { return m_Machine.ReadLink(path); });
  }
  int GetCommandPath(const std::string& name, boost::filesystem::path& path) override {
    return Pass<int>({ECall::GetCommandPath, name}, [&] { return m_Machine.GetCommandPath(name, path); });
  }
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override {
    return Pass<int>({ECall::ExecuteCommand, program.filename().string()},
                     [&] { return m_Machine.ExecuteCommand(program, arguments, lines); });
  }
  std::vector<KVTX::CPartition> GetPartitions(const std::string& device) override {
    return Pass<std::vector<KVTX::CPartition>>({ECall::GetPartitions, device},
                                               [&] { return m_Machine.GetPartitions(device); });
  }
  std::uint64_t Now() override {
    return Pass<std::uint64_t>({ECall::Now}, [&] { return m_Machine.Now(); });
  }
  void Sleep(std::uint64_t time) override {
    Pass<int>({ECall::Sleep, std::to_string(time)}, [&] {
      m_Machine.Sleep(time);
      return 0;
    });
  }

 protected:
  /// Every call comes by here. It reaches the other machine when `go` is called. An answer takes the place of
  /// its result; where that is no number, the result is empty then.
  virtual std::optional<std::int64_t> Around(const SCall& /*call*/, const std::function<void()>& go) {
    go();
    return std::nullopt;
  }

 private:
  template <class TResult, class TForward>
  TResult Pass(const SCall& call, TForward forward) {
    TResult result{};
    const std::optional<std::int64_t> answer = Around(call, [&] { result = forward(); });
    if (!answer) return result;
    if constexpr (std::is_arithmetic_v<TResult>)
      return static_cast<TResult>(*answer);
    else
      return {};
  }

  COperatingSystem& m_Machine;
};

}  // namespace OS

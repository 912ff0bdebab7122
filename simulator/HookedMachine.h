#pragma once
/// @file
/// A machine that asks a hook before it passes a call on to another one.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "simulator/ForwardingMachine.h"

namespace NAMESPACE_piRVX {

/// Asks its user before a call: "open /dev/sda", "close", "read", "ioctl", "wait 3000", "run udevadm", "now",
/// "sleep 500". What the hook answers is the result; where it answers nothing, the call goes through.
class CHookedMachine : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  using TAnswer = std::optional<std::int64_t>;
  std::function<TAnswer(const std::string&)> m_Hook = [](const std::string&) { return TAnswer(); };

  int Open(const std::string& path, int flags) override {
    return Ask<int>("open " + path, [&] { return CForwardingMachine::Open(path, flags); });
  }
  int Close(int descriptor) override {
    return Ask<int>("close", [&] { return CForwardingMachine::Close(descriptor); });
  }
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    return Ask<ssize_t>("read", [&] { return CForwardingMachine::Read(descriptor, buffer, size); });
  }
  int Ioctl(int descriptor, unsigned long request, void* argument) override {
    return Ask<int>("ioctl", [&] { return CForwardingMachine::Ioctl(descriptor, request, argument); });
  }
  int WaitExceptional(int descriptor, std::uint64_t time) override {
    return Ask<int>("wait " + std::to_string(time),
                    [&] { return CForwardingMachine::WaitExceptional(descriptor, time); });
  }
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override {
    return Ask<int>("run " + program.filename().string(),
                    [&] { return CForwardingMachine::ExecuteCommand(program, arguments, lines); });
  }
  std::uint64_t Now() override {
    return Ask<std::uint64_t>("now", [&] { return CForwardingMachine::Now(); });
  }
  void Sleep(std::uint64_t time) override {
    if (!m_Hook("sleep " + std::to_string(time))) CForwardingMachine::Sleep(time);
  }

 private:
  template <class TResult>
  TResult Ask(const std::string& call, const std::function<TResult()>& goThrough) {
    const TAnswer answer = m_Hook(call);
    return answer ? static_cast<TResult>(*answer) : goThrough();
  }
};

}  // namespace NAMESPACE_piRVX

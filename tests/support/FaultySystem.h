#pragma once
/// @file
/// A machine on which chosen calls fail, and one that asks the test before each.

#include <array>
#include <mutex>

#include "system/ForwardingSystem.h"

namespace NAMESPACE_piRVX {

/// Counts the calls by kind, and fails those that a test chose, so that one test can walk every failure point
/// of an operation. Now() and Sleep() are neither counted nor failed. A Close that fails closes all the same.
class CFaultySystem final : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;

  /// All kinds but Close, counted together.
  static constexpr OS::ECall ANY = static_cast<OS::ECall>(static_cast<int>(OS::ECall::Sleep) + 1);
  /// From now on, the n-th call of the kind (counted from 1) fails with `error` in errno, and so do the
  /// `more` calls of that kind after it. The call does not reach the other machine.
  void FailAt(OS::ECall kind, std::uint64_t n, int error, std::uint64_t more = 0);
  /// From now on, the n-th Read or Write moves at most `size` bytes.
  void ShortenAt(OS::ECall kind, std::uint64_t n, std::size_t size);
  /// Forgets all chosen failures.
  void Clear();
  /// Calls of the kind since construction, failed ones included.
  std::uint64_t Count(OS::ECall kind) const;
  /// Failures that have struck since construction: a walk over all failure points ends when this stays the
  /// same.
  std::uint64_t Struck() const;
  /// Every path that was opened for writing, in order, whether it succeeded or not.
  std::vector<std::string> OpenedForWriting() const;

 private:
  struct SPlan {
    std::uint64_t m_Count{0};  ///< calls so far
    std::uint64_t m_First{0};  ///< count of the first call that fails; 0: none
    std::uint64_t m_Last{0};
    int m_Error{0};
    std::uint64_t m_ShortAt{0};
    std::size_t m_ShortSize{0};
  };

  std::optional<std::int64_t> Around(const OS::SCall& call, const std::function<void()>& go) override;
  /// Counts a call. The error it fails with, 0 when it goes through.
  int Strike(const OS::SCall& call);
  SPlan& Plan(OS::ECall kind) { return m_Plans[static_cast<std::size_t>(kind)]; }

  mutable std::mutex m_Lock;
  std::array<SPlan, static_cast<std::size_t>(ANY) + 1> m_Plans{};
  std::uint64_t m_Struck{0};
  std::vector<std::string> m_OpenedForWriting;
};

/// Asks the test before a call: "open /dev/sda", "close", "read", "ioctl", "wait 3000", "run udevadm", "now",
/// "sleep 500". What the test answers is the result; where it answers nothing, the call goes through.
class CHookedSystem final : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;
  using TAnswer = std::optional<std::int64_t>;
  std::function<TAnswer(const std::string&)> m_Hook = [](const std::string&) { return TAnswer(); };

 private:
  TAnswer Around(const OS::SCall& call, const std::function<void()>& go) override;
};

}  // namespace NAMESPACE_piRVX

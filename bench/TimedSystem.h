#pragma once
/// @file
/// Parts the time that the plug-in takes from the time that the machine below it takes.

#include <chrono>
#include <utility>

#include "system/ForwardingSystem.h"

namespace NAMESPACE_piRVX {

/// Adds up the time that the other machine takes. For one thread.
class CTimedSystem final : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;

  /// Seconds since the last asking.
  double TakeSeconds() { return std::exchange(m_Seconds, 0.0); }

 private:
  std::optional<std::int64_t> Around(const OS::SCall&, const std::function<void()>& go) override {
    const struct SStopwatch {
      double& m_Seconds;
      std::chrono::steady_clock::time_point m_Begin{std::chrono::steady_clock::now()};
      ~SStopwatch() {
        m_Seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - m_Begin).count();
      }
    } stopwatch{m_Seconds};
    go();
    return std::nullopt;
  }

  double m_Seconds{0.0};
};

}  // namespace NAMESPACE_piRVX

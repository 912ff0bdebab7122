#pragma once
/// @file
/// What is counted, from the start of rvxd on.

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace Rvxd {

/// By name, and by labels of which there are few: never by what a client or a disk makes up. All functions
/// may be called by any thread.
class CCounters {
 public:
  using Labels = std::map<std::string, std::string>;
  using Values = std::map<Labels, std::uint64_t>;

  /// One more: Count("rvx_passes_total", {{"result", "seen"}}). The name is one that Metrics.cpp explains.
  void Count(const std::string& name, const Labels& labels) {
    const std::lock_guard lock(m_Mutex);
    ++m_All[name][labels];
  }
  std::map<std::string, Values> All() const {
    const std::lock_guard lock(m_Mutex);
    return m_All;
  }

 private:
  mutable std::mutex m_Mutex;
  std::map<std::string, Values> m_All;
};

}  // namespace Rvxd

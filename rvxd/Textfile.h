#pragma once
/// @file
/// The metrics as a file, for node_exporter's collector of text files.

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "rvxd/Metrics.h"

namespace Rvxd {

/// Writes it anew behind each pass of the plug-in, on a thread of its own: a folder that hangs holds up
/// nobody.
class CTextfile {
 public:
  /// Throws Host::CError where nobody would read a file of that name.
  CTextfile(const std::string& path, const CKeeper& keeper, const CMetrics& metrics);

 private:
  void Run(const std::stop_token& end);
  void Write();

  const std::string m_Path;
  const CKeeper& m_Keeper;
  const CMetrics& m_Metrics;
  bool m_HasFailed{false};
  std::mutex m_Mutex;
  std::condition_variable_any m_Pause;
  std::jthread m_Thread;
};

}  // namespace Rvxd

#include "rvxd/Textfile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "libraries/common/ReplaceFile.h"
#include "rvxd/Log.h"

namespace Rvxd {

namespace {

constexpr std::chrono::seconds LOOK{1};  ///< passes are two seconds apart at least

}  // namespace

CTextfile::CTextfile(const std::string& path, const CKeeper& keeper, const CMetrics& metrics)
    : m_Path(path), m_Keeper(keeper), m_Metrics(metrics) {
  if (!path.ends_with(".prom"))
    throw Host::CError(Host::EXIT_USAGE,
                       "--textfile names a file that ends with .prom: node_exporter reads no other");
  m_Thread = std::jthread([this](const std::stop_token& end) { Run(end); });
}

void CTextfile::Run(const std::stop_token& end) {
  std::uint64_t last = 0;
  std::unique_lock lock(m_Mutex);
  do {
    // Until the first pass the file of an earlier run says more.
    if (const std::uint64_t pass = m_Keeper.Pass().m_Time; m_Keeper.Now() != nullptr && pass != last) {
      last = pass;
      Write();
    }
  } while (!m_Pause.wait_for(lock, end, LOOK, [&] { return end.stop_requested(); }));
}

void CTextfile::Write() {
  std::string error;
  try {
    if (!KVT::Internal::ReplaceFile(m_Path, m_Metrics.Text(EProcess::LEFT_OUT),
                                    S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH, KVT::Internal::ESync::NONE))
      error = std::strerror(errno);
  } catch (const std::exception& thrown) {
    error = thrown.what();
  }
  if (!error.empty() && !m_HasFailed) Log(4, "cannot write " + m_Path + ": " + error);
  if (error.empty() && m_HasFailed) Log(5, m_Path + " is written again");
  m_HasFailed = !error.empty();
}

}  // namespace Rvxd

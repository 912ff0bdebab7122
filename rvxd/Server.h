#pragma once
/// @file
/// HTTP on a socket that listens.

#include <map>
#include <mutex>

#include "libraries/common/FileDescriptor.h"
#include "rvxd/Api.h"

struct MHD_Daemon;

namespace Rvxd {

/// A thread a connection, 64 of them (8 where there are metrics alone): one that is slow keeps nobody else
/// waiting, and one user but root has half of them at most. Each socket has a server of its own, so that a
/// flood at one leaves the other alone.
class CServer {
 public:
  /// Takes the listener over, but does not close it: an activation's goes on listening for the next start.
  /// Throws Host::CError.
  CServer(int listener, const CApi& api, EAccess access);
  ~CServer();
  CServer(const CServer&) = delete;
  CServer& operator=(const CServer&) = delete;

  /// Takes no connection any more.
  void Quiesce();
  /// Waits until all connections have ended.
  void Stop();

 private:
  friend struct SConnection;
  friend struct SAdmission;
  const CApi& m_Api;
  const EAccess m_Access;
  MHD_Daemon* m_Daemon{nullptr};
  std::mutex m_Mutex;
  std::map<unsigned int, unsigned int> m_Users;  ///< connections by user
};

}  // namespace Rvxd

#pragma once
/// @file
/// HTTP on a socket that listens.

#include <memory>

#include "libraries/common/FileDescriptor.h"
#include "rvxd/Api.h"

struct MHD_Daemon;

namespace Rvxd {

/// A thread a connection, 64 of them (8 where there are metrics alone): one that is slow keeps nobody else
/// waiting. Each socket has a server of its own, so that a flood at one leaves the other alone.
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
  const CApi& m_Api;
  const EAccess m_Access;
  MHD_Daemon* m_Daemon{nullptr};
};

}  // namespace Rvxd

#pragma once
/// @file
/// One message on its way: a program of its own delivers it, so that what hangs there, and what rights it
/// takes, is no matter of the one who watches.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "host/JsonView.h"
#include "libraries/common/FileDescriptor.h"

namespace Rvxd {

using Host::Json;

struct SDelivered {
  bool m_IsDelivered{false};
  std::string m_Text{};  ///< the channel's own words
};

class CDelivery {
 public:
  /// Hands it to the service manager, which starts `rvx-notify` outside of rvxd's bounds where it listens for
  /// that at `socket`; else that is started by this process. Where neither can be, it has failed at once.
  CDelivery(const std::string& socket, const Json& order, std::chrono::milliseconds limit);
  /// Ends what is still under way.
  ~CDelivery();
  CDelivery(const CDelivery&) = delete;
  CDelivery& operator=(const CDelivery&) = delete;

  /// To be waited for: readable when there is something to ask Result for. -1: it has failed already.
  int Descriptor() const { return m_Socket.Get(); }
  /// None as long as it is under way. Does not wait.
  std::optional<SDelivered> Result();

 private:
  bool Connect(const std::string& socket);
  void Spawn();

  const std::chrono::steady_clock::time_point m_End;
  KVT::Internal::CFileDescriptor m_Socket;
  pid_t m_Process{0};  ///< 0: none of ours
  std::string m_Answer;
  std::string m_Failure;
};

}  // namespace Rvxd

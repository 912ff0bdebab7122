#pragma once
/// @file
/// One message on its way: a program of its own delivers it, so that what hangs there, and what rights it
/// takes, is no matter of the one who watches.

#include <poll.h>
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
  std::string m_Text{};  ///< "HTTP 404"
  std::string m_Said{};  ///< the channel's own words, in which anything may stand
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

  /// What to wait for before Result is asked again. A descriptor of -1: it has failed already.
  pollfd Source() const;
  /// None as long as it is under way. Does not wait.
  std::optional<SDelivered> Result();
  /// Takes note of those that have ended since they were given up: one in the kernel's hands may take its
  /// time. Whoever makes, ends or reaps one holds CNotifier's lock.
  static void Reap();

 private:
  /// Hands over as much of the order as is taken.
  void Send();
  bool Connect(const std::string& socket);
  void Spawn();

  const std::chrono::steady_clock::time_point m_End;
  KVT::Internal::CFileDescriptor m_Socket;
  pid_t m_Process{0};  ///< 0: none of ours
  bool m_IsOver{false};
  std::string m_Order;  ///< what of it is still to be handed over
  std::string m_Answer;
  std::string m_Failure;
};

}  // namespace Rvxd

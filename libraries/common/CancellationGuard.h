#pragma once

#include <pthread.h>

namespace KVT::Internal {

/// Holds back the cancellation of the calling thread for a scope. For destructors and for C libraries, which
/// cannot be unwound.
class CCancellationGuard {
 public:
  CCancellationGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_Before); }
  ~CCancellationGuard() { pthread_setcancelstate(m_Before, nullptr); }
  CCancellationGuard(const CCancellationGuard&) = delete;
  CCancellationGuard& operator=(const CCancellationGuard&) = delete;

 private:
  int m_Before{PTHREAD_CANCEL_ENABLE};
};

}  // namespace KVT::Internal

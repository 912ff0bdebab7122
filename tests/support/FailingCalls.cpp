#include "tests/support/FailingCalls.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

extern "C" {  // glibc 2.36 does not say so itself
#include <sys/pidfd.h>
}

namespace NAMESPACE_piRVX {
namespace {

std::atomic<int> s_Until[] = {-1, -1};  ///< calls before the one that fails

template <typename TCall>
TCall* Real(TCall& /*own*/, const char* name) {
  return reinterpret_cast<TCall*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

CFailingCall::CFailingCall(ECall call, int which) : m_Call(call) { s_Until[call] = which; }
CFailingCall::~CFailingCall() { s_Until[m_Call] = -1; }

// These stand before the C library's; the sanitizers have none of their own.
#pragma GCC visibility push(default)

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int kind) noexcept {
  if (s_Until[CFailingCall::PREPARE_LOCK]-- == 0) return EAGAIN;
  return Real(pthread_mutexattr_settype, __func__)(attributes, kind);
}

extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                                       const timespec* end) noexcept {
  if (s_Until[CFailingCall::PREPARE_LOCK]-- == 0) return EAGAIN;
  return Real(pthread_mutex_clocklock, __func__)(mutex, clock, end);
}

extern "C" int pidfd_send_signal(int process, int signal, siginfo_t* info, unsigned int flags) noexcept {
  if (s_Until[CFailingCall::SIGNAL_PROCESS]-- == 0) return 0;
  return Real(pidfd_send_signal, __func__)(process, signal, info, flags);
}

#pragma GCC visibility pop

}  // namespace NAMESPACE_piRVX

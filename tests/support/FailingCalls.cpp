#include "tests/support/FailingCalls.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

extern "C" {  // glibc 2.36 does not say so itself
#include <sys/pidfd.h>
}

namespace {

thread_local bool s_NoMemory = false;
thread_local unsigned long s_Left = 0;  ///< allocations until one fails; 0: none does
thread_local bool s_HasFailed = false;

void* Allocate(std::size_t size) {
  if (s_Left != 0 && --s_Left == 0) {
    s_HasFailed = true;
    return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(std::size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

// All of them, so that each takes what the other gave.
void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return s_NoMemory ? nullptr : Allocate(size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

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

CFailingAllocation::CFailingAllocation(unsigned long n) {
  s_HasFailed = false;
  s_Left = n;
  s_NoMemory = n == ALL_THAT_DO_NOT_THROW;
}
CFailingAllocation::~CFailingAllocation() {
  s_Left = 0;
  s_NoMemory = false;
}
bool CFailingAllocation::HasFailed() { return s_HasFailed; }

}  // namespace NAMESPACE_piRVX

#pragma once
/// @file
/// A lock with a condition, on plain pthread calls: thread sanitizers understand the monotonic wait, and a
/// thread that is cancelled while it waits unwinds with the lock held, as a guard expects.

#include <pthread.h>

#include <chrono>

#include "KVT/Api.h"

namespace Simulation {

class ZQ_CAPABILITY("mutex") CMonitor {
 public:
  CMonitor() {
    pthread_condattr_t attributes{};
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_Condition, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  ~CMonitor() {
    pthread_cond_destroy(&m_Condition);
    pthread_mutex_destroy(&m_Mutex);
  }
  CMonitor(const CMonitor&) = delete;
  CMonitor& operator=(const CMonitor&) = delete;

  void Lock() ZQ_ACQUIRE() ZQ_NO_THREAD_SAFETY_ANALYSIS { pthread_mutex_lock(&m_Mutex); }
  void Unlock() ZQ_RELEASE() ZQ_NO_THREAD_SAFETY_ANALYSIS { pthread_mutex_unlock(&m_Mutex); }
  void NotifyAll() { pthread_cond_broadcast(&m_Condition); }
  /// With the lock held; may return early. A cancellation point.
  void WaitUntil(std::chrono::steady_clock::time_point time) {
    const auto nanoseconds = std::chrono::nanoseconds(time.time_since_epoch()).count();
    const timespec end{nanoseconds / 1000000000, nanoseconds % 1000000000};
    pthread_cond_timedwait(&m_Condition, &m_Mutex, &end);
  }

 private:
  pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t m_Condition{};
};

}  // namespace Simulation

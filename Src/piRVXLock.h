#pragma once

#include "KVT/Api.h"
#include "KVT/Threading.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

/// How the steps of one lock read in the trace; the spellings differ by place (oddity 15).
struct SLockTexts {
  const char* m_Wait;
  const char* m_Release;  ///< null: the release is not traced
};

/// Holds a mutex until the scope ends or Release is called. With a time-out of 0 the lock may be missed: ask
/// IsHeld before anything else (the thread-safety analysis takes the lock for held).
class ZQ_SCOPED_CAPABILITY CTracedLock {
 public:
  CTracedLock(KVT::Threading::Native_OS::CFastMutex& mutex, unsigned long milliseconds,
              const SLockTexts& texts, const char* source, int line = __builtin_LINE()) ZQ_ACQUIRE(mutex)
      : m_Mutex(mutex), m_Texts(texts), m_Source(source), m_Line(line) {
    Trace("Before %s", m_Texts.m_Wait);
    m_Held = m_Mutex.Wait(milliseconds) == KVT::Threading::WAIT_OK;
    Trace("After %s", m_Texts.m_Wait);
  }
  ~CTracedLock() ZQ_RELEASE() { Release(); }
  CTracedLock(const CTracedLock&) = delete;
  CTracedLock& operator=(const CTracedLock&) = delete;

  bool IsHeld() const { return m_Held; }
  void Release() ZQ_RELEASE() {
    if (!m_Held) return;
    if (m_Texts.m_Release != nullptr) Trace("Before %s", m_Texts.m_Release);
    m_Held = false;
    m_Mutex.Release();
    if (m_Texts.m_Release != nullptr) Trace("After %s", m_Texts.m_Release);
  }

 private:
  void Trace(const char* format, const char* step) const {
    if (KVT_MODULE_INFO_piRVX.IsTraced(TRACE_LOCKS)) TraceLine(TRACE_LOCKS, m_Source, m_Line, format, step);
  }

  KVT::Threading::Native_OS::CFastMutex& m_Mutex;
  const SLockTexts& m_Texts;
  const char* m_Source;
  int m_Line;  ///< where the lock is taken
  bool m_Held{false};
};

/// A framework request's hold of the model.
inline constexpr SLockTexts DATA_LOCK_OF_REQUEST{"m_DataLock.Wait (sg)", nullptr};
/// Appending one event.
inline constexpr SLockTexts EVENTS_LOCK_OF_APPEND{"m_EventsLock.Wait(INFINITE)", "m_EventsLock.Release()"};
/// Fetching the events.
inline constexpr SLockTexts EVENTS_LOCK_OF_FETCH{"m_EventsLock.Wait(NULL, 0)", "m_EventsLock.Release()"};
/// A pass of the worker.
inline constexpr SLockTexts DATA_LOCK_OF_PASS{"m_DataLock.Wait (NULL, 0)", "m_DataLock.Release ()"};
inline constexpr SLockTexts EVENTS_LOCK_OF_PASS{"m_EventsLock.Wait (NULL, 0)", "m_EventsLock.Release ()"};

}  // namespace NAMESPACE_piRVX

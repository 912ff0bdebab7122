#pragma once

namespace NAMESPACE_piRVX {

/// While it lives, the `which`-th call of a kind from now on fails, counted from 0 in the whole process;
/// negative: none does.
class CFailingCall {
 public:
  enum ECall {
    PREPARE_LOCK,   ///< a mutex is made, or an event takes the lock of all events: EAGAIN
    SIGNAL_PROCESS  ///< the signal gets lost, as on a process that waits for a dead disk
  };
  explicit CFailingCall(ECall call, int which = 0);
  ~CFailingCall();

 private:
  ECall m_Call;
};

/// While it lives, the n-th allocation of the calling thread, counted from 1, throws std::bad_alloc; or new
/// finds nothing where a null pointer tells of it.
class CFailingAllocation {
 public:
  static constexpr unsigned long ALL_THAT_DO_NOT_THROW = 0;
  explicit CFailingAllocation(unsigned long n);
  ~CFailingAllocation();
  /// Whether it came to that.
  static bool HasFailed();
};

}  // namespace NAMESPACE_piRVX

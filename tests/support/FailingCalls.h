#pragma once
/// @file

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
  CFailingCall(const CFailingCall&) = delete;
  CFailingCall& operator=(const CFailingCall&) = delete;

 private:
  ECall m_Call;
};

}  // namespace NAMESPACE_piRVX

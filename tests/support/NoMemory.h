#pragma once
/// @file
/// Shortages of memory.

namespace NAMESPACE_piRVX {

/// While it lives, the n-th allocation of the calling thread, counted from 1, throws std::bad_alloc; or the
/// non-throwing form of new, which the plug-in uses where a lack of memory has a status of its own, finds
/// none.
class CFailingAllocation {
 public:
  static constexpr unsigned long ALL_THAT_DO_NOT_THROW = 0;
  explicit CFailingAllocation(unsigned long n);
  ~CFailingAllocation();
  /// Whether it came to that.
  static bool HasFailed();
};

}  // namespace NAMESPACE_piRVX

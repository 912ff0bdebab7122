#pragma once
/// @file
/// Shortages of memory.

namespace NAMESPACE_piRVX {

/// While it lives, the non-throwing form of new, which the plug-in uses where a lack of memory has a status
/// of its own, finds no memory.
class CNoMemory {
 public:
  CNoMemory();
  ~CNoMemory();
};

/// While it lives, the n-th allocation of the calling thread, counted from 1, throws std::bad_alloc.
class CFailingAllocation {
 public:
  explicit CFailingAllocation(unsigned long n);
  ~CFailingAllocation();
  /// Whether it came to that.
  static bool HasFailed();
};

}  // namespace NAMESPACE_piRVX

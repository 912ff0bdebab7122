#pragma once
/// @file
/// Shortages of memory.

#include <new>

#include "simulator/ForwardingMachine.h"

namespace NAMESPACE_piRVX {

/// While it lives, the non-throwing form of new, which the plug-in uses where a lack of memory has a status
/// of its own, finds no memory.
class CNoMemory {
 public:
  CNoMemory();
  ~CNoMemory();
  CNoMemory(const CNoMemory&) = delete;
  CNoMemory& operator=(const CNoMemory&) = delete;
};

/// While it lives, the n-th allocation of the calling thread, counted from 1, throws std::bad_alloc.
class CFailingAllocation {
 public:
  explicit CFailingAllocation(unsigned long n);
  ~CFailingAllocation();
  CFailingAllocation(const CFailingAllocation&) = delete;
  CFailingAllocation& operator=(const CFailingAllocation&) = delete;
  /// Whether it came to that.
  static bool HasFailed();
};

/// Runs out of memory once, after so many readings; negative: never.
class CStarvedDoor : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    if (m_Left-- == 0) throw std::bad_alloc();
    return CForwardingMachine::Read(descriptor, buffer, size);
  }
  int m_Left{-1};
};

}  // namespace NAMESPACE_piRVX

#pragma once
/// @file

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

}  // namespace NAMESPACE_piRVX

#pragma once
/// @file
/// Scans into containers of their own, as the worker makes them.

#include "tests/support/TestInstance.h"

namespace NAMESPACE_piRVX {

/// What a scan found. The model is as it was.
struct SScanned {
  CRVXAdapter m_Adapter;
  std::vector<CRVXPhysicalDrive> m_Drives;
  std::vector<CRVXLogicalDrive> m_Arrays;
  unsigned int m_Status{PI::OK};

  explicit SScanned(CTestInstance& plugin, bool newIDs = false) {
    m_Status = plugin.ScanSystem(m_Adapter, m_Drives, m_Arrays, newIDs);
  }
  /// The drive or array of this name; the test fails hard when there is none.
  CRVXPhysicalDrive& Drive(const std::string& name) { return Named(m_Drives, name); }
  CRVXLogicalDrive& Array(const std::string& name) { return Named(m_Arrays, name); }

 private:
  template <class TObject>
  static TObject& Named(std::vector<TObject>& list, const std::string& name) {
    for (TObject& object : list)
      if (object.m_KernelName == name) return object;
    throw std::out_of_range("no " + name);
  }
};

}  // namespace NAMESPACE_piRVX

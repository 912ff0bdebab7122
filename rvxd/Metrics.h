#pragma once
/// @file
/// What rvxd knows, as figures for a program that stores them over time: Prometheus' text format 0.0.4.

#include <string>

#include "rvxd/Counters.h"
#include "rvxd/Keeper.h"

namespace Rvxd {

/// Those of the process itself are left out where another program, which tells its own, hands them on.
enum class EProcess { TOLD, LEFT_OUT };

/// From the last look alone: who asks waits neither for the plug-in nor for a disk. What is not known has no
/// series. All functions may be called by any thread.
class CMetrics {
 public:
  CMetrics(const CKeeper& keeper, const CFeed& feed, const COperations& operations,
           const CCounters& counters);

  std::string Text(EProcess process) const;

 private:
  const CKeeper& m_Keeper;
  const CFeed& m_Feed;
  const COperations& m_Operations;
  const CCounters& m_Counters;
  const double m_Started;  ///< seconds since 1970
};

}  // namespace Rvxd

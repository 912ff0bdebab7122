#pragma once
/// @file
/// Where the commands get what they show, and who makes their changes: a plug-in of their own, or rvxd.

#include <vector>

#include "host/Outcome.h"
#include "host/Views.h"

namespace Host {

/// All of it throws CError.
class CSource {
 public:
  CSource() = default;
  virtual ~CSource() = default;
  CSource(const CSource&) = delete;
  CSource& operator=(const CSource&) = delete;

  /// The view of that name, of the machine as it is now.
  virtual SView View(const SViewRequest& request, const SForm& form) = 0;
  /// What a change would do; `width` is that of the terminal, 0 for no limit.
  virtual SPlan Plan(const SRequest& request, std::size_t width) = 0;
  /// Makes the change of a plan, if that holds still, and sees what came of it. A rescan needs no plan.
  virtual SOutcome CarryOut(const SRequest& request, const SPlan& plan) = 0;
  /// Seconds between two looks of the plug-in at the machine.
  virtual void SetPollInterval(int seconds) = 0;
  /// From now on the machine is watched, and signals wait for a Pause.
  virtual void Watch() = 0;
  /// What happened since Watch or the last call: EventJson of each.
  virtual Json Events() = 0;
};

}  // namespace Host

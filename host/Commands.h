#pragma once
/// @file
/// The commands. Each prints its result and returns the exit status, or throws CError.

#include <string>
#include <vector>

#include "host/Output.h"

namespace rvxctl {

// Showing.
int ShowTopology(CContext& context);
int ShowStatus(CContext& context, bool watch);
/// All properties of one object; `kind` narrows what an address may name.
int ShowObject(CContext& context, const std::string& address, PI::_OBJECT_KIND kind);
int ListDisks(CContext& context);
int ListArrays(CContext& context);
int ShowOperations(CContext& context, const std::string& address);
int GetProperty(CContext& context, const std::string& address, unsigned int id);
int SetPollInterval(CContext& context, int seconds);
int ShowLevels(CContext& context);

// Following.
int ShowEvents(CContext& context, bool follow, bool jsonLines);
int WatchArray(CContext& context, const std::string& address);

// Changing.
/// How a person agrees to a change.
struct SConsent {
  bool m_Yes{false};
  bool m_DryRun{false};
  bool m_Wait{false};
};
int CreateArray(CContext& context, const std::string& level, int stripe,
                const std::vector<std::string>& disks, const SConsent& consent);
/// Exactly one of array, last and all is meant.
int DeleteArray(CContext& context, const std::string& array, bool last, bool all, const SConsent& consent);
int AddSpare(CContext& context, const std::string& disk, const std::string& array, const SConsent& consent);
int ReleaseSpare(CContext& context, const std::string& disk, const SConsent& consent);
int ChangeRebuild(CContext& context, const std::string& array, bool start, const SConsent& consent);
int Rescan(CContext& context);

}  // namespace rvxctl

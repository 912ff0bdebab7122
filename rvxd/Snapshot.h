#pragma once
/// @file
/// One look at the machine, whole and unchanging: all that is answered to who reads.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/Values.h"
#include "host/Views.h"
#include "rvxd/Settings.h"

namespace Rvxd {

using Host::Json;
using Text = std::shared_ptr<const std::string>;

/// When the plug-in has looked at the machine.
struct SPass {
  /// Of the last one's end as it was seen, in milliseconds since 1970; until then of rvxd's start.
  std::uint64_t m_Time{Host::NowMilliseconds()};
  /// The same by a clock that nobody sets, and that stands still while the machine sleeps.
  std::chrono::steady_clock::time_point m_At{std::chrono::steady_clock::now()};
  /// Seconds between two of them; the first one is awaited for longer than most take.
  long m_Interval{20};
  double m_Look{0};  ///< seconds that it took to take over what the last one found
};

/// Safe to be read by any thread: nothing of it asks the plug-in or the machine.
class CSnapshot {
 public:
  /// Asks both, on the plug-in's thread. What an object offers is asked anew only where `before` (may be
  /// null) shows it in another state, since that opens an array exclusively for a moment.
  /// @param own what is wrong with the watching itself, to be told beside what is wrong with the machine
  CSnapshot(Host::CSession& session, const Host::CMachine& machine, const CSnapshot* before,
            const Spares& wanted, const std::vector<Host::SProblem>& own);
  CSnapshot(const CSnapshot&) = delete;
  CSnapshot& operator=(const CSnapshot&) = delete;

  /// Numbers it, and makes the document of /v1/state. The revision is that of `before` when that shows the
  /// same.
  /// @param instance of the program: another one counts its revisions from 1 too
  /// @param conditions as they are told, with this look's own
  void Publish(const std::string& instance, const std::string& cursor, const Json& conditions,
               const SPass& pass, const CSnapshot* before);

  const Host::CTopology& Topology() const { return m_Topology; }
  const Host::SHealth& Health() const { return m_Health; }
  unsigned long Revision() const { return m_Revision; }
  /// The names of what differs from an older revision.
  std::vector<std::string> ChangedSince(unsigned long revision) const;
  const Json& Arrays() const { return m_Arrays; }
  const Json& Disks() const { return m_Disks; }
  const Json& Controllers() const { return m_Controllers; }
  const Json& Levels() const { return m_Levels; }
  const Text& State() const { return m_State; }
  const std::string& Tag() const { return m_Tag; }
  /// The document of /v1/health as it was then.
  const Json& HealthJson() const { return m_HealthJson; }

  /// Throws Host::CError.
  Host::SView View(const Host::SViewRequest& request, const Host::SForm& form) const;
  /// By uuid or name; by identifier, kernel name, serial number or WWN. Null when there is none, or not one
  /// alone.
  const Json* FindArray(const std::string& address) const;
  const Json* FindDisk(const std::string& address) const;

 private:
  struct SOffers {
    std::string m_State;  ///< in which they were asked
    std::vector<Host::SOffer> m_Offers;
  };

  Json ArrayJson(const Host::SArrayEntry& entry) const;
  Json DiskJson(const PI::CObject& disk) const;
  /// Gives each disk a name that no other one has: by-id name, else WWN, else kernel name.
  void NameDisks();
  Json OffersJson(const PI::CObject& object) const;

  /// Of the arrays, what is wanted and is not there, and what rvxd itself has.
  Host::SHealth ArrayHealth(const std::vector<Host::SProblem>& own);
  /// None where nobody said how many.
  std::optional<unsigned int> SparesWanted(const Host::SArrayEntry& array) const;

  const Host::CTopology m_Topology;
  Host::CInventory m_Inventory;
  const Spares m_Wanted;
  Host::SHealth m_ArrayHealth;
  Host::SHealth m_Health;
  std::map<unsigned long, std::string> m_DiskIDs;              ///< by the framework's identifier
  std::map<unsigned long, SOffers> m_Offers;                   ///< by identifier
  std::map<unsigned long, std::vector<std::string>> m_Mounts;  ///< mount points of it and its partitions
  Json m_Arrays, m_Disks, m_Controllers, m_Levels, m_HealthJson;
  Json m_OwnHealth;                                  ///< the same without what changes with each pass
  std::map<std::string, unsigned long> m_ChangedAt;  ///< a name's last other revision
  unsigned long m_Revision{1};
  std::string m_Tag;
  Text m_State;
};

/// The document of /v1/health: its last pass may be too long ago by now.
Json HealthNow(const CSnapshot& snapshot, const SPass& pass, std::uint64_t now);
/// Nobody has looked for so long that what is told may be wrong.
bool IsBlind(const SPass& pass);
Host::SProblem BlindProblem(const SPass& pass);

}  // namespace Rvxd

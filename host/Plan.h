#pragma once
/// @file
/// What a person is told before a disk is written to.

#include <optional>
#include <string>
#include <vector>

#include "host/JsonView.h"
#include "host/Machine.h"

namespace Host {

/// A disk or array of the request and what is known of it.
struct SDiskPlan {
  std::string m_Name;
  std::string m_Size;
  std::optional<unsigned long> m_Bytes;
  std::string m_Model;       ///< of an array: its level
  std::string m_Membership;  ///< "member of md_d0"; empty: of no array
  SDeviceFacts m_Facts;
  SContents m_Contents;
};

/// Looks at a disk, or at an array that is to be deleted.
SDiskPlan PlanOf(const CMachine& machine, const CTopology& topology, const PI::CObject& object);
Json PlanJson(const std::vector<SDiskPlan>& disks);
/// For a terminal of `width` columns; 0 is no limit.
std::string PlanText(const std::vector<SDiskPlan>& disks, std::size_t width);
/// The same for the same state of the same disks, and another for any other: a word without blanks. `rest` is
/// what else must be the same.
std::string TokenOf(const std::vector<SDiskPlan>& disks, const std::string& rest);

}  // namespace Host

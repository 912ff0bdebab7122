#pragma once
/// @file
/// What a person is told before a disk is written to.

#include <optional>
#include <string>
#include <vector>

#include "host/JsonView.h"
#include "host/LocalMachine.h"

namespace rvxctl {

/// A disk of the request and what is known to be on it.
struct SDiskPlan {
  std::string m_Name;
  std::string m_Size;
  std::optional<unsigned long> m_Bytes;
  std::string m_Model;
  std::string m_Serial;                 ///< empty when udev knows none
  std::vector<std::string> m_Contents;  ///< such as "ext4 signature", "partition sdb1, mounted at /srv"
};

/// Looks at a disk, or at an array that is to be deleted.
SDiskPlan PlanOf(const CLocalMachine& machine, const PI::CObject& disk);
Json PlanJson(const std::vector<SDiskPlan>& disks);
/// For a terminal of `width` columns; 0 is no limit.
std::string PlanText(const std::vector<SDiskPlan>& disks, std::size_t width);

}  // namespace rvxctl

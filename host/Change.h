#pragma once
/// @file
/// A change of the machine as one look at it shows it: what would be done, whether it is allowed, and the
/// token that tells this state from any other.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/Error.h"
#include "host/Inventory.h"
#include "host/Plan.h"

namespace Host {

/// Which operation of which object, and what to tell before.
struct SChange {
  std::string m_What;  ///< "create a raid1 array of sdb, sdc"
  const PI::CObject& m_Object;
  PI::_OPERATION_CODE m_Code;
  std::vector<SDiskPlan> m_Disks{};
  std::string m_Loss{};                                  ///< empty: nothing is lost, and nobody is asked
  std::string m_Level{};                                 ///< md's name of the level, for hints
  std::string m_Basis{};                                 ///< what else must be the same at the second look
  std::string m_Question{};                              ///< asked behind the first one
  std::function<void(PI::COperation&)> m_Complete = {};  ///< fills in what the caller of an operation gives
  std::string m_FirstQuestion{};                         ///< empty: the catalogue's
};

/// Makes the change of a look at the machine; it is made again of a second look, whose identifiers are other
/// ones. Throws CError when the request is wrong, or the state forbids it.
using Proposal = std::function<SChange(const CInventory&)>;

/// What is told of a change before it is made.
struct SPlan {
  Json m_Document{};                       ///< as programs have it; "token" is that of the look
  std::string m_Text{};                    ///< "This will ...", the disks, the warnings
  std::string m_Answer{};                  ///< "allowed", or "refused: " and the check's status
  std::vector<std::string> m_Questions{};  ///< what a person is asked; empty: nothing is lost
  std::optional<CError> m_Refusal{};       ///< by the plug-in's check
  std::string m_ID{};                      ///< by which rvxd knows it
};

/// The rules have been asked by the proposal; the plug-in's check is asked here.
struct SLook {
  /// Throws CError when the request is wrong, or the state forbids it.
  SLook(CSession& session, const CMachine& machine, const Proposal& propose);

  /// For a terminal of `width` columns; 0 is no limit.
  SPlan Plan(std::size_t width) const;
  /// What the execution's answer means; none when it is OK.
  std::optional<CError> FailureOf(unsigned int status) const;

  const CTopology m_Topology;
  const CInventory m_Inventory;
  const SChange m_Change;
  const PI::COperation m_Offered;
  PI::COperation m_Operation;
  unsigned int m_Check{PI::OK};
  std::string m_Warning;
  std::string m_Token;

 private:
  /// Why the check refused, with what helps.
  CError Refusal() const;
};

/// Looks again before the execution. Throws CError(EXIT_BUSY), with the rule where one is behind it, unless
/// this look shows what the plan of that token showed: somebody may have taken another disk's place.
std::unique_ptr<SLook> LookAgain(CSession& session, const CMachine& machine, const Proposal& propose,
                                 const std::string& token);
/// Nothing was done, because the state is another one.
CError ChangedMeanwhile(const std::string& why);

}  // namespace Host

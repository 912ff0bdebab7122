#pragma once
/// @file
/// The changes that can be asked for, each as a look at the machine makes it: what is done to which object,
/// which disks it means, what is lost. Addresses are those of CInventory::FindForChange.

#include <optional>
#include <string>
#include <vector>

#include "host/Change.h"

namespace Host {

/// PLUGIN_ALONE: no rules but the plug-in's and the kernel's, for tests of theirs.
enum class ERules { ALL, PLUGIN_ALONE };

enum class EChange {
  CREATE_ARRAY,
  DELETE_ARRAY,
  ADD_SPARE,
  RELEASE_SPARE,
  START_REBUILD,
  CANCEL_REBUILD,
  RESCAN
};
/// "array.create", "array.delete", "spare.add", "spare.release", "rebuild.start", "rebuild.cancel", "rescan".
const char* WordOf(EChange kind);

/// A change as it is asked for, on a command line or in a document.
struct SRequest {
  EChange m_Kind;
  std::string m_Level{};                  ///< of a creation: "raid1"
  std::optional<std::string> m_Stripe{};  ///< of a creation, KiB: "64"; none: the level's default
  std::vector<std::string> m_Disks{};     ///< of a creation in the order of their slots; one of a spare
  std::string m_Array{};                  ///< of all others
  bool m_Last{false};                     ///< delete the last of the plug-in's in place of a named one
  bool m_All{false};                      ///< delete every array
  bool m_PartitionMembers{false};         ///< a deletion may overwrite the ends of whole disks
  ERules m_Rules{ERules::ALL};            ///< no part of a document
};

/// As a document has it: {"kind": "array.create", "level": "raid1", "disks": [...], "stripe": 65536}. The
/// stripe is a number of bytes, or the KiB as a text, as ToJson writes it.
Json ToJson(const SRequest& request);
/// Throws CError(EXIT_USAGE), which names the field, where the document is no such request. Fields that are
/// not known are passed over.
SRequest RequestOf(const Json& document);

/// Throws CError when the request is wrong, or the state forbids it.
SChange ChangeOf(const CInventory& inventory, const SRequest& request);
/// The same request by kernel names: these go on to name what a change ended, when links and records that
/// other names are found by are gone with it.
SRequest ByKernelNames(const CInventory& inventory, SRequest request);
/// The arrays that a deletion means.
std::vector<const PI::CObject*> ArraysOf(const CInventory& inventory, const SRequest& request);

}  // namespace Host

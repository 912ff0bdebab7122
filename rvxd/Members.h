#pragma once
/// @file
/// Which disks arrays were made of when they were last whole, and which have failed since: md forgets the one
/// that has gone, and whoever is to replace it needs its serial number.

#include <string>

#include "host/JsonView.h"

namespace Rvxd {

using Host::Json;

/// Kept over restarts. For one thread.
class CMembers {
 public:
  explicit CMembers(const std::string& folder);

  /// Whether a document from a file is one of the disks below.
  static bool IsDisk(const Json& json);

  /// Takes in members that work in arrays that are whole, and failed ones of the others. `arrays` and `disks`
  /// are those of /v1/state, here and below.
  void Learn(const Json& arrays, const Json& disks);
  /// The disks that a problem with this array or disk is about: [{name, id, serial, model, path, state}]. Of
  /// an array those that do not work in it: the failed ones first, and at last, "gone", those that it had and
  /// md does not know any more; another disk may have that one's name by now.
  Json Concerned(const std::string& object, const Json& arrays, const Json& disks) const;

 private:
  const std::string m_File;
  bool m_IsKept{true};
  Json m_Known;  ///< by the array's UUID, else its name: a list of such disks
};

}  // namespace Rvxd

#pragma once
/// @file
/// What rvxd itself is told to expect of the machine.

#include <map>
#include <mutex>
#include <string>

#include "host/JsonView.h"

namespace Rvxd {

/// How many spares an array is to have, by its UUID, else its name; an array that is not named has no such
/// number.
using Spares = std::map<std::string, unsigned int>;
constexpr unsigned int SPARES_LIMIT = 32;

/// Kept over restarts. All functions may be called by any thread.
class CSettings {
 public:
  explicit CSettings(const std::string& folder);

  Spares Wanted() const;
  /// Throws Host::CError when it cannot be kept; nothing is changed then.
  void Want(const Spares& spares);
  /// Keeps under its UUID what was told of an array before udev knew that. What cannot be kept stays as it
  /// is.
  /// @param arrays those of /v1/state
  void Learn(const Host::Json& arrays);

 private:
  /// With m_Mutex taken.
  void Keep(const Spares& spares);

  const std::string m_File;
  mutable std::mutex m_Mutex;
  Spares m_Spares;
};

}  // namespace Rvxd

#pragma once

#include <cstdlib>
#include <string>

#include "KVT/Api.h"

namespace KVT::Internal {

/// The value of an environment variable; null when it is unset or empty. Null also in a program that was
/// given more rights than the person who started it: that person may not choose which files it takes.
inline const char* FindVariable(const char* name) {
  const char* const value = ::secure_getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

/// From now on, the configuration files of this process lie in this folder where ZQ_CONFIG_DIR names none,
/// and no more in /etc/zq: for a build that must not write this machine's. Safe beside other threads.
ZQ_API void SetConfigDirectory(const std::string& folder);

}  // namespace KVT::Internal

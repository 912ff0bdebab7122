#pragma once
/// @file

#include <cstdlib>

namespace KVT::Internal {

/// The value of an environment variable; null when it is unset or empty. Null also in a program that was
/// given more rights than the person who started it: that person may not choose which files it takes.
inline const char* FindVariable(const char* name) {
  const char* const value = ::secure_getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

}  // namespace KVT::Internal

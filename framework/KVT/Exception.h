#pragma once

#include <system_error>

#include "KVT/Api.h"

namespace KVT {

/// A failed system call; what() holds the operation and the system's error text.
class ZQ_API CSystemException : public std::system_error {
 public:
  /// @param error an errno value, kept by the caller right after the call that failed
  CSystemException(int error, const char* operation);
  ~CSystemException() override;
};

}  // namespace KVT

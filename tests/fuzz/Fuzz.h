#pragma once
/// @file
/// What the fuzz targets share.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "system/TheSystem.h"

/// createIf, which asks for it, is not called: instances are made without it.
OS::COperatingSystem& OS::TheSystem() { std::abort(); }

/// Ends the program with what is wrong, so that the input is kept.
inline void Require(bool holds, const std::string& what) {
  if (holds) return;
  std::fprintf(stderr, "NOT SO: %s\n", what.c_str());
  std::abort();
}

/// @file
/// A plug-in for which there is no memory. It passes for a simulated build, so that no rights are needed to
/// load it.

#include "PI/PluginApi.h"

#define EXPORTED __attribute__((visibility("default")))

extern "C" {
EXPORTED CreateIfFunction createIf;
EXPORTED ReleaseIfFunction releaseIf;
EXPORTED const char* rvxLoadMachine(const char* file);
}

unsigned int createIf(IPLUGINAPI** out) {
  *out = nullptr;
  return PI::ERR_OUT_OF_MEMORY;
}

void* releaseIf(IPLUGINAPI** inout) { return inout; }

const char* rvxLoadMachine(const char*) { return nullptr; }

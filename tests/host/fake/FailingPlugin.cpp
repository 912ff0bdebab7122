// A plug-in for which there is no memory. It passes for a simulated build, so that no rights are needed.
#include "PI/PluginApi.h"

#pragma GCC visibility push(default)
extern "C" unsigned int createIf(IPLUGINAPI**) { return PI::ERR_OUT_OF_MEMORY; }
extern "C" void* releaseIf(IPLUGINAPI** inout) { return inout; }
extern "C" const char* rvxLoadMachine(const char*) { return nullptr; }

#pragma once
/// @file
/// Which machine this build of the plug-in runs on.

#include "system/OperatingSystem.h"

namespace OS {

/// The machine that `createIf` gives to the plug-in: Linux in the shipped library, a simulated machine in the
/// simulated build. Exactly one definition is linked in. Lives as long as the library.
COperatingSystem& TheSystem();

}  // namespace OS

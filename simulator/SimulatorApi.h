#pragma once
/// @file
/// What the simulated build of the plug-in exports beside the plug-in's own entries. Not for several threads
/// at once.

#include "system/OperatingSystem.h"

extern "C" {
/// Chooses the machine that `createIf` will run on: a description's file, or null for the demonstration. To
/// be called before `createIf`; a machine that is in use is not replaced. Null on success, else what is
/// wrong, valid until the next call.
using LoadMachineFunction = const char*(const char* file);
/// Writes the machine's present state as a description; the file is replaced as a whole or not at all. Result
/// as above.
using SaveMachineFunction = const char*(const char* file);
/// The machine that was chosen, for what a host shows of it beside the plug-in. Valid as long as the library.
using MachineFunction = OS::COperatingSystem*();

__attribute__((visibility("default"))) LoadMachineFunction rvxLoadMachine;
__attribute__((visibility("default"))) SaveMachineFunction rvxSaveMachine;
__attribute__((visibility("default"))) MachineFunction rvxMachine;
}

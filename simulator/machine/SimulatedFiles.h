#pragma once
/// @file
/// The files, links and programs of a simulated machine.

#include "simulator/machine/MachineState.h"

namespace Simulation {

/// What is at a path. Text files are made when they are asked for.
struct SEntry {
  enum class EKind { Text, Link, Directory, Random, Block };
  EKind m_Kind{};
  std::string m_Text;  ///< of a file; of a link, where it points to
  dev_t m_Device{};    ///< of a block device's node
  mode_t m_Mode{};     ///< permissions
};

/// What is at the path, links not followed; none when nothing is.
std::optional<SEntry> FindEntry(SMachine& machine, const std::string& path);
/// The same with a link followed to the directory that it leads to.
std::optional<SEntry> ResolveEntry(SMachine& machine, const std::string& path);

/// Where a disk hangs, as udev writes it: "/devices/pci0000:00/.../block/sda".
std::string DevicePath(const SMachine& machine, const SDisk& disk);

struct SProgramResult {
  int m_Result{};  ///< as KVTX::CSystem::ExecuteCommand
  std::vector<std::string> m_Lines;
};
/// Runs one of the machine's programs; 0 for one that is not there.
SProgramResult RunProgram(SMachine& machine, const std::string& program, const std::string& arguments);

}  // namespace Simulation

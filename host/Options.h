#pragma once
/// @file
/// What was said on the command line for all commands.

#include <string>

namespace Host {

struct SOptions {
  bool m_Json{false};
  bool m_Plain{false};  ///< no colours
  bool m_Simulate{false};
  std::string m_Machine;  ///< description of the simulated machine; empty: the demonstration
  bool m_Save{false};     ///< write the machine back at the end
  bool m_Direct{false};   ///< not by way of rvxd
  std::string m_Socket;   ///< of rvxd; empty: the machine's, where it answers
  std::string m_Plugin;   ///< path of the plug-in; empty: found beside this program
  unsigned int m_Trace{0};
};

}  // namespace Host

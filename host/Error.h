#pragma once
/// @file
/// How a command fails: a message for the person and an exit status for scripts.

#include <stdexcept>
#include <string>

#include "PI/Numbers.h"

namespace Host {

/// How the program ends; scripts rely on the numbers.
enum EExit : int {
  EXIT_DONE = 0,
  EXIT_PLUGIN_ERROR = 1,  ///< the plug-in answered with an error
  EXIT_USAGE = 2,
  EXIT_NO_OBJECT = 3,
  EXIT_NOT_CONFIRMED = 4,
  EXIT_BUSY = 5,
  EXIT_NOT_ALLOWED = 6,
  EXIT_NO_RIGHTS = 8,
  EXIT_NO_PLUGIN = 9,
  EXIT_SIGNAL = 128  ///< plus the signal's number
};

/// Ends the command with a message for the person and an exit status.
class CError : public std::runtime_error {
 public:
  CError(int exitStatus, const std::string& message, unsigned int status = PI::OK)
      : std::runtime_error(message), m_ExitStatus(exitStatus), m_Status(status) {}
  int m_ExitStatus;
  unsigned int m_Status;   ///< the plug-in's answer, PI::OK when it is none
  std::string m_Name{};    ///< of the status, where another program told it; empty: the module knows it
  std::string m_Rule{};    ///< which rule forbids it, a word for programs: "disk-in-use"; empty: none does
  std::string m_Object{};  ///< whom the rule is about: "sdb"
};

/// The error for a status that the plug-in answered with: number, name, text, what to do.
CError PluginError(unsigned int status, const std::string& what, const std::string& hint = {});
CError CannotLoad(const std::string& why, unsigned int status = PI::OK);

}  // namespace Host

#pragma once
/// @file
/// The plug-in as the server uses it: loaded, initialised, asked, de-initialised, released.

#include <chrono>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "PI/Object.h"
#include "PI/PluginApi.h"

namespace rvxctl {

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
  unsigned int m_Status;  ///< the plug-in's answer, PI::OK when it is none
};

/// What was said on the command line for all commands.
struct SOptions {
  bool m_Json{false};
  bool m_Color{false};
  bool m_Simulate{false};
  std::string m_Machine;  ///< description of the simulated machine; empty: the demonstration
  bool m_Save{false};     ///< write the machine back at the end
  std::string m_Plugin;   ///< path of the plug-in; empty: found beside this program
  unsigned int m_Trace{0};
};

/// Keeps the real standard output to itself: the plug-in prints a line of its own when it initialises.
class COutput {
 public:
  /// Opens what is missing of the three standard descriptors first: a disk that got number 1 would take what
  /// the plug-in prints.
  explicit COutput(bool tracing);
  ~COutput();
  COutput(const COutput&) = delete;
  COutput& operator=(const COutput&) = delete;
  /// Throws CError when the text cannot be written.
  void Print(const std::string& text);
  bool HasPrinted() const { return m_HasPrinted; }
  bool IsTerminal() const { return m_IsTerminal; }

 private:
  std::FILE* m_File{nullptr};
  bool m_HasPrinted{false};
  bool m_IsTerminal{false};
};

/// The catalogue's texts and the names of statuses.
class CTexts {
 public:
  /// The catalogue's text; the number itself when it has none.
  std::string Of(unsigned int number) const;
  std::optional<std::string> Find(unsigned int number) const;
  /// "ERR_BUSY"; "status N" for one that the module does not name.
  std::string StatusName(unsigned int status) const;
  /// Number, name and text.
  std::string OfStatus(unsigned int status) const;
  /// The event's text with its placeholders filled in.
  std::string OfEvent(const PI::CEvent& event) const;
};

/// A loaded and initialised plug-in. Throws CError when it cannot be had.
class CSession : public INotificationTarget {
 public:
  explicit CSession(const SOptions& options);
  ~CSession() override;
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  /// From now on SIGINT and SIGTERM no longer end the program but Pause, so that the plug-in is always
  /// de-initialised.
  void HoldSignals();
  /// Takes up the server's full sequence: the plug-in's threads run from now on, and signals are held.
  void Start();
  /// Takes a fresh instance of the plug-in, which sees the machine as it is now: identifiers are new. For a
  /// session that was not started, it is quicker than a pass of threads that must be ended again.
  void Renew();
  /// Waits; throws CError(EXIT_SIGNAL + n) when the person or the system wants an end.
  void Pause(std::chrono::milliseconds time) const;
  /// De-initialises and releases the plug-in, which ends the session, and writes the simulated machine back
  /// when that was asked for. Throws CError when the machine cannot be written.
  void End();

  /// The plug-in, the adapter, then disks and arrays.
  std::vector<PI::CObject> Topology();
  std::vector<PI::CProperty> Properties(unsigned long id);
  PI::CProperty Property(unsigned long id, PI::_PROPERTY_ID property);
  std::vector<PI::CEvent> FetchEvents();
  /// Status of the check or execution, which the caller judges.
  unsigned int Check(unsigned long id, PI::COperation& operation);
  unsigned int Run(unsigned long id, PI::COperation& operation);
  /// Sets a property. On a simulated machine without a folder for settings (ZQ_CONFIG_DIR) the value lasts as
  /// long as this instance of the plug-in. Throws CError when not even that can be had.
  unsigned int Set(unsigned long id, PI::CProperty& property);

  const CTexts& Texts() const { return m_Texts; }

 private:
  void Notify(IPLUGINAPI*) {}  // the topology is asked, not the notification waited for
  void Open();
  void Release();
  unsigned int Execute(PI::_COMMAND command, unsigned long id, void* data);
  void Require(unsigned int status, const char* what) const;

  SOptions m_Options;
  bool m_HasSettings{true};  ///< false: a simulated machine that was given no folder for them
  void* m_Library{nullptr};
  IPLUGINAPI* m_Plugin{nullptr};
  CreateIfFunction* m_Create{nullptr};
  ReleaseIfFunction* m_Release{nullptr};
  std::vector<PI::CAdapterID> m_AdapterIDs;
  unsigned long m_PluginID{0};
  bool m_Started{false};
  CTexts m_Texts;
};

/// The error for a status that the plug-in answered with: number, name, text, what to do.
CError PluginError(const CTexts& texts, unsigned int status, const std::string& what,
                   const std::string& hint = {});

}  // namespace rvxctl

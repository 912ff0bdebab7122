#pragma once
/// @file
/// The plug-in as the server uses it: loaded, initialised, asked, de-initialised when it was started,
/// released.

#include <chrono>
#include <vector>

#include "PI/Object.h"
#include "PI/PluginApi.h"
#include "host/Error.h"
#include "host/Options.h"
#include "system/OperatingSystem.h"

namespace Host {

/// A loaded and initialised plug-in. Throws CError when it cannot be had.
class CSession : public INotificationTarget {
 public:
  explicit CSession(const SOptions& options);
  ~CSession() override;
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  /// Takes up the server's full sequence: the plug-in's threads run from now on, and signals
  /// that ask for an end no longer end the program but a Pause, so that the plug-in is always de-initialised.
  void Start();
  bool IsStarted() const { return m_Started; }
  /// Takes a fresh instance of the plug-in, which sees the machine as it is now: identifiers are new. For a
  /// session that was not started, it is quicker than a pass of threads that must be ended again.
  void Renew();
  /// Ends the plug-in's threads if it was started and releases it, which ends the session, and writes the
  /// simulated machine back when that was asked for. Throws CError when the machine cannot be written.
  void End();

  /// The machine that a simulated build works on. Throws CError when this build has none.
  OS::COperatingSystem& SimulatedMachine() const;

  /// The plug-in, the adapter, then disks and arrays.
  std::vector<PI::CObject> Topology();
  std::vector<PI::CProperty> Properties(unsigned long id);
  PI::CProperty Property(unsigned long id, PI::_PROPERTY_ID property);
  /// Behind a first Topology, which tells whom to ask.
  std::vector<PI::CEvent> FetchEvents();
  /// Status of the check or execution, which the caller judges.
  unsigned int Check(unsigned long id, PI::COperation& operation);
  unsigned int Run(unsigned long id, PI::COperation& operation);
  /// The same of what changes the machine: no signal breaks it off before the third. `what` tells a person
  /// what it is.
  unsigned int Change(unsigned long id, PI::COperation& operation, const std::string& what);
  /// Sets a property. On a simulated machine without a folder for settings (ZQ_CONFIG_DIR) the value lasts as
  /// long as this instance of the plug-in. Throws CError when not even that can be had.
  unsigned int Set(unsigned long id, PI::CProperty& property);

 private:
  void Notify(IPLUGINAPI*) {}  // the topology is asked, not the notification waited for
  void Open();
  void Release();
  unsigned int Execute(PI::_COMMAND command, unsigned long id, void* data);

  SOptions m_Options;
  bool m_HasSettings{true};  ///< false: a simulated machine that was given no folder for them
  void* m_Library{nullptr};
  IPLUGINAPI* m_Plugin{nullptr};
  CreateIfFunction* m_Create{nullptr};
  ReleaseIfFunction* m_Release{nullptr};
  std::vector<PI::CAdapterID> m_AdapterIDs;
  unsigned long m_PluginID{0};
  bool m_Started{false};
};

/// An object has no such property.
CError NoProperty(unsigned int property);

/// Sets the seconds between two looks of the plug-in at the machine, which lasts over its restart. Throws
/// CError: EXIT_USAGE outside the plug-in's limits.
void SetPollInterval(CSession& session, int seconds);

}  // namespace Host

#pragma once
/// @file
/// A plug-in of this program's own, loaded for the length of a command.

#include <memory>

#include "host/Machine.h"
#include "host/Options.h"
#include "rvxctl/Source.h"

namespace Host {

class CDirect : public CSource {
 public:
  /// Loads the plug-in.
  explicit CDirect(const SOptions& options);

  SView View(const SViewRequest& request, const SForm& form) override;
  SPlan Plan(const SRequest& request, std::size_t width) override;
  SOutcome CarryOut(const SRequest& request, const SPlan& plan) override;
  void SetPollInterval(int seconds) override;
  void Watch() override { m_Session.Start(); }
  Json Events() override;

  CSession& Session() { return m_Session; }
  /// The machine that the plug-in works on.
  const CMachine& Machine() const { return m_Machine; }

 private:
  SOutcome Rescan(const SRequest& request);

  CSession m_Session;
  const std::unique_ptr<OS::COperatingSystem> m_Here;
  const CMachine m_Machine;
  bool m_HasLooked{false};
};

/// Waits until a pass of the plug-in's worker has moved the plug-in's counter on from `before`; false when
/// none did within 30 s.
bool AwaitPass(CSession& session, unsigned long before);

}  // namespace Host

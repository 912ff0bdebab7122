#pragma once
/// @file
/// The routes: what is asked for, and what is answered. docs/openapi.yaml describes them.

#include "rvxd/Http.h"
#include "rvxd/Metrics.h"
#include "rvxd/Notifier.h"

namespace Rvxd {

class CApi {
 public:
  /// `isSimulated` is told to who asks.
  CApi(CKeeper& keeper, CFeed& feed, COperations& operations, CConditions& conditions, CSettings& settings,
       CNotifier& notifier, const CMetrics& metrics, CCounters& counters, bool isSimulated)
      : m_Keeper(keeper),
        m_Feed(feed),
        m_Operations(operations),
        m_Conditions(conditions),
        m_Settings(settings),
        m_Notifier(notifier),
        m_Metrics(metrics),
        m_Counters(counters),
        m_IsSimulated(isSimulated) {}

  /// Any thread. Failures are problems. The request is counted.
  SHttpAnswer Answer(const SHttpRequest& request) const;

 private:
  using Captured = std::string;  ///< what stands in the place of "*"
  using Handler = SHttpAnswer (CApi::*)(const SHttpRequest&, const Captured&) const;
  struct SRoute {
    const char* m_Method;
    const char* m_Path;
    Handler m_Handler;
  };
  static const SRoute ROUTES[];

  SHttpAnswer Guarded(const SHttpRequest& request) const;
  SHttpAnswer Route(const SHttpRequest& request) const;

  SHttpAnswer Root(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer State(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Health(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Arrays(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Array(const SHttpRequest& request, const Captured& id) const;
  SHttpAnswer Disks(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Disk(const SHttpRequest& request, const Captured& id) const;
  SHttpAnswer Controllers(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Levels(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer View(const SHttpRequest& request, const Captured& name) const;
  SHttpAnswer Events(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Conditions(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Acknowledge(const SHttpRequest& request, const Captured& id) const;
  SHttpAnswer Plan(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Begin(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Operations(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Operation(const SHttpRequest& request, const Captured& id) const;
  SHttpAnswer Withdraw(const SHttpRequest& request, const Captured& id) const;
  SHttpAnswer Notify(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer TestNotify(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Settings(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer SetSettings(const SHttpRequest& request, const Captured&) const;
  SHttpAnswer Metrics(const SHttpRequest& request, const Captured&) const;

  /// All of a kind, under their name; one of them. Both with the tag of their revision.
  SHttpAnswer List(const SHttpRequest& request, const char* name,
                   const Json& (CSnapshot::*list)() const) const;
  SHttpAnswer One(const SHttpRequest& request, const char* name, const Captured& id,
                  const Json* (CSnapshot::*find)(const std::string&) const) const;
  /// The last look. Throws CProblem before the first one.
  std::shared_ptr<const CSnapshot> Snapshot() const;
  Json SettingsJson() const;
  /// The wanted numbers of spares, by what an array is kept under, with what a request changes of them.
  Spares SparesWith(const Json& changes) const;

  CKeeper& m_Keeper;
  CFeed& m_Feed;
  COperations& m_Operations;
  CConditions& m_Conditions;
  CSettings& m_Settings;
  CNotifier& m_Notifier;
  const CMetrics& m_Metrics;
  CCounters& m_Counters;
  const bool m_IsSimulated;
};

}  // namespace Rvxd

// A sample of the trace texts that logs are searched for, each in its class alone.

#include "tests/support/Arrays.h"
#include "tests/support/TraceCapture.h"

using namespace NAMESPACE_piRVX;

namespace {

void ActOnEverything() {
  SRig rig(DisksOf({300000, 300000, 300000, 300000}, MirrorOfTwo("md_d0")));
  const auto act = [&](const PI::CObject& object, const PI::COperation& operation) {
    std::vector<PI::COperation> operations;
    rig.m_Plugin.Properties(object.m_ID);
    rig.m_Plugin.Execute(PI::CMD_GET_OPERATIONS, object.m_ID, &operations);
    Check(rig.m_Plugin, object.m_ID, operation);
    Execute(rig.m_Plugin, object.m_ID, operation);
  };
  rig.m_Plugin.Topology();
  act(rig.m_Plugin.m_Plugin, Operation(PI::OP_GET_EVENTS));
  act(rig.m_Plugin.m_Adapter, Operation(PI::OP_RESCAN_ADAPTER));
  act(rig.m_Plugin.Drive("sda"), Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, 7));
  Create(rig.m_Plugin, PI::LEVEL_RAID0, PI::STRIPE_64K, {"sdc", "sdd"});
  rig.Pass();
  rig.m_Door.FailAt(CFaultyMachine::ECall::Any, 1, EIO, 99);
  act(rig.m_Plugin.m_Adapter, Operation(PI::OP_DELETE_ALL_LOGICAL_DRIVES));
}

TEST(Trace, TextsThatLogsAreSearchedForKeepTheirSpelling) {
  const std::tuple<unsigned int, const char*, const char*> lines[] = {
      {TRACE_LIFECYCLE, "Src/piRVXPlugin", "LEAVE Initialize() -> 0"},
      {TRACE_LIFECYCLE, "Src/piRVXPlugin", "LEAVE GetEvents() -> 0"},
      {TRACE_LIFECYCLE, "Src/piRVXAdapter", "LEAVE AdapterExecuteOperation() -> 20003"},
      {TRACE_LIFECYCLE, "Src/piRVXPhysicalDrive",
       "CheckPhysicalDriveOperation() drive sda connot be configured"},
      {TRACE_INFORMATION, "Src/piRVXPlugin", "GetTopology() PhysicalDrive (8/16) m_ID=0x127000000000003"},
      {TRACE_INFORMATION, "Src/piRVX", "GetProperties m_PhysicalDrives=4"},
      {TRACE_INFORMATION, "Src/piRVXAdapter",
       "CreateLogicalDrive() name=md_d1 level=0 num=2 stripe=64 size=0 d1=8/32 d2=8/48"},
      {TRACE_LOCKS, "Src/piRVX", "LEAVE CheckOperation(50036)"},
      {TRACE_LOCKS, "Src/piRVXPlugin", "Before m_EventsLock.Wait (NULL, 0)"},
      {TRACE_LOCKS, "Src/piRVXAdapter", "After m_EventsLock.Release()"},
      {TRACE_THREADS, "Src/piRVX", "ENTER GetOperations object=0x127000000000002"},
      {TRACE_THREADS, "Src/piRVXPlugin", "Create new adpID"},
      {TRACE_THREADS, "Src/piRVXPlugin", "vor checkpd /sys/block/sda/device sda"}};
  for (const unsigned int traced : {TRACE_LIFECYCLE, TRACE_INFORMATION, TRACE_LOCKS, TRACE_THREADS}) {
    const CTraceCapture trace(traced);
    ActOnEverything();
    for (const auto& [traceClass, source, text] : lines)
      EXPECT_EQ(trace.Shows(source, text), traceClass == traced) << text << " with classes " << traced;
  }
}

}  // namespace

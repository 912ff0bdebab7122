// A sample of the trace texts that logs are searched for, each in its class alone.

#include <gtest/gtest.h>

#include "tests/support/Arrays.h"
#include "tests/support/TraceCapture.h"

using namespace NAMESPACE_piRVX;

namespace {

/// The commands that read, and operations with each of their calls failing.
void ActOnEverything() {
  const std::string machine = DisksOf({300000, 300000, 300000, 300000}, MirrorOfTwo("md_d0"));
  for (std::uint64_t n = 0; n < 25; ++n) {
    SRig rig(machine);
    rig.m_Plugin.Topology();
    const auto act = [&](unsigned long id, const PI::COperation& operation) {
      Check(rig.m_Plugin, id, operation);
      rig.m_Door.Clear();
      if (n != 0) rig.m_Door.FailAt(CFaultyMachine::ECall::Any, n, EIO);
      Execute(rig.m_Plugin, id, operation);
    };
    act(rig.m_Plugin.Drive("sda").m_ID, Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, 7));
    Create(rig.m_Plugin, PI::LEVEL_RAID0, PI::STRIPE_64K, {"sdc", "sdd"});
    act(rig.m_Plugin.Drive("sdc").m_ID, Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, 0));
    act(rig.m_Plugin.Drive("sdc").m_ID, Operation(PI::OP_DELETE_DEDICATED_HOTSPARE));
    act(rig.m_Plugin.m_Adapter.m_ID, Operation(PI::OP_DELETE_ALL_LOGICAL_DRIVES));
    rig.m_Door.Clear();
    rig.Pass();
  }
}

TEST(Trace, TextsThatLogsAreSearchedForKeepTheirSpelling) {
  const std::string plugin = "Src/piRVXPlugin";
  const std::string adapter = "Src/piRVXAdapter";
  const struct {
    unsigned int m_Class;
    std::string m_Source;
    const char* m_Text;
  } lines[] = {{TRACE_LIFECYCLE, plugin, "LEAVE Initialize() -> 0"},
               {TRACE_LIFECYCLE, adapter, "GetUnusedArrayName() create device /dev/md_d1 with minor 64"},
               {TRACE_LIFECYCLE, adapter, "LEAVE AdapterExecuteOperation() -> 20003"},
               {TRACE_LIFECYCLE, "Src/piRVXPhysicalDrive",
                "CheckPhysicalDriveOperation() drive sda connot be configured"},
               {TRACE_INFORMATION, plugin, "GetTopology() PhysicalDrive (8/16) m_ID=0x127000000000003"},
               {TRACE_INFORMATION, adapter,
                "CreateLogicalDrive() name=md_d1 level=0 num=2 stripe=64 size=0 d1=8/32 d2=8/48"},
               {TRACE_LOCKS, "Src/piRVX", "Before m_DataLock.Wait (sg)"},
               {TRACE_THREADS, plugin, "vor checkpd /sys/block/sda/device sda"}};
  for (const unsigned int traced : {TRACE_LIFECYCLE, TRACE_INFORMATION, TRACE_LOCKS, TRACE_THREADS}) {
    const CTraceCapture trace(traced);
    ActOnEverything();
    for (const auto& line : lines)
      EXPECT_EQ(trace.Shows(line.m_Source, line.m_Text), line.m_Class == traced)
          << line.m_Text << " with classes " << traced;
  }
}

}  // namespace

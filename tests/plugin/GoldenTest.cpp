// What logs say, and what the framework and front ends see, in golden.txt: every field of every object,
// property and operation on the machine of golden.json, whose clock makes the one date the same from Samoa to
// New Zealand.

#include <algorithm>
#include <boost/algorithm/string.hpp>

#include "Src/piRVXPhysicalDriveSmart.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;

namespace {

using CLines = std::vector<std::string>;

/// All of a property; fields with their usual value are left out.
std::string Line(const PI::CProperty& property) {
  const char* const types[] = {"none", "text", "range", "choice", "float", "number", "lists", "document"};
  std::string fields =
      Text(", label %d, unit %d, text %d, shown %x, format %d, kind %d, group %x, flags %d, writable %d,",
           property.m_LabelTextID, property.m_UnitTextID, property.m_ValueTextID, property.m_AttributeWord,
           property.m_DisplayFormat, property.m_DisplayKind, property.m_Group, property.m_TrailingFlags,
           property.m_Writable);
  for (const char* usual : {", label 0", ", unit 0", ", text 0", ", shown ffffffff", ", format 0", ", kind 0",
                            ", group ffffffff", ", flags 1", ", writable 0"})
    boost::replace_first(fields, usual + std::string(","), ",");
  return Text("%d %s '%s'%s", property.m_ID, types[property.GetDataType()], Shown(property),
              fields.substr(0, fields.size() - 1));
}

template <class TList>
std::string Joined(const TList& list) {
  std::string text;
  for (const auto& one : list) text += Text(" %s", one);
  return text;
}

CLines LinesOf(const PI::CObject& object) {
  CLines lines;
  for (const PI::CProperty& property : object.m_Properties) lines.push_back(Line(property));
  for (const PI::COperation& operation : object.m_Operations) {
    lines.push_back(Text("%d operation %d, category %d, attributes%s, flag %d, confirmation %d",
                         operation.m_Code, operation.m_SecondCode, operation.m_Category,
                         Joined(operation.m_Attributes), operation.m_Flag, operation.m_ConfirmationCode));
    for (const PI::CProperty& parameter : operation.m_Parameters)
      lines.push_back(Text("%d takes %s", operation.m_Code, Line(parameter)));
    for (const PI::CLevel& level : operation.m_Levels)
      lines.push_back(Text("%d level %d: %d to %d of unit %d, stripes%s, usually %d, spans %d to %d",
                           operation.m_Code, level.m_Level, level.m_MinimumDrives, level.m_MaximumDrives,
                           level.m_Unit, Joined(level.m_StripeSizes), level.m_DefaultStripeSize,
                           level.m_MinimumSpans, level.m_MaximumSpans));
  }
  return lines;
}

struct Golden : public testing::Test, public SRig {
  Golden() : SRig(GoldenText("golden.json")) {}

  void Tell(const std::string& name, const std::string& line) { m_Text += name + ": " + line + "\n"; }
  void TellNew(const std::string& name, const CLines& lines, const CLines& known) {
    Tell(name, Text("%d lines", lines.size()));
    for (const std::string& line : lines)
      if (std::find(known.begin(), known.end(), line) == known.end()) Tell(name, line);
  }
  PI::CObject Asked(unsigned long id) {
    PI::CObject object;
    object.m_Properties = m_Plugin.Properties(id);
    m_Plugin.Execute(PI::CMD_GET_OPERATIONS, id, &object.m_Operations);
    for (PI::COperation& operation : object.m_Operations)
      if (operation.m_Code == PI::OP_GET_RAID_LEVEL_INFORMATION)
        m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, id, &operation);
    return object;
  }
  void TellChange(const std::string& name, unsigned long id, const std::function<void()>& change) {
    const CLines before = LinesOf(Asked(id));
    change();
    TellNew(name, LinesOf(Asked(id)), before);
  }

  /// How a plug-in answers requests for an object with what it knows and does not know, and what that leaves.
  void TellAnswers(const std::string& name, CTestInstance& plugin, const PI::CObject& object) {
    std::vector<PI::CProperty> properties;
    std::vector<PI::COperation> operations(2);
    PI::CProperty property(static_cast<PI::_PROPERTY_ID>(39999)), known(PI::PROP_NAME);
    property.SetValue("mine");
    PI::COperation operation = Operation(59999);
    operation.m_Events.resize(3);
    const std::pair<unsigned int, void*> requests[] = {{11, &operations}, {5, &properties}, {6, &property},
                                                       {6, &known},       {7, &known},      {8, &operations},
                                                       {9, &operation},   {10, &operation}};
    for (const auto& [command, data] : requests) {
      const unsigned long counter = object.m_UpdateCounter;
      properties.resize(2, PI::CProperty(PI::PROP_NAME));
      const unsigned int status = plugin.Execute(static_cast<PI::_COMMAND>(command), object.m_ID, data);
      Tell(name, Text("command %d: %d, counted %d; %d properties, %d operations, %d events, '%s'", command,
                      status, object.m_UpdateCounter - counter, properties.size(), operations.size(),
                      operation.m_Events.size(), Shown(property)));
    }
  }
  void TellObjects() {
    const std::vector<PI::CObject> objects = m_Plugin.Topology();
    for (const PI::CObject& object : objects) {
      const PI::CProperty* const path = Find(object.m_Properties, PI::PROP_DEVICE_PATH);
      m_Names[object.m_ID] = Shown(path != nullptr ? *path : *Find(object.m_Properties, PI::PROP_NAME));
    }
    const auto named = [this](const std::vector<unsigned long>& ids) {
      std::string text;
      for (const unsigned long id : ids) text += " " + m_Names.at(id);
      return text;
    };
    std::map<unsigned int, CLines> first;  // of a kind; of the others, what differs
    for (const PI::CObject& object : objects) {
      const std::string& name = m_Names[object.m_ID];
      SCOPED_TRACE(name);
      Tell(name, Text("object 0x%x of kind %d, changed %d, busy %d, parents%s, children%s", object.m_ID,
                      object.m_Kind, object.m_UpdateCounter, object.m_Busy, named(object.m_Parents),
                      named(object.m_Children)));
      const CLines lines = LinesOf(object);
      TellNew(name, lines, first[object.m_Kind]);
      if (first[object.m_Kind].empty()) first[object.m_Kind] = lines;
      PI::CObject asked = Asked(object.m_ID);
      EXPECT_EQ(LinesOf(asked), lines) << "asked for all";
      for (PI::CProperty& property : asked.m_Properties)
        property = m_Plugin.Property(object.m_ID, property.m_ID);
      EXPECT_EQ(LinesOf(asked), lines) << "asked for one by one";
    }
  }
  void TellChanges() {
    CRVXAdapter& adapter = m_Plugin.m_Adapter;
    TellChange("adapter with all", adapter.m_ID, [&] {
      std::tie(adapter.m_Location1, adapter.m_Location2, adapter.m_Location3) = std::tuple(11U, 12U, 13U);
      adapter.m_ExtraText = "Extra";
      adapter.m_AttributeList = {9, 10};
    });
    for (const std::uint32_t status : {40095U, 40150U, 7U})
      TellChange("adapter", adapter.m_ID, [&] { adapter.m_Status = status; });
    CRVXPhysicalDrive& drive = m_Plugin.Drive("sdg");
    for (const std::uint32_t status : {40099U, 40093U, 40095U, 40096U, 40098U, 40023U})
      for (const std::uint32_t medium : {40292U, 40293U})
        TellChange(Text("disk %d", status), drive.m_ID,
                   [&] { std::tie(drive.m_Status, drive.m_Medium) = std::tuple(status, medium); });
    std::vector<PI::CProperty> properties;  // a missing drive's; those that are there already are hidden too
    for (unsigned int id = 30000; id < 31000; ++id)
      properties.emplace_back(static_cast<PI::_PROPERTY_ID>(id));
    m_Plugin.GetPhysicalDriveProperties(drive, properties, PI::PROP_NONE);
    for (const PI::CProperty& property : properties)
      if (property.m_AttributeWord == 0) Tell("missing disk", Text("hides %d", property.m_ID));
    CRVXLogicalDrive& array = m_Plugin.Array("md0");
    TellChange("array without name and document", array.m_ID, [&] {
      array.m_KernelName.clear();
      array.m_Configuration = {};
    });
  }
  void TellMarks() {
    const std::tuple<int, int, int, int> marks[] = {{0, -1, -1, -1}, {0, 8, 16, 1}, {0, -1, -1, 1},
                                                    {0, -1, -1, 9},  {0, 8, 17, 1}, {0, -1, 16, 1},
                                                    {0, 8, -1, 1},   {-1, 8, 16, 1}};
    for (const auto& [all, major, minor, array] : marks) {
      std::string marked;
      EXPECT_EQ(m_Plugin.LockObjects(all, major, minor, array), PI::OK);
      for (const PI::CObject& object : m_Plugin.Topology())
        if (object.m_Busy) marked += " " + m_Names[object.m_ID];
      Tell("busy", Text("%d %d:%d %d marks%s", all, major, minor, array, marked));
      EXPECT_EQ(m_Plugin.UnlockObjects(), PI::OK);
    }
  }

  std::map<unsigned long, std::string> m_Names;
  std::string m_Text;
};

TEST_F(Golden, WhatFrontEndsSee) {
  gSmartData.clear();  // the cache outlives instances
  TellObjects();
  for (const PI::CEvent& event : m_Plugin.TakeEvents()) {
    Tell("first scan", Text("event %d about %s", event.m_Code, m_Names.at(event.m_ObjectID)));
    EXPECT_EQ(event.m_SourceID, m_Plugin.m_Adapter.m_ID);
  }
  CTestInstance fresh(m_Machine);
  PI::CObject nobody;
  nobody.m_ID = 4711;
  TellAnswers("plug-in", m_Plugin, m_Plugin.m_Plugin);
  TellAnswers("adapter", m_Plugin, m_Plugin.m_Adapter);
  TellAnswers("disk", m_Plugin, m_Plugin.Drive("sdg"));
  TellAnswers("array", m_Plugin, m_Plugin.Array("md0"));
  TellAnswers("no object", m_Plugin, nobody);
  TellAnswers("before command 1", fresh, nobody);
  TellMarks();
  TellChanges();
  CLines exports;
  KVTX::CSystem::ExecuteCommand("/usr/bin/nm", "-D --defined-only --format=just-symbols " RVX_PLUGIN,
                                exports);
  Tell("library", "exports" + Joined(exports));
  ExpectGolden("golden.txt", m_Text);
}

/// A sample of the texts that logs are searched for, each in its class alone.
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
  rig.m_System.FailAt(CFaultySystem::ANY, 1, EIO, 99);
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
      {TRACE_LOCKS, "Src/piRVXPlugin", "After m_EventsLock.Wait(NULL, 0)"},
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

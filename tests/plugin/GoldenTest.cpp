// What the framework and front ends see, in one text, golden.txt: every field of every object, property and
// operation on the machine of golden.json, which has one of everything. Its clock is set so that the one
// date, an end of life, is the same from Samoa to New Zealand; nothing else moves there.

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <boost/filesystem/string_file.hpp>
#include <cstdlib>

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;

namespace {

using CLines = std::vector<std::string>;

std::string Line(const PI::CProperty& property) {
  const char* const types[] = {"none", "text", "range", "choice", "float", "number", "lists", "document"};
  std::string line = Text("%d %s '%s'", property.m_ID, types[property.GetDataType()], Shown(property));
  const std::tuple<const char*, unsigned int, unsigned int> fields[] = {
      // with the usual value, which is not told
      {"label", property.m_LabelTextID, 0},
      {"unit", property.m_UnitTextID, 0},
      {"text", property.m_ValueTextID, 0},
      {"shown", property.m_AttributeWord, PI::CProperty::SHOWN},
      {"format", property.m_DisplayFormat, 0},
      {"kind", property.m_DisplayKind, 0},
      {"group", property.m_Group, PI::CProperty::NO_GROUP},
      {"flags", property.m_TrailingFlags, 1},
      {"writable", property.m_Writable ? 1 : 0, 0}};
  for (const auto& [name, value, usual] : fields)
    if (value != usual) line += Text(", %s %d", name, value);
  return line;
}

template <class TList>
std::string Joined(const TList& list) {
  std::string text;
  for (const auto& one : list) text += Text(" %s", one);
  return text;
}

/// A line for each property, operation, parameter and level record of an object.
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

/// The text of a file in the folder of this test.
std::string TextOf(const std::string& name) {
  std::string text;
  boost::filesystem::load_string_file(RVX_GOLDEN_FOLDER + name, text);
  return text;
}

struct Golden : public testing::Test, public SRig {
  Golden() : SRig(TextOf("golden.json")) {}

  void Tell(const std::string& name, const std::string& line) { m_Text += name + ": " + line + "\n"; }
  /// Tells the lines that are not among the known ones, and the numbers that are there no more.
  void TellNew(const std::string& name, const CLines& lines, const CLines& known) {
    for (const std::string& line : lines)
      if (std::find(known.begin(), known.end(), line) == known.end()) Tell(name, line);
    for (const std::string& line : known) {
      const std::string number = line.substr(0, line.find(' '));
      if (std::none_of(lines.begin(), lines.end(), [&](const auto& one) { return one.starts_with(number); }))
        Tell(name, "no " + number);
    }
  }
  /// An object as requests for it show it.
  PI::CObject Asked(unsigned long id) {
    PI::CObject object;
    object.m_Properties = m_Plugin.Properties(id);
    m_Plugin.Execute(PI::CMD_GET_OPERATIONS, id, &object.m_Operations);
    for (PI::COperation& operation : object.m_Operations)
      if (operation.m_Code == PI::OP_GET_RAID_LEVEL_INFORMATION)
        m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, id, &operation);
    return object;
  }
  /// What a change that no scan makes changes.
  void TellChange(const std::string& name, unsigned long id, const std::function<void()>& change) {
    const CLines before = LinesOf(Asked(id));
    change();
    TellNew(name, LinesOf(Asked(id)), before);
  }

  /// How a plug-in answers each request for an object with what it does not know, and what that leaves.
  void TellAnswers(const std::string& name, CTestInstance& plugin, const PI::CObject& object) {
    std::vector<PI::CProperty> properties;
    std::vector<PI::COperation> operations(2);
    PI::CProperty property(static_cast<PI::_PROPERTY_ID>(39999)), newName(PI::PROP_NAME);
    property.SetValue("mine");
    PI::COperation operation = Operation(59999);
    operation.m_Events.resize(3);
    const std::tuple<const char*, unsigned int, void*> requests[] = {
        {"command", 11, &operations},
        {"all properties", PI::CMD_GET_PROPERTIES, &properties},
        {"name", PI::CMD_GET_PROPERTY, &newName},
        {"property", PI::CMD_GET_PROPERTY, &property},
        {"new name", PI::CMD_SET_PROPERTY, &newName},
        {"operations", PI::CMD_GET_OPERATIONS, &operations},
        {"check", PI::CMD_CHECK_OPERATION, &operation},
        {"execution", PI::CMD_EXECUTE_OPERATION, &operation}};
    for (const auto& [what, command, data] : requests) {
      const unsigned long counter = object.m_UpdateCounter;
      properties.resize(2, PI::CProperty(PI::PROP_NAME));
      const unsigned int status = plugin.Execute(static_cast<PI::_COMMAND>(command), object.m_ID, data);
      Tell(name, Text("%s answered with %d, counted %d, %d properties, %d operations, %d events, '%s'", what,
                      status, object.m_UpdateCounter - counter, properties.size(), operations.size(),
                      operation.m_Events.size(), Shown(property)));
    }
  }

  std::string m_Text;
};

TEST_F(Golden, WhatFrontEndsSee) {
  gSmartData.clear();  // the cache outlives instances
  const std::vector<PI::CObject> objects = m_Plugin.Topology();
  std::map<unsigned long, std::string> names;
  for (const PI::CObject& object : objects) {
    const PI::CProperty* const path = Find(object.m_Properties, PI::PROP_DEVICE_PATH);
    names[object.m_ID] = Shown(path != nullptr ? *path : *Find(object.m_Properties, PI::PROP_NAME));
  }
  const auto named = [&](const std::vector<unsigned long>& ids) {
    CLines list;
    for (const unsigned long id : ids) list.push_back(names.at(id));
    return Joined(list);
  };
  for (const PI::CEvent& event : m_Plugin.TakeEvents())
    Tell("first scan", Text("event %d about %s", event.m_Code, names.at(event.m_ObjectID)));
  std::map<unsigned int, CLines> first;  // of a kind; of the others, what differs
  for (const PI::CObject& object : objects) {
    SCOPED_TRACE(names[object.m_ID]);
    Tell(names[object.m_ID], Text("object 0x%x of kind %d, changed %d, busy %d, parents%s, children%s",
                                  object.m_ID, object.m_Kind, object.m_UpdateCounter, object.m_Busy,
                                  named(object.m_Parents), named(object.m_Children)));
    const CLines lines = LinesOf(object);
    CLines& known = first[object.m_Kind];
    TellNew(names[object.m_ID], lines, known);
    if (known.empty()) known = lines;
    PI::CObject asked = Asked(object.m_ID);
    EXPECT_EQ(LinesOf(asked), lines) << "asked for all";
    for (PI::CProperty& property : asked.m_Properties)
      property = m_Plugin.Property(object.m_ID, property.m_ID);
    EXPECT_EQ(LinesOf(asked), lines) << "asked for one by one";
  }

  CRVXAdapter& adapter = m_Plugin.m_Adapter;
  CRVXPhysicalDrive& drive = m_Plugin.Drive("sdg");
  CRVXLogicalDrive& array = m_Plugin.Array("md0");
  CTestInstance fresh(m_Machine);
  PI::CObject nobody;
  nobody.m_ID = 4711;
  TellAnswers("plug-in", m_Plugin, m_Plugin.m_Plugin);
  TellAnswers("adapter", m_Plugin, adapter);
  TellAnswers("disk", m_Plugin, drive);
  TellAnswers("array", m_Plugin, array);
  TellAnswers("no object", m_Plugin, nobody);
  TellAnswers("before command 1", fresh, nobody);
  TellChange("adapter with all", adapter.m_ID, [&] {
    adapter.m_Location1 = 11;
    adapter.m_Location2 = 12;
    adapter.m_Location3 = 13;
    adapter.m_ExtraText = "Extra";
    adapter.m_AttributeList = {9, 10};
  });
  for (const std::uint32_t status : {40095U, 40150U, 7U})
    TellChange("adapter", adapter.m_ID, [&] { adapter.m_Status = status; });
  for (const std::uint32_t status : {40099U, 40093U, 40095U, 40096U, 40098U, 40023U})
    for (const std::uint32_t medium : {40292U, 40293U})
      TellChange(Text("disk %d", status), drive.m_ID, [&] {
        drive.m_Status = status;
        drive.m_Medium = medium;
      });
  const std::tuple<int, int, int, int> numbers[] = {{0, -1, -1, -1}, {0, 8, 16, 1}, {0, -1, -1, 1},
                                                    {0, -1, -1, 9},  {0, 8, 17, 1}, {0, -1, 16, 1},
                                                    {0, 8, -1, 1},   {-1, 8, 16, 1}};
  for (const auto& [all, major, minor, number] : numbers) {
    std::string marked;
    EXPECT_EQ(m_Plugin.LockObjects(all, major, minor, number), PI::OK);
    for (const PI::CObject& object : m_Plugin.Topology())
      if (object.m_Busy) marked += " " + names[object.m_ID];
    Tell("busy", Text("%d %d:%d %d marks%s", all, major, minor, number, marked));
    EXPECT_EQ(m_Plugin.UnlockObjects(), PI::OK);
  }
  std::vector<PI::CProperty> properties;  // a missing drive's; those that are there already are hidden too
  for (unsigned int id = 30000; id < 31000; ++id) properties.emplace_back(static_cast<PI::_PROPERTY_ID>(id));
  m_Plugin.GetPhysicalDriveProperties(drive, properties, PI::PROP_NONE);
  std::erase_if(properties, [](const PI::CProperty& property) { return property.m_AttributeWord != 0; });
  for (const PI::CProperty& property : properties) Tell("missing disk", Text("hides %d", property.m_ID));
  TellChange("array without name and document", array.m_ID, [&] {
    array.m_KernelName.clear();
    array.m_Configuration = {};
  });

  CLines exports;
  KVTX::CSystem::ExecuteCommand("/usr/bin/nm", "-D --defined-only --format=just-symbols " RVX_PLUGIN,
                                exports);
  std::sort(exports.begin(), exports.end());
  Tell("library", "exports" + Joined(exports));

  const std::string file = RVX_GOLDEN_FOLDER "golden.txt";
  if (std::getenv("RVX_RENEW_GOLDEN") != nullptr) boost::filesystem::save_string_file(file, m_Text);
  m_Config.Write(m_Text);
  CLines difference;
  KVTX::CSystem::ExecuteCommand("/usr/bin/diff", Text("%s %s", file, m_Config.File().string()), difference);
  EXPECT_TRUE(m_Text == TextOf("golden.txt"))
      << boost::join(difference, "\n") << "\nIf that is wanted, renew it: "
      << "RVX_RENEW_GOLDEN=1 rvx_plugin_tests --gtest_filter=Golden.*";
}

}  // namespace

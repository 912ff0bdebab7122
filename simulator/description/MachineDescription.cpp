#include "simulator/description/MachineDescription.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>

#include "simulator/description/ArrayDescription.h"
#include "simulator/description/Changes.h"
#include "simulator/description/DiskDescription.h"
#include "simulator/machine/Clock.h"
#include "simulator/machine/MachineError.h"
#include "simulator/machine/MdDriver.h"

namespace Simulation {
namespace {

const TKeys<SController>& ControllerKeys() {
  static const TKeys<SController> keys = {
      NonEmpty("name", &SController::m_Name), NonEmpty("pci", &SController::m_Address),
      Value("vendor", &SController::m_Vendor), NonEmpty("driver", &SController::m_Driver)};
  return keys;
}

void AddController(SMachine& machine, const TJson& json) {
  SController controller;
  ReadKeys(ControllerKeys(), machine, controller, json);
  const std::string& address = controller.m_Address;
  const std::string form = "hhhh:hh:hh.h";
  const auto fits = [](char letter, char expected) {
    return expected == 'h' ? std::isxdigit(static_cast<unsigned char>(letter)) != 0 : letter == expected;
  };
  if (!std::equal(address.begin(), address.end(), form.begin(), form.end(), fits))
    Fail(json["pci"], "is no PCI address such as \"0000:00:1f.2\"");
  for (const SController& other : machine.m_Controllers) {
    if (other.m_Name == controller.m_Name) Fail(json["name"], "there is another " + other.m_Name);
    if (other.m_Address == address) Fail(json["pci"], "is taken by " + other.m_Name);
  }
  machine.m_Controllers.push_back(std::move(controller));
}

const TKeys<SNode>& NodeKeys() {
  static const TKeys<SNode> keys = {
      NonEmpty("path", &SNode::m_Path),
      {"device", [](SMachine&, SNode& node, const TJson& json) { node.m_Device = ReadDevice(json); },
       [](const SMachine&, const SNode& node) { return TJson(DeviceText(node.m_Device)); }, true},
      {"mode",
       [](SMachine&, SNode& node, const TJson& json) {
         node.m_Mode = S_IFBLK | NumberOf<mode_t>(json, 0, 07777);
       },
       [](const SMachine&, const SNode& node) { return TJson(node.m_Mode & 07777U); }}};
  return keys;
}

void AddNode(SMachine& machine, const TJson& json) {
  ReadKeys(NodeKeys(), machine, machine.m_Nodes.emplace_back(SNode{"", S_IFBLK | 0666, 0}), json);
}

void ReadScript(SMachine& machine, SMachine&, const TJson& list) {
  for (const TJson& entry : ListOf(list)) {
    ObjectOf(entry);
    const auto time = NumberOf<std::uint64_t>(entry.at("at"), 0, EVERYTHING / 2);
    if (!machine.m_Script.empty() && machine.m_Script.back().m_At > time)
      Fail(entry["at"], "lies before the entry above");
    const std::string text = entry.dump();
    machine.m_Script.push_back({time, text, [text](SMachine& changed) { ApplyChange(changed, text); }});
  }
  if (machine.m_Script.empty() || !machine.m_Rehearsed) return;
  // A change that cannot work is found now and not when a test or a user waits for it.
  SMachine rehearsal = machine;
  try {
    AdvanceTo(rehearsal, machine.m_Script.back().m_At, true);
  } catch (const CMachineError& error) {
    throw CMachineError("script, at " + std::to_string(rehearsal.m_Time) + ": " + error.what());
  }
}

TJson WriteScript(const SMachine& machine, const SMachine&) {
  TJson list = TJson::array();
  for (const SScriptEntry& entry : machine.m_Script) {
    list.push_back(TJson::parse(entry.m_Text));
    list.back()["at"] = entry.m_At - machine.m_Time;
  }
  return list;
}

/// A list of the machine's things; `add` takes one over.
template <class TItem>
SKey<SMachine> List(const char* name, const TKeys<TItem>& keys, std::vector<TItem> SMachine::*field,
                    void (*add)(SMachine&, const TJson&)) {
  return {name,
          [add](SMachine& machine, SMachine&, const TJson& json) {
            for (const TJson& item : ListOf(json)) add(machine, item);
          },
          [&keys, field](const SMachine& machine, const SMachine&) {
            return WriteList(keys, machine, machine.*field);
          }};
}

const TKeys<SMachine>& MachineKeys() {
  static const TKeys<SMachine> keys = {
      {"clock", Number("", &SMachine::m_ClockStart, 0, EVERYTHING).m_Read,
       [](const SMachine& machine, const SMachine&) { return TJson(machine.m_ClockStart + machine.m_Time); }},
      Number("seed", &SMachine::m_Random, 0, EVERYTHING),
      Number("mdp_major", &SMachine::m_MdpMajor, 10, 4095),
      Number("sync_speed", &SMachine::m_Speed, 0, MOST_SIZE),
      Value("process", &SMachine::m_Process),
      Value("sdparm", &SMachine::m_HasSdparm),
      // What was possible once need not be so any more in a machine that was saved, and is left out then.
      {"rehearsed", Value("", &SMachine::m_Rehearsed).m_Read,
       [](const SMachine&, const SMachine&) { return TJson(false); }},
      List("controllers", ControllerKeys(), &SMachine::m_Controllers, AddController),
      List("disks", DiskKeys(), &SMachine::m_Disks, AddDiskFrom),
      List("arrays", ArrayKeys(), &SMachine::m_Arrays, AddArrayFrom),
      {"instances",
       [](SMachine& machine, SMachine&, const TJson& json) {
         machine.m_LastInstance =
             std::max(machine.m_LastInstance, NumberOf<std::uint64_t>(json, 0, MOST_INSTANCE));
       },
       Value("", &SMachine::m_LastInstance).m_Write},
      List("nodes", NodeKeys(), &SMachine::m_Nodes, AddNode),
      {"script", ReadScript, WriteScript}};
  return keys;
}

}  // namespace

SMachine ReadMachine(const std::string& text) {
  return Reading([&] {
    SMachine machine;
    ReadKeys(MachineKeys(), machine, machine, ParseJson(text));
    return machine;
  });
}

std::string WriteMachine(const SMachine& original) {
  SMachine machine = original;
  // Nothing is open in the machine that is read again.
  machine.m_Files.clear();
  DropEmptyArrays(machine);
  // The name in a superblock need not be text.
  return WriteKeys(MachineKeys(), machine, machine).dump(2, ' ', false, TJson::error_handler_t::replace) +
         "\n";
}

}  // namespace Simulation

/// @file
/// Commands that tell how the machine is, for monitoring and for who stands before the rack.

#include <boost/filesystem.hpp>
#include <fstream>

#include "rvxctl/CommandLine.h"

namespace Host {

namespace {

namespace fs = boost::filesystem;

/// As monitoring reads it: one line and an exit status.
int CheckHealth(CContext& context, const SSmartLimits& limits) {
  try {
    const SView view =
        context.Source().View({"check", {{"warn-smart", std::to_string(limits.m_Wear)}}}, context.Form());
    context.Show(view);
    return ExitStatusOf(view);
  } catch (const CError& error) {
    if (error.m_ExitStatus >= EXIT_SIGNAL) throw;
    if (context.Terminal().HasPrinted()) throw CError(static_cast<int>(EHealth::UNKNOWN), error.what());
    return ShowUnknown(context, error);
  }
}

struct SLocate {
  std::string m_Disk;
  std::string m_Switch;
};

/// The enclosure's attribute for a disk's light; empty when no enclosure knows the disk.
fs::path LightOf(const std::string& disk) {
  boost::system::error_code error;
  for (fs::directory_iterator entry("/sys/block/" + disk + "/device", error), end; !error && entry != end;
       entry.increment(error))
    if (entry->path().filename().string().starts_with("enclosure_device:")) return entry->path() / "locate";
  return {};
}

int LocateDisk(CContext& context, const SLocate& wanted) {
  const SViewRequest request{"object",
                             {{"address", wanted.m_Disk}, {"kind", std::to_string(PI::OBJ_PHYSICAL_DRIVE)}}};
  const Json disk = context.Source().View(request, {true}).m_Data;
  const std::string name = disk["name"];
  RequireLastingName(wanted.m_Disk, IdentifierOf(disk["id"]).value_or(0), name);
  const fs::path light = context.Options().m_Simulate ? fs::path() : LightOf(name);
  if (light.empty())
    throw CError(EXIT_NOT_ALLOWED, "no enclosure of this machine has a light for " + name +
                                       ": its serial number ('rvxctl disk show " + name +
                                       "') stands on its label");
  std::ofstream file(light.string());
  file << (wanted.m_Switch == "on" ? "1" : "0") << std::flush;
  if (!file) throw CError(EXIT_PLUGIN_ERROR, "the enclosure did not take it: " + light.string());
  const std::string done = "The light of " + name + " is " + wanted.m_Switch + ".";
  context.Show("change", {{"disk", name}, {"light", wanted.m_Switch}, {"done", done}}, done + "\n");
  return EXIT_DONE;
}

}  // namespace

int ShowUnknown(CContext& context, const CError& error) {
  context.Show(UnknownView(error.what()), Json::array({ErrorJson(error)}));
  return static_cast<int>(EHealth::UNKNOWN);
}

void AddHealth(CGroup& all) {
  const auto [check, limits] =
      all.Leaf<SSmartLimits>("check", "one line for monitoring, exit status 0 to 3", CheckHealth);
  check->add_option("--warn-smart", limits.m_Wear, "more percent of a disk's life are a warning")
      ->type_name("N")
      ->check(NumberTo(100))
      ->capture_default_str();
  const auto [locate, wanted] =
      all.At("disk").Leaf<SLocate>("locate", "switches the light of a disk's slot", LocateDisk);
  locate->add_option("DISK", wanted.m_Disk, "the disk")->required();
  locate->add_option("SWITCH", wanted.m_Switch, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
}

}  // namespace Host

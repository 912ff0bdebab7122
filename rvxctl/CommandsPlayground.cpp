/// @file
/// Simulated machines to try things on: the command writes a description, which is then a file like any
/// other.

#include <fcntl.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <cerrno>
#include <cstring>

#include "libraries/common/FileDescriptor.h"
#include "rvxctl/CommandLine.h"

namespace Host {

namespace {

constexpr unsigned int GIB = 1U << 20;  ///< in KiB
constexpr unsigned int DISK_SIZE = GIB;
constexpr unsigned int SYNC_SPEED = GIB / 4;  ///< a mirror takes four seconds: long enough to be seen

/// "sda", "sdz", "sdaa"
std::string DiskName(unsigned int index) {
  std::string letters;
  for (unsigned int left = index + 1; left > 0; left = (left - 1) / 26)
    letters.insert(letters.begin(), static_cast<char>('a' + (left - 1) % 26));
  return "sd" + letters;
}

/// The first half on a SATA controller, the others on a SAS one.
Json MachineOf(unsigned int disks, Json arrays) {
  Json list = Json::array();
  for (unsigned int index = 0; index < disks; ++index) {
    const bool isSata = index < (disks + 1) / 2;
    const std::string number = std::to_string(10000 + index);
    list.push_back({{"name", DiskName(index)},
                    {"controller", isSata ? "sata" : "sas"},
                    {"size", DISK_SIZE},
                    {"vendor", isSata ? "ATA" : "SEAGATE"},
                    {"model", isSata ? "ST1000NM0008" : "ST1000NX0453"},
                    {"serial", (isSata ? "ZA" : "S4") + number},
                    {"wwn", "0x5000c500a00" + number}});
  }
  return {{"sync_speed", SYNC_SPEED},
          {"controllers",
           {{{"name", "sata"}, {"pci", "0000:00:1f.2"}, {"vendor", "0x8086"}, {"driver", "ahci"}},
            {{"name", "sas"}, {"pci", "0000:03:00.0"}, {"vendor", "0x1000"}, {"driver", "mpt3sas"}}}},
          {"disks", std::move(list)},
          {"arrays", std::move(arrays)}};
}

Json Array(unsigned int number, const char* level, Json members) {
  return {{"name", "md_d" + std::to_string(number)},
          {"level", level},
          {"chunk", 64},
          {"members", std::move(members)}};
}

/// Mirrors of two with a spare for every second one; two of them have lost a member.
Json ManyDisks() {
  constexpr unsigned int DISKS = 200;
  constexpr unsigned int MIRRORS = 60;
  Json arrays = Json::array();
  unsigned int disk = 0;
  for (unsigned int number = 0; number < MIRRORS; ++number) {
    arrays.push_back(Array(number, "raid1", {DiskName(disk), DiskName(disk + 1)}));
    disk += 2;
    if (number % 2 == 1) arrays.back()["spares"] = {DiskName(disk++)};
  }
  for (Json* const broken : {&arrays[10], &arrays[40]}) {
    (*broken)["faulty"] = Json::array({(*broken)["members"][1]});
    (*broken)["members"][1] = nullptr;
  }
  return MachineOf(DISKS, std::move(arrays));
}

constexpr struct SPlayground {
  const char* m_Name;
  const char* m_Text;
  Json (*m_Machine)();
} PLAYGROUNDS[] = {{"demo", "a striped array, a mirror with a spare, and three free disks",
                    [] {
                      Json arrays = {Array(0, "raid0", {"sda", "sdb"}), Array(1, "raid1", {"sdc", "sdd"})};
                      arrays[1]["spares"] = Json::array({"sde"});
                      return MachineOf(8, std::move(arrays));
                    }},
                   {"degraded", "a mirror whose second member is gone, and two free disks",
                    [] {
                      return MachineOf(3, Json::array({Array(0, "raid1", {"sda", nullptr})}));
                    }},
                   {"failed", "a mirror whose second member has failed and is still held, and two free disks",
                    [] {
                      Json mirror = Array(0, "raid1", {"sda", nullptr});
                      mirror["faulty"] = Json::array({"sdb"});
                      return MachineOf(4, Json::array({std::move(mirror)}));
                    }},
                   {"200", "two hundred disks in sixty mirrors, two of which are degraded", ManyDisks}};

/// Writes a file that is not there yet. Throws CError.
void WriteNew(const std::string& path, const std::string& text) {
  const auto failure = [&] { return CError(EXIT_USAGE, path + ": " + std::strerror(errno)); };
  const KVT::Internal::CFileDescriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!file.IsOpen() && errno == EEXIST)
    throw CError(EXIT_USAGE, path + " is there already, and is not overwritten");
  if (!file.IsOpen()) throw failure();
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = ::write(file.Get(), text.data() + done, text.size() - done);
    if (count < 0) {
      const int error = errno;
      ::unlink(path.c_str());
      errno = error;
      throw failure();
    }
    done += static_cast<std::size_t>(count);
  }
}

int WritePlayground(CContext& context, const std::string& name) {
  const std::string& path = context.Options().m_Machine;
  if (path.empty()) throw CError(EXIT_USAGE, "playground writes a file: --simulate=FILE");
  for (const SPlayground& playground : PLAYGROUNDS) {
    if (name != playground.m_Name) continue;
    WriteNew(path, playground.m_Machine().dump(2) + "\n");
    context.Show("playground", {{"file", path}, {"machine", name}},
                 (boost::format("Wrote %1%: %2%.\nTry: rvxctl --simulate=%1% --save status\n") % path %
                  playground.m_Text)
                     .str());
  }
  return EXIT_DONE;
}

}  // namespace

void AddPlayground(CGroup& all) {
  const auto [write, name] =
      all.Leaf<std::string>("playground", "writes a simulated machine to a new file", WritePlayground);
  std::vector<std::string> names;
  for (const SPlayground& playground : PLAYGROUNDS) names.emplace_back(playground.m_Name);
  write->add_option("MACHINE", name, "the machine")->required()->check(CLI::IsMember(names));
}

}  // namespace Host

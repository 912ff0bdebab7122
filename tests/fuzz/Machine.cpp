/// Simulated machines, from any text that begins as a description does, else one whose md gets superblocks
/// and requests of any kind: what can be read is saved so that it is the same when it is read again.

#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/ioctl.h>

#include <cstring>
#include <map>

#include "Src/md/Superblock.h"
#include "simulator/SimulatedSystem.h"
#include "system/Descriptor.h"
#include "tests/fuzz/Fuzz.h"

namespace {

constexpr const char* MACHINE = R"({"sync_speed": 2000,
  "controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}],
  "disks": [{"name": "sda", "controller": "sata", "size": 10240}, {"name": "sdb", "controller": "sata", "size": 10240},
            {"name": "sdc", "controller": "sata", "size": 4096},
            {"name": "sdd", "controller": "sata", "size": 30000, "partitions": [{"size": 10240}, {"size": 12}]}],
  "arrays": [{"name": "md_d1", "level": "raid1", "members": ["sda", "sdb"], "resync": {}}]})";
constexpr const char* CHANGES[] = {R"({"remove_disk": "sdb"})",
                                   R"({"add_disk": {"name": "sdb", "controller": "sata", "size": 12288}})",
                                   R"({"disk_state": {"sda": "offline"}})", R"({"stop_array": "md_d1"})"};
constexpr unsigned long REQUESTS[] = {SET_ARRAY_INFO, ADD_NEW_DISK,    ADD_NEW_DISK,    ADD_NEW_DISK,
                                      RUN_ARRAY,      RUN_ARRAY,       STOP_ARRAY,      GET_ARRAY_INFO,
                                      GET_DISK_INFO,  HOT_REMOVE_DISK, SET_DISK_FAULTY, RAID_VERSION};

constexpr std::uint64_t NUMBERS[] = {
    0, 1, 2, 3, 384, 1919, 1920, 0xffff, 0xfffe, 0xffffffff, ~std::uint64_t{0}};

void WriteSuperBlock(Simulation::CSimulatedSystem& machine, const std::string& disk,
                     FuzzedDataProvider& data) {
  mdu_array_info_t info{};
  info.level = data.PickValueInArray({-1, 0, 1, 4, 5, 6, 10});
  info.raid_disks = data.ConsumeIntegralInRange(1, 5);
  info.size = 2000;
  info.chunk_size = data.PickValueInArray({0, 4096, 65536});
  info.state = data.ConsumeBool();
  Md::md_superblock1 record = Md::NewSuperBlock(info, "name", {1}, 1700000000);
  record.super_offset = Md::SuperOffset(data.PickValueInArray({10240U, 4096U, 12288U}));
  record.data_size = Md::DataSize(record.super_offset, 8);
  record.dev_number = data.ConsumeIntegralInRange(0U, 4U);
  record.events = data.ConsumeIntegralInRange(1U, 3U);
  for (int changes = data.ConsumeIntegralInRange(0, 3); changes > 0; --changes) {
    const std::uint64_t value =
        data.ConsumeBool() ? data.PickValueInArray(NUMBERS) : data.ConsumeIntegral<std::uint64_t>();
    std::memcpy(reinterpret_cast<char*>(&record) + data.ConsumeIntegralInRange(0, 270), &value,
                data.PickValueInArray({2U, 4U, 8U}));
  }
  if (data.ConsumeIntegralInRange(0, 9) != 9) record.sb_csum = Md::SuperBlockChecksum(record);
  const OS::CDescriptor file(machine, disk, O_RDWR);
  machine.Seek(file.Get(), static_cast<std::int64_t>(record.super_offset * 512));
  machine.Write(file.Get(), &record, sizeof(record));
}

void Request(Simulation::CSimulatedSystem& machine, const std::string& disk, int array,
             FuzzedDataProvider& data) {
  const unsigned long request = data.PickValueInArray(REQUESTS);
  struct stat status {};
  machine.Status(disk, status);
  std::array<int, sizeof(mdu_array_info_t) / sizeof(int)> record{};
  for (int& field : record) field = static_cast<int>(data.ConsumeBool() ? 0 : data.PickValueInArray(NUMBERS));
  if (request == SET_ARRAY_INFO) record[0] = 1;
  if (request == ADD_NEW_DISK) record[1] = static_cast<int>(major(status.st_rdev));
  if (request == ADD_NEW_DISK) record[2] = static_cast<int>(minor(status.st_rdev));
  const bool takesNumber = request == HOT_REMOVE_DISK || request == SET_DISK_FAULTY;
  machine.Ioctl(array, request, takesNumber ? reinterpret_cast<void*>(status.st_rdev) : record.data());
}

void UseMd(Simulation::CSimulatedSystem& machine, FuzzedDataProvider& data) {
  std::map<std::string, int> arrays;
  while (data.remaining_bytes() != 0) {
    const std::string disk =
        data.PickValueInArray({"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd1", "/dev/sdd2"});
    const unsigned int number = data.PickValueInArray({0U, 0U, 1U, 700U});
    const std::string array = "/dev/md_d" + std::to_string(number);
    machine.MakeNode(array, S_IFBLK | 0600, makedev(253, number * 64));
    if (arrays.count(array) == 0) arrays[array] = machine.Open(array, O_RDONLY);
    const int step = data.ConsumeIntegralInRange(0, 9);
    if (step == 0) machine.Advance(data.ConsumeIntegralInRange(0U, 20000U));
    if (step == 1) machine.Close(arrays.extract(array).mapped());
    if (step > 1 && step < 5) WriteSuperBlock(machine, disk, data);
    if (step > 5) Request(machine, disk, arrays[array], data);
    try {
      if (step == 5) machine.Apply(data.PickValueInArray(CHANGES));
    } catch (const Simulation::CMachineError&) {  // it does not go now
    }
  }
  Require(OS::ReadText(machine, "/proc/mdstat")->size() < 100000, "mdstat is of sane length");
}

void RequireKept(Simulation::CSimulatedSystem& machine) {
  const std::string saved = machine.Describe();
  Simulation::CSimulatedSystem again(saved);
  Require(again.Describe() == saved, "it is the same machine:\n" + saved + again.Describe());
  for (const char* file : {"/proc/partitions", "/proc/mdstat"})
    Require(OS::ReadText(machine, file) == OS::ReadText(again, file), "it shows the same:\n" + saved);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string text(bytes, bytes + size);
  std::unique_ptr<Simulation::CSimulatedSystem> machine;
  try {
    machine = std::make_unique<Simulation::CSimulatedSystem>(text.starts_with('{') ? text : MACHINE);
  } catch (const Simulation::CMachineError&) {
    return 0;
  }
  FuzzedDataProvider data(bytes, size);
  if (!text.starts_with('{')) UseMd(*machine, data);
  machine->Advance(size % 3 * 4500);
  RequireKept(*machine);
  return 0;
}

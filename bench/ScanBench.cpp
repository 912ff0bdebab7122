/// @file
/// What the plug-in takes for a machine of simulated disks and arrays, and for single steps.
///
///   rvx_bench [OPTION OF GOOGLE BENCHMARK]...   bench/run has growth.jq read its report
///   rvx_bench --describe DISKS ARRAYS           only prints the machine
///
/// Times of scans, passes and topologies are the plug-in's own: the simulated machine's are taken out.

#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>

#include "Src/md/Superblock.h"
#include "Src/piRVXPlugin.h"
#include "bench/Measure.h"
#include "simulator/SimulatedSystem.h"
#include "system/ForwardingSystem.h"
#include "system/TheSystem.h"

OS::COperatingSystem& OS::TheSystem() { throw std::logic_error("no benchmark goes through createIf"); }

namespace NAMESPACE_piRVX {

namespace {

using TJson = nlohmann::json;

/// Mirrors whose members are partitions, spread over the disks in turn. There are names for 702 disks.
std::string Machine(int disks, int arrays) {
  TJson machine;
  machine["controllers"] = {
      {{"name", "sas"}, {"pci", "0000:03:00.0"}, {"vendor", "0x1000"}, {"driver", "mpt3sas"}}};
  machine["disks"] = machine["arrays"] = TJson::array();
  for (int number = 0; number < disks; ++number) {
    std::string name = "sd";
    if (number >= 26) name += static_cast<char>('a' + number / 26 - 1);
    name += static_cast<char>('a' + number % 26);
    TJson disk = {{"name", name}, {"controller", "sas"}, {"size", 4194304}, {"partitions", TJson::array()}};
    // Only 256 have numbers by themselves; there is room for the others behind those of the first major.
    if (number >= 256) disk["device"] = "8:" + std::to_string(number * 16);
    machine["disks"].push_back(std::move(disk));
  }
  const auto newPartition = [&](int number) {
    TJson& disk = machine["disks"][static_cast<std::size_t>(number % disks)];
    disk["partitions"].push_back({{"size", 65536}});
    return disk["name"].get<std::string>() + std::to_string(disk["partitions"].size());
  };
  for (int number = 0; number < arrays; ++number)
    machine["arrays"].push_back({{"name", "md" + std::to_string(number)},
                                 {"level", "raid1"},
                                 {"members", {newPartition(2 * number), newPartition(2 * number + 1)}}});
  return machine.dump();
}

/// Adds up the time that the other machine takes. For one thread.
class CTimedSystem final : public OS::CForwardingSystem {
 public:
  using OS::CForwardingSystem::CForwardingSystem;

  /// Seconds since the last asking.
  double TakeSeconds() { return std::exchange(m_Seconds, 0.0); }

 private:
  std::optional<std::int64_t> Around(const OS::SCall&, const std::function<void()>& go) override {
    const auto begin = Bench::Clock::now();
    go();
    m_Seconds += std::chrono::duration<double>(Bench::Clock::now() - begin).count();
    return std::nullopt;
  }

  double m_Seconds{0.0};
};

void Initialize(IPLUGINAPI_IMPL& plugin) {
  std::vector<PI::CAdapterID> adapterIDs;
  if (plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs) != PI::OK) throw std::runtime_error("no start");
}

std::vector<PI::CObject> Objects(IPLUGINAPI_IMPL& plugin) {
  std::vector<PI::CObject> objects;
  plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &objects);
  return objects;
}

/// Counts what the plug-in takes for the step alone, on a fresh instance in each turn or always on the same.
void Run(benchmark::State& state, bool fresh, const auto& step) {
  Simulation::CSimulatedSystem machine(
      Machine(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))));
  CTimedSystem system(machine);
  auto plugin = std::make_unique<IPLUGINAPI_IMPL>(system);
  Initialize(*plugin);
  if (!fresh) step(*plugin);  // the first pass reads the disks' SMART values
  for ([[maybe_unused]] auto turn : state) {
    if (fresh) plugin = std::make_unique<IPLUGINAPI_IMPL>(system);
    system.TakeSeconds();
    const auto begin = Bench::Clock::now();
    step(*plugin);
    const std::chrono::duration<double> all = Bench::Clock::now() - begin;
    state.SetIterationTime(all.count() - system.TakeSeconds());
  }
}

void FirstScan(benchmark::State& state) { Run(state, true, Initialize); }

void WorkerPass(benchmark::State& state) {
  SWorkerState worker;
  Run(state, false, [&](IPLUGINAPI_IMPL& plugin) { plugin.WorkerPass(worker); });
}

void Topology(benchmark::State& state) {
  Run(state, false, [](IPLUGINAPI_IMPL& plugin) { benchmark::DoNotOptimize(Objects(plugin)); });
}

/// Disks grow with two numbers of arrays; arrays on few disks, of which none gets more than 15 partitions.
void Sizes(benchmark::internal::Benchmark* benchmark) {
  for (const auto disks : {25, 50, 100, 200, 400, 700}) benchmark->Args({disks, 0})->Args({disks, 64});
  benchmark->Args({50, 8})->Args({50, 256})->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(FirstScan)->Apply(Sizes);
BENCHMARK(WorkerPass)->Apply(Sizes);
BENCHMARK(Topology)->Apply(Sizes);

/// A request as front ends make most: one property of one disk.
void PropertyRead(benchmark::State& state) {
  Simulation::CSimulatedSystem machine(Machine(25, 8));
  IPLUGINAPI_IMPL plugin(machine);
  Initialize(plugin);
  const unsigned long disk = Objects(plugin).at(2).m_ID;  // behind the plug-in and the adapter
  PI::CProperty property(PI::PROP_SPARE_STATE);           // which disks alone have
  if (plugin.Execute(PI::CMD_GET_PROPERTY, disk, &property) != PI::OK) throw std::runtime_error("no disk");
  IPLUGINAPI* const api = &plugin;
  for ([[maybe_unused]] auto turn : state) {
    api->Execute(PI::CMD_GET_PROPERTY, disk, &property);
    benchmark::DoNotOptimize(property);
  }
}
BENCHMARK(PropertyRead);

/// What a request cannot do without: a call through the interface, and a lock that nobody else holds.
void CallAndLock(benchmark::State& state) {
  struct SYardstick : INotificationTarget {
    virtual void Call() { const std::lock_guard hold(m_Lock); }
    std::recursive_mutex m_Lock;
  } yardstick;
  SYardstick* called = &yardstick;
  for ([[maybe_unused]] auto turn : state) {
    benchmark::DoNotOptimize(called);  // the compiler must not know whom it calls
    called->Call();
  }
}
BENCHMARK(CallAndLock);

void SuperBlockBuild(benchmark::State& state) {
  mdu_array_info_s info{};
  info.level = 1, info.raid_disks = 2, info.size = 1 << 20;
  const std::array<unsigned char, 16> uuid{1, 2, 3};
  for ([[maybe_unused]] auto turn : state) {
    benchmark::DoNotOptimize(info);
    auto record = Md::NewSuperBlock(info, "host:0", uuid, 1700000000);
    benchmark::DoNotOptimize(record);
  }
}
BENCHMARK(SuperBlockBuild);

void SuperBlockChecksum(benchmark::State& state) {
  Md::md_superblock1 record{};
  record.max_dev = Md::md_superblock1::MAX_ROLES;  // all of it counts
  for ([[maybe_unused]] auto turn : state) {
    benchmark::DoNotOptimize(record);
    benchmark::DoNotOptimize(Md::SuperBlockChecksum(record));
  }
}
BENCHMARK(SuperBlockChecksum);

void CopyOfSuperBlock(benchmark::State& state) {
  std::array<std::byte, Md::md_superblock1::SIZE> from{}, to{};
  for ([[maybe_unused]] auto turn : state) {
    benchmark::DoNotOptimize(from);
    std::memcpy(to.data(), from.data(), to.size());
    benchmark::DoNotOptimize(to);
  }
}
BENCHMARK(CopyOfSuperBlock);

}  // namespace
}  // namespace NAMESPACE_piRVX

int main(int argc, char** argv) {
  using namespace NAMESPACE_piRVX;
  if (argc == 4 && std::string_view(argv[1]) == "--describe") {
    std::puts(Machine(std::atoi(argv[2]), std::atoi(argv[3])).c_str());
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

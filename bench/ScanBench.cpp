/// @file
/// Scans and topologies of machines with 25 to 200 disks and 64 clean arrays. The time shown is the plug-in's
/// own; the simulated machine's stands beside it. At the end: how the time per disk of 200 disks compares
/// with that of 25, which must not be more than 1.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "Src/piRVXPlugin.h"
#include "bench/TimedSystem.h"
#include "simulator/SimulatedSystem.h"
#include "system/TheSystem.h"

OS::COperatingSystem& OS::TheSystem() { throw std::logic_error("no benchmark goes through createIf"); }

namespace NAMESPACE_piRVX {

namespace {

using Clock = std::chrono::steady_clock;
using TJson = nlohmann::json;

constexpr int ARRAYS = 64;
constexpr int FEWEST = 25;
constexpr int MOST = 200;

/// Mirrors whose members are partitions, spread over the disks in turn.
std::string Machine(int disks) {
  TJson machine;
  machine["controllers"] = {
      {{"name", "sas"}, {"pci", "0000:03:00.0"}, {"vendor", "0x1000"}, {"driver", "mpt3sas"}}};
  machine["disks"] = machine["arrays"] = TJson::array();
  for (int number = 0; number < disks; ++number) {
    std::string name = "sd";
    if (number >= 26) name += static_cast<char>('a' + number / 26 - 1);
    name += static_cast<char>('a' + number % 26);
    machine["disks"].push_back(
        {{"name", name}, {"controller", "sas"}, {"size", 4194304}, {"partitions", TJson::array()}});
  }
  const auto newPartition = [&](int number) {
    TJson& disk = machine["disks"][static_cast<std::size_t>(number % disks)];
    disk["partitions"].push_back({{"size", 65536}});
    return disk["name"].get<std::string>() + std::to_string(disk["partitions"].size());
  };
  for (int number = 0; number < ARRAYS; ++number)
    machine["arrays"].push_back({{"name", "md" + std::to_string(number)},
                                 {"level", "raid1"},
                                 {"members", {newPartition(2 * number), newPartition(2 * number + 1)}}});
  return machine.dump();
}

/// Seconds per disk of the plug-in's own at best, by benchmark and number of disks.
std::map<std::string, std::map<long, double>> s_PerDisk;

struct SBench {
  explicit SBench(benchmark::State& state) : m_Machine(Machine(static_cast<int>(state.range(0)))) {}

  /// Lets the steps run and counts what the plug-in takes for `step` alone.
  template <class TPrepare, class TStep>
  void Run(benchmark::State& state, const char* name, TPrepare prepare, TStep step) {
    double own = std::numeric_limits<double>::max();  // the least: other programs only add to it
    double machine = 0.0;
    for ([[maybe_unused]] auto turn : state) {
      auto prepared = prepare();
      m_System.TakeSeconds();
      const auto begin = Clock::now();
      step(*prepared);
      const double all = std::chrono::duration<double>(Clock::now() - begin).count();
      const double below = m_System.TakeSeconds();
      state.SetIterationTime(all - below);
      own = std::min(own, all - below);
      machine += below;
    }
    const auto disks = static_cast<double>(state.range(0));
    state.counters["own_us_per_disk"] = own / disks * 1e6;
    state.counters["machine_us_per_disk"] = machine / static_cast<double>(state.iterations()) / disks * 1e6;
    double& best = s_PerDisk[name].try_emplace(state.range(0), own / disks).first->second;
    best = std::min(best, own / disks);
  }
  std::unique_ptr<IPLUGINAPI_IMPL> NewInstance() { return std::make_unique<IPLUGINAPI_IMPL>(m_System); }
  static void Initialize(IPLUGINAPI_IMPL& plugin) {
    std::vector<PI::CAdapterID> adapterIDs;
    if (plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs) != PI::OK) throw std::runtime_error("no start");
  }

  Simulation::CSimulatedSystem m_Machine;
  CTimedSystem m_System{m_Machine};
};

void FirstScan(benchmark::State& state) {
  SBench bench(state);
  bench.Run(
      state, __func__, [&] { return bench.NewInstance(); }, &SBench::Initialize);
}

void WorkerPass(benchmark::State& state) {
  SBench bench(state);
  const auto plugin = bench.NewInstance();
  SBench::Initialize(*plugin);
  SWorkerState worker;
  bench.Run(
      state, __func__, [&] { return plugin.get(); },
      [&](IPLUGINAPI_IMPL& instance) { instance.WorkerPass(worker); });
}

void Topology(benchmark::State& state) {
  SBench bench(state);
  const auto plugin = bench.NewInstance();
  SBench::Initialize(*plugin);
  bench.Run(
      state, __func__, [&] { return plugin.get(); },
      [](IPLUGINAPI_IMPL& instance) {
        std::vector<PI::CObject> objects;
        instance.Execute(PI::CMD_GET_TOPOLOGY, 0, &objects);
        benchmark::DoNotOptimize(objects);
      });
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(FEWEST)->Arg(50)->Arg(100)->Arg(MOST)->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(FirstScan)->Apply(Sizes);
BENCHMARK(WorkerPass)->Apply(Sizes);
BENCHMARK(Topology)->Apply(Sizes);

}  // namespace
}  // namespace NAMESPACE_piRVX

int main(int argc, char** argv) {
  using namespace NAMESPACE_piRVX;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // The plug-in writes a line to standard output at every start; the figures go past it.
  std::ofstream figures("/dev/fd/" + std::to_string(::dup(STDOUT_FILENO)));
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  const std::unique_ptr<benchmark::BenchmarkReporter> reporter(benchmark::CreateDefaultDisplayReporter());
  reporter->SetOutputStream(&figures);
  benchmark::RunSpecifiedBenchmarks(reporter.get());
  for (const auto& [name, perDisk] : s_PerDisk)
    if (perDisk.count(FEWEST) != 0 && perDisk.count(MOST) != 0)
      figures << name << ": time per disk of " << MOST << " disks / of " << FEWEST
              << " disks = " << perDisk.at(MOST) / perDisk.at(FEWEST) << "\n";
  return 0;
}

/// @file
/// What the plug-in takes for a machine of simulated disks and arrays, and for single steps.
///
///   rvx_bench [OPTION OF GOOGLE BENCHMARK]...   times on standard error; on standard output what bench/run
///   puts in
///                                               proportion, from the medians of the repetitions
///   rvx_bench --describe DISKS ARRAYS           only prints the machine
///
/// Times of scans, passes and topologies are the plug-in's own: the simulated machine's are taken out.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

#include "Src/md/Superblock.h"
#include "Src/piRVXPlugin.h"
#include "bench/Measure.h"
#include "bench/TimedSystem.h"
#include "simulator/SimulatedSystem.h"
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
    // Only 256 disks have numbers by themselves; there is room for the others behind those of the first
    // major.
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

struct SBench {
  SBench(int disks, int arrays) : m_Machine(Machine(disks, arrays)) {}
  explicit SBench(const benchmark::State& state)
      : SBench(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))) {}

  /// Lets the steps run and counts what the plug-in takes for `step` alone.
  template <class TPrepare, class TStep>
  void Run(benchmark::State& state, TPrepare prepare, TStep step) {
    for ([[maybe_unused]] auto turn : state) {
      auto prepared = prepare();
      m_System.TakeSeconds();
      const auto begin = Bench::Clock::now();
      step(*prepared);
      const std::chrono::duration<double> all = Bench::Clock::now() - begin;
      state.SetIterationTime(all.count() - m_System.TakeSeconds());
    }
  }
  std::unique_ptr<IPLUGINAPI_IMPL> NewInstance() { return std::make_unique<IPLUGINAPI_IMPL>(m_System); }
  static void Initialize(IPLUGINAPI_IMPL& plugin) {
    std::vector<PI::CAdapterID> adapterIDs;
    if (plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs) != PI::OK) throw std::runtime_error("no start");
  }
  std::unique_ptr<IPLUGINAPI_IMPL> NewInitialized() {
    auto plugin = NewInstance();
    Initialize(*plugin);
    return plugin;
  }

  Simulation::CSimulatedSystem m_Machine;
  CTimedSystem m_System{m_Machine};
};

void FirstScan(benchmark::State& state) {
  SBench bench(state);
  bench.Run(
      state, [&] { return bench.NewInstance(); }, &SBench::Initialize);
}

void WorkerPass(benchmark::State& state) {
  SBench bench(state);
  const auto plugin = bench.NewInitialized();
  SWorkerState worker;
  plugin->WorkerPass(worker);  // the first one reads the disks' SMART values
  bench.Run(
      state, [&] { return plugin.get(); }, [&](IPLUGINAPI_IMPL& instance) { instance.WorkerPass(worker); });
}

void Topology(benchmark::State& state) {
  SBench bench(state);
  const auto plugin = bench.NewInitialized();
  bench.Run(
      state, [&] { return plugin.get(); },
      [](IPLUGINAPI_IMPL& instance) {
        std::vector<PI::CObject> objects;
        instance.Execute(PI::CMD_GET_TOPOLOGY, 0, &objects);
        benchmark::DoNotOptimize(objects);
      });
}

constexpr std::int64_t DISKS[] = {25, 50, 100, 200, 400, 700};
constexpr std::int64_t ARRAYS[] = {8, 64, 256};
constexpr std::int64_t DISKS_OF_ARRAYS =
    50;  ///< where the arrays grow: few, but none gets more than 15 partitions

void Sizes(benchmark::internal::Benchmark* benchmark) {
  for (const auto disks : DISKS) benchmark->Args({disks, 0})->Args({disks, 64});
  for (const auto arrays : {8, 256}) benchmark->Args({DISKS_OF_ARRAYS, arrays});
  benchmark->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(FirstScan)->Apply(Sizes);
BENCHMARK(WorkerPass)->Apply(Sizes);
BENCHMARK(Topology)->Apply(Sizes);

/// A request as front ends make most: one property of one disk.
void PropertyRead(benchmark::State& state) {
  Simulation::CSimulatedSystem machine(Machine(25, 8));
  const auto plugin = std::make_unique<IPLUGINAPI_IMPL>(machine);
  SBench::Initialize(*plugin);
  std::vector<PI::CObject> objects;
  plugin->Execute(PI::CMD_GET_TOPOLOGY, 0, &objects);
  const auto disk = std::find_if(objects.begin(), objects.end(), [](const PI::CObject& object) {
    return object.m_Kind == PI::OBJ_PHYSICAL_DRIVE;
  });
  if (disk == objects.end()) throw std::runtime_error("no disk");
  PI::CProperty property(PI::PROP_STATUS);
  if (plugin->Execute(PI::CMD_GET_PROPERTY, disk->m_ID, &property) != PI::OK)
    throw std::runtime_error("a disk without a status");
  IPLUGINAPI* const api = plugin.get();
  for ([[maybe_unused]] auto turn : state) {
    api->Execute(PI::CMD_GET_PROPERTY, disk->m_ID, &property);
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
  info.major_version = 1;
  info.level = 1;
  info.raid_disks = 2;
  info.size = 1 << 20;
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

/// Keeps the time of each repetition, in nanoseconds, by the benchmark's name and arguments.
class CKeepingReporter : public benchmark::ConsoleReporter {
 public:
  using benchmark::ConsoleReporter::ConsoleReporter;

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration && !run.error_occurred)
        m_Times[run.run_name.function_name + "/" + run.run_name.args].push_back(
            run.real_accumulated_time / static_cast<double>(run.iterations) * 1e9);
    benchmark::ConsoleReporter::ReportRuns(runs);
  }
  double Time(const std::string& benchmark) const { return Bench::Median(m_Times.at(benchmark)); }
  double Time(const std::string& benchmark, std::int64_t disks, std::int64_t arrays) const {
    return Time(benchmark + "/" + std::to_string(disks) + "/" + std::to_string(arrays));
  }

 private:
  std::map<std::string, std::vector<double>> m_Times;
};

/// The exponent of the power that fits the points best: least squares of the logarithms.
template <std::size_t count, class TTime>
double Exponent(const std::int64_t (&sizes)[count], TTime time) {
  double x = 0, y = 0, xx = 0, xy = 0;
  for (const std::int64_t size : sizes) {
    const double logSize = std::log(static_cast<double>(size));
    const double logTime = std::log(time(size));
    if (!std::isfinite(logTime)) throw std::runtime_error("the times differ too much from run to run");
    x += logSize, y += logTime, xx += logSize * logSize, xy += logSize * logTime;
  }
  return (count * xy - x * y) / (count * xx - x * x);
}

void TellGrowth(const CKeepingReporter& times, const std::string& benchmark) {
  for (const std::int64_t arrays : {0, 64})
    Bench::Tell(benchmark + "_by_disks_" + std::to_string(arrays),
                Exponent(DISKS, [&](std::int64_t disks) { return times.Time(benchmark, disks, arrays); }));
  const double none = times.Time(benchmark, DISKS_OF_ARRAYS, 0);
  Bench::Tell(benchmark + "_by_arrays", Exponent(ARRAYS, [&](std::int64_t arrays) {
                return times.Time(benchmark, DISKS_OF_ARRAYS, arrays) - none;
              }));
}

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
  // The plug-in writes a line to standard output at every start; the figures go past it.
  const int figures = ::dup(STDOUT_FILENO);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  CKeepingReporter times;
  times.SetOutputStream(&std::cerr);
  times.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&times);
  std::fflush(stdout);
  ::dup2(figures, STDOUT_FILENO);
  try {
    for (const char* const benchmark : {"FirstScan", "WorkerPass", "Topology"}) TellGrowth(times, benchmark);
    for (const char* const step :
         {"PropertyRead", "CallAndLock", "SuperBlockBuild", "SuperBlockChecksum", "CopyOfSuperBlock"})
      Bench::Tell(step, times.Time(std::string(step) + "/"));
  } catch (const std::out_of_range&) {
    std::cerr << "rvx_bench: not all benchmarks were run, so that there are no figures\n";
    return 1;
  } catch (const std::exception& exception) {
    std::cerr << "rvx_bench: " << exception.what() << "\n";
    return 1;
  }
  return 0;
}

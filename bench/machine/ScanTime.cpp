/// @file
/// rvx_scan_time ROUNDS: what a first scan and a pass of the worker take on this Linux, in turns with the
/// programs that list the same things. Only reads. Prints the medians in milliseconds.

#include <cstdlib>
#include <map>

#include "Src/piRVXPlugin.h"
#include "bench/Measure.h"
#include "system/TheSystem.h"

namespace {

using namespace NAMESPACE_piRVX;

void Measure(int rounds) {
  IPLUGINAPI_IMPL instance(OS::TheSystem());
  std::vector<PI::CAdapterID> adapterIDs;
  const auto firstScan = [&] {
    IPLUGINAPI_IMPL fresh(OS::TheSystem());
    adapterIDs.clear();
    if (fresh.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs) != PI::OK) throw std::runtime_error("no scan");
  };
  if (instance.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs) != PI::OK) throw std::runtime_error("no scan");
  SWorkerState worker;
  std::map<std::string, std::vector<double>> times;
  const auto take = [&](const char* name, const auto& step) {
    const auto begin = Bench::Clock::now();
    step();
    times[name].push_back(Bench::Milliseconds(Bench::Clock::now() - begin));
  };
  // The first round checks the disks' SMART values and finds nothing in the caches; it does not count.
  for (int round = 0; round <= rounds; ++round) {
    if (round == 1) times.clear();
    take("scan_ms", firstScan);
    take("pass_ms", [&] { instance.WorkerPass(worker); });
    times["scan_lsblk_ms"].push_back(Bench::Run("lsblk -J").m_Milliseconds);
    times["scan_mdadm_ms"].push_back(Bench::Run("mdadm --detail --scan").m_Milliseconds);
  }
  for (const auto& [name, values] : times) Bench::Tell(name, Bench::Median(values));
}

}  // namespace

int main(int count, char** arguments) {
  try {
    Measure(std::max(count > 1 ? std::atoi(arguments[1]) : 15, 1));
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "rvx_scan_time: %s\n", exception.what());
    return 1;
  }
  return 0;
}

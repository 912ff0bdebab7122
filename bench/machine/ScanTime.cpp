/// @file
/// rvx_scan_time ROUNDS: what a first scan and a pass of the worker take on this Linux, in turns with the
/// programs that list the same things. Only reads. Prints the medians in milliseconds.

#include <cstdlib>

#include "Src/piRVXPlugin.h"
#include "bench/Measure.h"
#include "system/TheSystem.h"

namespace {

using namespace NAMESPACE_piRVX;

void Initialize(IPLUGINAPI_IMPL& instance) {
  std::vector<PI::CAdapterID> adapterIDs;
  if (instance.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs) != PI::OK) throw std::runtime_error("no scan");
}

void Measure(int rounds) {
  IPLUGINAPI_IMPL instance(OS::TheSystem());
  Initialize(instance);
  SWorkerState worker;
  Bench::TSamples samples;
  const auto take = [&](const char* name, const auto& step) {
    const auto begin = Bench::Clock::now();
    step();
    samples[name].push_back(Bench::Milliseconds(Bench::Clock::now() - begin));
  };
  // The first round checks the disks' SMART values and finds nothing in the caches; it does not count.
  for (int round = 0; round <= rounds; ++round) {
    if (round == 1) samples.clear();
    IPLUGINAPI_IMPL fresh(OS::TheSystem());
    take("scan_ms", [&] { Initialize(fresh); });
    take("pass_ms", [&] { instance.WorkerPass(worker); });
    take("scan_lsblk_ms", [] { Bench::Run("lsblk -J"); });
    take("scan_mdadm_ms", [] { Bench::Run("mdadm --detail --scan"); });
  }
  Bench::TellMedians(samples);
}

}  // namespace

int main(int count, char** arguments) {
  return Bench::Main("rvx_scan_time",
                     [&] { Measure(std::max(count > 1 ? std::atoi(arguments[1]) : 15, 1)); });
}

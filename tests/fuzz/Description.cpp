/// Descriptions of machines, as any text and as a good one with values in each other's places: a machine that
/// can be read is saved so that it can be read again and is the same.

#include "simulator/DescriptionFile.h"
#include "simulator/JsonReader.h"
#include "simulator/SimulatedMachine.h"
#include "system/Descriptor.h"
#include "tests/fuzz/Fuzz.h"

using namespace NAMESPACE_piRVX;
using Simulation::TJson;

namespace {

constexpr long NUMBERS[] = {0, 1, -1, 16, 1919, 1920, 65535, 1L << 32, 1L << 40, 1L << 62};

void Collect(TJson& value, std::vector<TJson*>& all) {
  all.push_back(&value);
  if (!value.is_structured()) return;
  for (TJson& inner : value) Collect(inner, all);
}

TJson Changed(FuzzedDataProvider& data) {
  static const TJson GOOD = TJson::parse(Simulation::ReadDescription(RVX_EVERY_KEY));
  TJson json = GOOD;
  for (int changes = data.ConsumeIntegralInRange(1, 6); changes > 0; --changes) {
    std::vector<TJson*> all;
    Collect(json, all);
    const auto pick = [&](std::size_t size) { return data.ConsumeIntegralInRange<std::size_t>(0, size - 1); };
    TJson& value = *all[pick(all.size())];
    const TJson other = *all[pick(all.size())];
    const int way = data.ConsumeIntegralInRange(0, 6);
    if (way == 0) value = data.PickValueInArray(NUMBERS);
    if (way == 1) value = data.ConsumeIntegral<std::uint64_t>();
    if (way == 2) value = data.ConsumeRandomLengthString(12);
    if (way == 3 && value.is_array()) value.push_back(other);
    if (way == 3 && value.is_object() && other.is_object()) value.update(other);
    if (way == 4 && value.is_structured() && !value.empty())
      value.erase(std::next(value.begin(), static_cast<std::ptrdiff_t>(pick(value.size()))));
    if (way > 4) value = other;
  }
  return json;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  const std::uint64_t time = data.PickValueInArray<std::uint64_t>({0, 1, 4, 100, 8999, 10000, 1 << 30});
  const std::string text = data.ConsumeBool()
                               ? data.ConsumeRemainingBytesAsString()
                               : Changed(data).dump(-1, ' ', false, TJson::error_handler_t::replace);
  std::unique_ptr<CSimulatedMachine> first;
  try {
    first = std::make_unique<CSimulatedMachine>(text);
  } catch (const CMachineError&) {
    return 0;
  }
  first->Advance(time);
  const std::string saved = first->Describe();
  CSimulatedMachine second(saved);
  Require(second.Describe() == saved, "it is the same machine:\n" + saved + second.Describe());
  for (const char* file : {"/proc/partitions", "/proc/mdstat"})
    Require(ReadText(*first, file) == ReadText(second, file), "it shows the same:\n" + saved);
  second.Advance(time);
  CSimulatedMachine third(second.Describe());
  return 0;
}

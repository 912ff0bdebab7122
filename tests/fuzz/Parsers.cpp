/// All that understands a text or a record: any input is survived, and what can be written is read as it was.

#include <filesystem>
#include <fstream>

#include "KVT/Language.h"
#include "PI/Helpers.h"
#include "PI/LogicalDrive.h"
#include "Src/md/ProcTexts.h"
#include "tests/fuzz/Fuzz.h"

namespace {

/// In memory, where syncing costs nothing.
const std::filesystem::path FOLDER = "/dev/shm/rvx-fuzz-" + std::to_string(getpid());

void LinuxTexts(FuzzedDataProvider& data) {
  const std::string name = data.ConsumeRandomLengthString(8);
  const std::string text = data.ConsumeRemainingBytesAsString();
  for (const Md::SPartition& entry : Md::ParsePartitions(text))
    Require(entry.m_Name.size() < 32, "a name's length");
  Md::ParseMdMajor(text);
  Md::IsDiskName(name);
  Md::ArrayNumber(name);
  std::vector<std::string> lines;
  std::string all;
  Md::CLineReader reader(text, Md::MDSTAT_READ);
  while (const auto line = reader.Next()) {
    all += lines.emplace_back(*line);
    if (const auto progress = Md::ParseProgress(*line)) Require(progress->m_Percent <= 100, "a percentage");
  }
  Require(all == text, "all of a text is read");
  Md::HostPathOfRecord(lines);
  const std::string names[] = {name, "md1"};
  Md::CMdstatWalk walk(text, names, std::identity{}, Md::PROGRESS_LINE);
  while (walk.Next()) {
  }
}

void Smart(FuzzedDataProvider& data) {
  std::string vendor, product;
  PI::CPluginHelper::SplitSATAModelName(data.ConsumeRandomLengthString(40), vendor, product);
  PI::_IDE_SMART_DATA record{};
  auto& bytes = record.m_Bytes;
  data.ConsumeData(bytes.data(), bytes.size() - 1);
  for (std::size_t i = 0; i + 1 < bytes.size(); ++i)
    bytes.back() = static_cast<std::uint8_t>(bytes.back() - bytes[i]);
  PI::CSmartValues(vendor, product).Evaluate(record);
}

void Ini(FuzzedDataProvider& data) {
  const std::string value = std::to_string(data.ConsumeIntegral<int>());
  const std::string other = data.ConsumeRandomLengthString(8);
  std::ofstream(FOLDER / "ini") << data.ConsumeRemainingBytesAsString();
  PI::CConfigFile config;
  config.SetFileName(FOLDER / "ini");
  std::string before, after;
  const unsigned int status = config.ReadKeyValue(other, before, -1, -1);
  if (config.WriteKeyValue("Key", value, -1, -1) != PI::OK) return;
  Require(config.ReadKeyValue("Key", after, -1, -1) == PI::OK && after == value, "what was written is read");
  if (other == "Key") return;
  after.clear();
  Require(config.ReadKeyValue(other, after, -1, -1) == status && after == before, "other keys stay");
}

void Catalogue(FuzzedDataProvider& data) {
  std::ofstream(FOLDER / "nls") << data.ConsumeRemainingBytesAsString();
  KVT::Language_Support::CLanguageSupport::CLngFile catalogue("nls", 0, "utf-8", {"fallback"});
  Require(catalogue.Load() && catalogue.GetText(0), "there is always a text");
}

void Configuration(FuzzedDataProvider& data) {
  KVT::XML::CMarkup document;
  if (!document.SetDoc(data.ConsumeRemainingBytesAsString())) return;
  const KVT::XML::CMarkup first = PI::CLogicalDrive(document).ToDocument();
  Require(PI::CLogicalDrive(first).ToDocument().GetDoc() == first.GetDoc(), "a configuration comes back");
  const std::string text = document.GetDoc();
  Require(text.empty() || (document.SetDoc(text) && document.GetDoc() == text), "a document comes back");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::filesystem::create_directory(FOLDER);
  setenv("ZQ_CATALOG_DIR", FOLDER.c_str(), 1);
  std::atexit([] { std::filesystem::remove_all(FOLDER); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  constexpr std::array PARSERS = {LinuxTexts, Smart, Ini, Catalogue, Configuration};
  data.PickValueInArray(PARSERS)(data);
  return 0;
}

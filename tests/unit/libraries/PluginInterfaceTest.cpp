// What the framework does for its plug-ins: documents, configuration file, SMART, conversions.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <numeric>
#include <sstream>

#include "PI/Helpers.h"
#include "PI/LogicalDrive.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using namespace PI;

constexpr std::uint64_t UNKNOWN64 = CSmartValues::UNKNOWN64;
constexpr std::uint32_t UNKNOWN32 = CSmartValues::UNKNOWN32;

TEST(LogicalDrive, IsReadAsItIsWritten) {
  KVT::XML::CMarkup document;
  ASSERT_TRUE(document.SetDoc(
      R"(<LogicalDriveConfiguration Size="4294967297" Units="1" SpanCount="3" SpanSize="2"><Containers>)"
      R"(<Container><Drive ObjectID="83035118129643523" StartAddress="128" UsedSize="4096"/></Container>)"
      R"(<Container/></Containers><DedicatedHotSpares><Drive ObjectID="5"/><Drive ObjectID="6"/>)"
      R"(</DedicatedHotSpares></LogicalDriveConfiguration>)"));
  EXPECT_TRUE(document.FindElem() && document.IntoElem());
  EXPECT_EQ(CLogicalDrive(document).ToDocument().GetDoc(), document.GetDoc()) << "wherever the cursor stands";
}

class ConfigFile : public testing::Test {
 protected:
  ConfigFile() { m_File.SetFileName("test.ini"); }
  CTemporaryFolder m_Folder;
  CEnvironmentVariable m_Place{"ZQ_CONFIG_DIR", m_Folder.Path()};
  CConfigFile m_File;
};

TEST_F(ConfigFile, ReadsKeysAsTheyStand) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"PollInterval = 010 x \r\n", "010 x"},
      {"; c\n\n# d\nPollInterval=1", "1"},
      {"pollinterval=1\n[s]\nPollInterval=1\n", std::nullopt},
      {"PollInterval=1\nPollInterval=2\n", std::nullopt},  // malformed
  };
  for (const auto& [text, expected] : cases) {
    m_Folder.Write("test.ini", text);
    std::string value;
    EXPECT_EQ(m_File.ReadKeyValue("PollInterval", value, -1, -1), expected ? OK : ERR_GENERAL) << text;
    EXPECT_EQ(value, expected.value_or("")) << text;
  }
}

TEST_F(ConfigFile, WritesOneKeyAndKeepsTheRest) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "PollInterval=20\n"},
      {"; keep\na=1\nPollInterval = 10\nb.c=2", "; keep\na=1\nPollInterval=20\nb.c=2\n"},
      {"a=1\n[s]\nPollInterval=3\n", "a=1\nPollInterval=20\n[s]\nPollInterval=3\n"},
      {"PollIntervals=1\n", "PollIntervals=1\nPollInterval=20\n"},
  };
  for (const auto& [before, after] : cases) {
    m_Folder.Write("test.ini", before);
    EXPECT_EQ(m_File.WriteKeyValue("PollInterval", 20, -1, -1), OK);
    EXPECT_EQ(m_Folder.Read("test.ini"), after);
  }
  EXPECT_EQ(m_Folder.CountFiles(), 1U) << "no temporary file is left";
}

TEST_F(ConfigFile, KeepsModeOwnerAndLinkOfTheFile) {
  using std::filesystem::perms;
  const auto mode = [&](const char* name) {
    return std::filesystem::status(m_Folder.Path(name)).permissions();
  };
  ASSERT_EQ(m_File.WriteKeyValue("a", "1", -1, -1), OK);
  EXPECT_EQ(mode("test.ini"), perms{0644}) << "a new file";
  std::filesystem::rename(m_Folder.Path("test.ini"), m_Folder.Path("real.ini"));
  std::filesystem::create_symlink("real.ini", m_Folder.Path("test.ini"));
  std::filesystem::permissions(m_Folder.Path("real.ini"), perms{0600});
  const uid_t owner = ::geteuid() == 0 ? 12345 : ::geteuid();
  ASSERT_EQ(::chown(m_Folder.Path("real.ini").c_str(), owner, static_cast<gid_t>(-1)), 0);
  ASSERT_EQ(m_File.WriteKeyValue("a", "2", -1, -1), OK);
  EXPECT_TRUE(std::filesystem::is_symlink(m_Folder.Path("test.ini")));
  EXPECT_EQ(m_Folder.Read("real.ini"), "a=2\n");
  EXPECT_EQ(mode("real.ini"), perms{0600});
  struct stat status {};
  EXPECT_TRUE(::stat(m_Folder.Path("real.ini").c_str(), &status) == 0 && status.st_uid == owner);
}

TEST_F(ConfigFile, RefusesWhatItCannotWriteAndTouchesNothing) {
  EXPECT_EQ(m_File.WriteKeyValue("", 7, -1, -1), OK);
  EXPECT_EQ(m_Folder.CountFiles(), 0U) << "an empty key makes no file";

  m_Folder.Write("test.ini", "a=1\ngarbage\n");
  EXPECT_EQ(m_File.WriteKeyValue("a", "2", -1, -1), ERR_DEVICE_IO);
  EXPECT_EQ(m_Folder.Read("test.ini"), "a=1\ngarbage\n");

  m_Folder.Write("test.ini", "a=1\n");
  for (const auto& [key, value] :
       {std::pair{"a", "2\nb=3"}, {"a=b", "1"}, {";a", "1"}, {"[a]", "1"}, {"b", " padded "}})
    EXPECT_EQ(m_File.WriteKeyValue(key, value, -1, -1), ERR_DEVICE_IO) << key;
  EXPECT_EQ(m_Folder.Read("test.ini"), "a=1\n");

  m_File.SetFileName(m_Folder.Path("no/such/folder/test.ini"));
  EXPECT_EQ(m_File.WriteKeyValue("a", "1", -1, -1), ERR_DEVICE_IO);
  m_File.SetFileName(m_Folder.Path());  // a folder
  EXPECT_EQ(m_File.WriteKeyValue("a", "1", -1, -1), ERR_DEVICE_IO);
  EXPECT_EQ(m_Folder.CountFiles(), 1U);
}

/// One entry of a SMART block: identifier, normalised and raw value.
using TSmartEntry = std::tuple<int, int, std::uint64_t>;

/// A SMART block as a drive returns it, checksum and all.
_IDE_SMART_DATA SmartBlock(const std::vector<TSmartEntry>& entries) {
  _IDE_SMART_DATA data{};
  std::size_t at = 2;
  for (const auto& [identifier, normalised, raw] : entries) {
    data.m_Bytes[at] = static_cast<std::uint8_t>(identifier);
    data.m_Bytes[at + 3] = static_cast<std::uint8_t>(normalised);
    for (unsigned int i = 0; i < 6; ++i) data.m_Bytes[at + 5 + i] = static_cast<std::uint8_t>(raw >> (8 * i));
    at += 12;
  }
  const auto sum = std::accumulate(data.m_Bytes.begin(), data.m_Bytes.end() - 1, 0U);
  data.m_Bytes[511] = static_cast<std::uint8_t>(256 - sum % 256);
  return data;
}

CSmartValues ValuesOf(const std::string& model) {
  std::string vendor;
  std::string product;
  CPluginHelper::SplitSATAModelName(model.substr(0, 16), vendor, product);  // as the kernel cuts it
  return {vendor, product};
}

TEST(SmartValues, UnderstandEachFamily) {
  // As many attributes as a block holds, in no order: what a family may ask for and its neighbours. Number N
  // counts N thousand and stands at N - 150 percent.
  std::vector<TSmartEntry> entries{{9, 100, 0xA5B6'0100'1F40}};
  for (const int id : {1,   5,   12,  233, 170, 242, 173, 177, 180, 187, 195, 199, 201, 202, 206,
                       210, 225, 226, 230, 231, 232, 234, 179, 241, 243, 244, 245, 247, 246})
    entries.emplace_back(id, id - 150, id * 1000);
  const _IDE_SMART_DATA block = SmartBlock(entries);
  // Bytes written, reserve, wear, and the models that tell them.
  const std::tuple<std::uint64_t, std::uint32_t, std::uint32_t, const char*> cases[] = {
      {233'000ULL << 9, 20, 5, "SSDSC2KB480G7R|SSDSCKJB240G7R"},
      {225'000ULL << 25, 82, 17, "INTEL SSDSA2CW160G3|SSDSA2BW120G3A|SSDMAEXC024G3H|INTEL SSDSC2MH120A2"},
      {241'000ULL << 25, 82, 17, "INTEL SSDSC2KB480G7|SSDSC2BA200G4R|INTEL SSDMCEAW240A4|SSDMCEAC120B3"},
      {241'000ULL << 9, 29, 73, "Samsung SSD 870 QVO 2TB|SAMSUNG MZ7LM960HCHP-0E003|MZ7KM960HMJP0D3"},
      {UNKNOWN64, UNKNOWN32, 48, "M4-CT128M4SSD2"},
      {246'000ULL << 9, UNKNOWN32, 48, "Crucial_CT256MX100SSD1|Crucial_CT1024MX200SSD1|CT120BX500SSD1"},
      {246'000ULL << 9, UNKNOWN32, 48, "Crucial_CT960M500SSD1|Crucial_CT1024M550SSD1|MTFDDAK256TBN"},
      {246'000ULL << 9, UNKNOWN32, 48, "Micron_5300HC_MTFDDAK960TDS|Micron_M500DC_EEFDDAA120MBB"},
      {241'000ULL << 30, 82, UNKNOWN32, "  WDS500G2B0A |WDC  WDS200T1R0A-68A4W0|SanDisk Ultra II 960GB"},
      {241'000ULL << 9, 82, UNKNOWN32, "SanDisk SDSSDP128G|SDSSDRC032G|SanDisk SD7UB2Q512G"},
      {241'000ULL << 30, 82, UNKNOWN32, "SanDisk SD7SB6S128G1122|SDSSDHII120G|SanDisk SSD PLUS 240GB"},
      {241'000ULL << 25, UNKNOWN32, 19, "KINGSTON SKC600256G"},
      {241'000ULL << 30, UNKNOWN32, 19, "KINGSTON  SA400S37480G|SEDC500M480G|KINGSTON SV300S37A120G"},
      {241'000 * 1'000'000'000ULL, UNKNOWN32, 19, "XA960LE10063|ZA480NM10001"},
      {UNKNOWN64, UNKNOWN32, UNKNOWN32, "TOSHIBA THNSNJ512GCST|KIOXIA-EXCERIA SATA SSD|HFS256G32"},
  };
  for (const auto& [written, reserve, wear, names] : cases) {
    std::istringstream models(names);
    for (std::string model; std::getline(models, model, '|');) {
      CSmartValues found = ValuesOf(model);
      ASSERT_TRUE(found.Evaluate(block)) << model;
      EXPECT_EQ(std::tuple(found.m_RatedWriteVolume, found.m_PowerOnHours, found.m_BytesWritten,
                           found.m_AvailableReserve, found.m_WearUsed),
                std::tuple(UNKNOWN64, 0x0100'1F40, written, reserve, wear))
          << model;
    }
  }
}

TEST(SmartValues, DoNotGuess) {
  const _IDE_SMART_DATA good = SmartBlock({{9, 100, 7}, {233, 99, 0}});
  for (const char* model : {"WDC WD10EZEX-00B", "SAMSUNG HD103SJ", "TOSHIBA MQ01ABD1", "QEMU SSD", "", "CT"})
    EXPECT_FALSE(ValuesOf(model).Evaluate(good)) << model;
  CSmartValues known = ValuesOf("INTEL SSDSC2BB480G4");
  // A percentage that is not kept yet, and a count beyond 64 bits of bytes.
  ASSERT_TRUE(known.Evaluate(SmartBlock({{232, 253, 0}, {241, 100, 0x80'0000'0000}})));
  EXPECT_EQ(std::pair(known.m_AvailableReserve, known.m_BytesWritten), std::pair(UNKNOWN32, UNKNOWN64));
  for (std::size_t i = 0; i < good.m_Bytes.size(); ++i) {
    ASSERT_TRUE(known.Evaluate(good));
    _IDE_SMART_DATA bad = good;
    bad.m_Bytes[i] ^= 0x40;
    ASSERT_FALSE(known.Evaluate(bad)) << i;
    ASSERT_EQ(known.m_PowerOnHours, UNKNOWN64) << "old figures are gone too";
  }
}

TEST(PluginHelper, ProjectsTheNearerEnd) {
  // Hours, bytes written, wear, rated volume, and the hours left.
  const std::tuple<unsigned long, unsigned long, unsigned int, unsigned long, unsigned long> cases[] = {
      {1000, 25, 50, 100, 1000},  // wear ends first
      {1000, 80, 50, 100, 250},   // volume ends first
      {1000, 200, 1, 100, 0},
      {1000, 80, 0, 0, UNKNOWN64},
      {168, 80, 50, 100, 42},
      {167, 80, 50, 100, UNKNOWN64},  // too little time has passed to be projected
      {UNKNOWN64, 80, 50, 100, UNKNOWN64},
      {30000, 1UL << 40, UNKNOWN32, 3UL << 50, 30000UL * 3071},
  };
  for (const auto& [hours, written, wear, rated, expected] : cases) {
    unsigned long left = 77;
    EXPECT_EQ(CPluginHelper::ComputeRemainingLifeTime(hours, written, wear, rated, left),
              expected != UNKNOWN64);
    EXPECT_EQ(left, expected) << hours << ' ' << written << ' ' << wear << ' ' << rated;
  }
}

TEST(PluginHelper, ScalesBytesToTheLargestUnit) {
  const std::tuple<unsigned long, float, _UNITS> cases[] = {
      {1023, 1023.0F, UNIT_BYTES},       {1536, 1.5F, UNIT_KIB},
      {5UL << 20, 5.0F, UNIT_MIB},       {(1UL << 40) - 1, 1024.0F, UNIT_GIB},
      {1UL << 60, 1048576.0F, UNIT_TIB}, {UNKNOWN64, 1.8446744e19F, UNIT_BYTES}};
  for (const auto& [bytes, expected, expectedUnit] : cases) {
    float value = 0.0F;
    _UNITS unit = UNIT_NONE;
    EXPECT_EQ(CPluginHelper::ConvertBytesToOtherUnit(bytes, value, unit), bytes != UNKNOWN64);
    EXPECT_EQ(std::pair(value, unit), std::pair(expected, expectedUnit)) << bytes;
  }
}

}  // namespace

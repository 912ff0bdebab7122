// What the framework does for its plug-ins: documents, configuration file, SMART, conversions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <numeric>

#include "PI/Helpers.h"
#include "PI/LogicalDrive.h"
#include "TemporaryFolder.h"

namespace {

using namespace PI;
using KVT::XML::CMarkup;
using testing::ElementsAre;

constexpr std::uint64_t UNKNOWN64 = CSmartValues::UNKNOWN64;
constexpr std::uint32_t UNKNOWN32 = CSmartValues::UNKNOWN32;

TEST(LogicalDrive, DocumentHoldsAllOfIt) {
  CLogicalDrive drive;
  drive.m_Size = 0x1'0000'0001;
  drive.m_SpanSize = 2;
  drive.m_Containers.resize(2);
  drive.m_Containers[0].m_Drives = {CDrive(0x0127000000000003), CDrive(4)};
  drive.m_Containers[0].m_Drives[1].m_StartAddress = 128;
  drive.m_Containers[0].m_Drives[1].m_UsedSize = 4096;
  drive.m_DedicatedHotSpares = {5, 6};
  CMarkup document = drive.ToDocument();
  EXPECT_EQ(
      document.GetDoc(),
      R"(<LogicalDriveConfiguration Size="4294967297" Units="0" SpanCount="0" SpanSize="2"><Containers>)"
      R"(<Container><Drive ObjectID="83035118129643523" StartAddress="0" UsedSize="0"/>)"
      R"(<Drive ObjectID="4" StartAddress="128" UsedSize="4096"/></Container><Container/></Containers>)"
      R"(<DedicatedHotSpares><Drive ObjectID="5"/><Drive ObjectID="6"/></DedicatedHotSpares>)"
      R"(</LogicalDriveConfiguration>)");
  document.FindElem();
  document.IntoElem();
  EXPECT_EQ(CLogicalDrive(document).ToDocument().GetDoc(), document.GetDoc()) << "wherever the cursor stands";
  for (const char* number : {"12x", "-1", "99999999999999999999999"}) {
    document.ResetPos();
    ASSERT_TRUE(document.FindElem() && document.SetAttrib("Size", number));
    EXPECT_EQ(CLogicalDrive(document).m_Size, 0U) << number;
  }
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
      {"PollInterval=\n", ""},
      {"pollinterval=1\n[s]\nPollInterval=1\n", std::nullopt},
      // malformed files
      {"PollInterval=1\nPollInterval=2\n", std::nullopt},
      {"PollInterval=1\n[open\n", std::nullopt},
      {"PollInterval=1\ngarbage\n", std::nullopt},
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

TEST_F(ConfigFile, KeepsModeAndLinkOfTheFile) {
  const auto mode = [](const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0U;
  };
  ASSERT_EQ(m_File.WriteKeyValue("a", "1", -1, -1), OK);
  EXPECT_EQ(mode(m_Folder.Path("test.ini")), 0644U) << "a new file";
  std::filesystem::rename(m_Folder.Path("test.ini"), m_Folder.Path("real.ini"));
  std::filesystem::create_symlink("real.ini", m_Folder.Path("test.ini"));
  ASSERT_EQ(chmod(m_Folder.Path("real.ini").c_str(), 0600), 0);
  ASSERT_EQ(m_File.WriteKeyValue("a", "2", -1, -1), OK);
  EXPECT_TRUE(std::filesystem::is_symlink(m_Folder.Path("test.ini")));
  EXPECT_EQ(m_Folder.Read("real.ini"), "a=2\n");
  EXPECT_EQ(mode(m_Folder.Path("real.ini")), 0600U);
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
using TSmartEntry = std::tuple<std::uint8_t, std::uint8_t, std::uint64_t>;

/// A SMART block as a drive returns it, checksum and all.
_IDE_SMART_DATA SmartBlock(const std::vector<TSmartEntry>& entries) {
  _IDE_SMART_DATA data{};
  data.m_Bytes[0] = 0x10;
  std::size_t at = 2;
  for (const auto& [identifier, normalised, raw] : entries) {
    data.m_Bytes[at] = identifier;
    data.m_Bytes[at + 3] = normalised;
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
  CPluginHelper::SplitSATAModelName(model, vendor, product);
  return {vendor, product};
}

TEST(SmartValues, UnderstandEachFamily) {
  constexpr std::uint64_t TB = 1'000'000'000'000;
  const struct {
    const char* m_Model;
    std::vector<TSmartEntry> m_Entries;
    std::array<std::uint64_t, 5> m_Fields;  ///< rated volume, hours, bytes written, reserve, wear
  } cases[] = {
      {"INTEL SSDSC2BA200G3",
       {{5, 100, 0}, {9, 0, 0xA5B6'0000'1F40}, {232, 97, 0}, {233, 88, 0}, {241, 100, 1201}},
       {3650 * TB, 8000, 1201ULL << 25, 97, 12}},
      {"Samsung SSD 870 QVO 2TB",
       {{9, 97, 12000}, {177, 94, 80}, {179, 100, 0}, {241, 99, 40'000'000'000}},
       {720 * TB, 12000, 40'000'000'000 * 512, 100, 6}},
      {"Micron_5200_MTFDDAK960TDD", {{9, 100, 1}, {202, 99, 1}}, {UNKNOWN64, 1, UNKNOWN64, UNKNOWN32, 1}},
      // what a drive does not keep yet, and a count beyond 64 bits of bytes
      {"  WDS500G2B0A ",
       {{232, 253, 0}, {241, 100, 0xFFFF'FFFF'FFFF}},
       {UNKNOWN64, UNKNOWN64, UNKNOWN64, UNKNOWN32, UNKNOWN32}},
  };
  for (const auto& test : cases) {
    CSmartValues values = ValuesOf(test.m_Model);
    ASSERT_TRUE(values.Evaluate(SmartBlock(test.m_Entries))) << test.m_Model;
    const std::array<std::uint64_t, 5> fields{values.m_RatedWriteVolume, values.m_PowerOnHours,
                                              values.m_BytesWritten, values.m_AvailableReserve,
                                              values.m_WearUsed};
    EXPECT_EQ(fields, test.m_Fields) << test.m_Model;
  }
}

TEST(SmartValues, DoNotGuess) {
  const _IDE_SMART_DATA good = SmartBlock({{9, 100, 7}, {233, 99, 0}});
  for (const char* model : {"WDC WD10EZEX-00B", "SAMSUNG HD103SJ", "TOSHIBA MQ01ABD1", "QEMU SSD", "", "CT"})
    EXPECT_FALSE(ValuesOf(model).Evaluate(good)) << model;
  CSmartValues known = ValuesOf("INTEL SSDSC2BB480G4");
  for (std::size_t i = 0; i < good.m_Bytes.size(); ++i) {
    ASSERT_TRUE(known.Evaluate(good));
    _IDE_SMART_DATA bad = good;
    bad.m_Bytes[i] ^= 0x40;
    ASSERT_FALSE(known.Evaluate(bad)) << i;
    ASSERT_EQ(known.m_PowerOnHours, UNKNOWN64) << "old figures are gone too";
    ASSERT_EQ(known.m_WearUsed, UNKNOWN32);
  }
}

TEST(PluginHelper, ProjectsTheNearerEnd) {
  // Hours, bytes written, wear, rated volume, and the hours left.
  const std::tuple<unsigned long, unsigned long, unsigned int, unsigned long, unsigned long> cases[] = {
      {1000, 25, 50, 100, 1000},  // wear ends first
      {1000, 80, 50, 100, 250},   // volume ends first
      {1000, 5, 255, 100, 0},
      {1000, 200, 1, 100, 0},
      {1000, 80, 0, 0, UNKNOWN64},
      {0, 80, 50, 100, UNKNOWN64},  // no time has passed that could be projected
      {30000, 1UL << 40, UNKNOWN32, 3UL << 50, 30000UL * 3071},
  };
  for (const auto& [hours, written, wear, rated, expected] : cases) {
    unsigned long left = 77;
    EXPECT_EQ(CPluginHelper::ComputeRemainingLifeTime(hours, written, wear, rated, left),
              expected != UNKNOWN64);
    EXPECT_EQ(left, expected) << hours << ' ' << written << ' ' << wear << ' ' << rated;
  }
}

}  // namespace

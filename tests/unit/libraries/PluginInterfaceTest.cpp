// What the framework does for its plug-ins: records, documents, configuration file, SMART, conversions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <numeric>

#include "PI/Helpers.h"
#include "PI/LogicalDrive.h"
#include "PI/Object.h"
#include "PI/Operation.h"
#include "TemporaryFolder.h"

namespace {

using namespace PI;
using KVT::XML::CMarkup;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t UNKNOWN64 = CSmartValues::UNKNOWN64;
constexpr std::uint32_t UNKNOWN32 = CSmartValues::UNKNOWN32;

TEST(Property, EverySetterGivesItsKind) {
  CProperty property(PROP_NAME);
  EXPECT_EQ(property.GetDataType(), DATA_NONE);
  const std::pair<std::function<void()>, _DATA_TYPE> cases[] = {
      {[&] { property.SetValue("text"); }, DATA_TEXT},
      {[&] { property.SetValue(std::string("text")); }, DATA_TEXT},
      {[&] { property.SetValue(1, 0, 2, 1U); }, DATA_RANGE},
      {[&] {
         property.SetValue(1, {1, 2});
       },
       DATA_CHOICE},
      {[&] { property.SetValue(1.5F); }, DATA_FLOAT},
      {[&] { property.SetValue(5UL); }, DATA_UNSIGNED},
      {[&] { property.SetValue(std::vector<int>{1}, std::vector<int>{2}); }, DATA_NUMBER_LISTS},
      {[&] { property.SetValue(CMarkup()); }, DATA_XML},
  };
  for (const auto& [set, kind] : cases) {
    set();
    EXPECT_EQ(property.GetDataType(), kind);
  }
}

TEST(Property, ReadsOnlyTheKindItHolds) {
  CProperty property(PROP_POLL_INTERVAL, true);
  property.SetValue(10, 2, 255, 1);
  const CProperty copy(property);
  int value = 0;
  int minimum = 0;
  int maximum = 0;
  unsigned int step = 0;
  unsigned long number = 77;
  ASSERT_TRUE(copy.GetValue(value, minimum, maximum, step));
  EXPECT_EQ((std::array{value, minimum, maximum}), (std::array{10, 2, 255}));
  EXPECT_FALSE(copy.GetValue(number));
  EXPECT_EQ(number, 77U);
  property.SetValue(0x0127000000000001UL);
  ASSERT_TRUE(property.GetValue(number));
  EXPECT_EQ(number, 0x0127000000000001UL);
  EXPECT_FALSE(property.GetValue(value, minimum, maximum, step));
  EXPECT_EQ(value, 10);
}

TEST(Operation, RowsFillTheWordsInOrder) {
  const COperation operation(COperation::Row{50002, 6, 1, 2, 3, 4, 5, 7, 22001});
  EXPECT_EQ(operation.m_Code, 50002U);
  EXPECT_EQ(operation.m_SecondCode, 50002U);
  EXPECT_EQ(operation.m_Category, 6U);
  EXPECT_THAT(operation.m_Attributes, ElementsAre(1, 2, 3, 4, 5, 7));
  EXPECT_EQ(operation.m_ConfirmationCode, 22001U);
}

TEST(LogicalDrive, DocumentHoldsAllOfIt) {
  CLogicalDrive drive;
  EXPECT_EQ(drive.ToDocument().GetDoc(),
            R"(<LogicalDriveConfiguration Size="0" Units="0" SpanCount="0" SpanSize="0"/>)");
  drive.m_Size = 0x1'0000'0001;
  drive.m_Units = 21002;
  drive.m_SpanCount = 1;
  drive.m_SpanSize = 2;
  drive.m_Containers.resize(2);
  drive.m_Containers[0].m_Drives = {CDrive(0x0127000000000003), CDrive(4)};
  drive.m_Containers[0].m_Drives[1].m_StartAddress = 128;
  drive.m_Containers[0].m_Drives[1].m_UsedSize = 4096;
  drive.m_DedicatedHotSpares = {5, 6};
  CMarkup document = drive.ToDocument();
  EXPECT_EQ(
      document.GetDoc(),
      R"(<LogicalDriveConfiguration Size="4294967297" Units="21002" SpanCount="1" SpanSize="2"><Containers>)"
      R"(<Container><Drive ObjectID="83035118129643523" StartAddress="0" UsedSize="0"/>)"
      R"(<Drive ObjectID="4" StartAddress="128" UsedSize="4096"/></Container><Container/></Containers>)"
      R"(<DedicatedHotSpares><Drive ObjectID="5"/><Drive ObjectID="6"/></DedicatedHotSpares>)"
      R"(</LogicalDriveConfiguration>)");
  document.FindElem();
  document.IntoElem();
  EXPECT_EQ(CLogicalDrive(document).ToDocument().GetDoc(), document.GetDoc()) << "wherever the cursor stands";
}

TEST(LogicalDrive, WhatIsMissingOrNoNumberStaysAtItsDefault) {
  for (const char* number : {"", "x", "12x", "-1", " 1", "0x10", "1.5", "99999999999999999999999"}) {
    CMarkup document;
    ASSERT_TRUE(document.AddElem("LogicalDriveConfiguration"));
    for (const char* name : {"Size", "Units", "SpanSize"}) document.SetAttrib(name, number);
    document.SetAttrib("SpanCount", "7");
    const CLogicalDrive drive(document);
    EXPECT_EQ(drive.m_Size, 0U) << number;
    EXPECT_EQ(drive.m_Units, 0U) << number;
    EXPECT_EQ(drive.m_SpanSize, 0U) << number;
    EXPECT_EQ(drive.m_SpanCount, 7U) << number;
  }
  CMarkup document;
  ASSERT_TRUE(document.SetDoc("<Other Size='5'><Containers><Container/></Containers></Other>"));
  EXPECT_EQ(CLogicalDrive(document).m_Size, 0U);
  EXPECT_THAT(CLogicalDrive(CMarkup()).m_Containers, IsEmpty());
  ASSERT_TRUE(document.SetDoc(
      "<LogicalDriveConfiguration><DedicatedHotSpares><Drive ObjectID='9'/><x/></DedicatedHotSpares>"
      "<Containers><x/><Container><Drive/></Container></Containers></LogicalDriveConfiguration>"));
  const CLogicalDrive drive(document);
  EXPECT_THAT(drive.m_DedicatedHotSpares, ElementsAre(9));
  ASSERT_EQ(drive.m_Containers.size(), 1U);
  EXPECT_EQ(drive.m_Containers[0].m_Drives.size(), 1U);
}

class ConfigFile : public testing::Test {
 protected:
  ConfigFile() { m_File.SetFileName("test.ini"); }
  /// The value, or the status as a number in brackets.
  std::string Read(const std::string& key) const {
    std::string value;
    const unsigned int status = m_File.ReadKeyValue(key, value, -1, -1);
    return status == OK ? value : '[' + std::to_string(status) + ']';
  }

  CTemporaryFolder m_Folder;
  CEnvironmentVariable m_Place{"ZQ_CONFIG_DIR", m_Folder.Path()};
  CConfigFile m_File;
};

TEST_F(ConfigFile, ReadsKeysAsTheyStand) {
  EXPECT_EQ(Read("PollInterval"), "[20000]") << "no file";
  const struct {
    const char* m_Text;
    const char* m_Value;
  } cases[] = {
      {"PollInterval=10\n", "10"},
      {"PollInterval = 010 x \r\n", "010 x"},
      {"; c\n\n# d\nPollInterval=1", "1"},
      {"PollInterval=\n", ""},
      {"PollInterval=a=b\n", "a=b"},
      {"Other=1\n", "[20000]"},
      {"pollinterval=1\n", "[20000]"},
      {"", "[20000]"},
      {"[s]\nPollInterval=1\n", "[20000]"},
      {"PollInterval=1\n[s]\nx=2\n", "1"},
      // malformed files
      {"PollInterval\n", "[20000]"},
      {"PollInterval=1\nPollInterval=2\n", "[20000]"},
      {"=1\nPollInterval=1\n", "[20000]"},
      {"PollInterval=1\n[open\n", "[20000]"},
      {"PollInterval=1\ngarbage\n", "[20000]"},
  };
  for (const auto& test : cases) {
    m_Folder.Write("test.ini", test.m_Text);
    EXPECT_EQ(Read("PollInterval"), test.m_Value) << test.m_Text;
  }
}

TEST_F(ConfigFile, WritesOneKeyAndKeepsTheRest) {
  const struct {
    const char* m_Before;
    const char* m_After;
  } cases[] = {
      {"", "PollInterval=20\n"},
      {"a=1\n", "a=1\nPollInterval=20\n"},
      {"; keep\na=1\nPollInterval = 10\nb.c=2", "; keep\na=1\nPollInterval=20\nb.c=2\n"},
      {"a=1\n[s]\nPollInterval=3\n", "a=1\nPollInterval=20\n[s]\nPollInterval=3\n"},
      {"PollIntervals=1\n", "PollIntervals=1\nPollInterval=20\n"},
  };
  for (const auto& test : cases) {
    m_Folder.Write("test.ini", test.m_Before);
    EXPECT_EQ(m_File.WriteKeyValue("PollInterval", 20, -1, -1), OK);
    EXPECT_EQ(m_Folder.Read("test.ini"), test.m_After);
    EXPECT_EQ(Read("PollInterval"), "20");
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
  EXPECT_EQ(m_File.WriteKeyValue("", "", 0, 7), OK);
  EXPECT_EQ(m_File.WriteKeyValue("", 7, -1, -1), OK);
  EXPECT_EQ(m_Folder.CountFiles(), 0U) << "an empty key makes no file";

  const std::string malformed = "a=1\ngarbage\n";
  m_Folder.Write("test.ini", malformed);
  EXPECT_EQ(m_File.WriteKeyValue("a", "2", -1, -1), ERR_DEVICE_IO);
  EXPECT_EQ(m_Folder.Read("test.ini"), malformed);

  m_Folder.Write("test.ini", "a=1\n");
  const std::pair<const char*, const char*> impossible[] = {{"a", "2\nb=3"},  {"a=b", "1"}, {";a", "1"},
                                                            {"#a", "1"},      {"[a]", "1"}, {"b\nc", "1"},
                                                            {"b", " padded "}};
  for (const auto& [key, value] : impossible)
    EXPECT_EQ(m_File.WriteKeyValue(key, value, -1, -1), ERR_DEVICE_IO) << key;
  EXPECT_EQ(m_Folder.Read("test.ini"), "a=1\n");

  m_File.SetFileName(m_Folder.Path("no/such/folder/test.ini"));
  EXPECT_EQ(m_File.WriteKeyValue("a", "1", -1, -1), ERR_DEVICE_IO);
  m_File.SetFileName(m_Folder.Path());  // a folder
  EXPECT_EQ(m_File.WriteKeyValue("a", "1", -1, -1), ERR_DEVICE_IO);
  EXPECT_EQ(m_Folder.CountFiles(), 1U);
}

struct SSmartEntry {
  std::uint8_t m_Identifier;
  std::uint8_t m_Normalised;
  std::uint64_t m_Raw;
};

/// A SMART block as a drive returns it, checksum and all.
_IDE_SMART_DATA SmartBlock(const std::vector<SSmartEntry>& entries) {
  _IDE_SMART_DATA data{};
  data.m_Bytes[0] = 0x10;
  std::size_t at = 2;
  for (const SSmartEntry& entry : entries) {
    data.m_Bytes[at] = entry.m_Identifier;
    data.m_Bytes[at + 1] = 0x32;
    data.m_Bytes[at + 3] = entry.m_Normalised;
    data.m_Bytes[at + 4] = entry.m_Normalised;
    for (unsigned int i = 0; i < 6; ++i)
      data.m_Bytes[at + 5 + i] = static_cast<std::uint8_t>(entry.m_Raw >> (8 * i));
    at += 12;
  }
  const auto sum = std::accumulate(data.m_Bytes.begin(), data.m_Bytes.end() - 1, 0U);
  data.m_Bytes[511] = static_cast<std::uint8_t>(256 - sum % 256);
  return data;
}

TEST(SmartValues, UnderstandEachFamily) {
  constexpr std::uint64_t GIB = 1ULL << 30;
  constexpr std::uint64_t MIB32 = 32ULL << 20;
  constexpr std::uint64_t TB = 1'000'000'000'000;
  const struct {
    const char* m_Model;
    std::vector<SSmartEntry> m_Entries;
    std::array<std::uint64_t, 5> m_Fields;
  } cases[] = {
      {"INTEL SSDSC2BA200G3",
       {{5, 100, 0}, {9, 100, 20103}, {225, 100, 1000}, {232, 97, 0}, {233, 88, 0}, {241, 100, 1201}},
       {3650 * TB, 20103, 1201 * MIB32, 97, 12}},
      {"INTEL SSDSC2BB48",
       {{9, 0, 0xA5B6'0000'1F40}, {232, 100, 0}, {233, 100, 0}, {241, 100, 77}},
       {UNKNOWN64, 8000, 77 * MIB32, 100, 0}},
      {"INTEL SSDSA2M160G2GC",
       {{9, 100, 5}, {225, 200, 3}, {232, 99, 0}, {233, 98, 0}},
       {UNKNOWN64, 5, 3 * MIB32, 99, 2}},
      {"Samsung SSD 860 EVO 500GB",
       {{9, 97, 12000}, {177, 94, 80}, {179, 100, 0}, {241, 99, 40'000'000'000}},
       {300 * TB, 12000, 40'000'000'000 * 512, 100, 6}},
      {"Samsung SSD 870 QVO 2TB", {{9, 97, 1}, {177, 99, 3}}, {720 * TB, 1, UNKNOWN64, UNKNOWN32, 1}},
      {"Samsung SSD 860",
       {{9, 97, 1}, {177, 99, 3}, {179, 95, 3}, {241, 99, 4}},
       {UNKNOWN64, 1, 2048, 95, 1}},
      {"SAMSUNG MZ7LM480",
       {{9, 97, 1}, {177, 0, 3}, {179, 10, 3}, {241, 99, 4}},
       {UNKNOWN64, 1, 2048, 10, 100}},
      {"CT500MX500SSD1",
       {{9, 100, 4321}, {180, 0, 41}, {202, 91, 9}, {246, 100, 5'000'000}},
       {UNKNOWN64, 4321, 2'560'000'000, UNKNOWN32, 9}},
      {"Crucial_CT240M50", {{9, 100, 1}, {202, 80, 20}, {246, 100, 2}}, {UNKNOWN64, 1, 1024, UNKNOWN32, 20}},
      {"Micron_5200_MTFDDAK960TDD",
       {{9, 100, 1}, {202, 99, 1}, {246, 100, 2}},
       {UNKNOWN64, 1, 1024, UNKNOWN32, 1}},
      {"WDC WDS500G2B0A",
       {{9, 100, 88}, {232, 100, 100}, {241, 253, 1500}},
       {UNKNOWN64, 88, 1500 * GIB, 100, UNKNOWN32}},
      {"SanDisk SD8SB8U5",
       {{9, 100, 88}, {232, 98, 98}, {241, 253, 15}},
       {UNKNOWN64, 88, 15 * GIB, 98, UNKNOWN32}},
      {"KINGSTON SA400S3",
       {{9, 100, 7}, {231, 95, 95}, {241, 100, 300}},
       {UNKNOWN64, 7, 300 * GIB, UNKNOWN32, 5}},
      {"XA480LE10063", {{9, 100, 7}, {231, 99, 1}, {241, 100, 3}}, {UNKNOWN64, 7, 3 * GIB, UNKNOWN32, 1}},
      {"TOSHIBA THNSNJ25", {{9, 100, 7}, {173, 180, 0}}, {UNKNOWN64, 7, UNKNOWN64, UNKNOWN32, UNKNOWN32}},
      {"SK hynix SC311 S", {{9, 100, 7}}, {UNKNOWN64, 7, UNKNOWN64, UNKNOWN32, UNKNOWN32}},
      // what a drive does not keep yet, and a count beyond 64 bits of bytes
      {"WDC WDS500G2B0A",
       {{232, 253, 0}, {241, 100, 0xFFFF'FFFF'FFFF}},
       {UNKNOWN64, UNKNOWN64, UNKNOWN64, UNKNOWN32, UNKNOWN32}},
  };
  for (const auto& test : cases) {
    std::string vendor;
    std::string product;
    CPluginHelper::SplitSATAModelName(test.m_Model, vendor, product);
    CSmartValues values(vendor, product);
    ASSERT_TRUE(values.IsSupported()) << test.m_Model;
    EXPECT_EQ(values.m_RatedWriteVolume, UNKNOWN64) << "before the evaluation";
    ASSERT_TRUE(values.Evaluate(SmartBlock(test.m_Entries))) << test.m_Model;
    const std::array<std::uint64_t, 5> fields{values.m_RatedWriteVolume, values.m_PowerOnHours,
                                              values.m_BytesWritten, values.m_AvailableReserve,
                                              values.m_WearUsed};
    EXPECT_EQ(fields, test.m_Fields) << test.m_Model;
  }
}

TEST(SmartValues, DoNotGuess) {
  for (const char* model : {"WDC WD10EZEX-00B", "ST1000DM003-1CH1", "SAMSUNG HD103SJ", "TOSHIBA MQ01ABD1",
                            "QEMU HARDDISK", "QEMU SSD", "", "CT", "Hitachi HTS72323"}) {
    std::string vendor;
    std::string product;
    CPluginHelper::SplitSATAModelName(model, vendor, product);
    EXPECT_FALSE(CSmartValues(vendor, product).IsSupported()) << model;
  }
  CSmartValues unknown("QEMU", "HARDDISK");
  EXPECT_FALSE(unknown.Evaluate(SmartBlock({{9, 100, 7}})));
  EXPECT_EQ(unknown.m_PowerOnHours, UNKNOWN64);

  CSmartValues known("Intel", "SSDSC2BB480G4");
  const _IDE_SMART_DATA good = SmartBlock({{9, 100, 7}, {233, 99, 0}});
  ASSERT_TRUE(known.Evaluate(good));
  for (std::size_t i = 0; i < good.m_Bytes.size(); ++i) {
    _IDE_SMART_DATA bad = good;
    bad.m_Bytes[i] ^= 0x40;
    ASSERT_FALSE(known.Evaluate(bad)) << i;
    ASSERT_EQ(known.m_PowerOnHours, UNKNOWN64) << "old figures are gone too";
    ASSERT_EQ(known.m_WearUsed, UNKNOWN32);
  }
  CSmartValues empty("Intel", "SSDSC2BB480G4");
  EXPECT_TRUE(empty.Evaluate(_IDE_SMART_DATA{}));
  EXPECT_EQ(empty.m_PowerOnHours, UNKNOWN64);
}

TEST(PluginHelper, SplitsModels) {
  const struct {
    const char* m_Model;
    const char* m_Vendor;
    const char* m_Product;
  } cases[] = {
      {"ST1000DM003-1CH1", "Seagate", "ST1000DM003-1CH1"},
      {"WDC WD10EZEX-00BN5A0", "WDC", "WD10EZEX-00BN5A0"},
      {"WD4000FYYZ", "WDC", "WD4000FYYZ"},
      {"Samsung SSD 860 EVO 500GB", "Samsung", "SSD 860 EVO 500GB"},
      {"INTEL SSDSC2BB480G4", "INTEL", "SSDSC2BB480G4"},
      {"QEMU HARDDISK", "QEMU", "HARDDISK"},
      {"SK hynix SC311 SATA 256GB", "SK hynix", "SC311 SATA 256GB"},
      {"Micron_5200_MTFDDAK960TDD", "Micron", "5200_MTFDDAK960TDD"},
      {"OCZ-VERTEX3", "OCZ", "VERTEX3"},
      {"  Hitachi   HTS723232A7A364  ", "Hitachi", "HTS723232A7A364"},
      {"CT500MX500SSD1", "Crucial", "CT500MX500SSD1"},
      {"STX", "ATA", "STX"},
      {"A1B2 drive", "ATA", "A1B2 drive"},
      {"Micron_", "Micron", ""},
      {"", "ATA", ""},
      {"   ", "ATA", ""},
  };
  for (const auto& test : cases) {
    std::string vendor = "old";
    std::string product = "old";
    CPluginHelper::SplitSATAModelName(test.m_Model, vendor, product);
    EXPECT_EQ(vendor, test.m_Vendor) << test.m_Model;
    EXPECT_EQ(product, test.m_Product) << test.m_Model;
  }
}

TEST(PluginHelper, ScalesBytesToTheLargestUnit) {
  const struct {
    unsigned long m_Bytes;
    bool m_Known;
    float m_Value;
    _UNITS m_Unit;
  } cases[] = {
      {0, true, 0.0F, UNIT_BYTES},
      {1023, true, 1023.0F, UNIT_BYTES},
      {1024, true, 1.0F, UNIT_KIB},
      {(1UL << 20) - 1024, true, 1023.0F, UNIT_KIB},
      {1UL << 20, true, 1.0F, UNIT_MIB},
      {3UL << 29, true, 1.5F, UNIT_GIB},
      {1UL << 40, true, 1.0F, UNIT_TIB},
      {1UL << 60, true, 1048576.0F, UNIT_TIB},
      {~0UL, false, static_cast<float>(~0UL), UNIT_BYTES},
  };
  for (const auto& test : cases) {
    float value = -1;
    _UNITS unit = UNIT_NONE;
    EXPECT_EQ(CPluginHelper::ConvertBytesToOtherUnit(test.m_Bytes, value, unit), test.m_Known)
        << test.m_Bytes;
    EXPECT_EQ(value, test.m_Value) << test.m_Bytes;
    EXPECT_EQ(unit, test.m_Unit) << test.m_Bytes;
  }
}

TEST(PluginHelper, ProjectsTheNearerEnd) {
  const struct {
    unsigned long m_Hours;
    unsigned long m_Written;
    unsigned int m_Wear;
    unsigned long m_Rated;
    unsigned long m_Left;
  } cases[] = {
      {1000, UNKNOWN64, 50, UNKNOWN64, 1000},  // half worn: as long again
      {1000, UNKNOWN64, 10, UNKNOWN64, 9000},
      {1000, 25, 50, 100, 1000},  // wear ends first
      {1000, 80, 50, 100, 250},   // volume ends first
      {1000, 80, UNKNOWN32, 100, 250},
      {1000, 80, 0, 100, 250},
      {1000, 0, 20, 100, 4000},
      {1000, 5, 100, 100, 0},
      {1000, 5, 255, 100, 0},
      {1000, 200, 1, 100, 0},
      {1000, 80, UNKNOWN32, UNKNOWN64, UNKNOWN64},
      {1000, UNKNOWN64, UNKNOWN32, 100, UNKNOWN64},
      {1000, 0, 0, 100, UNKNOWN64},
      {1000, 80, 0, 0, UNKNOWN64},
      {0, 80, 50, 100, UNKNOWN64},  // no time has passed that could be projected
      {UNKNOWN64, 80, 50, 100, UNKNOWN64},
      {30000, 1UL << 40, UNKNOWN32, 3UL << 50, 30000UL * 3071},
  };
  for (const auto& test : cases) {
    unsigned long left = 77;
    const bool known = CPluginHelper::ComputeRemainingLifeTime(test.m_Hours, test.m_Written, test.m_Wear,
                                                               test.m_Rated, left);
    EXPECT_EQ(left, test.m_Left) << test.m_Hours << ' ' << test.m_Written << ' ' << test.m_Wear << ' '
                                 << test.m_Rated;
    EXPECT_EQ(known, test.m_Left != UNKNOWN64);
  }
}

}  // namespace

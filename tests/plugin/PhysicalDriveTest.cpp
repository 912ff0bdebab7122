// Properties of physical drives, and their SMART data.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/hdreg.h>

#include <set>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using ECall = CFaultyMachine::ECall;

namespace {

/// The demo machine's drives: sdh is a solid-state disk that tells its figures.
struct PhysicalDriveTest : public testing::Test, public SRig {
  PhysicalDriveTest() { gSmartData.clear(); }

  std::vector<PI::CProperty> Properties(CRVXPhysicalDrive& drive, unsigned int which = PI::PROP_ALL) {
    std::vector<PI::CProperty> out;
    EXPECT_EQ(m_Plugin.GetPhysicalDriveProperties(drive, out, static_cast<PI::_PROPERTY_ID>(which)), PI::OK);
    return out;
  }
  unsigned int Read(PI::_IDE_SMART_DATA& data) { return m_Plugin.GetSmartData("/dev/sdh", data); }
  std::uint64_t Commands() const { return m_Machine.IoctlCount(HDIO_DRIVE_CMD); }

  CRVXPhysicalDrive& m_Drive{m_Plugin.Drive("sdh")};
};

/// A value as text.
std::string Shown(const PI::CProperty& property) {
  if (const auto* text = std::get_if<std::string>(&property.m_Value)) return *text;
  if (const auto* number = std::get_if<unsigned long>(&property.m_Value)) return std::to_string(*number);
  if (const auto* number = std::get_if<float>(&property.m_Value)) return std::to_string(*number);
  if (const auto* range = std::get_if<PI::SRange>(&property.m_Value))
    return Text("%d of %d to %d by %d", range->m_Value, range->m_Minimum, range->m_Maximum, range->m_Step);
  std::string choices = ":";
  for (const int choice : std::get<PI::SChoice>(property.m_Value).m_Choices) choices += Text(" %d", choice);
  return std::to_string(std::get<PI::SChoice>(property.m_Value).m_Selected) + choices;
}

TEST_F(PhysicalDriveTest, ShowsItsPropertiesInOrder) {
  const unsigned int SHOWN = PI::CProperty::SHOWN;
  const struct {
    unsigned int m_ID;
    std::string m_Value;
    unsigned int m_Label;
    unsigned int m_Unit;
    unsigned int m_Attribute;
    bool m_Smart;
    std::string m_Unknown;  ///< of the SMART properties
  } expected[] = {{30007, m_Drive.m_DisplayName, 23286, 0, SHOWN, false, ""},
                  {30125, "7", 23273, 0, SHOWN, false, ""},
                  {30122, "0", 23293, 0, 4, false, ""},
                  {30247, "/dev/sdh", 23288, 0, SHOWN, false, ""},
                  {30137, m_Drive.m_DeviceKey, 0, 0, 0, false, ""},
                  {30003, m_Drive.m_Vendor, 23317, 0, SHOWN, false, ""},
                  {30063, m_Drive.m_Model, 23296, 0, SHOWN, false, ""},
                  {30059, "16384", 23292, 21002, SHOWN, false, ""},
                  {30060, "16383", 23270, 21002, SHOWN, false, ""},
                  {30054, "40102: 40102 40025 40096", 23264, 0, SHOWN, false, ""},
                  {30017, "40099: 40099 40093 40095 40096 40098", 23310, 0, SHOWN, false, ""},
                  {30056, "40002: 40174 40002", 23315, 0, SHOWN, false, ""},
                  {30320, "40293: 40292 40293", 23284, 0, SHOWN, false, ""},
                  {30244, "40262: 40262 40263", 23269, 0, 0, false, ""},
                  // 8760 hours for 7 percent leave 116382 hours from 2024-01-01 on.
                  {30483, "2037-04-11", 23275, 0, SHOWN, true, ""},
                  {30486, "99 of 0 to 100 by 1", 23299, 0, SHOWN, true, "0 of 0 to 100 by 1"},
                  {30494, "7 of 0 to 100 by 1", 23297, 21010, SHOWN, true, "0 of 0 to 100 by 1"},
                  {30490, "20.000000", 23268, 21004, SHOWN, true, "0.000000"},
                  {30498, "8760", 23295, 21005, SHOWN, true, "0"}};
  const auto properties = Properties(m_Drive);
  m_Drive.m_Medium = PI::MEDIUM_ROTATING;
  const auto rotating = Properties(m_Drive);
  m_Drive.m_Medium = PI::MEDIUM_SOLID_STATE;
  ASSERT_EQ(properties.size(), std::size(expected));
  ASSERT_EQ(rotating.size(), std::size(expected));
  for (std::size_t at = 0; at < properties.size(); ++at) {
    const PI::CProperty& property = properties[at];
    SCOPED_TRACE(expected[at].m_ID);
    EXPECT_EQ(property.m_ID, expected[at].m_ID);
    EXPECT_EQ(Shown(property), expected[at].m_Value);
    EXPECT_EQ(property.m_LabelTextID, expected[at].m_Label);
    EXPECT_EQ(property.m_UnitTextID, expected[at].m_Unit);
    EXPECT_EQ(property.m_AttributeWord, expected[at].m_Attribute);
    EXPECT_EQ(property.m_Writable, expected[at].m_Smart);
    EXPECT_EQ(property.m_DisplayFormat, property.m_ID == 30490 ? 8U : 0U);
    EXPECT_EQ(Properties(m_Drive, property.m_ID).size(), 1U);
    if (!expected[at].m_Smart) continue;
    EXPECT_EQ(Shown(rotating[at]), expected[at].m_Unknown);
    EXPECT_EQ(rotating[at].m_AttributeWord, 0U);
  }
  EXPECT_THAT(Properties(m_Drive, 30046), IsEmpty());
  EXPECT_EQ(Commands(), 1U) << "one command serves all";
}

TEST_F(PhysicalDriveTest, UsableCapacityFollowsTheCapacity) {
  const std::pair<std::uint64_t, unsigned long> cases[] = {{0, 0},
                                                           {136, 0},
                                                           {1160, 1},
                                                           {1159, 0},
                                                           {1163, 1},
                                                           {4194304, 4095},
                                                           {135, ((std::uint64_t{1} << 63) >> 9) - 1}};
  m_Drive.m_UsableSize = 0;  // a spare's
  for (const auto& [size, usable] : cases) {
    m_Drive.m_Size = size;
    EXPECT_EQ(std::get<unsigned long>(Properties(m_Drive, PI::PROP_USABLE_CAPACITY)[0].m_Value), usable)
        << size;
  }
}

TEST_F(PhysicalDriveTest, AMissingDriveHidesItsIdentityAlsoInWhatWasThere) {
  const struct {
    std::uint32_t m_Status;
    unsigned int m_SolidState;
    unsigned int m_Rotating;
  } texts[] = {{40023, 24176, 24080}, {40093, 24201, 24093}, {40095, 24195, 24087}, {40096, 24215, 24105},
               {40098, 24146, 24014}, {40099, 24183, 24081}, {7, 24183, 24081}};
  for (const auto& text : texts) {
    m_Drive.m_Status = text.m_Status;
    m_Drive.m_Medium = PI::MEDIUM_SOLID_STATE;
    EXPECT_EQ(Properties(m_Drive, PI::PROP_STATUS)[0].m_ValueTextID, text.m_SolidState);
    m_Drive.m_Medium = PI::MEDIUM_ROTATING;
    EXPECT_EQ(Properties(m_Drive, PI::PROP_STATUS)[0].m_ValueTextID, text.m_Rotating);
  }
  const std::set<unsigned int> hidden = {30003, 30020, 30022, 30043, 30052, 30053, 30054, 30056,
                                         30059, 30063, 30125, 30154, 30155, 30202, 30203, 30204,
                                         30205, 30207, 30208, 30236, 30243, 30247, 30310};
  for (const bool missing : {false, true}) {
    m_Drive.m_Status = missing ? PI::STATUS_MISSING : PI::STATUS_READY;
    std::vector<PI::CProperty> out;
    for (unsigned int id = 30000; id < 30330; ++id) out.emplace_back(static_cast<PI::_PROPERTY_ID>(id));
    m_Plugin.GetPhysicalDriveProperties(m_Drive, out, PI::PROP_CAPACITY);
    ASSERT_EQ(out.size(), 331U) << "what was there stays";
    for (const PI::CProperty& property : out)
      EXPECT_EQ(property.m_AttributeWord == 0, missing && hidden.count(property.m_ID) != 0) << property.m_ID;
  }
}

TEST_F(PhysicalDriveTest, SmartIsReadFromSolidStateAtaDisksThatAreKnown) {
  const struct {
    const char* m_What;
    std::uint32_t m_Attachment;
    std::uint32_t m_Medium;
    const char* m_Vendor;
    const char* m_Model;
    bool m_IsRead;
  } cases[] = {{"all", 40002, 40293, "INTEL", "SSDSC2BB480G4", true},
               {"no ATA", 40174, 40293, "INTEL", "SSDSC2BB480G4", false},
               {"rotating", 40002, 40292, "INTEL", "SSDSC2BB480G4", false},
               {"unknown model", 40002, 40293, "ACME", "SSDSC2BB480G4", false}};
  for (const auto& entry : cases) {
    gSmartData.clear();
    m_Drive.m_Attachment = entry.m_Attachment;
    m_Drive.m_Medium = entry.m_Medium;
    m_Drive.m_Vendor = entry.m_Vendor;
    m_Drive.m_Model = entry.m_Model;
    const std::uint64_t before = Commands();
    const auto hours = Properties(m_Drive, PI::PROP_SMART_POWER_ON_HOURS);
    EXPECT_EQ(hours[0].m_AttributeWord != 0, entry.m_IsRead) << entry.m_What;
    EXPECT_EQ(Commands() - before, entry.m_IsRead ? 1U : 0U) << entry.m_What;
    EXPECT_THAT(gSmartData, testing::SizeIs(entry.m_IsRead ? 1 : 0));
  }
}

TEST_F(PhysicalDriveTest, SmartWithoutAFigureHidesItAndZeroHoursCountAsOne) {
  const struct {
    const char* m_Attributes;
    std::string m_Date;
    std::string m_Hours;
    std::string m_Written;
    bool m_HoursShown;
  } cases[] = {// One hour for 50 percent: another hour, on the same day.
               {R"([{"id": 9, "raw": 0}, {"id": 233, "value": 50}, {"id": 241, "raw": 1}])", "2024-01-01",
                "0", "32.000000", true},
               {R"([{"id": 9, "raw": 24}, {"id": 233, "value": 50}, {"id": 241, "raw": 0}])", "", "24",
                "0.000000", true},
               {R"([{"id": 9, "raw": 24}, {"id": 233, "value": 100}, {"id": 241, "raw": 1}])", "", "24",
                "32.000000", true},
               {R"([{"id": 12, "raw": 24}])", "", "0", "0.000000", false}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_Attributes);
    gSmartData.clear();
    m_Machine.Apply(R"({"smart": {"sdh": {"attributes": )" + std::string(entry.m_Attributes) + "}}}");
    const auto properties = Properties(m_Drive);
    EXPECT_EQ(Shown(*Find(properties, PI::PROP_END_OF_LIFE)), entry.m_Date);
    EXPECT_EQ(Find(properties, PI::PROP_END_OF_LIFE)->m_AttributeWord != 0, !entry.m_Date.empty());
    EXPECT_EQ(Shown(*Find(properties, PI::PROP_SMART_POWER_ON_HOURS)), entry.m_Hours);
    EXPECT_EQ(Find(properties, PI::PROP_SMART_POWER_ON_HOURS)->m_AttributeWord != 0, entry.m_HoursShown);
    EXPECT_EQ(Shown(*Find(properties, PI::PROP_SMART_BYTES_WRITTEN)), entry.m_Written);
  }
}

TEST_F(PhysicalDriveTest, ASmartBlockServesFiveMinutes) {
  PI::_IDE_SMART_DATA data{};
  ASSERT_EQ(Read(data), PI::OK);
  const PI::_IDE_SMART_DATA first = data;
  EXPECT_EQ(first.m_Bytes[0], 16) << "the sector itself, without the command's header";
  m_Machine.Apply(R"({"smart": {"sdh": {"attributes": [{"id": 9, "raw": 9999}]}}})");
  m_Machine.Advance(300000);
  EXPECT_EQ(Read(data), PI::OK);
  EXPECT_EQ(Commands(), 1U);
  EXPECT_EQ(data.m_Bytes, first.m_Bytes);
  m_Machine.Advance(1);
  EXPECT_EQ(Read(data), PI::OK);
  EXPECT_EQ(Commands(), 2U);
  EXPECT_NE(data.m_Bytes, first.m_Bytes);
  EXPECT_EQ(gSmartData.size(), 1U) << "refreshed in place";
  const PI::_IDE_SMART_DATA second = data;

  m_Machine.Advance(300001);
  const std::uint64_t age = gSmartData[0].m_Time;
  for (const ECall failing : {ECall::Open, ECall::Ioctl}) {
    m_Door.FailAt(failing, 1, EIO);
    data = {};
    EXPECT_EQ(Read(data), PI::ERR_GENERAL);
    EXPECT_EQ(data.m_Bytes, second.m_Bytes) << "the caller gets the old block and the failure";
    EXPECT_EQ(gSmartData[0].m_Time, age);
  }
  EXPECT_EQ(Read(data), PI::OK) << "and the next one tries again";
  EXPECT_EQ(gSmartData[0].m_Time, m_Machine.Now());

  EXPECT_EQ(m_Plugin.GetSmartData("/dev/sdhx", data), PI::ERR_GENERAL) << "the whole path counts";
  EXPECT_EQ(m_Plugin.GetSmartData("/dev/sda", data), PI::ERR_GENERAL) << "a disk that refuses the command";
  EXPECT_EQ(gSmartData.size(), 1U);
  EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
}

}  // namespace

/// What a channel is told, and when, over hours that pass in a moment.

#include <gmock/gmock.h>

#include "../../support/TemporaryFolder.h"
#include "host/Values.h"
#include "rvxd/Alarms.h"
#include "rvxd/Conditions.h"
#include "rvxd/Message.h"
#include "rvxd/Progress.h"
#include "rvxd/Settings.h"

namespace Rvxd {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr Milliseconds SECOND = 1000, MINUTE = 60 * SECOND, HOUR = 60 * MINUTE, BEGIN = 1'800'000'000'000;

Json Condition(const std::string& id, const char* level, Milliseconds since,
               const std::string& subject = "md_d0") {
  const std::size_t colon = id.find(':');
  return {{"id", id},
          {"kind", id.substr(0, colon)},
          {"object", id.substr(colon + 1)},
          {"subject", subject},
          {"uuid", nullptr},
          {"level", level},
          {"text", "a text"},
          {"next", nullptr},
          {"disks", Json::array()},
          {"canLose", nullptr},
          {"since", Host::TimeText(since)},
          {"acknowledged", nullptr}};
}

Json Disk(const char* id, const char* name) {
  return {{"id", id}, {"name", name}, {"serial", id}, {"model", "M"}, {"path", id}, {"state", "failed"}};
}

/// A channel that delivers everything, and what it was told: "began md_d0".
struct SChannelOnTest {
  void At(Milliseconds now, const Json& conditions) {
    for (const SDue& due : m_Told.Due({conditions, m_Arrays}, m_Policy, now)) {
      m_Messages.push_back(WordOf(due.m_Phase) + (" " + due.m_Subject));
      m_Told.Delivered(due, now);
    }
    m_Told = CTold(Json::parse(m_Told.ToJson().dump()));  // a restart after each moment
  }
  /// The same for so long, a look each half a minute.
  void During(Milliseconds begin, Milliseconds span, const Json& conditions) {
    for (Milliseconds now = begin; now < begin + span; now += 30 * SECOND) At(now, conditions);
  }

  SPolicy m_Policy{};
  std::set<std::string> m_Arrays{"md_d0", "md_d1"};
  CTold m_Told{};
  std::vector<std::string> m_Messages{};
};

TEST(Alarms, WhatLastsIsToldOnceRemindedOfAndClearedOnce) {
  SChannelOnTest channel;
  const Json wrong = Json::array({Condition("array-degraded:md_d0", "critical", BEGIN),
                                  Condition("disk-failed:sdb", "critical", BEGIN + SECOND)});
  channel.At(BEGIN + 2 * SECOND, wrong);  // the second one has not lasted yet
  EXPECT_THAT(channel.m_Messages, ElementsAre());
  channel.During(BEGIN + 3 * SECOND, 8 * HOUR, wrong);
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0"));
  channel.During(BEGIN + 8 * HOUR, 48 * HOUR, wrong);
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0", "reminder md_d0", "reminder md_d0"));
  // While a rebuild runs it is the same matter still.
  const Milliseconds repair = BEGIN + 56 * HOUR;
  channel.During(repair, HOUR, Json::array({Condition("array-rebuilding:md_d0", "warning", repair)}));
  channel.During(repair + HOUR, 50 * SECOND, Json::array());
  EXPECT_EQ(channel.m_Messages.size(), 3U);
  channel.During(repair + HOUR + 50 * SECOND, 2 * HOUR, Json::array());
  EXPECT_EQ(channel.m_Messages.size(), 4U);
  EXPECT_EQ(channel.m_Messages.back(), "cleared md_d0");
  EXPECT_EQ(channel.m_Told.ToJson(), Json::object());
}

TEST(Alarms, WhatGrowsWorseIsToldAtOnceAndWhatFlapsOnceAnHour) {
  SChannelOnTest channel;
  channel.m_Policy.m_Delay = 0;
  channel.m_Policy.m_Cleared = 0;
  channel.At(BEGIN, Json::array({Condition("array-degraded:md_d0", "warning", BEGIN)}));
  channel.At(BEGIN + MINUTE, Json::array({Condition("array-degraded:md_d0", "critical", BEGIN)}));
  channel.At(BEGIN + 2 * MINUTE, Json::array({Condition("array-degraded:md_d0", "critical", BEGIN),
                                              Condition("disk-failed:sdc", "critical", BEGIN),
                                              Condition("spare-missing:md_d0", "warning", BEGIN),
                                              Condition("disk-failed:sdx", "critical", BEGIN, "sdx")}));
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0", "worse md_d0", "worse md_d0", "began sdx"));
  channel.m_Messages.clear();
  for (Milliseconds now = BEGIN + 3 * MINUTE; now < BEGIN + 8 * HOUR; now += 2 * MINUTE) {
    channel.At(now, Json::array());
    channel.At(now + MINUTE, Json::array({Condition("array-degraded:md_d0", "critical", now + MINUTE)}));
  }
  EXPECT_LE(std::ranges::count(channel.m_Messages, "began md_d0"), 8);
  EXPECT_GE(std::ranges::count(channel.m_Messages, "began md_d0"), 7);
  EXPECT_EQ(std::ranges::count(channel.m_Messages, "worse md_d0"), 0);
}

TEST(Alarms, WhatCameAnewIsNewAlsoInAMatterThatLasts) {
  SChannelOnTest channel;
  const auto wrong = [](Milliseconds since, unsigned int canLose) {
    Json degraded = Condition("array-degraded:md_d0", "warning", since);
    degraded["canLose"] = canLose;
    return Json::array({degraded, Condition("disk-wearing-out:sdb", "warning", BEGIN)});
  };
  channel.At(BEGIN + MINUTE, wrong(BEGIN, 2));
  channel.At(BEGIN + 2 * MINUTE, wrong(BEGIN, 1));  // another member, which nobody calls failed
  channel.At(BEGIN + 3 * MINUTE, Json::array({wrong(BEGIN, 1)[1]}));
  channel.At(BEGIN + 9 * MINUTE, wrong(BEGIN + 8 * MINUTE, 1));  // within the hour
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0", "worse md_d0"));
  channel.At(BEGIN + 2 * HOUR, wrong(BEGIN + 8 * MINUTE, 1));
  EXPECT_EQ(channel.m_Messages.size(), 3U);
  channel.At(BEGIN + 2 * HOUR + MINUTE, Json::array({wrong(BEGIN, 1)[1]}));
  Json other = wrong(BEGIN + 2 * HOUR + MINUTE, 1);  // the new disk has failed, too
  other[0]["disks"] = Json::array({Disk("c", "sdc")});
  channel.At(BEGIN + 2 * HOUR + 2 * MINUTE, other);
  EXPECT_EQ(channel.m_Messages.size(), 4U);
  channel.During(BEGIN + 2 * HOUR + 3 * MINUTE, 3 * MINUTE, Json::array());
  other[0]["disks"][0]["id"] = "d";
  other[0]["since"] = Host::TimeText(BEGIN + 2 * HOUR + 7 * MINUTE);
  channel.At(BEGIN + 2 * HOUR + 8 * MINUTE, Json::array({other[0]}));
  EXPECT_EQ(channel.m_Messages.size(), 6U);
}

TEST(Alarms, AnArrayThatIsNotThereIsNotInOrder) {
  SChannelOnTest channel;
  Json wrong = Json::array({Condition("array-degraded:md_d0", "critical", BEGIN)});
  channel.m_Arrays = {"md_d0", "u"};
  channel.At(BEGIN + MINUTE, wrong);
  wrong[0]["uuid"] = "u";  // which udev tells later
  channel.At(BEGIN + 2 * MINUTE, wrong);
  channel.m_Arrays = {};
  channel.During(BEGIN + 2 * MINUTE, 4 * MINUTE, Json::array());
  // It comes back under another name, as at a start.
  wrong[0].update({{"id", "array-degraded:md127"}, {"object", "md127"}, {"subject", "md127"}});
  channel.m_Arrays = {"md127", "u"};
  channel.During(BEGIN + 6 * MINUTE, 2 * HOUR, wrong);
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0"));
  channel.m_Arrays = {};
  for (const SDue& due : channel.m_Told.Due({Json::array(), {}}, {}, BEGIN + 3 * HOUR))
    ADD_FAILURE() << due.m_Subject;
  const auto due = channel.m_Told.Due({Json::array(), {}}, {}, BEGIN + 3 * HOUR + 5 * MINUTE);
  ASSERT_EQ(due.size(), 1U);
  const Json gone = MessageOf(due[0], "n", {}, BEGIN + 3 * HOUR + 5 * MINUTE);
  EXPECT_EQ(std::tie(gone["subject"], gone["event"], gone["level"]),
            std::tuple("n md_d0 WARNING: array degraded: it is not there any more", "DeviceDisappeared",
                       "warning"));
}

TEST(Alarms, AChannelIsToldWhatItWants) {
  SChannelOnTest critical, spares, noted;
  critical.m_Policy.m_Severity = Host::EHealth::CRITICAL;
  spares.m_Policy.m_Conditions = {"spare-*"};
  spares.m_Policy.m_Objects = {"md_d[12]"};
  spares.m_Policy.m_Cleared = std::nullopt;
  const Json wrong = Json::array({Condition("array-degraded:md_d0", "critical", BEGIN),
                                  Condition("spare-missing:md_d0", "warning", BEGIN),
                                  Condition("spare-missing:md_d1", "warning", BEGIN, "md_d1")});
  Json seen = wrong;
  for (Json& one : seen) one["acknowledged"] = Json::object();
  for (SChannelOnTest* const channel : {&critical, &spares, &noted}) {
    channel->During(BEGIN, HOUR, wrong);
    channel->During(BEGIN + HOUR, 48 * HOUR, seen);
    // The repair is not the end of it.
    channel->During(BEGIN + 49 * HOUR, HOUR,
                    Json::array({Condition("array-rebuilding:md_d0", "warning", BEGIN)}));
    channel->At(BEGIN + 50 * HOUR, Json::array());
    channel->At(BEGIN + 51 * HOUR, Json::array());
  }
  EXPECT_THAT(critical.m_Messages, ElementsAre("began md_d0", "cleared md_d0"));
  EXPECT_THAT(spares.m_Messages, ElementsAre("began md_d1"));
  EXPECT_THAT(noted.m_Messages, ElementsAre("began md_d0", "began md_d1", "cleared md_d1", "cleared md_d0"));
}

TEST(Alarms, WhatGoesOnIsNotOver) {
  SChannelOnTest critical, arrays;
  critical.m_Policy.m_Severity = Host::EHealth::CRITICAL;
  arrays.m_Policy.m_Conditions = {"array-*"};
  const Json failed = Condition("disk-failed:sdb", "warning", BEGIN);
  for (SChannelOnTest* const channel : {&critical, &arrays}) {
    channel->At(BEGIN + MINUTE, Json::array({Condition("array-degraded:md_d0", "critical", BEGIN), failed}));
    // One of the two members that it lacks is replaced.
    channel->During(BEGIN + 2 * MINUTE, HOUR,
                    Json::array({Condition("array-degraded:md_d0", "warning", BEGIN), failed}));
    EXPECT_THAT(channel->m_Messages, ElementsAre("began md_d0"));
    channel->At(BEGIN + 2 * HOUR, Json::array({failed}));
    const auto due =
        channel->m_Told.Due({Json::array({failed}), {"md_d0"}}, channel->m_Policy, BEGIN + 3 * HOUR);
    ASSERT_EQ(due.size(), 1U);
    EXPECT_EQ(due[0].m_Phase, EPhase::CLEARED);
    ASSERT_EQ(due[0].m_Conditions.size(), 1U) << "the disk is still held";
    EXPECT_EQ(due[0].m_Conditions[0]["kind"], "array-degraded");
  }
}

TEST(Alarms, AnotherDiskIsAnotherLoss) {
  SChannelOnTest channel;
  const auto lacking = [](const char* id, const char* name) {
    Json degraded = Condition("array-degraded:md_d0", "critical", BEGIN);
    degraded["disks"] = Json::array({Disk(id, name)});
    return Json::array({degraded});
  };
  channel.At(BEGIN + MINUTE, lacking("b", "sdb"));
  channel.At(BEGIN + 2 * MINUTE, lacking("b", "sdx"));
  channel.At(BEGIN + 2 * MINUTE, lacking("sdb", "sdb"));  // udev's record has gone with it
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0"));
  channel.At(BEGIN + 3 * MINUTE, lacking("a", "sdb"));  // sdb came back by itself, and the other one went
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0", "worse md_d0"));
}

TEST(Alarms, WhatWasToldAsAnotherMatterIsNotToldAgain) {
  SChannelOnTest channel;
  Json degraded = Condition("array-degraded:md_d0", "critical", BEGIN),
       worn = Condition("disk-wearing-out:sdb", "warning", BEGIN);
  degraded["uuid"] = worn["uuid"] = "u";
  worn["disks"] = Json::array({Disk("b", "sdb")});
  channel.m_Arrays = {"md_d0", "u"};
  channel.At(BEGIN + MINUTE, {degraded, worn});
  // At a start the array is not whole at once, and a disk is nobody's until then.
  const Json inactive = Condition("array-inactive:md_d0", "critical", BEGIN + HOUR);
  Json alone = worn;
  alone.update({{"uuid", nullptr}, {"subject", "sdb"}});
  channel.At(BEGIN + HOUR + MINUTE, {inactive, alone});
  channel.During(BEGIN + HOUR + 2 * MINUTE, 20 * MINUTE, {degraded, worn});
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0", "began md_d0"));
  // The array is deleted, its worn disk is worn.
  channel.m_Arrays = {};
  channel.During(BEGIN + 2 * HOUR, HOUR, Json::array({alone}));
  channel.During(BEGIN + 3 * HOUR, HOUR, Json::array());
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0", "began md_d0", "cleared md_d0", "cleared sdb"));
}

TEST(Alarms, WhereNoEndIsWantedAStartIsNoneEither) {
  SChannelOnTest channel;
  channel.m_Policy.m_Cleared = std::nullopt;
  const Json wrong = Json::array({Condition("array-degraded:md_d0", "critical", BEGIN)});
  channel.At(BEGIN + MINUTE, wrong);
  channel.During(BEGIN + 12 * HOUR, 2 * MINUTE, Json::array());
  channel.During(BEGIN + 12 * HOUR + 2 * MINUTE, HOUR, wrong);
  EXPECT_THAT(channel.m_Messages, ElementsAre("began md_d0"));
}

TEST(Alarms, WhatIsNotDeliveredIsTriedThreeTimesSoonAndThenEachHour) {
  CTold told;
  const Json wrong = Json::array({Condition("array-failed:md_d0", "critical", BEGIN)});
  std::vector<Milliseconds> tries;
  std::vector<bool> last;
  for (Milliseconds now = BEGIN + 10 * SECOND; now < BEGIN + 2 * HOUR; now += SECOND)
    for (const SDue& due : told.Due({wrong, {}}, {}, now)) {
      tries.push_back((now - BEGIN) / SECOND);
      last.push_back(told.Failed(due, now));
    }
  EXPECT_THAT(tries, ElementsAre(10, 20, 80, 380, 3980, 3990, 4050, 4350));
  EXPECT_THAT(last, ElementsAre(false, false, false, true, false, false, false, true));
  // A clock that is set back holds nothing up for longer than an hour.
  EXPECT_EQ(told.Due({wrong, {}}, {}, BEGIN - 1000 * HOUR).size(), 1U);
  // What was never delivered is not cleared either.
  EXPECT_TRUE(told.Due({Json::array(), {}}, {}, BEGIN + 3 * HOUR).empty());
  EXPECT_TRUE(told.Due({Json::array(), {}}, {}, BEGIN + 4 * HOUR).empty());
}

TEST(Alarms, AMessageSaysWhichDiskWhereAndWhatToDo) {
  Json degraded = Condition("array-degraded:md_d0", "critical", BEGIN),
       failed = Condition("disk-failed:sdb", "critical", BEGIN);
  degraded["next"] = "'rvxctl spare release sdb', replace the disk";
  degraded["canLose"] = 0U;
  degraded["disks"] = failed["disks"] = Json::array({{{"name", "sdb"},
                                                      {"id", "wwn-1"},
                                                      {"serial", "S\n1"},
                                                      {"model", nullptr},
                                                      {"path", "0:0:1:0"},
                                                      {"state", "failed"}}});
  const SDue due{EPhase::BEGAN, "md_d0", Json::array({failed, degraded}), BEGIN};
  const Json message = MessageOf(due, "node1", 24 * HOUR, BEGIN);
  EXPECT_EQ(message["subject"], "node1 md_d0 CRITICAL: array degraded, disk failed; sdb, serial number S?1");
  EXPECT_EQ(message["text"],
            "On node1, since 2027-01-15 08:00 UTC:\n\n"
            "  md_d0: array degraded. a text.\n"
            "  sdb: disk failed. a text.\n\n"
            "If one more member fails, data is lost.\n\n"
            "The disk:\n"
            "  sdb, serial number S?1 (failed), at 0:0:1:0, wwn-1\n\n"
            "What to do:\n"
            "  md_d0: 'rvxctl spare release sdb', replace the disk.\n\n"
            "You are reminded every 24 hours as long as it is so;\n"
            "'rvxctl condition acknowledge array-degraded:md_d0' ends that.\n");
  EXPECT_EQ(std::tie(message["event"], message["device"], message["component"], message["code"]),
            std::tuple("Fail", "/dev/md_d0", "sdb", 10078));
  degraded["disks"][0]["state"] = "gone";
  // Another disk may be called sdb by now.
  const Json later =
      MessageOf({EPhase::REMINDER, "md_d0", Json::array({degraded}), BEGIN}, "n", {}, BEGIN + 50 * HOUR);
  EXPECT_EQ(later["subject"],
            "n md_d0 CRITICAL: array degraded, for 2 days; what was sdb, serial number S?1");
  EXPECT_EQ(later["component"], nullptr);
  EXPECT_EQ(MessageOf({EPhase::BEGAN, "md_d0", Json::array({degraded}), BEGIN}, "n", {}, BEGIN)["event"],
            "DegradedArray");
  const Json over =
      MessageOf({EPhase::CLEARED, "md_d0", Json::array({degraded}), BEGIN}, "n", {}, BEGIN + 90 * MINUTE);
  EXPECT_EQ(over["subject"], "n md_d0 OK: array degraded: over");
  EXPECT_EQ(over["text"],
            "What was wrong with md_d0 on n is over, after 90 minutes. It was:\n\n  md_d0: array degraded. a "
            "text.\n");
  EXPECT_EQ(over["event"], "RebuildFinished");
}

TEST(Alarms, ARebuildIsStuckWhereItsProgressStandsStillForTwoHours) {
  using namespace std::chrono_literals;
  CProgress progress;
  const auto array = [](const char* kind, Json done) {
    return Json::array(
        {{{"name", "md_d0"},
          {"activity", {{"kind", kind}, {"text", "Rebuilding 5%"}, {"progress", std::move(done)}}}}});
  };
  const CProgress::Time begin{};
  const auto stuck = [&](std::chrono::minutes at, const Json& arrays) {
    return progress.Stuck(arrays, begin + at).size();
  };
  EXPECT_EQ(stuck(0min, array("rebuild", 0.05)), 0U);
  EXPECT_EQ(stuck(119min, array("rebuild", 0.05)), 0U);
  EXPECT_EQ(stuck(120min, array("rebuild", 0.05)), 1U);
  EXPECT_EQ(stuck(121min, array("rebuild", 0.06)), 0U);
  for (const Json& fine : {array("rebuild", nullptr), array("check", 0.5)})
    EXPECT_EQ(stuck(200min, fine) + stuck(2000min, fine), 0U);
  // A start in the middle of it is no progress.
  Json kept = Condition("rebuild-stuck:md_d0", "warning", BEGIN);
  kept["text"] = "Rebuilding 5% for 2 hours and more";
  for (const bool isIt : {true, false}) {
    progress = CProgress(isIt ? Json::array({kept}) : Json::array());
    EXPECT_EQ(progress.Kept().size(), isIt ? 1U : 0U);
    EXPECT_EQ(stuck(0min, array("rebuild", 0.05)), isIt ? 1U : 0U);
    EXPECT_EQ(stuck(1min, array("rebuild", 0.06)), 0U);
  }
}

TEST(Conditions, AnotherDisksLossIsNotNotedAndAWornDiskIsItsOwn) {
  const CTemporaryFolder folder;
  CCounters counters;
  CFeed feed(folder.Path(), counters);
  CConditions conditions(folder.Path(), feed);
  const auto update = [&](const char* lost, bool isMember) {
    Json members = {{{"name", lost}, {"whole", lost}, {"state", "failed"}}};
    if (isMember) members.push_back({{"name", "sdw"}, {"whole", "sdw"}, {"state", "active"}});
    conditions.Update({Host::EHealth::CRITICAL,
                       "",
                       {{Host::EHealth::CRITICAL, "array degraded", "md_d0", "", ""},
                        {Host::EHealth::WARNING, "disk wearing out", "sdw", "", ""}},
                       {}},
                      Json::array({{{"name", "md_d0"},
                                    {"uuid", "u"},
                                    {"redundancy", {{"missing", 1}, {"canLose", 0}}},
                                    {"members", members}}}),
                      Json::array({Disk(lost, lost), Disk("sdw", "sdw")}));
    return conditions.All();
  };
  EXPECT_EQ(update("sda", true)[1]["subject"], "md_d0");
  conditions.Acknowledge("array-degraded:md_d0", {});
  EXPECT_FALSE(update("sda", true)[0]["acknowledged"].is_null());
  const Json other = update("sdb", false);
  EXPECT_TRUE(other[0]["acknowledged"].is_null());
  EXPECT_EQ(other[1]["subject"], "sdw");
}

TEST(Conditions, HalvesOfAMirrorThatWasSplitAreTwoArrays) {
  const CTemporaryFolder folder;
  CCounters counters;
  CFeed feed(folder.Path(), counters);
  CConditions conditions(folder.Path(), feed);
  Host::SHealth health;
  Json arrays = Json::array();
  for (const char* const name : {"md0", "md9"}) {
    health.m_Problems.push_back({Host::EHealth::CRITICAL, "array degraded", name, "", ""});
    arrays.push_back({{"name", name},
                      {"uuid", "u"},
                      {"redundancy", {{"missing", 1}, {"canLose", 0}}},
                      {"members", Json::array()}});
  }
  conditions.Update(health, arrays, Json::array());
  EXPECT_NE(SubjectOf(conditions.All()[0]), SubjectOf(conditions.All()[1]));
}

TEST(Settings, WhatWasToldOfANameStaysWithTheArray) {
  const CTemporaryFolder folder;
  CSettings(folder.Path()).Want({{"md_d0", 1}, {"md_d1", 2}});
  CSettings settings(folder.Path());
  settings.Learn({{{"name", "md_d0"}, {"uuid", "u"}}, {{"name", "md_d1"}, {"uuid", nullptr}}});
  EXPECT_EQ(settings.Wanted(), (Spares{{"u", 1}, {"md_d1", 2}}));
  EXPECT_EQ(CSettings(folder.Path()).Wanted(), settings.Wanted());
}

}  // namespace

}  // namespace Rvxd

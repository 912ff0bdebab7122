/// The journal of events as a start finds it, whole or not: events that are whole are kept, what comes behind
/// them has an identifier that nothing had, and the next start reads all of it again, also behind an end that
/// was none.

#include "rvxd/Feed.h"
#include "tests/fuzz/Documents.h"

namespace {

constexpr char EPOCH[] = "0123abcd";

Json EventOf(FuzzedDataProvider& data) {
  return {{"time", "2026-01-01T00:00:00.000Z"},
          {"code", data.PickValueInArray({10025U, 10459U, 10082U, 10071U, 10074U})},
          {"severity", data.ConsumeIntegralInRange(2U, 4U)},
          {"severityKey", "error"},
          {"object", "0x1"},
          {"objectName", data.PickValueInArray({"md_d0", "sda", "adapter"})},
          {"placeholders", {"md_d0", ""}},
          {"failedMembers", Json::array()},
          {"text", "words"}};
}

/// A file of the journal; its events that are whole go to `whole`, `last` is the number of the last one.
std::string Text(FuzzedDataProvider& data, std::uint64_t& last, std::vector<std::string>& whole) {
  std::string text;
  if (data.ConsumeIntegralInRange(0, 7) != 0)
    text = Dumped({{"epoch", EPOCH}, {"next", data.ConsumeBool() ? Json(last + 1) : Odd(data)}}) + "\n";
  for (int lines = data.ConsumeIntegralInRange(0, 12); lines > 0 && data.remaining_bytes() != 0; --lines) {
    Json event = {{"id", EPOCH + ("-" + std::to_string(++last))}};
    event.update(EventOf(data));
    event["count"] = 1;
    event["last"] = event["time"];
    switch (data.ConsumeIntegralInRange(0, 7)) {
      case 0: {  // a line of anything, but of nothing that a journal says
        std::string junk = data.ConsumeRandomLengthString(100);
        for (const char c : {'-', 'k', 'h', '\\'}) std::erase(junk, c);
        text += junk + "\n";
        break;
      }
      case 1: {
        const Json skipped = data.ConsumeBool() ? Json(last) : Odd(data);
        if (skipped.is_number_unsigned() && skipped <= std::uint64_t{1} << 53)
          last = std::max(last, skipped.get<std::uint64_t>());
        text += Dumped({{"skipped", skipped}}) + "\n";
        break;
      }
      case 2: {
        const std::string id = event["id"];
        event = Spoiled(event, data);
        if (!event.is_object() || event.value("id", Json()) != id) event = {{"id", id}};
        text += Dumped(event) + "\n";
        break;
      }
      case 3:
        text += "{\"closed\":true}\n";
        break;
      default:
        whole.push_back(event["id"]);
        text += Dumped(event) + "\n";
    }
  }
  return text;
}

std::vector<std::string> EventsOf(const Rvxd::CFeed& feed) {
  std::vector<std::string> events;
  std::uint64_t last = 0;
  for (const Rvxd::Text& text : feed.Page("", 1000, {}).m_Events) {
    const auto id = Rvxd::ParseEventID(Json::parse(events.emplace_back(*text)).at("id"));
    Require(id && id->first == feed.Epoch() && id->second > last, "identifiers rise: " + *text);
    last = id->second;
  }
  Require(last <= feed.Last(), "the last one is the last");
  return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  Rvxd::CCounters counters;
  std::vector<std::string> whole;
  std::uint64_t last = data.ConsumeIntegralInRange(0U, 3U);
  const std::string older = data.ConsumeBool() ? Text(data, last, whole) : "";
  const std::string current = Text(data, last, whole);
  WriteText("events.1.jsonl", older);
  WriteText("events.jsonl", current + data.ConsumeRandomLengthString(20));
  std::vector<std::string> before;
  std::string torn;
  {
    Rvxd::CFeed feed(Folder(), counters);
    before = EventsOf(feed);
    if (feed.Epoch() == EPOCH)
      for (const std::string& id : whole)
        Require(std::ranges::any_of(before, [&](const auto& one) { return Json::parse(one)["id"] == id; }),
                id + " is kept of\n" + older + current);
    const std::uint64_t was = feed.Last();
    for (int events = data.ConsumeIntegralInRange(0, 3); events > 0; --events)
      feed.Add(EventOf(data), 1'800'000'000'000,
               data.ConsumeBool() ? Rvxd::EFound::LATER : Rvxd::EFound::AT_START);
    Require(feed.WriteError().empty(), "it is written: " + feed.WriteError());
    const auto now = EventsOf(feed);
    Require(now.size() >= before.size() && now.size() - before.size() == feed.Last() - was,
            "each has a number of its own");
    before = now;
    torn = ReadText("events.jsonl");
  }
  if (data.ConsumeBool()) WriteText("events.jsonl", torn);  // a power cut
  Require(EventsOf(Rvxd::CFeed(Folder(), counters)).size() == before.size(), "all of it is read again");
  return 0;
}

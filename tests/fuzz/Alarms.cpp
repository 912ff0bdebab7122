/// Alarms from the administrator's files to the mail, the program, the address or the journal that they end
/// at. Secrets stay where they belong; whatever a disk or an array is called, a mail has the headers that it
/// should, a program its own words, the journal known fields, and what is said to be JSON is.

#include <curl/curl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <cstdarg>

#include "notify/Ways.h"
#include "rvxd/Channels.h"
#include "rvxd/Conditions.h"
#include "rvxd/Message.h"
#include "tests/fuzz/Documents.h"

namespace {

constexpr char SECRET[] = "s3cret";

/// What would have left the machine.
struct SLeft {
  std::vector<std::string> m_Words, m_Variables, m_Headers, m_Fields;
  std::string m_Input, m_Url;
} left;
int input = -1;

void Append(std::vector<std::string>& texts, char* const* all) {
  for (; *all != nullptr; ++all) texts.emplace_back(*all);
}

}  // namespace

// In the place of the libraries' own: nothing is started, and nothing sent.
extern "C" {
int memfd_create(const char* name, unsigned int flags) noexcept {
  const int file = static_cast<int>(::syscall(SYS_memfd_create, name, flags));
  if (name == std::string("message")) input = file;
  return file;
}
int posix_spawn(pid_t* process, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                char* const* words, char* const* variables) {
  Append(left.m_Words, words);
  Append(left.m_Variables, variables);
  struct stat facts {};
  ::fstat(input, &facts);
  left.m_Input.resize(static_cast<std::size_t>(facts.st_size));
  Require(::pread(input, left.m_Input.data(), left.m_Input.size(), 0) == facts.st_size, "it can be read");
  *process = 1;
  return 0;
}
pid_t waitpid(pid_t process, int* status, int) {
  *status = 0;
  return process;
}
unsigned int alarm(unsigned int) noexcept { return 0; }
int sd_journal_sendv(const iovec* fields, int count) {
  for (; count > 0; --count, ++fields)
    left.m_Fields.emplace_back(static_cast<const char*>(fields->iov_base), fields->iov_len);
  return 0;
}
#undef curl_easy_setopt
#pragma clang diagnostic ignored "-Wvarargs"  // curl's own signature
CURLcode curl_easy_setopt(CURL*, CURLoption option, ...) {
  va_list values;
  va_start(values, option);
  if (option == CURLOPT_URL) left.m_Url = va_arg(values, const char*);
  if (option == CURLOPT_POSTFIELDS) left.m_Input = va_arg(values, const char*);
  if (option == CURLOPT_HTTPHEADER)
    for (auto* header = va_arg(values, curl_slist*); header != nullptr; header = header->next)
      left.m_Headers.emplace_back(header->data);
  va_end(values);
  return CURLE_OK;
}
CURLcode curl_easy_perform(CURL*) { return CURLE_OK; }
#undef curl_easy_getinfo
CURLcode curl_easy_getinfo(CURL*, CURLINFO, ...) { return CURLE_OK; }
}

namespace {

bool HasControls(const std::string& text) {
  return std::ranges::any_of(text, [](unsigned char c) { return c < ' ' || c == 127; });
}

void RequireOneOf(const std::string& line, char end, std::initializer_list<std::string_view> names) {
  const std::string name = line.substr(0, line.find(end));
  Require(line.find(end) != std::string::npos && std::ranges::find(names, name) != names.end(),
          "none of ours: " + line);
}

/// A channel's file of some lines that a person may write, and some others.
std::string FileText(FuzzedDataProvider& data) {
  const auto words = [&] {
    std::string one = data.ConsumeRandomLengthString(20);
    std::erase(one, '\n');
    if (one.find(SECRET) != std::string::npos) one.clear();  // told, it would be no secret that was
    return one;
  };
  const std::string path = data.ConsumeBool() ? "/bin/true" : words();
  std::string text =
      "type = " + std::string(data.PickValueInArray({"journal", "mail", "program", "webhook", "heartbeat"})) +
      "\n";
  for (int lines = data.ConsumeIntegralInRange(1, 6); lines > 0; --lines) {
    const std::string user = words(), password = SECRET + words(), host = words();
    const std::string all[] = {"severity = critical",
                               "conditions = " + words(),
                               "objects = " + words(),
                               "delay = " + words(),
                               "cleared = no",
                               "reminder = " + words(),
                               "timeout = " + words(),
                               "interval = " + words(),
                               "to = " + words(),
                               "from = " + words(),
                               "sendmail = " + path,
                               "program = " + path,
                               "url = https://" + user + ":" + password + "@" + host + "/" + SECRET,
                               "url-file = " + Folder() + "/url",
                               "header = " + words() + SECRET,
                               "header-file = " + Folder() + "/url",
                               "template = " + Folder() + "/template",
                               "content-type = " + words(),
                               words()};
    text += data.PickValueInArray(all) + "\n";
  }
  return text;
}

Rvxd::SChannel ChannelOf(FuzzedDataProvider& data) {
  const std::string folder = Folder() + "/notify.d";
  std::filesystem::create_directory(folder);
  WriteText("notify.d/c.conf", FileText(data));
  WriteText("url", "https://host/" + std::string(SECRET));
  WriteText("template",
            R"({"a": "{{subject}} {{serial}} {{level}}", "b": ["{{text}}", {{disks}}, "{{none}}"]})");
  for (const char* const name : {"/notify.d/c.conf", "/url", "/template"})
    ::chmod((Folder() + name).c_str(), 0600);
  const Rvxd::Channels channels = Rvxd::ReadChannels(folder);
  const Rvxd::SChannel channel = channels.at("c");
  Require(channel.m_Refusal.empty() || channel.m_Refusal.starts_with(folder + "/c.conf"), channel.m_Refusal);
  for (const std::string& text : {channel.m_Refusal, channel.m_Target})
    Require(text.find(SECRET) == std::string::npos, "a secret is told: " + text);
  Require(channel.m_Refusal.empty() ? channel.m_Limit >= 1000 && channel.m_Limit <= 300'000
                                    : channels.size() == 2,
          "a channel's time, or the journal beside one that is refused");
  return channel;
}

Json MessageOf(FuzzedDataProvider& data) {
  Json conditions = Json::array();
  for (int count = data.ConsumeIntegralInRange(1, 3); count > 0; --count) {
    const auto words = [&] { return data.ConsumeRandomLengthString(60); };
    const std::string kind =
        data.PickValueInArray({"array degraded", "disk failed", "watch blind", "notify failing"});
    Json one =
        Rvxd::ConditionOf({Host::EHealth::CRITICAL, kind, words(), words(), words()}, 1'800'000'000'000);
    Json disk = {{"name", words()}, {"state", data.PickValueInArray({"gone", "failed"})}};
    for (const char* const key : {"id", "serial", "model", "path"})
      disk[key] = data.ConsumeBool() ? Json(words()) : Json();
    if (data.ConsumeBool()) one["disks"].push_back(disk);
    one["canLose"] = data.ConsumeBool() ? Json(data.ConsumeIntegralInRange(0U, 2U)) : Json();
    conditions.push_back(one);
  }
  const auto phase = data.PickValueInArray(
      {Rvxd::EPhase::BEGAN, Rvxd::EPhase::WORSE, Rvxd::EPhase::REMINDER, Rvxd::EPhase::CLEARED});
  return Rvxd::MessageOf({phase, conditions[0]["object"], conditions, 1'800'000'000'000, data.ConsumeBool()},
                         "host", 86'400'000, data.ConsumeIntegral<std::uint64_t>());
}

void RequireMail(const Json& settings) {
  Require(left.m_Words == std::vector<std::string>({settings["program"], "-t", "-i"}),
          "what is run is sendmail");
  std::istringstream lines(left.m_Input.substr(0, left.m_Input.find("\n\n")));
  int recipients = 0;
  for (std::string line; std::getline(lines, line); recipients += line.starts_with("To:") ? 1 : 0) {
    Require(!HasControls(line), "a control in a header: " + line);
    if (line.starts_with(" =?UTF-8?B?")) continue;
    RequireOneOf(line, ':',
                 {"From", "To", "Subject", "Auto-Submitted", "MIME-Version", "Content-Type",
                  "Content-Transfer-Encoding", "X-RVX-Phase", "X-RVX-Condition", "X-RVX-Object"});
  }
  Require(recipients == 1 &&
              left.m_Input.find("To: " + settings["to"].get<std::string>() + "\n") != std::string::npos,
          "one To");
}

void RequireDelivered(const Rvxd::SChannel& channel) {
  const Json& settings = channel.m_Settings;
  if (channel.m_Type == "mail") RequireMail(settings);
  if (channel.m_Type == "program") {
    Require(left.m_Words.at(0) == settings["program"] && left.m_Words.size() <= 4,
            "what is run is the program");
    for (std::size_t word = 1; word < left.m_Words.size(); ++word)
      Require(!HasControls(left.m_Words[word]), left.m_Words[word]);
    Require(Json::accept(left.m_Input), "a program's input is JSON");
  }
  for (const std::string& header : left.m_Headers)
    Require(header.find_first_of("\r\n") == std::string::npos && header.find(':') != std::string::npos,
            header);
  if (channel.m_Type == "webhook" && settings.value("content-type", "json").find("json") != std::string::npos)
    Require(Json::accept(left.m_Input), "JSON is posted: " + left.m_Input);
  if (channel.m_Type == "webhook") Require(left.m_Url == settings["url"], "where to");
  for (const std::string& field : left.m_Fields)
    RequireOneOf(field, '=',
                 {"MESSAGE", "PRIORITY", "SYSLOG_IDENTIFIER", "OBJECT_PID", "MESSAGE_ID", "RVX_CONDITION",
                  "RVX_OBJECT", "RVX_LEVEL", "RVX_PHASE", "RVX_SERIAL", "RVX_NEXT", "RVX_TEXT", "RVX_CODE"});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  left = {};
  const Rvxd::SChannel channel = ChannelOf(data);
  if (!channel.m_Refusal.empty()) return 0;
  const Json order = {{"type", channel.m_Type},
                      {"settings", channel.m_Settings},
                      {"limit", channel.m_Limit},
                      {"process", 1},
                      {"message", MessageOf(data)}};
  if (data.ConsumeIntegralInRange(0, 3) != 0) {
    Notify::Deliver(Dumped(order));
    RequireDelivered(channel);
    return 0;
  }
  try {
    Notify::Deliver(data.ConsumeBool() ? Dumped(Spoiled(order, data)) : data.ConsumeRemainingBytesAsString());
  } catch (const std::exception&) {  // rvx-notify says so
  }
  return 0;
}

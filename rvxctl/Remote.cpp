#include "rvxctl/Remote.h"

#include <unistd.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <limits>
#include <random>

#include "host/Signals.h"
#include "libraries/common/Environment.h"

namespace Host {

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
using KVT::Internal::FindVariable;
using Local = boost::asio::local::stream_protocol;

constexpr char CHANGING_SOCKET[] = "/run/rvx/rvxd.sock";
constexpr char READING_SOCKET[] = "/run/rvx/rvxd-ro.sock";
constexpr std::chrono::seconds ANSWER_LIMIT{90};  ///< above the longest wait that is asked for
constexpr std::chrono::seconds TEST_LIMIT{720};   ///< above what rvxd gives channels that are tried
constexpr std::chrono::seconds BEAT_LIMIT{30};    ///< without a beat of a stream the connection is dead
constexpr std::chrono::seconds AGAIN_INTERVAL{1};
constexpr std::chrono::seconds START_LIMIT{60};
constexpr std::chrono::milliseconds START_LOOK{100};
constexpr std::size_t PART = 64U << 10;
constexpr char WAIT_FOR_END[] = "?wait=30";

/// A request and its answer. Throws boost::system::system_error where the connection fails.
class CConversation {
 public:
  CConversation(const std::string& socket, const http::request<http::string_body>& request)
      : m_Limit(request.target() == "/v1/notify/test" ? TEST_LIMIT : ANSWER_LIMIT), m_Socket(m_Context) {
    m_Socket.connect(Local::endpoint(socket));
    http::write(m_Socket, request);
    // No limit would be boost::none, which Boost 1.74 takes for less than any length where a body comes late.
    m_Parser.body_limit(std::numeric_limits<std::uint64_t>::max());
  }

  http::response<http::string_body> Answer() {
    Await(m_Limit);
    http::read(m_Socket, m_Buffer, m_Parser);
    return m_Parser.release();
  }

  http::response<http::string_body>& Header() {
    Await(m_Limit);
    http::read_header(m_Socket, m_Buffer, m_Parser);
    return m_Parser.get();
  }
  /// What came of the body since the last call; empty: it has ended.
  std::string Part() {
    std::string& body = m_Parser.get().body();
    m_Parser.eager(true);
    while (body.empty() && !m_Parser.is_done()) {
      boost::system::error_code error;
      m_Buffer.consume(m_Parser.put(m_Buffer.data(), error));
      if (error && error != http::error::need_more) throw boost::system::system_error(error);
      if (!body.empty() || m_Parser.is_done()) break;
      // Never in the middle of a read: a signal would wait for the next beat.
      Await(BEAT_LIMIT);
      m_Buffer.commit(m_Socket.read_some(m_Buffer.prepare(PART)));
    }
    return std::exchange(body, {});
  }

 private:
  /// Throws CError for a signal that is held.
  void Await(std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!Pause(std::chrono::duration_cast<std::chrono::milliseconds>(limit), m_Socket.native_handle(),
                  POLLIN))
      if (std::chrono::steady_clock::now() >= end)
        throw boost::system::system_error(boost::asio::error::timed_out);
  }

  const std::chrono::seconds m_Limit;
  boost::asio::io_context m_Context;
  Local::socket m_Socket;
  beast::flat_buffer m_Buffer;
  http::response_parser<http::string_body> m_Parser;
};

http::request<http::string_body> RequestFor(const std::string& method, const std::string& target) {
  http::request<http::string_body> request;
  request.version(11);
  request.method_string(method);
  request.target(target);
  request.set(http::field::host, "localhost");
  request.set(http::field::connection, "close");
  return request;
}

CError Away(const std::string& socket, const boost::system::system_error& error) {
  return {EXIT_NO_PLUGIN, "rvxd does not answer at " + socket + ": " + error.code().message() +
                              "; --direct looks at the machine without it"};
}

bool Answers(const std::string& socket) {
  boost::asio::io_context context;
  Local::socket one(context);
  boost::system::error_code error;
  one.connect(Local::endpoint(socket), error);
  return !error;
}

/// 128 random bits.
std::string NewKey() {
  std::random_device device;
  std::string key;
  for (int i = 0; i < 4; ++i) {
    std::array<char, 9> part{};
    std::snprintf(part.data(), part.size(), "%08x", device());
    key += part.data();
  }
  return key;
}

/// An error as ErrorJson writes it, or a problem.
CError ErrorOf(const Json& json, const char* message, const char* status) {
  const Json number = json.value(status, Json(nullptr));
  CError error(json.value("exitStatus", static_cast<int>(EXIT_PLUGIN_ERROR)),
               json.value(message, "rvxd tells no more"),
               number.is_number() ? number.get<unsigned int>() : static_cast<unsigned int>(PI::OK));
  if (json.value("name", Json()).is_string()) error.m_Name = json["name"];
  // A problem has them among its reasons.
  const Json reasons = json.value("reasons", Json::array());
  const Json& reason = reasons.empty() ? json : reasons[0];
  error.m_Rule = reason.value("rule", "");
  error.m_Object = reason.value("object", "");
  return error;
}

/// A frame of the stream.
struct SFrame {
  std::string m_Event;
  std::string m_Data;
};

/// Cuts whole frames off the beginning of what came.
std::vector<SFrame> TakeFrames(std::string& text) {
  std::vector<SFrame> frames;
  for (std::size_t end = text.find("\n\n"); end != std::string::npos; end = text.find("\n\n")) {
    SFrame frame;
    for (std::size_t begin = 0; begin < end;) {
      const std::size_t next = std::min(text.find('\n', begin), end);
      const std::string line = text.substr(begin, next - begin);
      if (line.starts_with("event: ")) frame.m_Event = line.substr(7);
      if (line.starts_with("data: ")) frame.m_Data = line.substr(6);
      begin = next + 1;
    }
    text.erase(0, end + 2);
    frames.push_back(std::move(frame));
  }
  return frames;
}

}  // namespace

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || std::string_view("-._~/").find(c) != std::string_view::npos) {
      escaped += c;
      continue;
    }
    std::array<char, 4> code{};
    std::snprintf(code.data(), code.size(), "%%%02X", static_cast<unsigned int>(byte));
    escaped += code.data();
  }
  return escaped;
}

std::unique_ptr<CRemote> CRemote::Find(const SOptions& options) {
  if (!options.m_Socket.empty() && (options.m_Direct || options.m_Simulate))
    throw CError(EXIT_USAGE, std::string("--socket means rvxd, and ") +
                                 (options.m_Direct ? "--direct" : "--simulate") +
                                 " means without it: say one of them");
  if (!options.m_Socket.empty()) return std::make_unique<CRemote>(options.m_Socket);
  // Who chooses a plug-in wants this one.
  if (options.m_Direct || options.m_Simulate || !options.m_Plugin.empty() ||
      FindVariable("RVX_PLUGIN") != nullptr)
    return nullptr;
  for (const char* const socket : {CHANGING_SOCKET, READING_SOCKET})
    if (Answers(socket)) return std::make_unique<CRemote>(socket);
  return nullptr;
}

SAnswer CRemote::Ask(const std::string& method, const std::string& target, const std::string& body,
                     const std::string& key) const {
  try {
    auto request = RequestFor(method, target);
    if (!body.empty()) request.set(http::field::content_type, "application/json");
    if (!key.empty()) request.set("Idempotency-Key", key);
    if (method == "PUT") request.set(http::field::if_match, "*");  // whatever it was before
    request.body() = body;
    request.prepare_payload();
    // One that was started by this very connection looks at the machine first.
    for (const auto end = std::chrono::steady_clock::now() + START_LIMIT;; Pause(START_LOOK)) {
      const auto answer = CConversation(m_Socket, request).Answer();
      const bool isStarting =
          answer.result_int() == 503 && answer.body().find("/starting\"") != std::string::npos;
      if (!isStarting || std::chrono::steady_clock::now() > end)
        return {answer.result_int(), answer.body(), std::string(answer[http::field::location])};
    }
  } catch (const boost::system::system_error& error) {
    throw Away(m_Socket, error);
  }
}

CError ErrorOf(const SAnswer& answer) {
  const Json problem = Json::parse(answer.m_Body, nullptr, false);
  if (problem.is_object() && problem.contains("detail")) return ErrorOf(problem, "detail", "code");
  return {EXIT_PLUGIN_ERROR, "rvxd answered " + std::to_string(answer.m_Code) + ": " + answer.m_Body};
}

Json CRemote::Document(const std::string& method, const std::string& target, const Json& body) const {
  const SAnswer answer =
      Ask(method, target, body.is_null() ? "" : body.dump(-1, ' ', false, Json::error_handler_t::replace));
  if (answer.m_Code >= 300) throw ErrorOf(answer);
  Json document = Json::parse(answer.m_Body, nullptr, false);
  if (!document.is_object())
    throw CError(EXIT_PLUGIN_ERROR, "rvxd's answer to " + target + " is no document");
  return document;
}

SView CRemote::View(const SViewRequest& request, const SForm& form) {
  std::string target = "/v1/views/" + Escaped(request.m_Name) + "?form=" + (form.m_Json ? "json" : "text") +
                       "&width=" + std::to_string(form.m_Style.m_Width) +
                       (form.m_Style.m_Color ? "&color=1" : "");
  for (const auto& [word, value] : request.m_Words)
    if (!value.empty()) target.append("&").append(word).append("=").append(Escaped(value));
  const Json view = Document("GET", target);
  return {view["schema"], view["data"], view["text"]};
}

SPlan CRemote::Plan(const SRequest& request, std::size_t width) {
  if (request.m_Rules == ERules::PLUGIN_ALONE)
    throw CError(EXIT_USAGE, "rvxd leaves no rule out: --plugin-alone needs --direct");
  const Json plan = Document("POST", "/v1/plans?width=" + std::to_string(width), ToJson(request));
  std::optional<CError> refusal;
  if (!plan["error"].is_null()) refusal = ErrorOf(plan["error"], "message", "status");
  // What a rule forbids has no plan.
  if (refusal && plan["document"].is_null()) throw CError(*refusal);
  return {plan["document"],  plan["text"], plan["answer"],
          plan["questions"], refusal,      plan["plan"].is_null() ? "" : plan["plan"].get<std::string>()};
}

SAnswer CRemote::Begin(const std::string& plan) const {
  const std::string body = Json{{"plan", plan}, {"confirm", true}}.dump();
  const std::string key = NewKey();
  for (const auto end = std::chrono::steady_clock::now() + START_LIMIT;;) {
    try {
      try {
        return Ask("POST", "/v1/operations", body, key);
      } catch (const CError& error) {
        // Under the same key it is one operation, however often it is asked for.
        if (error.m_ExitStatus != EXIT_NO_PLUGIN || std::chrono::steady_clock::now() > end) throw;
      }
      Pause(AGAIN_INTERVAL);
    } catch (const CError& error) {
      throw CError(error.m_ExitStatus, std::string(error.what()) +
                                           "; whether the change was begun is not known: 'rvxctl api GET "
                                           "/v1/operations' tells");
    }
  }
}

SOutcome CRemote::CarryOut(const SRequest& request, const SPlan& plan) {
  HoldEndSignals();
  const std::string id = plan.m_ID.empty() ? Plan(request, 0).m_ID : plan.m_ID;
  const SAnswer begun = Begin(id);
  if (begun.m_Code >= 300) throw ErrorOf(begun);
  try {
    while (true) {
      const Json operation = Document("GET", begun.m_Location + WAIT_FOR_END);
      const std::string state = operation["state"];
      if (state == "queued" || state == "running") continue;
      SOutcome outcome;
      if (const Json& result = operation["result"]; !result.is_null()) {
        outcome.m_Text = result["text"];
        outcome.m_Data = result["data"];
      }
      if (!operation["error"].is_null()) outcome.m_Failure = ErrorOf(operation["error"], "detail", "code");
      return outcome;
    }
  } catch (const CError& error) {
    throw CError(error.m_ExitStatus, std::string(error.what()) +
                                         "; what was asked for goes on in rvxd: 'rvxctl api GET " +
                                         begun.m_Location + "' tells what came of it");
  }
}

void CRemote::SetPollInterval(int seconds) { Document("PUT", "/v1/settings", {{"pollInterval", seconds}}); }

void CRemote::Watch() {
  HoldEndSignals();
  m_Cursor = Document("GET", "/v1/events?limit=0&since=now")["cursor"];
}

Json CRemote::Events() {
  const Json page = Document("GET", "/v1/events?limit=1000&since=" + m_Cursor);
  m_Cursor = page["cursor"];
  return page["events"];
}

void CRemote::Follow(const std::string& since, bool follow, const std::function<void(Json)>& tell) {
  std::string cursor = since;
  for (bool more = true, isFirst = true; more; isFirst = false) {
    const Json page =
        Document("GET", "/v1/events?limit=1000" + (cursor.empty() ? "" : "&since=" + Escaped(cursor)));
    if (isFirst && !since.empty() && page["reset"] == true)
      throw CError(EXIT_NO_OBJECT, "rvxd has no event \"" + since +
                                       "\" any more, or never had it: leave out --since "
                                       "to have all that it keeps");
    for (const Json& event : page["events"]) tell(event);
    cursor = page["cursor"];
    more = page["more"];
  }
  if (!follow) return;
  HoldEndSignals();
  while (true) {
    try {
      auto request = RequestFor("GET", "/v1/events");
      request.set(http::field::accept, "text/event-stream");
      request.set("Last-Event-ID", cursor);
      CConversation stream(m_Socket, request);
      if (const auto& header = stream.Header(); header.result_int() >= 300)
        throw ErrorOf({header.result_int(), stream.Part()});
      std::string text;
      for (std::string part = stream.Part(); !part.empty(); part = stream.Part()) {
        text += part;
        for (const SFrame& frame : TakeFrames(text)) {
          if (frame.m_Event != "event" && frame.m_Event != "reset") continue;
          Json data = Json::parse(frame.m_Data);
          if (frame.m_Event == "reset") {
            std::cerr << "rvxctl: what happened meanwhile may not all be told: rvxd has begun anew, or this "
                         "was too slow\n";
            // All that a new list has is new.
            const std::string next = data["cursor"];
            if (next.substr(0, next.find('-')) != cursor.substr(0, cursor.find('-')))
              for (const Json& event : Document("GET", "/v1/events?limit=1000")["events"]) tell(event);
          }
          cursor = data[frame.m_Event == "event" ? "id" : "cursor"];
          if (frame.m_Event == "event") tell(std::move(data));
        }
      }
    } catch (const boost::system::system_error&) {  // it is away for a moment, or was started anew
    }
    Pause(AGAIN_INTERVAL);
  }
}

}  // namespace Host

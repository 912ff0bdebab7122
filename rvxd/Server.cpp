#include "rvxd/Server.h"

#include <microhttpd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>

#include "host/Error.h"
#include "rvxd/Log.h"

namespace Rvxd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned int CONNECTIONS = 64;
constexpr unsigned int METRICS_CONNECTIONS = 8;
/// Of one user but root, so that others find room.
constexpr unsigned int USERS_CONNECTIONS = 32;
constexpr unsigned int SILENCE = 10;  ///< seconds after which a connection is dropped where nothing goes on
constexpr std::size_t HEADERS = 32U << 10;
constexpr std::size_t BODY = 64U << 10;
constexpr std::size_t STACK = 512U << 10;
constexpr std::size_t PART = 16U << 10;  ///< of a stream
constexpr std::chrono::seconds LOG_PAUSE{60};

SPeer PeerOf(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  SPeer peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return peer;
  peer.m_User = credentials.uid;
  peer.m_Process = credentials.pid;
  unsigned int login = ~0U;
  std::ifstream file("/proc/" + std::to_string(peer.m_Process) + "/loginuid");
  if (file >> login && login != ~0U) peer.m_Login = login;
  return peer;
}

std::string Lower(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

MHD_Result AddHeader(void* headers, MHD_ValueKind, const char* name, const char* value) {
  (*static_cast<std::map<std::string, std::string>*>(headers))[Lower(name)] = value == nullptr ? "" : value;
  return MHD_YES;
}
MHD_Result AddQuery(void* query, MHD_ValueKind, const char* name, const char* value) {
  (*static_cast<std::map<std::string, std::string>*>(query))[name] = value == nullptr ? "" : value;
  return MHD_YES;
}

/// A body without an end, part by part.
struct SStream {
  std::function<std::string()> m_Next;
  std::string m_Rest{};

  static ssize_t Read(void* self, std::uint64_t, char* buffer, std::size_t size) {
    SStream& stream = *static_cast<SStream*>(self);
    if (stream.m_Rest.empty()) stream.m_Rest = stream.m_Next();
    if (stream.m_Rest.empty()) return MHD_CONTENT_READER_END_OF_STREAM;
    const std::size_t count = std::min(size, stream.m_Rest.size());
    std::copy_n(stream.m_Rest.begin(), count, buffer);
    stream.m_Rest.erase(0, count);
    return static_cast<ssize_t>(count);
  }
  static void Free(void* self) { delete static_cast<SStream*>(self); }
};

void FreeText(void* text) { delete static_cast<Text*>(text); }

MHD_Response* ResponseOf(SHttpAnswer& answer) {
  if (answer.m_Stream)
    return MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, PART, &SStream::Read,
                                             new SStream{std::move(answer.m_Stream)}, &SStream::Free);
  if (answer.m_Body == nullptr) return MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
  // A reference to it is kept in place of a copy.
  auto* const text = new Text(answer.m_Body);
  auto* const bytes = const_cast<char*>((*text)->data());  // it is only read
  return MHD_create_response_from_buffer_with_free_callback_cls((*text)->size(), bytes, &FreeText, text);
}

MHD_Result Send(MHD_Connection* connection, SHttpAnswer answer) {
  MHD_Response* const response = ResponseOf(answer);
  if (response == nullptr) return MHD_NO;
  if (answer.m_Body != nullptr || answer.m_Type == "text/event-stream")
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.m_Type.c_str());
  for (const auto& [name, value] : answer.m_Headers)
    MHD_add_response_header(response, name.c_str(), value.c_str());
  const MHD_Result result = MHD_queue_response(connection, answer.m_Code, response);
  MHD_destroy_response(response);
  return result;
}

/// The library's own words; one in a while, since everybody can have it say that there are too many
/// connections.
[[gnu::format(printf, 2, 0)]] void LogFromBelow(void*, const char* format, va_list arguments) {
  static std::atomic<Clock::time_point> next{};
  if (Clock::now() < next.load()) return;
  next = Clock::now() + LOG_PAUSE;
  std::array<char, 256> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  std::string line = text.data();
  while (line.ends_with('\n')) line.pop_back();
  Log(6, line);
}

}  // namespace

/// What of a request has come.
struct SConnection {
  std::string m_Body;
  bool m_IsTooLarge{false};
  bool m_IsBegun{false};
  bool m_HasZero{false};  ///< in its target, where a name would end for some and not for others

  /// Called with the target as it came.
  static void* Begin(void*, const char* target, MHD_Connection*) {
    auto* const one = new SConnection;
    one->m_HasZero = std::strstr(target, "%00") != nullptr;
    return one;
  }

  static MHD_Result Handle(void* self, MHD_Connection* connection, const char* url, const char* method,
                           const char*, const char* part, std::size_t* size, void** state) {
    const CServer& server = *static_cast<CServer*>(self);
    try {
      SConnection& one = *static_cast<SConnection*>(*state);
      if (!std::exchange(one.m_IsBegun, true)) return MHD_YES;
      if (*size != 0) {
        one.m_IsTooLarge = one.m_IsTooLarge || one.m_Body.size() + *size > BODY;
        if (!one.m_IsTooLarge) one.m_Body.append(part, *size);
        *size = 0;
        return MHD_YES;
      }
      return Send(connection, one.Answer(server, connection, url, method));
    } catch (const std::exception& error) {  // want of memory
      Log(3, std::string("a request failed: ") + error.what());
      return MHD_NO;
    }
  }

  static void Done(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
    delete static_cast<SConnection*>(*state);
    *state = nullptr;
  }

 private:
  SHttpAnswer Answer(const CServer& server, MHD_Connection* connection, const char* url, const char* method) {
    SHttpRequest request{method, url};
    if (request.m_Method == "HEAD") request.m_Method = "GET";  // the body is left out below
    MHD_get_connection_values(connection, MHD_HEADER_KIND, &AddHeader, &request.m_Headers);
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, &AddQuery, &request.m_Query);
    request.m_Body = std::move(m_Body);
    request.m_Peer =
        PeerOf(MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd);
    request.m_Access = server.m_Access;
    request.m_Extend = [connection](unsigned int seconds) {
      MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, seconds);
    };
    request.m_Extend(SILENCE);  // whatever an earlier request on this connection needed
    if (m_IsTooLarge) request.m_Refusal.emplace(413, "too-large", "a body has 64 KiB at most");
    if (m_HasZero) request.m_Refusal.emplace(404, "not-found", "no resource has a zero in its name");
    // By the other sockets nothing is changed, and everybody could fill the log.
    if (request.m_Method != "GET" && request.m_Access == EAccess::ALL)
      Log(5, request.m_Method + " " + request.m_Path + " by uid " + std::to_string(request.m_Peer.m_User) +
                 (request.m_Peer.m_Login ? " (login " + std::to_string(*request.m_Peer.m_Login) + ")" : "") +
                 ", process " + std::to_string(request.m_Peer.m_Process));
    return server.m_Api.Answer(request);
  }
};

/// Who may have a connection: nobody may have all.
struct SAdmission {
  static void Notice(void* self, MHD_Connection* connection, void** user,
                     MHD_ConnectionNotificationCode what) {
    CServer& server = *static_cast<CServer*>(self);
    const std::lock_guard lock(server.m_Mutex);
    if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
      const auto held =
          server.m_Users.find(static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(*user)));
      if (--held->second == 0) server.m_Users.erase(held);
      return;
    }
    const int socket = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    const unsigned int uid = PeerOf(socket).m_User;
    *user = reinterpret_cast<void*>(std::uintptr_t{uid});
    // The library closes what has ended.
    if (++server.m_Users[uid] > USERS_CONNECTIONS && uid != 0) ::shutdown(socket, SHUT_RDWR);
  }
};

CServer::CServer(int listener, const CApi& api, EAccess access) : m_Api(api), m_Access(access) {
  m_Daemon = MHD_start_daemon(
      MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL | MHD_USE_ITC |
          MHD_USE_ERROR_LOG,
      0, nullptr, nullptr, &SConnection::Handle, this, MHD_OPTION_EXTERNAL_LOGGER, &LogFromBelow, nullptr,
      MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_CONNECTION_LIMIT,
      access == EAccess::METRICS ? METRICS_CONNECTIONS : CONNECTIONS, MHD_OPTION_CONNECTION_TIMEOUT, SILENCE,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, HEADERS, MHD_OPTION_THREAD_STACK_SIZE, STACK,
      MHD_OPTION_URI_LOG_CALLBACK, &SConnection::Begin, nullptr, MHD_OPTION_NOTIFY_COMPLETED,
      &SConnection::Done, nullptr, MHD_OPTION_NOTIFY_CONNECTION, &SAdmission::Notice, this, MHD_OPTION_END);
  if (m_Daemon == nullptr)
    throw Host::CError(Host::EXIT_PLUGIN_ERROR, "the server of HTTP cannot be started");
}

CServer::~CServer() { Stop(); }

void CServer::Quiesce() {
  if (m_Daemon != nullptr) MHD_quiesce_daemon(m_Daemon);
}

void CServer::Stop() {
  if (m_Daemon == nullptr) return;
  MHD_quiesce_daemon(m_Daemon);
  MHD_stop_daemon(m_Daemon);
  m_Daemon = nullptr;
}

}  // namespace Rvxd

#pragma once
/// @file
/// rvxd, asked over its socket.

#include <functional>
#include <memory>
#include <string>

#include "host/Options.h"
#include "rvxctl/Source.h"

namespace Host {

/// An answer of rvxd.
struct SAnswer {
  unsigned int m_Code{0};  ///< HTTP's
  std::string m_Body{};
  std::string m_Location{};
};

class CRemote : public CSource {
 public:
  /// rvxd where it is asked for or answers; null: the machine is looked at directly. Throws
  /// CError(EXIT_NO_PLUGIN) when the socket that was named does not answer.
  static std::unique_ptr<CRemote> Find(const SOptions& options);

  explicit CRemote(std::string socket) : m_Socket(std::move(socket)) {}

  SView View(const SViewRequest& request, const SForm& form) override;
  SPlan Plan(const SRequest& request, std::size_t width) override;
  SOutcome CarryOut(const SRequest& request, const SPlan& plan) override;
  void SetPollInterval(int seconds) override;
  void Watch() override;
  Json Events() override;

  /// The events that are kept, behind `since` where that is said, and with `follow` those that come, until a
  /// signal. Nothing is lost where rvxd is away for a while. Throws CError(EXIT_NO_OBJECT) when rvxd does not
  /// know `since`.
  void Follow(const std::string& since, bool follow, const std::function<void(Json)>& tell);

  /// Any request. Throws CError when there is no answer, and only then.
  SAnswer Ask(const std::string& method, const std::string& target, const std::string& body = {},
              const std::string& key = {}) const;
  /// The answer's document. Throws CError for a problem.
  Json Document(const std::string& method, const std::string& target, const Json& body = nullptr) const;

 private:
  /// Asks for the operation of a plan, again where the answer got lost.
  SAnswer Begin(const std::string& plan) const;

  const std::string m_Socket;
  std::string m_Cursor;  ///< of the last event that was fetched
};

/// A part of a target: "a b" as "a%20b".
std::string Escaped(const std::string& text);
/// The problem that an answer tells. Whatever else it is becomes a message too.
CError ErrorOf(const SAnswer& answer);

}  // namespace Host

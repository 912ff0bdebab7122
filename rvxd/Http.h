#pragma once
/// @file
/// A request and its answer, without a connection.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rvxd/Feed.h"
#include "rvxd/Operations.h"

namespace Rvxd {

/// By which socket a request comes, and so what it may ask for.
enum class EAccess { ALL, READING, METRICS };

struct SHttpRequest {
  std::string m_Method;                            ///< "GET"; HEAD is told as GET
  std::string m_Path;                              ///< unescaped, without what stands behind "?"
  std::map<std::string, std::string> m_Query{};    ///< unescaped
  std::map<std::string, std::string> m_Headers{};  ///< names in lower case
  std::string m_Body{};
  SPeer m_Peer{};
  EAccess m_Access{EAccess::ALL};
  std::optional<CProblem> m_Refusal{};           ///< what is wrong with it before it is looked at
  std::function<void(unsigned int)> m_Extend{};  ///< the connection may be silent for so many seconds

  /// Empty when it is not said.
  const std::string& Query(const std::string& name) const;
  const std::string& Header(const std::string& name) const;
};

struct SHttpAnswer {
  unsigned int m_Code{200};
  Text m_Body{};
  std::string m_Type{"application/json"};
  std::vector<std::pair<std::string, std::string>> m_Headers{};
  /// Gives the next part of a body without an end; empty when it has ended. Null: the body is all.
  std::function<std::string()> m_Stream{};
};

/// The answer that tells a problem.
SHttpAnswer AnswerOf(const CProblem& problem);

/// A number of a query. Throws CProblem when it is none, or more than `most`.
unsigned long NumberIn(const SHttpRequest& request, const std::string& name, unsigned long otherwise,
                       unsigned long most);
/// Which events a query means. Throws CProblem.
SEventFilter FilterIn(const SHttpRequest& request);

}  // namespace Rvxd

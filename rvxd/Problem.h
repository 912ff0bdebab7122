#pragma once
/// @file
/// What a client is told of a request that failed: a problem document (RFC 9457).

#include <stdexcept>
#include <string>

#include "host/Error.h"
#include "host/JsonView.h"

namespace Rvxd {

using Host::Json;

class CProblem : public std::runtime_error {
 public:
  /// @param word of its type: "stale"
  CProblem(unsigned int code, const char* word, const std::string& detail)
      : std::runtime_error(detail), m_Code(code), m_Word(word) {}
  /// What the plug-in, a rule or the request itself is wrong with.
  explicit CProblem(const Host::CError& error);

  Json ToJson() const;

  unsigned int m_Code;  ///< HTTP's
  std::string m_Word;
  Json m_Reasons = Json::array();  ///< [{rule, object, text, overridable}]
  Json m_More = Json::object();    ///< "code", "name", "exitStatus" of rvxctl, "left"
};

/// The reason that an error is; none where no rule forbids anything.
Json ReasonsOf(const Host::CError& error);

}  // namespace Rvxd

#include "rvxd/Problem.h"

#include "PI/Numbers.h"
#include "host/Texts.h"

namespace Rvxd {

namespace {

constexpr char TYPES[] = "https://rvx.invalid/problems/";  // names alone: nothing is there

struct SKind {
  unsigned int m_Code;
  const char* m_Word;
};

SKind KindOf(const Host::CError& error) {
  switch (error.m_Status) {
    case PI::INVALID_OBJECT_ID:
      return {404, "not-found"};
    case PI::ERR_OPERATION_NOT_SUPPORTED:
    case PI::ERR_BUSY:
    case PI::ERR_NO_REDUNDANCY:
    case PI::ERR_STATE_FORBIDS_REBUILD:
    case PI::ERR_NO_REBUILD_RUNNING:
    case PI::ERR_MISSING_DRIVE_PENDING:
    case PI::ERR_DRIVE_NOT_MISSING:
      return {409, "conflict"};
    case PI::ERR_INVALID_CONFIGURATION:
    case PI::ERR_NOT_AVAILABLE:
    case PI::ERR_NO_FREE_SLOT:
      return {422, "usage"};
    case PI::OK:
      break;
    default:
      return {500, "plugin-error"};
  }
  switch (error.m_ExitStatus) {
    case Host::EXIT_USAGE:
      return {422, "usage"};
    case Host::EXIT_NO_OBJECT:
      return {404, "not-found"};
    case Host::EXIT_BUSY:
      return {409, "busy"};
    case Host::EXIT_NOT_ALLOWED:
      return {409, "forbidden-by-rule"};
    case Host::EXIT_NO_RIGHTS:
      return {403, "no-rights"};
    default:
      return {500, "plugin-error"};
  }
}

const char* TitleOf(unsigned int code) {
  switch (code) {
    case 400:
      return "The request cannot be read";
    case 403:
      return "Not with these rights";
    case 404:
      return "There is no such thing";
    case 405:
      return "Not in this way";
    case 409:
      return "The present state forbids it";
    case 412:
      return "The state is another one by now";
    case 413:
      return "The request is too large";
    case 422:
      return "The request is wrong";
    case 428:
      return "The request must say which state it is for";
    case 429:
      return "Too much at once";
    case 503:
      return "Not now";
    default:
      return "It failed";
  }
}

}  // namespace

Json ReasonsOf(const Host::CError& error) {
  Json reasons = Json::array();
  if (!error.m_Rule.empty())
    reasons.push_back(
        {{"rule", error.m_Rule}, {"object", error.m_Object}, {"text", error.what()}, {"overridable", false}});
  return reasons;
}

CProblem::CProblem(const Host::CError& error)
    : std::runtime_error(error.what()),
      m_Code(KindOf(error).m_Code),
      m_Word(KindOf(error).m_Word),
      m_Reasons(ReasonsOf(error)),
      m_More({{"code", nullptr}, {"name", nullptr}, {"exitStatus", error.m_ExitStatus}}) {
  if (error.m_Status == PI::OK) return;
  m_More["code"] = error.m_Status;
  m_More["name"] = Host::Texts::StatusName(error.m_Status);
}

Json CProblem::ToJson() const {
  Json json = {{"type", TYPES + m_Word},
               {"title", TitleOf(m_Code)},
               {"status", m_Code},
               {"detail", what()},
               {"code", nullptr},
               {"name", nullptr},
               {"exitStatus", Host::EXIT_PLUGIN_ERROR}};
  // What a script's exit status would be where the request was made by rvxctl.
  if (m_Code == 403) json["exitStatus"] = Host::EXIT_NO_RIGHTS;
  if (m_Code == 404) json["exitStatus"] = Host::EXIT_NO_OBJECT;
  if (m_Code == 412 || m_Code == 429 || m_Code == 503 || m_Code == 409) json["exitStatus"] = Host::EXIT_BUSY;
  if (m_Code == 400 || m_Code == 422 || m_Code == 428) json["exitStatus"] = Host::EXIT_USAGE;
  json.update(m_More);
  json["reasons"] = m_Reasons;
  return json;
}

}  // namespace Rvxd

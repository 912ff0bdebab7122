#include "KVT/Markup.h"

#include <algorithm>
#include <pugixml.hpp>
#include <sstream>

namespace KVT::XML {
namespace {

bool IsElement(const pugi::xml_node& node) { return node.type() == pugi::node_element; }

}  // namespace

/// `m_Parent` is the element (or document) whose children are the cursor's level; without `m_Current` the
/// cursor stands before the first of them.
struct CMarkup::SImplementation {
  pugi::xml_document m_Document;
  pugi::xml_node m_Parent{m_Document};
  pugi::xml_node m_Current;
};

CMarkup::CMarkup() : m_Implementation(std::make_unique<SImplementation>()) {}
CMarkup::~CMarkup() = default;

CMarkup::CMarkup(const CMarkup& other) : CMarkup() {
  m_Implementation->m_Document.reset(other.m_Implementation->m_Document);
}

CMarkup& CMarkup::operator=(const CMarkup& other) {
  CMarkup copy(other);
  m_Implementation.swap(copy.m_Implementation);
  return *this;
}

bool CMarkup::SetDoc(const std::string& text) {
  // The parser takes a fragment with all that stands beside the root, so that a second root or stray text is
  // noticed rather than dropped.
  auto parsed = std::make_unique<SImplementation>();
  const auto result = parsed->m_Document.load_buffer(
      text.data(), text.size(), pugi::parse_default | pugi::parse_fragment, pugi::encoding_utf8);
  const auto nodes = parsed->m_Document.children();
  const bool wellFormed =
      result && std::distance(nodes.begin(), nodes.end()) == 1 && IsElement(*nodes.begin());
  m_Implementation = wellFormed ? std::move(parsed) : std::make_unique<SImplementation>();
  return wellFormed;
}

std::string CMarkup::GetDoc() const {
  std::ostringstream text;
  m_Implementation->m_Document.save(text, "", pugi::format_raw | pugi::format_no_declaration,
                                    pugi::encoding_utf8);
  return text.str();
}

bool CMarkup::IsEmpty() const { return !m_Implementation->m_Document.document_element(); }

void CMarkup::ResetPos() {
  m_Implementation->m_Parent = m_Implementation->m_Document;
  m_Implementation->m_Current = {};
}

bool CMarkup::FindElem(const std::string& name) {
  auto& [document, parent, current] = *m_Implementation;
  for (auto next = current ? current.next_sibling() : parent.first_child(); next;
       next = next.next_sibling()) {
    if (IsElement(next) && (name.empty() || name == next.name())) {
      current = next;
      return true;
    }
  }
  return false;
}

bool CMarkup::IntoElem() {
  auto& [document, parent, current] = *m_Implementation;
  if (!current) return false;
  parent = current;
  current = {};
  return true;
}

bool CMarkup::OutOfElem() {
  auto& [document, parent, current] = *m_Implementation;
  if (parent == document) return false;
  current = parent;
  parent = parent.parent();
  return true;
}

bool CMarkup::AddElem(const std::string& name) {
  auto& [document, parent, current] = *m_Implementation;
  if (name.empty() || (parent == document && !IsEmpty())) return false;
  current = parent.append_child(name.c_str());
  return true;
}

bool CMarkup::SetAttrib(const std::string& name, const std::string& value) {
  auto& current = m_Implementation->m_Current;
  if (!current || name.empty()) return false;
  auto attribute = current.attribute(name.c_str());
  if (!attribute) attribute = current.append_attribute(name.c_str());
  return attribute.set_value(value.c_str());
}

std::string CMarkup::GetAttrib(const std::string& name) const {
  return m_Implementation->m_Current.attribute(name.c_str()).value();
}

}  // namespace KVT::XML

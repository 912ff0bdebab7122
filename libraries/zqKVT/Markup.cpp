#include "KVT/Markup.h"

#include <algorithm>
#include <optional>
#include <pugixml.hpp>
#include <sstream>

namespace KVT::XML {
namespace {

bool IsElement(const pugi::xml_node& node) { return node.type() == pugi::node_element; }

/// A tree with a cursor. `m_Parent` is the element (or document) whose children are the cursor's level;
/// without `m_Current` the cursor stands before the first of them.
struct STree {
  bool Parse(const std::string& text) {
    // The parser takes a fragment with all that stands beside the root, so that a second root or stray text
    // is noticed rather than dropped.
    const auto result = m_Document.load_buffer(
        text.data(), text.size(), pugi::parse_default | pugi::parse_fragment, pugi::encoding_utf8);
    const auto nodes = m_Document.children();
    return result && std::distance(nodes.begin(), nodes.end()) == 1 && IsElement(*nodes.begin());
  }
  std::string Text() const {
    std::ostringstream text;
    m_Document.save(text, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
    return text.str();
  }

  pugi::xml_document m_Document;
  pugi::xml_node m_Parent{m_Document};
  pugi::xml_node m_Current;
};

}  // namespace

/// The text alone as long as the cursor stands before the root: documents are kept, copied and compared far
/// more often than they are read, and a tree takes 32 KiB.
struct CMarkup::SImplementation {
  STree& Tree() {
    if (!m_Tree) m_Tree.emplace().Parse(m_Text);
    return *m_Tree;
  }
  std::string Text() const { return m_Tree ? m_Tree->Text() : m_Text; }

  std::string m_Text;
  std::optional<STree> m_Tree;  ///< what counts when it is there
};

CMarkup::CMarkup() : m_Implementation(std::make_unique<SImplementation>()) {}
CMarkup::~CMarkup() = default;

CMarkup::CMarkup(const CMarkup& other) : CMarkup() {
  m_Implementation->m_Text = other.m_Implementation->Text();
}

CMarkup& CMarkup::operator=(const CMarkup& other) {
  CMarkup copy(other);
  m_Implementation.swap(copy.m_Implementation);
  return *this;
}

bool CMarkup::SetDoc(const std::string& text) {
  STree tree;
  const bool wellFormed = tree.Parse(text);
  auto parsed = std::make_unique<SImplementation>();
  if (wellFormed) parsed->m_Text = tree.Text();
  m_Implementation = std::move(parsed);
  return wellFormed;
}

std::string CMarkup::GetDoc() const { return m_Implementation->Text(); }

bool CMarkup::IsEmpty() const {
  const auto& [text, tree] = *m_Implementation;
  return tree ? !tree->m_Document.document_element() : text.empty();
}

void CMarkup::ResetPos() {
  m_Implementation->m_Text = m_Implementation->Text();
  m_Implementation->m_Tree.reset();
}

bool CMarkup::FindElem(const std::string& name) {
  auto& [document, parent, current] = m_Implementation->Tree();
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
  auto& [document, parent, current] = m_Implementation->Tree();
  if (!current) return false;
  parent = current;
  current = {};
  return true;
}

bool CMarkup::OutOfElem() {
  auto& [document, parent, current] = m_Implementation->Tree();
  if (parent == document) return false;
  current = parent;
  parent = parent.parent();
  return true;
}

bool CMarkup::AddElem(const std::string& name) {
  auto& [document, parent, current] = m_Implementation->Tree();
  if (name.empty() || (parent == document && !IsEmpty())) return false;
  current = parent.append_child(name.c_str());
  return true;
}

bool CMarkup::SetAttrib(const std::string& name, const std::string& value) {
  auto& current = m_Implementation->Tree().m_Current;
  if (!current || name.empty()) return false;
  auto attribute = current.attribute(name.c_str());
  if (!attribute) attribute = current.append_attribute(name.c_str());
  return attribute.set_value(value.c_str());
}

std::string CMarkup::GetAttrib(const std::string& name) const {
  const auto& tree = m_Implementation->m_Tree;
  return tree ? tree->m_Current.attribute(name.c_str()).value() : "";
}

}  // namespace KVT::XML

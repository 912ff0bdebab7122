#pragma once

#include <memory>
#include <string>

#include "KVT/Api.h"

namespace KVT::XML {

/// An XML document with a cursor. A value: copies are independent, and start with the cursor before the root.
class ZQ_API CMarkup {
 public:
  CMarkup();
  ~CMarkup();
  CMarkup(const CMarkup& other);
  CMarkup& operator=(const CMarkup& other);

  /// Takes over the document in `text`; false (and the document is empty) when it is not well-formed.
  bool SetDoc(const std::string& text);
  /// The document as text without declaration or line breaks; empty when there is no element.
  std::string GetDoc() const;
  bool IsEmpty() const;

  /// Puts the cursor before the root.
  void ResetPos();
  /// Moves to the next element of this name on the cursor's level (any name when empty); false leaves the
  /// cursor where it was.
  bool FindElem(const std::string& name = {});
  /// Descends: the next FindElem or AddElem works on the children of the current element. False without one.
  bool IntoElem();
  /// Returns to the parent element, which becomes current. False on the top level.
  bool OutOfElem();
  /// Appends an element on the cursor's level and makes it current. False for a second root.
  bool AddElem(const std::string& name);
  /// Sets an attribute of the current element. False without one.
  bool SetAttrib(const std::string& name, const std::string& value);
  /// An attribute of the current element; empty when there is none.
  std::string GetAttrib(const std::string& name) const;

 private:
  struct SImplementation;
  std::unique_ptr<SImplementation> m_Implementation;
};

}  // namespace KVT::XML

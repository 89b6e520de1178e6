// SPDX-License-Identifier: MIT
#pragma once

#include <tinyxml2.h>

#include <string>
#include <utility>
#include <vector>

/// The text as XML may have it: bytes that are no UTF-8 and characters that no document may have
/// are replaced.
std::string validText(const std::string& text);

/// Writes XML. Names are those of the caller; values and texts may have any bytes.
class Xml {
 public:
  using Attributes = std::vector<std::pair<const char*, std::string>>;

  void begin(const char* name, const Attributes& attributes = {});
  void end() { printer.CloseElement(); }
  void text(const std::string& text) { printer.PushText(validText(text).c_str()); }

  /// An element that has a text, which may be empty, and no other elements.
  void element(const char* name, const Attributes& attributes, const std::string& text);

  /// An element without any content.
  void empty(const char* name, const Attributes& attributes);

  void declaration(const char* text) { printer.PushDeclaration(text); }
  void documentType(const char* text) {
    printer.PushUnknown((std::string("DOCTYPE ") + text).c_str());
  }

  const char* document() const { return printer.CStr(); }

 private:
  tinyxml2::XMLPrinter printer;
};

/// An element of others, for as long as it exists.
class Element {
 public:
  Element(Xml& document, const char* name, const Xml::Attributes& attributes = {}) : xml(document) {
    xml.begin(name, attributes);
  }
  ~Element() { xml.end(); }
  Element(const Element&) = delete;
  Element& operator=(const Element&) = delete;

 private:
  Xml& xml;
};

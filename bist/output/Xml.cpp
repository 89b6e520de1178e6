// SPDX-License-Identifier: MIT
#include "bist/output/Xml.h"

#include <nlohmann/json.hpp>

namespace {

constexpr char replacement[] = "\xEF\xBF\xBD";

bool isControl(char character) {
  const auto code = static_cast<unsigned char>(character);
  return (code < ' ' && character != '\n' && character != '\t') || code == 0x7F;
}

void replaceAll(std::string& text, const char* what) {
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) {
    text.replace(at, 3, replacement);
  }
}

}  // namespace

std::string validText(const std::string& text) {
  using nlohmann::json;
  std::string valid = json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace));
  for (std::size_t at = 0; at < valid.size(); ++at) {
    if (isControl(valid[at])) {
      valid.replace(at, 1, replacement);
    }
  }
  replaceAll(valid, "\xEF\xBF\xBE");  // two that are no characters
  replaceAll(valid, "\xEF\xBF\xBF");
  return valid;
}

void Xml::begin(const char* name, const Attributes& attributes) {
  printer.OpenElement(name);
  for (const auto& [attribute, value] : attributes) {
    printer.PushAttribute(attribute, validText(value).c_str());
  }
}

void Xml::element(const char* name, const Attributes& attributes, const std::string& text) {
  begin(name, attributes);
  this->text(text);
  end();
}

void Xml::empty(const char* name, const Attributes& attributes) {
  begin(name, attributes);
  end();
}

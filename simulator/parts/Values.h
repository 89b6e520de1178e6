// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <variant>

/// Values of a description. What cannot be read throws std::runtime_error with the reason.
namespace simulator {

std::runtime_error mustBe(const std::string& expected, const std::string& value);

std::runtime_error unknownKey();

/// No line of a description is longer, but for comments, and no setting.
constexpr std::size_t longestLine = 1000;

std::runtime_error tooLong(std::size_t longest);

/// A text with a question mark for each control character, those of UTF-8 too.
std::string printable(const std::string& text);

/// A number from 0 to 0xffffffff, decimal or with 0x.
std::uint32_t number(const std::string& value);

/// Seconds with a fraction, as microseconds.
std::int64_t duration(const std::string& value);

/// Microseconds as seconds with a fraction.
std::string secondsText(std::int64_t microseconds);

std::string hexText(std::uint32_t number);

/// Which of two words the value is; true for the first.
bool choice(const std::string& value, const char* first, const char* second);

/// Puts a text where a zero byte ends it.
void setText(char* place, std::size_t size, const std::string& value);

/// A key of a group, the field of the object that the group describes, and the key's words: those
/// for true and false, or the one for a time that never comes.
template <typename Object>
struct Key {
  const char* name;
  std::variant<bool Object::*, std::int64_t Object::*, std::uint32_t Object::*,
               std::uint16_t Object::*>
      field;
  const char* words[2] = {};
};

inline void setField(bool& field, const std::string& value, const char* const (&words)[2]) {
  field = choice(value, words[0], words[1]);
}

inline void setField(std::int64_t& field, const std::string& value, const char* const (&words)[2]) {
  field = words[0] != nullptr && value == words[0] ? -1 : duration(value);
}

template <typename Number>
void setField(Number& field, const std::string& value, const char* const (&/*words*/)[2]) {
  const std::uint32_t wide = number(value);
  constexpr std::uint32_t most = std::numeric_limits<Number>::max();
  if (wide > most) {
    throw mustBe("a number from 0 to " + std::to_string(most), value);
  }
  field = static_cast<Number>(wide);
}

template <typename Object, std::size_t count>
bool hasKey(const Key<Object> (&keys)[count], const std::string& name) {
  return std::any_of(std::begin(keys), std::end(keys),
                     [&](const Key<Object>& key) { return name == key.name; });
}

template <typename Object, std::size_t count>
void setKey(const Key<Object> (&keys)[count], Object& object, const std::string& name,
            const std::string& value) {
  for (const Key<Object>& key : keys) {
    if (name == key.name) {
      std::visit([&](auto field) { setField(object.*field, value, key.words); }, key.field);
      return;
    }
  }
  throw unknownKey();
}

// A field's value as the description has it.

inline std::string textOf(bool field, const char* const (&words)[2]) {
  return words[field ? 0 : 1];
}

inline std::string textOf(std::int64_t field, const char* const (&words)[2]) {
  return field < 0 ? words[0] : secondsText(field);
}

template <typename Number>
std::string textOf(Number field, const char* const (&/*words*/)[2]) {
  return hexText(field);
}

/// Calls `add` with the name and value of each key.
template <typename Object, std::size_t count, typename Add>
void describeKeys(const Key<Object> (&keys)[count], const Object& object, const Add& add) {
  for (const Key<Object>& key : keys) {
    std::visit([&](auto field) { add(key.name, textOf(object.*field, key.words)); }, key.field);
  }
}

/// The place of a name in a table of names; the table's size where it has none.
template <std::size_t count>
std::size_t indexOf(const char* const (&names)[count], const std::string& name) {
  std::size_t index = 0;
  while (index < count && name != names[index]) {
    ++index;
  }
  return index;
}

}  // namespace simulator

#pragma once
// JSON text written in one go for a page to read with JSON.parse. Numbers
// get the decimals the caller asks for (coordinates need six, elevations
// one), so a long track's data stay compact; NaN and infinities become
// null. Strings are safe inside an HTML <script> element: '<', '>' and '&'
// are written as \u escapes.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

class JsonText {
 public:
  JsonText& beginObject() { return open('{'); }
  JsonText& endObject() { return close('}'); }
  JsonText& beginArray() { return open('['); }
  JsonText& endArray() { return close(']'); }
  /// The key of the next member of the open object.
  JsonText& key(std::string_view name);

  JsonText& string(std::string_view text);
  /// Fixed decimals, trailing zeros dropped ("2268.2", "8", "-0.5").
  JsonText& number(double value, int decimals);
  JsonText& integer(int64_t value);
  JsonText& boolean(bool value);
  JsonText& null();

  const std::string& text() const { return text_; }

  /// The text between the quotes of a JSON string holding `text`.
  static std::string escaped(std::string_view text);

 private:
  JsonText& open(char bracket);
  JsonText& close(char bracket);
  void separate();

  std::string text_;
  std::vector<bool> firstInContainer_;
  bool afterKey_ = false;
};

}  // namespace kvtrack

#pragma once

// Writes one JSON value for programs that read a command's result. The text is ASCII: everything else is
// escaped, so no file name can break the document or reach a terminal.

#include <cstdint>
#include <string>
#include <string_view>

namespace talvex {

// Calls come in the order of the document. Inside an object every value follows its Key.
class JsonWriter {
 public:
  void BeginObject() { Begin(L'{'); }
  void EndObject() { End(L'}'); }
  void BeginArray() { Begin(L'['); }
  void EndArray() { End(L']'); }
  void Key(std::wstring_view name);
  void String(std::wstring_view value);
  void Number(std::uint64_t value);  // up to 2^53; readers round larger ones
  void Bool(bool value);

  [[nodiscard]] const std::wstring& Text() const { return text_; }

 private:
  void Begin(wchar_t bracket);
  void End(wchar_t bracket);
  void SeparateFromLast();
  void AppendQuoted(std::wstring_view value);

  std::wstring text_;
  bool follows_value_ = false;  // the next value or key needs a comma
};

}  // namespace talvex

#include "publisher/json_writer.h"

#include "publisher/unit_escape.h"

namespace talvex {

void JsonWriter::Key(std::wstring_view name) {
  SeparateFromLast();
  AppendQuoted(name);
  text_ += L':';
  follows_value_ = false;
}

void JsonWriter::String(std::wstring_view value) {
  SeparateFromLast();
  AppendQuoted(value);
}

void JsonWriter::Number(std::uint64_t value) {
  SeparateFromLast();
  text_ += std::to_wstring(value);
}

void JsonWriter::Bool(bool value) {
  SeparateFromLast();
  text_ += value ? L"true" : L"false";
}

void JsonWriter::Begin(wchar_t bracket) {
  SeparateFromLast();
  text_ += bracket;
  follows_value_ = false;
}

void JsonWriter::End(wchar_t bracket) {
  text_ += bracket;
  follows_value_ = true;
}

void JsonWriter::SeparateFromLast() {
  if (follows_value_) {
    text_ += L',';
  }
  follows_value_ = true;
}

void JsonWriter::AppendQuoted(std::wstring_view value) {
  text_ += L'"';
  for (const wchar_t unit : value) {
    if (unit == L'"' || unit == L'\\') {
      text_ += {L'\\', unit};
    } else if (unit >= 0x20 && unit < 0x7F) {
      text_ += unit;
    } else {  // JSON escapes are UTF-16 code units, as ours are
      text_ += EscapeUnit(unit);
    }
  }
  text_ += L'"';
}

}  // namespace talvex

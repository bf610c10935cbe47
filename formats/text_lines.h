#pragma once

// The strict line and field splitter of all text formats: LF ends every line, TAB separates fields, nothing
// is trimmed, skipped or guessed. Lines are split off one at a time and never collected, so a file of four
// million empty lines costs no memory.

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace talvex {

[[nodiscard]] inline std::string_view AsText(std::span<const std::byte> bytes) noexcept {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

[[nodiscard]] inline std::span<const std::byte> AsBytes(std::string_view text) noexcept {
  return std::as_bytes(std::span(text.data(), text.size()));
}

// Whether `text` may be split into lines at all: 1 to `size_limit` bytes, the last one LF, no CR, no zero
// byte.
[[nodiscard]] bool IsLineText(std::string_view text, std::size_t size_limit) noexcept;

// Counts the lines of `text`. False when text is left over after the last LF.
[[nodiscard]] bool CountLines(std::string_view text, std::size_t& count) noexcept;

// Removes the next line from the front of `rest` and returns it without its LF. An empty line is a line; at
// the end of the text the result is empty too, so callers check `rest` first or know the count.
[[nodiscard]] std::string_view ConsumeLine(std::string_view& rest) noexcept;

// Splits `line` at every TAB, empty fields included. False unless there are exactly `count` fields.
template <std::size_t count>
[[nodiscard]] bool SplitFields(std::string_view line, std::array<std::string_view, count>& fields) noexcept {
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t tab = line.find('\t');
    if ((tab == std::string_view::npos) != (i + 1 == count)) {
      return false;
    }
    fields[i] = line.substr(0, tab);
    line.remove_prefix(tab == std::string_view::npos ? line.size() : tab + 1);
  }
  return true;
}

// Parses a line of exactly two fields, `key` and a value.
[[nodiscard]] bool ParseKeyedValue(std::string_view line, std::string_view key,
                                   std::string_view& value) noexcept;

// Removes `key` and the TAB after it from the front of `line`; the rest is the value, further TABs included.
[[nodiscard]] bool ConsumeKey(std::string_view& line, std::string_view key) noexcept;

}  // namespace talvex

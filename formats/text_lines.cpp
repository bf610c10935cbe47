#include "formats/text_lines.h"

#include <algorithm>

namespace talvex {

bool IsLineText(std::string_view text, std::size_t size_limit) noexcept {
  return !text.empty() && text.size() <= size_limit && text.back() == '\n' &&
         text.find('\r') == std::string_view::npos && text.find('\0') == std::string_view::npos;
}

bool CountLines(std::string_view text, std::size_t& count) noexcept {
  count = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  return text.empty() || text.back() == '\n';
}

std::string_view ConsumeLine(std::string_view& rest) noexcept {
  const std::size_t end = rest.find('\n');
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return line;
}

bool ParseKeyedValue(std::string_view line, std::string_view key, std::string_view& value) noexcept {
  std::array<std::string_view, 2> pair;
  if (!SplitFields(line, pair) || pair[0] != key) {
    return false;
  }
  value = pair[1];
  return true;
}

bool ConsumeKey(std::string_view& line, std::string_view key) noexcept {
  if (!line.starts_with(key) || line.size() == key.size() || line[key.size()] != '\t') {
    return false;
  }
  line.remove_prefix(key.size() + 1);
  return true;
}

}  // namespace talvex

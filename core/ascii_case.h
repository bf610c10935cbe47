#pragma once

// Case folding for the letters A to Z alone. Names, roots and plans are compared with it, so that the result
// never depends on the machine's locale. (The rollback journal folds with the runtime's own mapping; the two
// are not mixed.)

#include <algorithm>
#include <string>
#include <string_view>

namespace talvex {

template <typename Char>
[[nodiscard]] constexpr Char FoldAsciiLetter(Char unit) noexcept {
  return unit >= Char{'A'} && unit <= Char{'Z'} ? static_cast<Char>(unit + (Char{'a'} - Char{'A'})) : unit;
}

[[nodiscard]] inline std::wstring FoldAsciiCase(std::wstring_view text) {
  std::wstring folded(text);
  std::transform(folded.begin(), folded.end(), folded.begin(), FoldAsciiLetter<wchar_t>);
  return folded;
}

// Lengths are compared first and characters from the end: the paths of one release share their beginnings,
// and a lookup that walks a thousand entries reads only a few characters of each.
[[nodiscard]] inline bool EqualIgnoringAsciiCase(std::wstring_view left, std::wstring_view right) noexcept {
  return left.size() == right.size() &&
         std::equal(left.rbegin(), left.rend(), right.rbegin(),
                    [](wchar_t a, wchar_t b) { return FoldAsciiLetter(a) == FoldAsciiLetter(b); });
}

}  // namespace talvex

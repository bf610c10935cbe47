#include "tests/support/input_generator.h"

#include <algorithm>
#include <cstddef>

namespace talvex::test {
namespace {

const std::string kDigits = "0123456789";
const std::string kHex = "0123456789abcdef";
const std::string kName = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
constexpr std::size_t kRowLimitChances = 4'000;    // one text of so many reaches the limit of rows,
constexpr std::size_t kSizeLimitChances = 40'000;  // and one of so many the limit of bytes

}  // namespace

std::string InputGenerator::Make(const TextForm& form) {
  honest_ = OneIn(2);
  std::string text;
  Expand(form.head, text);
  many_rows_ = OneIn(kRowLimitChances);
  const std::size_t rows = many_rows_ ? form.row_limit - 2 + Below(5) : 1 + Below(OneIn(4) ? 12 : 3);
  for (row_ = 0; row_ < (form.row_limit == 0 ? 0 : rows); ++row_) {
    Expand(form.row, text);
  }
  // Padding with zeros that may lead a number makes texts at their limit that are right all the same.
  if (text.size() < form.size_limit && OneIn(form.size_limit < 1'000 ? 50 : kSizeLimitChances)) {
    const std::size_t number = text.find("sequence\t");
    const char padding = Pick({"0", "0", "\n", "a"})[0];
    text.insert(number == std::string::npos ? text.size() / 2 : number + 9,
                form.size_limit - text.size() + Below(3) - 1, padding);
  }
  for (std::size_t changes = honest_ || OneIn(4) ? 0 : 1 + Below(3); changes > 0; --changes) {
    Mutate(text);
  }
  return text;
}

void InputGenerator::Expand(const std::string& form, std::string& text) {
  for (std::size_t i = 0; i < form.size(); ++i) {
    text += form[i] == '%' ? Field(form[++i]) : std::string(1, form[i]);
  }
}

std::string InputGenerator::Field(char letter) {
  switch (letter) {
    case 'b':  // a flag
      return Either({"0", "1"}, {"", "2", "01", "1 ", "true"});
    case 'd':
      return Digest();
    case 'k':  // the kind of a row
      return Either({"file", "delete"}, {"", "File", "files", "delet", "file "});
    case 'n':  // a number
      return OneIn(2)
                 ? "1" + Characters(Below(9), kDigits)
                 : Either({"1", "7", "007", "4294967296", "18446744073709551615", "00018446744073709551615"},
                          {"", "0", "000", "-1", "+1", " 1", "1 ", "0x10", "1e3", "18446744073709551616",
                           "18446744073709551620", "99999999999999999999", "\xEF\xBC\x91", "1\xB1"});
    case 'p':  // many random paths would repeat each other sooner or later
      return row_ < 4 ? Path() : "row" + std::to_string(row_);
    case 'q':  // a row of a plan, less its LF
      return Either({"file\tTalvex.exe", "file\tDATA/a.pak", "file\tdata/B.pak", "file\tx", "file\t.hidden",
                     "file\tdata/sub/c.dat", "delete\told.dll", "delete\tOLD/A.TXT", "delete\tgone"},
                    {"file\told.dll", "delete\tTalvex.exe", "delete\tdata/a.pak", "delete\tx", "delete\tnone",
                     "file\tcon", "FILE\tx", "file x", "file\t/x", "file\ta b", "file\t.talvex-update/x"});
    case 'r':
      return Release();
    case 's':  // a size; many files share the release's limit
      return OneIn(many_rows_ ? 5'000 : 5)
                 ? Either({"8589934592", "0008589934592"},
                          {"0", "", "-1", "+1", "8589934593", "18446744073709551616"})
                 : "1" + Characters(many_rows_ ? 0 : Below(8), kDigits);
    default:
      return "";
  }
}

std::string InputGenerator::Characters(std::size_t count, const std::string& set) {
  std::string characters(count, ' ');
  for (char& character : characters) {
    character = set[Below(set.size())];
  }
  return characters;
}

std::string InputGenerator::Digest() {
  std::string digest = Characters(64, kHex);
  if (Wrong()) {
    const std::size_t place = Below(64);
    digest.replace(place, Below(2), Pick({"", "0", "A", "F", "G", "g", "/", ":", "`", " ", "\t", "\x80"}));
  }
  return digest;
}

std::string InputGenerator::Release() {
  std::string release = Either({"1", "Z", "2024"}, {"", ".hidden", "-1", "_1", "1 0", "1/0", "\xC3\xBC"});
  release += Characters(Below(Wrong() ? 80 : 60), kName);
  return release + Either({"a", "_", "-", "9"}, {"."});
}

std::string InputGenerator::Path() {
  std::string path;
  for (std::size_t segments = 1 + Below(4); segments > 0; --segments) {
    if (Wrong()) {
      path += Pick({"",
                    ".",
                    "..",
                    "a.",
                    "con",
                    "NUL.txt",
                    "Com1",
                    "lpt9.a.b",
                    "a b",
                    "a:b",
                    "\xC3\xBC",
                    "a\\b",
                    ".Talvex-Update",
                    ".talvex-update-cache",
                    "TalvexUpdateState.dat",
                    "a\tb",
                    "/",
                    "aux.",
                    "talvexupdatestate.dat.new-1",
                    "talvexupdatefailure.dat",
                    "talvexupdatefailure.dat.new"});
      path += Characters(OneIn(8) ? Below(200) : 0, kName);
    } else if (OneIn(3)) {
      path += Pick({"data", "Data", ".hidden", "a.b.c", "com0", "com10", "lpt", "console", "nu.l", "x_-",
                    "talvexupdatestate.dat2", "talvexupdatefailure.dat.new2", ".talvex-update2"});
    } else {
      path += Characters(Below(OneIn(16) ? 100 : 12), kName);
      path += Pick({"a", "Z", "0", "_", "-"});
    }
    path += segments > 1 ? "/" : "";
  }
  return path;
}

void InputGenerator::Mutate(std::string& text) {
  const std::size_t place = Below(text.size() + 1);
  const std::size_t length = Below(80);
  const std::size_t before = text.substr(0, place).rfind('\n');
  const std::size_t line = before == std::string::npos ? 0 : before + 1;
  const std::string whole_line = text.substr(line, text.find('\n', line) - line) + "\n";
  switch (Below(11)) {
    case 0:
      text.insert(place, Pick({"\n", "\t", "\r", "/", "\\", ".", "0", " ", "a", "A", "\x80", "\xFF",
                               "\xEF\xBB\xBF"}));
      break;
    case 1:
      text.insert(place, 1, '\0');
      break;
    case 2:
      text.erase(place, 1 + length % 3);
      break;
    case 3:
      text.insert(line, whole_line);
      break;
    case 4:
      text.erase(line, whole_line.size());
      break;
    case 5:
      text.resize(place);
      break;
    case 6:
      text += whole_line;
      break;
    case 7:
      text.insert(place, text.substr(place / 2, length));
      break;
    case 8:  // behind the line after it
      text.erase(line, whole_line.size());
      text.insert(std::min(text.find('\n', std::min(line, text.size())), text.size() - 1) + 1, whole_line);
      break;
    default:
      if (place < text.size()) {
        text[place] = static_cast<char>(text[place] ^ (1 << Below(8)));  // 0x20 is the other case
      }
      break;
  }
}

}  // namespace talvex::test

#include <cstddef>

#include "tests/support/parser_check.h"

namespace talvex::test {
namespace {

using Texts = std::vector<std::string>;

constexpr wchar_t kAccepted[] = L"";
constexpr wchar_t kReadAsTheGoodText[] = L"another spelling of the good text";

constexpr wchar_t kUnsafePath[] = L"The update manifest contains an unsafe relative path.";
constexpr wchar_t kOutsideAscii[] = L"The update manifest path is outside the supported ASCII file-name set.";
constexpr wchar_t kUnsafeSegment[] = L"The update manifest contains an unsafe path segment.";
constexpr wchar_t kUpdaterState[] = L"The update manifest path targets updater state.";

const std::string kDigest = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
const std::string kMaxNumber = "18446744073709551615";  // 2^64 - 1
const std::string kTooLargeNumber = "18446744073709551616";
const std::string kLongSegment(100, 's');
const std::string kManifestHead = "TALVEX-UPDATE-V1\nrelease\t1.0\nsequence\t42\n";

// In the good text, the first `from` becomes each of `to` in turn; without a `from` the whole text does. The
// verdict is a message or one of the two above.
struct Change {
  std::wstring verdict;
  std::string from;
  Texts to;
};

void AddChanges(TextCases& cases, const std::vector<Change>& changes) {
  const std::string good = cases.front().text;
  for (const Change& change : changes) {
    for (const std::string& to : change.to) {
      std::string text = to;
      if (!change.from.empty()) {
        text = std::string(good).replace(good.find(change.from), change.from.size(), to);
      }
      if (change.verdict == kReadAsTheGoodText) {
        cases.push_back({text, {kAccepted, good}});
      } else {
        cases.push_back({text, {change.verdict, change.verdict == kAccepted ? text : ""}});
      }
    }
  }
}

TextCases MakeCases(const std::string& good, const std::vector<Change>& changes) {
  TextCases cases = {{good, {kAccepted, good}}};
  AddChanges(cases, changes);
  return cases;
}

// What holds for every text of lines. `surplus_line` answers an empty line at the end, and many of them, up
// to the limit of bytes.
void AddLineCases(TextCases& cases, std::size_t size_limit, const std::wstring& encoding,
                  const std::wstring& header, const std::wstring& surplus_line) {
  const std::string good = cases.front().text;
  const std::string full = good + std::string(size_limit - good.size(), '\n');
  const std::string cut = good.substr(0, good.size() - 1);
  AddChanges(cases, {
                        {encoding, "", {"", cut, good + "\r\n", good + std::string("\0\n", 2), full + "\n"}},
                        {surplus_line, "", {good + "\n", full}},
                        {header, "", {"\n", good.substr(0, good.find('\n') + 1), "\xEF\xBB\xBF" + good}},
                        {header, "TALVEX", {"Talvex"}},
                        {header, "V1\n", {"V1 \n", "V10\n"}},
                    });
}

// A row with this path is judged by the path rules once the row itself is right.
void AddPathCases(TextCases& cases) {
  AddChanges(cases, {
                        {kUnsafePath, "data/A.pak", {"", "/A.pak"}},
                        {kOutsideAscii, "data/A.pak", {"data/A+.pak"}},
                        {kUnsafeSegment, "data/A.pak", {"data/../A.pak"}},
                        {kUpdaterState, "data/A.pak", {"TalvexUpdateState.dat"}},
                    });
}

// `row` over and over, its "#" replaced by a number of four digits.
std::string Rows(std::size_t count, const std::string& row) {
  std::string rows;
  for (std::size_t i = 0; i < count; ++i) {
    std::string numbered = row;
    rows += numbered.replace(numbered.find('#'), 1, std::to_string(1'000 + i));
  }
  return rows;
}

std::string ManifestRow(const std::string& size, const std::string& path) {
  return "file\t" + size + "\t" + kDigest + "\t" + path + "\n";
}

}  // namespace

std::string ManifestDigestText() {
  return kDigest;
}

std::string NewManifestText() {
  return kManifestHead + ManifestRow("1", "data/A.pak") + ManifestRow("1", "Talvex.exe") +
         Rows(1'022, ManifestRow("1", kLongSegment + "/" + kLongSegment + "/#"));
}

std::string InstalledManifestText() {
  return kManifestHead + ManifestRow("1", "TALVEX.EXE") + ManifestRow("1", "old/B.pak");
}

TextCases ManifestCases() {
  constexpr wchar_t kEncoding[] = L"The update manifest must be UTF-8 text with LF line endings.";
  constexpr wchar_t kHeader[] = L"The update manifest header is invalid.";
  constexpr wchar_t kRelease[] = L"The update manifest release is invalid.";
  constexpr wchar_t kSequence[] = L"The update manifest sequence is invalid.";
  constexpr wchar_t kRow[] = L"The update manifest contains an invalid file row.";
  constexpr wchar_t kData[] = L"The update manifest contains invalid file data.";
  constexpr wchar_t kDuplicate[] = L"The update manifest contains a duplicate path.";
  constexpr wchar_t kTooLarge[] = L"The update manifest exceeds the release size limit.";
  constexpr wchar_t kTooMany[] = L"The update manifest contains too many files.";
  const std::string row = ManifestRow("7", "data/A.pak");
  const std::string largest = ManifestRow("8589934592", "X.exe");
  TextCases cases = MakeCases(
      kManifestHead + row + ManifestRow("8589934592", "Talvex.exe"),
      {
          {kHeader, "", {kManifestHead}},
          {kRelease, "release\t", {"Release\t", "release ", "release"}},
          {kRelease, "release\t1.0", {"release", "sequence\t42"}},
          {kRelease, "1.0", {"", "1.0\t", "1.", ".1", "-1", "_1", std::string(65, 'r')}},
          {kRelease, "1.0", {"/1", ":1", "@1", "[1", "`1", "{1", "1/1", "1:1", "1@1", "1[1", "1`1", "1{1"}},
          {kRelease, "1.0", {"1 1", "1\x80", "\xFF"}},
          {kAccepted, "1.0", {"0", "9", "A", "Z", "a", "z", "1.AZaz09_-", std::string(64, 'r')}},
          {kRelease, "1.0\nsequence", {" \nSequence"}},  // the first fault counts, here and below
          {kSequence, "sequence\t", {"Sequence\t", "sequence ", "sequence"}},
          {kSequence, "42", {"", "0", "x", "42\t", kTooLargeNumber}},
          {kAccepted, "42", {kMaxNumber}},
          {kReadAsTheGoodText, "42", {"0042"}},
          {kSequence, "42\nfile", {"0\nFile"}},
          {kRow, "file\t7", {"File\t7", "delete\t7", "\nfile\t7", "file\t7\t7", "File\t0"}},
          {kRow, "\tdata/A.pak", {""}},
          {kData, "\t7\t", {"\t\t", "\t0\t", "\t+7\t", "\t8589934593\t"}},
          {kReadAsTheGoodText, "\t7\t", {"\t007\t"}},
          {kAccepted, "\t7\t", {"\t8589934592\t"}},  // now the release has all the bytes that it may have
          {kData, kDigest, {"", kDigest.substr(1), kDigest + "0"}},
          {kData, row, {ManifestRow("0", ".."), "file\t1\t\t..\n"}},
          {kDuplicate, "data/A.pak", {"Talvex.exe", "tALVEX.EXE"}},
          {kDuplicate, row, {largest + ManifestRow("1", "x.EXE")}},
          {kTooLarge, row, {ManifestRow("1", "x") + largest, Rows(1'023, ManifestRow("1", "#")) + largest}},
          {kTooMany, "", {NewManifestText() + ManifestRow("1", "x")}},
          {kAccepted, "", {kManifestHead + row, NewManifestText()}},
      });
  AddLineCases(cases, 4'194'304, kEncoding, kHeader, kRow);
  AddPathCases(cases);
  return cases;
}

TextCases JournalCases() {
  constexpr wchar_t kEncoding[] = L"The update rollback journal has an invalid encoding.";
  constexpr wchar_t kFormat[] = L"The update rollback journal has an invalid format.";
  constexpr wchar_t kNoDigest[] = L"The update rollback journal has an invalid manifest digest.";
  constexpr wchar_t kFlags[] = L"The update rollback journal has invalid previous-state flags.";
  constexpr wchar_t kRow[] = L"The update rollback journal has an invalid file row.";
  constexpr wchar_t kDuplicate[] = L"The update rollback journal contains a duplicate file.";
  constexpr wchar_t kCount[] = L"The update rollback journal has an invalid file count.";
  const std::string head = "TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + kDigest +
                           "\nprevious-state\t1\nprevious-cache-manifest\t0\nprevious-cache-signature\t1\n";
  const std::string long_row = "file\t1\t#" + std::string(96, 'n') + "/" + kLongSegment + "\n";
  const std::string last_row = "file\t1\t" + std::string(89, 'z') + "\n";  // up to the limit of bytes
  TextCases cases = MakeCases(
      head + "file\t1\tdata/A.pak\ndelete\t0\tTalvex.exe\n",
      {
          {kFormat, "", {head}},
          {kNoDigest, "manifest-sha256\t", {"Manifest-sha256\t", "manifest-sha256 ", "manifest-sha256"}},
          {kNoDigest, "\t" + kDigest, {"", "\t" + kDigest + "\t"}},
          {kNoDigest, "f\nprevious-state\t1", {"F\nprevious-state\t2"}},
          {kFlags, "previous-state\t1", {"Previous-state\t1", "previous-state 1", "previous-state\t2"}},
          {kFlags, "-manifest\t0", {"-Manifest\t0", "-manifest 0", "-manifest\t", "-manifest\t00"}},
          {kFlags, "-signature\t1", {"-Signature\t1", "-signature 1", "-signature", "-signature\t1\t"}},
          {kFlags,
           "previous-state\t1\nprevious-cache-manifest\t0",
           {"previous-cache-manifest\t0\nprevious-state\t1"}},
          {kFlags, "-signature\t1\nfile", {"-signature\t2\nFile"}},
          {kAccepted, "previous-state\t1", {"previous-state\t0"}},
          {kAccepted, "-manifest\t0", {"-manifest\t1"}},
          {kAccepted, "-signature\t1", {"-signature\t0"}},
          {kRow, "file\t1", {"File\t1", "delet\t1", "file\t2", "file\t", "file", "file\t1\t1"}},
          {kRow, "1\tdata/A.pak", {"2\t.."}},
          {kDuplicate, "data/A.pak", {"Talvex.exe", "tALVEX.EXE"}},
          {kCount, "", {head + Rows(2'049, "file\t1\t#\n")}},
          {kAccepted, "", {head + Rows(2'048, "delete\t1\t#\n"), head + Rows(1'253, long_row) + last_row}},
          {kAccepted, "", {head + "file\t0\tx\n"}},
      });
  AddLineCases(cases, 262'144, kEncoding, kFormat, kRow);
  AddPathCases(cases);
  return cases;
}

TextCases StateCases() {
  constexpr wchar_t kEncoding[] = L"The installed update state has an invalid encoding.";
  constexpr wchar_t kFormat[] = L"The installed update state has an invalid format.";
  constexpr wchar_t kRelease[] = L"The installed update state has invalid release information.";
  constexpr wchar_t kNoDigest[] = L"The installed update state has an invalid manifest digest.";
  const std::string head = "TALVEX-UPDATE-STATE-V1\nsequence\t42\nrelease\t1.0\n";
  TextCases cases = MakeCases(head + "manifest-sha256\t" + kDigest + "\n",
                              {
                                  {kFormat, "", {head}},
                                  {kRelease, "sequence\t", {"Sequence\t", "sequence ", "sequence"}},
                                  {kRelease, "42", {"", "0", "42\t", kTooLargeNumber}},
                                  {kAccepted, "42", {kMaxNumber}},
                                  {kReadAsTheGoodText, "42", {std::string(3'900, '0') + "42"}},
                                  {kRelease, "release\t", {"Release\t", "release ", "release"}},
                                  {kRelease, "1.0", {"", ".1", "1.0\t"}},
                                  {kRelease, "1.0\nmanifest", {".\nManifest"}},
                                  {kRelease, "sequence\t42\nrelease\t1.0", {"release\t1.0\nsequence\t42"}},
                                  {kNoDigest, "manifest-sha256\t", {"Manifest-sha256\t", "manifest-sha256 "}},
                                  {kNoDigest, "f\n", {"\n", "F\n", "f\t\n"}},
                              });
  AddLineCases(cases, 4'096, kEncoding, kFormat, kFormat);
  return cases;
}

TextCases PlanCases(bool has_installed_release) {
  constexpr wchar_t kEncoding[] = L"The update apply plan has an invalid encoding.";
  constexpr wchar_t kHeader[] = L"The update apply plan header is invalid.";
  constexpr wchar_t kNoDigest[] = L"The update apply plan has no manifest digest.";
  constexpr wchar_t kOtherManifest[] = L"The update apply plan targets a different manifest.";
  constexpr wchar_t kRow[] = L"The update apply plan has an invalid file row.";
  constexpr wchar_t kDuplicate[] = L"The update apply plan contains a duplicate file.";
  constexpr wchar_t kUnproven[] = L"The update apply plan cannot prove a managed file removal.";
  constexpr wchar_t kUnsigned[] = L"The update apply plan contains a file outside the signed manifest.";
  constexpr wchar_t kCurrent[] = L"The update apply plan tries to delete a current file.";
  const std::string head = "TALVEX-APPLY-V1\nmanifest-sha256\t" + kDigest + "\n";
  const std::string installs = "file\tTalvex.exe\nfile\tdata/A.pak\n";
  const std::string retires = "delete\told/B.pak\n";
  TextCases cases = MakeCases(
      head + installs + (has_installed_release ? retires : ""),
      {
          {kHeader, "", {head}},
          {kNoDigest, "manifest-sha256\t", {"Manifest-sha256\t", "manifest-sha256 ", "manifest-sha256"}},
          {kNoDigest, "\t" + kDigest, {""}},
          {kOtherManifest, "0123", {"1123", "01230", "012"}},
          {kOtherManifest, "f\nfile", {"e\nfile", "F\nfile", "\nfile", "e\nFile"}},
          {kRow, "file\t", {"File\t", "file ", "file", "delet\t", "\nfile\t"}},
          {kRow, "file\tTalvex.exe", {"file"}},
          {kDuplicate, "data/A.pak", {"Talvex.exe", "tALVEX.EXE"}},
          {kDuplicate, "file\tdata/A.pak", {"delete\ttalvex.exe"}},
          {kUnsigned, "Talvex.exe", {"unknown", "old/B.pak"}},
          {has_installed_release ? kUnsigned : kUnproven, "file\tdata", {"delete\tdata"}},
          {has_installed_release ? kCurrent : kUnproven, "file\tTalvex", {"delete\tTalvex"}},
          {has_installed_release ? kAccepted : kUnproven, "", {head + retires}},
          {kAccepted, "", {head + Rows(1'022, "file\t" + kLongSegment + "/" + kLongSegment + "/#\n")}},
          {kReadAsTheGoodText, "Talvex.exe", {"tALVEX.EXE"}},
      });
  if (has_installed_release) {  // what is written: the paths as their manifests spell them, new files first
    AddChanges(cases, {{kReadAsTheGoodText, "", {head + "delete\tOLD/b.pak\n" + installs}}});
  }
  AddLineCases(cases, 262'144, kEncoding, kHeader, kRow);
  AddPathCases(cases);
  return cases;
}

TextCases PathCases() {
  const std::string long_path = kLongSegment + "/" + kLongSegment + "/123456789012345678";  // 220 bytes
  return MakeCases(
      "data/A.pak",
      {
          {kAccepted, "", {long_path, ".hidden", "a.b.c", "AZ", "az", "09_-", "x.con"}},
          {kAccepted, "", {"com0", "com10", "comA", "lpt", "lpt0", "CONSOLE", "cons.txt"}},
          {kAccepted, "", {"x/talvexupdatestate.dat", "talvexupdatestate.dat2", ".talvex-update2"}},
          {kAccepted, "", {"talvexupdatefailure.dat.new.tmp", ".talvex-update-cache2"}},
          {kUnsafePath, "", {long_path + "9", "", "/a", "a/", "a\\b", "a\tb", "/a b"}},
          {kOutsideAscii, "", {"a b", "a:b", "a@b", "a[b", "a`b", "a{b", "\xC3\xBC", std::string("a\0b", 3)}},
          {kOutsideAscii, "", {"a b/../c"}},
          {kUnsafeSegment, "", {kLongSegment + "s", "a//b", ".", "..", "a/../b", "x/./y", "name.", "..."}},
          {kUnsafeSegment, "", {"con", "prn", "aux", "nul", "com1", "com9", "lpt1", "lpt9"}},
          {kUnsafeSegment, "", {"Nul.tar.gz", "d/COM3.bin", "LpT5/x", ".talvex-update/.."}},
          {kUpdaterState, "", {"TalvexUpdateState.dat", "talvexupdatestate.dat.new.tmp"}},
          {kUpdaterState, "", {"TalvexUpdateFailure.dat", "talvexupdatefailure.dat.new"}},
          {kUpdaterState, "", {".TALVEX-UPDATE", ".talvex-update/x", ".talvex-update-cache"}},
          {kUpdaterState, "", {".talvex-update-cache/manifest.txt"}},
      });
}

TextCases DecimalCases() {
  return MakeCases("42",
                   {
                       {kAccepted, "", {"0", "9", "4294967296", kMaxNumber}},
                       {kReadAsTheGoodText, "", {"042", std::string(500, '0') + "42"}},
                       {kRefused, "", {"", "-1", "+1", " 1", "1 ", "1/", "1:", "0x10"}},
                       {kRefused, "", {kTooLargeNumber, "18446744073709551620", "99999999999999999999"}},
                       {kRefused, "", {"\xB1", "\xEF\xBC\x91"}},
                   });
}

TextCases DigestCases() {
  return MakeCases(kDigest, {
                                {kRefused, "", {"", kDigest.substr(1), kDigest + "0", kDigest + "\n"}},
                                {kRefused, "01", {"A1", "0F", "g1", "0g", "/1", "0:", "`1", "0\xB1"}},
                            });
}

}  // namespace talvex::test

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/manifest_signature.h"
#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "core/update_error.h"
#include "core/whole_file.h"
#include "tests/support/scratch_directory.h"

namespace talvex::test {
namespace {

constexpr char kEmptyDigest[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::span<const std::byte> Bytes(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

std::string Hex(const Sha256Digest& digest) {
  return WideToUtf8(DigestToHex(digest));
}

TEST(UpdateErrorText, FoldsTheWindowsCodeIn) {
  UpdateError error;
  SetWindowsError(error, L"Could not open file", ERROR_ACCESS_DENIED);
  EXPECT_TRUE(error.Message().starts_with(L"Could not open file: "));
  EXPECT_GT(error.Message().size(), std::wstring(L"Could not open file: ").size());
  EXPECT_EQ(error.Message().find_first_of(L"\r\n"), std::wstring::npos);
  SetWindowsError(error, L"It failed", 1234567);
  EXPECT_EQ(error.Message(), L"It failed: Windows error 1234567");
  SetWindowsError(error, L"It failed", 4294967295);
  EXPECT_EQ(error.Message(), L"It failed: Windows error 4294967295");
}

TEST(TextEncoding, IsStrictInBothDirections) {
  EXPECT_EQ(Utf8ToWide("a\xC3\xBC\xF0\x9F\x8E\xAE"), L"a\u00FC\xD83C\xDFAE");
  EXPECT_EQ(Utf8ToWide(std::string_view("a\0b", 3)), std::wstring(L"a\0b", 3));
  for (const char* invalid : {"\xC0\xAF", "\xED\xA0\x80", "\xE2\x82", "ok\xFF", "\xF4\x90\x80\x80"}) {
    EXPECT_EQ(Utf8ToWide(invalid), L"") << invalid;
  }
  EXPECT_EQ(WideToUtf8(L"\u00FC\xD83C\xDFAE"), "\xC3\xBC\xF0\x9F\x8E\xAE");
  EXPECT_EQ(WideToUtf8(L"a\xD83C"), "");
  EXPECT_EQ(Utf8ToWide(""), L"");
  EXPECT_EQ(WideToUtf8(L""), "");
}

TEST(TextEncoding, DigestsHaveOneSpelling) {
  Sha256Digest digest;
  ASSERT_TRUE(ParseHexDigest(kEmptyDigest, digest));
  EXPECT_EQ(Hex(digest), kEmptyDigest);
  const std::string text = kEmptyDigest;
  for (const std::string& other : {"E" + text.substr(1), text.substr(1), text + "0", "g" + text.substr(1),
                                   " " + text.substr(1), std::string()}) {
    EXPECT_FALSE(ParseHexDigest(other, digest)) << other;
    EXPECT_EQ(Hex(digest), std::string(64, '0'));
  }
}

TEST(TextEncoding, DecimalsEndAtSixtyFourBits) {
  struct {
    const char* text;
    bool valid;
    std::uint64_t value;
  } const cases[] = {
      {"18446744073709551615", true, 18446744073709551615u},
      {"18446744073709551616", false, 0},
      {"99999999999999999999", false, 0},
      {"007", true, 7},
      {"0", true, 0},
      {"", false, 0},
      {"+1", false, 0},
      {"-1", false, 0},
      {"1 ", false, 0},
      {"0x10", false, 0},
  };
  for (const auto& c : cases) {
    std::uint64_t value = 99;
    EXPECT_EQ(ParseDecimalU64(std::string_view(c.text), value), c.valid) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  }
}

TEST(OwnedHandles, CloseOnceAndKeepTheLastError) {
  const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  DWORD flags = 0;
  {
    OwnedHandle first(event);
    OwnedHandle second(std::move(first));
    EXPECT_FALSE(first.IsValid());
    EXPECT_TRUE(GetHandleInformation(event, &flags));
    SetLastError(1234);
  }
  EXPECT_EQ(GetLastError(), 1234u);
  EXPECT_FALSE(GetHandleInformation(event, &flags));
}

constexpr wchar_t kNotRegular[] = L"The file is too large or is not a regular file.";

class WholeFiles : public testing::Test {
 protected:
  ScratchDirectory scratch_;
  std::wstring path_ = scratch_ / L"file.bin";
  ByteBuffer bytes_ = ByteBuffer(3);
  UpdateError error_;
};

TEST_F(WholeFiles, ReadUpToTheirLimit) {
  WriteTestFile(path_, std::string(2'500'000, 'x'));
  EXPECT_TRUE(ReadWholeFile(path_, 2'500'000, bytes_, error_));
  EXPECT_EQ(bytes_, ByteBuffer(2'500'000, std::byte{'x'}));
  EXPECT_FALSE(ReadWholeFile(path_, 2'499'999, bytes_, error_));
  EXPECT_EQ(error_.Message(), kNotRegular);
  EXPECT_TRUE(bytes_.empty());
  WriteTestFile(path_, "");
  EXPECT_TRUE(ReadWholeFile(path_, 0, bytes_, error_));
}

TEST_F(WholeFiles, RefuseWhatIsNotAPlainFileWithOneLink) {
  WriteTestFile(path_, "contents");
  ASSERT_TRUE(CreateHardLinkW((scratch_ / L"link").c_str(), path_.c_str(), nullptr));
  EXPECT_FALSE(ReadWholeFile(path_, 100, bytes_, error_));
  EXPECT_EQ(error_.Message(), kNotRegular);
  EXPECT_FALSE(ReadWholeFile(scratch_.Path(), 100, bytes_, error_));
  EXPECT_TRUE(error_.Message().starts_with(L"Could not open file: "));
  MakeSparseFile(scratch_ / L"huge", 0x1'0000'0000);
  EXPECT_FALSE(ReadWholeFile(scratch_ / L"huge", 0xFFFFFFFF, bytes_, error_));
  EXPECT_EQ(error_.Message(), kNotRegular);
}

TEST_F(WholeFiles, AreNeverOverwrittenByWriteNewFile) {
  EXPECT_TRUE(WriteNewFile(path_, Bytes("first"), error_));
  EXPECT_FALSE(WriteNewFile(path_, Bytes("second"), error_));
  EXPECT_TRUE(error_.Message().starts_with(L"Could not create file: ")) << WideToUtf8(error_.Message());
  EXPECT_EQ(ReadTestFile(path_), "first");
  EXPECT_TRUE(WriteNewFile(scratch_ / L"empty", {}, error_));
  EXPECT_EQ(ReadTree(scratch_.Path()).size(), 2u);
}

TEST_F(WholeFiles, AreReplacedWholeOrNotAtAll) {
  const std::wstring temporary = path_ + L".new";
  WriteTestFile(path_, "old");
  WriteTestFile(temporary, "left by a crash");
  const auto replace = [&](MoveFailureText form) {
    return ReplaceWholeFile(path_, temporary, Bytes("new"), L"Could not save it", form, error_);
  };
  EXPECT_TRUE(replace(MoveFailureText::kSentence));
  EXPECT_EQ(ReadTree(scratch_.Path()), (Tree{{L"file.bin", "new"}}));

  const OwnedHandle holder(CreateFileW(path_.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(replace(MoveFailureText::kSentence));
  EXPECT_EQ(error_.Message(), L"Could not save it");
  EXPECT_FALSE(replace(MoveFailureText::kPrefixOfWindowsText));
  EXPECT_TRUE(error_.Message().starts_with(L"Could not save it: "));
  EXPECT_FALSE(ReadTree(scratch_.Path()).contains(L"file.bin.new"));
}

TEST(Sha256, MatchesKnownDigestsAndReportsEachPiece) {
  Sha256Digest digest;
  UpdateError error;
  EXPECT_TRUE(Sha256OfBuffer({}, digest, error));
  EXPECT_EQ(Hex(digest), kEmptyDigest);
  EXPECT_TRUE(Sha256OfBuffer(Bytes("abc"), digest, error));
  EXPECT_EQ(Hex(digest), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  ScratchDirectory scratch;
  const std::wstring path = scratch / L"file";
  WriteTestFile(path, std::string(3'000'000, 'a'));
  std::uint64_t size = 0;
  std::vector<std::uint64_t> reports;
  const auto report = [](std::uint64_t done, void* context) {
    static_cast<std::vector<std::uint64_t>*>(context)->push_back(done);
  };
  EXPECT_TRUE(Sha256OfFile(path, 3'000'000, digest, size, error, report, &reports));
  EXPECT_EQ(Hex(digest), "2a152c894398719c0570f83fac34ac03a0f6e8e474b995c2403aa5434f7b9dd4");
  EXPECT_EQ(size, 3'000'000u);
  EXPECT_EQ(reports, (std::vector<std::uint64_t>{1'048'576, 2'097'152, 3'000'000}));

  EXPECT_FALSE(Sha256OfFile(path, 2'999'999, digest, size, error));
  EXPECT_EQ(error.Message(), L"The update target is too large or is not a regular file.");
  EXPECT_EQ(size, 0u);
  EXPECT_FALSE(Sha256OfFile(scratch / L"absent", 1, digest, size, error));
  EXPECT_TRUE(error.Message().starts_with(L"Could not open file for hashing: "));
}

// Sizes on both sides of where 31 and 32 bits end.
TEST(Sha256, CountsFilesOfGigabytesRight) {
  ScratchDirectory scratch;
  const std::wstring path = scratch / L"huge";
  Sha256Digest digest;
  UpdateError error;
  for (const std::uint64_t edge : {0x8000'0000u - 1ull, 0x8000'0000ull, 0x1'0000'0000ull - 1}) {
    MakeSparseFile(path, edge + 1);
    std::uint64_t size = 0;
    EXPECT_FALSE(Sha256OfFile(path, edge, digest, size, error));
    EXPECT_EQ(error.Message(), L"The update target is too large or is not a regular file.") << edge;
  }
  MakeSparseFile(path, 0x1'0000'0001);
  std::uint64_t size = 0;
  std::uint64_t last_report = 0;
  const auto report = [](std::uint64_t done, void* context) { *static_cast<std::uint64_t*>(context) = done; };
  EXPECT_TRUE(Sha256OfFile(path, 0x1'0000'0001, digest, size, error, report, &last_report));
  EXPECT_EQ(Hex(digest), "fbb82f7b353676bb562eb82157fcf0ea42c36492ca13ee56dbf82c08b6802c5c");
  EXPECT_EQ(size, 0x1'0000'0001u);
  EXPECT_EQ(last_report, size);
}

// Signatures that openssl made over fixtures/message.txt with the development key.
std::string Fixture(const std::string& name) {
  return ReadTestFile(L"fixtures\\" + std::wstring(name.begin(), name.end()));
}

std::wstring VerifyMessage(std::string_view message, std::string_view signature,
                           std::span<const std::byte> key = PublisherKeyBlob()) {
  UpdateError error;
  const bool valid = VerifyManifestSignature(Bytes(message), Bytes(signature), key, error);
  EXPECT_EQ(valid, error.IsEmpty());
  return error.Message();
}

TEST(ManifestSignature, IsPkcs1WithSha256AndNothingElse) {
  const std::string message = Fixture("message.txt");
  const std::string good = Fixture("pkcs1-sha256.sig");
  ASSERT_EQ(good.size(), 384u);
  EXPECT_EQ(VerifyMessage(message, good), L"");
  constexpr wchar_t kInvalid[] = L"The update manifest signature is invalid.";
  for (const char* other : {"pss-sha256.sig", "pkcs1-sha1.sig", "pkcs1-sha512.sig", "other-key.sig"}) {
    ASSERT_EQ(Fixture(other).size(), 384u) << other;
    EXPECT_EQ(VerifyMessage(message, Fixture(other)), kInvalid) << other;
  }
  for (std::size_t i = 0; i < message.size(); ++i) {
    std::string changed = message;
    changed[i] ^= 1;
    EXPECT_EQ(VerifyMessage(changed, good), kInvalid) << i;
  }
  constexpr wchar_t kNotRsa3072[] = L"The update key or signature does not use RSA-3072.";
  EXPECT_EQ(VerifyMessage(message, good.substr(1)), kNotRsa3072);
  EXPECT_EQ(VerifyMessage(message, good + "x"), kNotRsa3072);

  const auto blob = PublisherKeyBlob();
  ASSERT_EQ(blob.size(), 411u);
  EXPECT_EQ(VerifyMessage(message, good, blob.first(23)), L"The embedded update public key is invalid.");
  EXPECT_EQ(VerifyMessage(message, good, blob.first(410)), kNotRsa3072);
  for (std::size_t i = 0; i < 24; ++i) {
    ByteBuffer changed(blob.begin(), blob.end());
    changed[i] ^= std::byte{1};
    EXPECT_EQ(VerifyMessage(message, good, changed), kNotRsa3072) << "header byte " << i;
  }
}

}  // namespace
}  // namespace talvex::test

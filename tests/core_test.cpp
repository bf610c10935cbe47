// What everything else rests on: messages, text forms, handles, whole files, digests and signatures.

#include <gtest/gtest.h>

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/manifest_signature.h"
#include "core/owned_handle.h"
#include "core/publisher_key.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "core/update_error.h"
#include "core/whole_file.h"
#include "formats/text_lines.h"
#include "tests/support/scratch_directory.h"

namespace talvex::test {
namespace {

TEST(UpdateErrorText, FoldsTheWindowsCodeIn) {
  UpdateError error;
  SetWindowsError(error, L"It failed", ERROR_ACCESS_DENIED);
  EXPECT_TRUE(error.Message().starts_with(L"It failed: "));
  EXPECT_EQ(error.Message().find_first_of(L"\r\n"), std::wstring::npos);
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
}

TEST(OwnedHandles, KeepTheLastErrorEvenWhenTheyCannotBeClosed) {
  OwnedHandle owner(reinterpret_cast<HANDLE>(std::uintptr_t{0x00ABCDE0}));  // not a handle of anything
  SetLastError(1234);
  owner.Reset();
  EXPECT_EQ(GetLastError(), 1234u);
}

class Files : public testing::Test {
 protected:
  ScratchDirectory scratch_;
  std::wstring path_ = scratch_ / L"file.bin";
  UpdateError error_;
};

TEST_F(Files, AreWrittenOnceAndReadUpToTheirLimit) {
  ByteBuffer bytes(3);
  EXPECT_FALSE(ReadWholeFile(path_, 2'500'000, bytes, error_));
  EXPECT_TRUE(error_.Message().starts_with(L"Could not open file: ")) << WideToUtf8(error_.Message());
  ByteBuffer contents(2'500'000, std::byte{'x'});
  contents.back() = std::byte{'y'};
  EXPECT_TRUE(WriteNewFile(path_, contents, error_));
  EXPECT_FALSE(WriteNewFile(path_, AsBytes("second"), error_));
  EXPECT_TRUE(error_.Message().starts_with(L"Could not create file: ")) << WideToUtf8(error_.Message());
  EXPECT_TRUE(ReadWholeFile(path_, 2'500'000, bytes, error_));
  EXPECT_TRUE(bytes == contents);
  EXPECT_FALSE(ReadWholeFile(path_, 2'499'999, bytes, error_));
  EXPECT_EQ(error_.Message(), L"The file is too large or is not a regular file.");
  EXPECT_TRUE(bytes.empty());
  ASSERT_TRUE(CreateHardLinkW((scratch_ / L"link").c_str(), path_.c_str(), nullptr));
  EXPECT_FALSE(ReadWholeFile(path_, 2'500'000, bytes, error_));
  EXPECT_TRUE(WriteNewFile(scratch_ / L"empty", {}, error_));
  EXPECT_TRUE(ReadWholeFile(scratch_ / L"empty", 0, bytes, error_));
}

TEST_F(Files, AreReplacedWholeOrNotAtAll) {
  const std::wstring temporary = path_ + L".new";
  WriteTestFile(path_, "old");
  WriteTestFile(temporary, "left by a crash");
  const auto replace = [&](MoveFailureText form) {
    return ReplaceWholeFile(path_, temporary, AsBytes("new"), L"Could not save it", form, error_);
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

// Sizes on both sides of where 31 and 32 bits end.
TEST_F(Files, HaveTheirDigestsUpToGigabytes) {
  Sha256Digest digest;
  std::uint64_t size = 1;
  for (const std::uint64_t edge : {0x8000'0000u - 1ull, 0x8000'0000ull, 0x1'0000'0000ull - 1}) {
    MakeSparseFile(path_, edge + 1);
    EXPECT_FALSE(Sha256OfFile(path_, edge, digest, size, error_));
    EXPECT_EQ(error_.Message(), L"The update target is too large or is not a regular file.") << edge;
    EXPECT_EQ(size, 0u);
  }
  MakeSparseFile(path_, 0x1'0000'0001);
  std::vector<std::uint64_t> reports;
  const auto report = [](std::uint64_t done, void* context) {
    static_cast<std::vector<std::uint64_t>*>(context)->push_back(done);
  };
  EXPECT_TRUE(Sha256OfFile(path_, 0x1'0000'0001, digest, size, error_, report, &reports));
  EXPECT_EQ(DigestToHex(digest), L"fbb82f7b353676bb562eb82157fcf0ea42c36492ca13ee56dbf82c08b6802c5c");
  EXPECT_EQ(size, 0x1'0000'0001u);
  ASSERT_EQ(reports.size(), 4097u);  // a piece is 1 MiB
  EXPECT_EQ(reports.back(), size);
}

// Of what openssl has signed with the development key (tests/CMakeLists.txt).
std::string Fixture(const std::string& name) {
  return ReadTestFile(L"fixtures\\" + std::wstring(name.begin(), name.end()));
}

std::wstring VerifyMessage(std::string_view message, std::string_view signature,
                           std::span<const std::byte> key = PublisherKeyBlob()) {
  UpdateError error;
  const bool valid = VerifyManifestSignature(AsBytes(message), AsBytes(signature), key, error);
  EXPECT_EQ(valid, error.IsEmpty());
  return error.Message();
}

TEST(ManifestSignature, IsPkcs1WithSha256AndNothingElse) {
  constexpr wchar_t kInvalid[] = L"The update manifest signature is invalid.";
  constexpr wchar_t kNotRsa3072[] = L"The update key or signature does not use RSA-3072.";
  const std::string message = Fixture("message.txt");
  const std::string good = Fixture("pkcs1-sha256.sig");
  EXPECT_EQ(VerifyMessage(message, good), L"");
  for (const char* other : {"pss-sha256.sig", "pkcs1-sha1.sig", "pkcs1-sha512.sig", "other-key.sig"}) {
    EXPECT_EQ(VerifyMessage(message, Fixture(other)), kInvalid) << other;
  }
  EXPECT_EQ(VerifyMessage(message + "x", good), kInvalid);
  EXPECT_EQ(VerifyMessage(message, good.substr(1)), kNotRsa3072);
  EXPECT_EQ(VerifyMessage(message, good + "x"), kNotRsa3072);

  const auto blob = PublisherKeyBlob();
  EXPECT_EQ(VerifyMessage(message, good, blob.first(23)), L"The embedded update public key is invalid.");
  EXPECT_EQ(VerifyMessage(message, good, blob.first(24)), kNotRsa3072);
  for (std::size_t i = 0; i < 24; ++i) {
    ByteBuffer changed(blob.begin(), blob.end());
    changed[i] ^= std::byte{1};
    EXPECT_EQ(VerifyMessage(message, good, changed), kNotRsa3072) << "header byte " << i;
  }
}

}  // namespace
}  // namespace talvex::test

#include <windows.h>

#include <string>

#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "core/whole_file.h"
#include "formats/text_lines.h"
#include "publisher/commands.h"
#include "storage/client_root.h"

namespace talvex {
namespace {

constexpr wchar_t kPemName[] = L"publisher_key.pem";
constexpr wchar_t kHeaderName[] = L"publisher_key.h";
constexpr std::size_t kBytesPerLine = 12;

constexpr wchar_t kNoDirectory[] = L"does not exist. Make this directory first.";
constexpr wchar_t kExists[] = L"exists already. Name another directory, or delete it first.";

// A header for C and C++.
std::string FormatHeader(const PublicKey& key) {
  std::string text =
      "/* The publisher's public key, as the RSA public key blob of Windows' cryptography API (CNG). */\n"
      "#pragma once\n\n"
      "static const unsigned char kTalvexPublisherKey[" +
      std::to_string(key.blob.size()) + "] = {";
  for (std::size_t i = 0; i < key.blob.size(); ++i) {
    const auto byte = std::to_integer<unsigned>(key.blob[i]);
    text += i % kBytesPerLine == 0 ? "\n    0x" : " 0x";
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 0xF];
    text += ',';
  }
  return text + "\n};\n";
}

bool WriteBoth(const PublicKey& key, const std::wstring& pem, const std::wstring& header,
               UpdateError& error) {
  if (!WriteNewFile(pem, AsBytes(FormatPem(key)), error)) {
    return false;
  }
  if (!WriteNewFile(header, AsBytes(FormatHeader(key)), error)) {
    DeleteTemporaryFile(pem);  // one without the other is no output
    return false;
  }
  return true;
}

}  // namespace

int ExportKey(const KeyOptions& options) {
  const CommonOptions common;
  Findings findings;
  UpdateError error;
  PublicKey key;
  const std::wstring out = ResolveClientRoot(options.out, error);
  if (out.empty() || !LoadKey(options.key, key, findings)) {
    if (!error.IsEmpty()) {
      findings.AddError(options.out, error.Message());
    }
    return Conclude(common, findings, {});
  }
  if (!MayExist(out)) {
    findings.AddError(options.out, kNoDirectory);
  }
  const std::wstring pem = JoinPath(out, kPemName);
  const std::wstring header = JoinPath(out, kHeaderName);
  for (const std::wstring& path : {pem, header}) {
    if (MayExist(path)) {
      findings.AddError(path, kExists);
    }
  }
  if (findings.Pass(false) && !WriteBoth(key, pem, header, error)) {
    findings.AddError(options.out, error.Message());
  }
  return Conclude(common, findings,
                  L"Made " + pem + L" and " + header + L"\nblob-sha256 " + FingerprintOf(key.blob));
}

}  // namespace talvex

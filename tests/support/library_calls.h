#pragma once

// A client directory, and the update library in this process working on it.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

#include "client/talvex_update.h"
#include "core/publisher_key.h"
#include "core/text_encoding.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/test_release.h"

namespace talvex::test {

inline const TestRelease kOld = {"1.0",
                                 1,
                                 {{"Talvex.exe", "client 1"},
                                  {"TalvexUpdateHelper.exe", "helper"},
                                  {"Data/a.bin", "old a"},
                                  {"Data/gone.bin", "retired"}}};
inline const TestRelease kNew = {"2.0",
                                 2,
                                 {{"Talvex.exe", "client 2"},
                                  {"TalvexUpdateHelper.exe", "helper"},
                                  {"Data/a.bin", "a is new"},
                                  {"Data/b.bin", "b"}}};

// A client directory with the old release, and calls to the library.
class Library {
 public:
  Library() {
    InstallTestRelease(kOld, root);
    other_key = ReadTestFile(L"fixtures\\other-key\\public.pem");
    options.struct_size = sizeof(options);
    options.client_directory = root.c_str();
    options.keys = keys;
    options.key_count = 2;
    options.context = this;
    options.log = [](void* self, const wchar_t* line) {
      static_cast<Library*>(self)->log += WideToUtf8(line) + "\n";
    };
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { talvex_close(client); }

  // Opens and settles; what to do then, or the failure.
  std::int32_t Start() {
    talvex_close(client);
    log.clear();
    std::int32_t start = 0;
    const talvex_result result = talvex_open(&options, &client);
    return result != TALVEX_OK ? result : talvex_settle(client, &start) != TALVEX_OK ? LastCode() : start;
  }
  talvex_result Check(const TestRelease& release) {
    const std::string manifest = release.ManifestText();
    const std::string signature = release.Signature();
    return talvex_check(client, manifest.data(), manifest.size(), signature.data(), signature.size(),
                        nullptr);
  }
  // The missing files as "path present/size", each downloaded up to `bytes`.
  std::string Download(const TestRelease& release, std::size_t bytes = std::string::npos) {
    std::string listed;
    talvex_file file = {};
    file.struct_size = sizeof(file);
    talvex_result result = TALVEX_OK;
    while ((result = talvex_next_file(client, &file)) == TALVEX_OK) {
      const std::string path = WideToUtf8(file.path);
      listed += path + " " + std::to_string(file.present) + "/" + std::to_string(file.size) + "\n";
      const auto present = static_cast<std::size_t>(file.present);
      const std::string arrived = ReadTestFile(file.destination).substr(0, present);
      WriteTestFile(file.destination, arrived + release.files.at(path).substr(present, bytes));
    }
    EXPECT_EQ(result, TALVEX_DONE) << LastSentence();
    return listed;
  }
  // From the offer to the plan.
  talvex_result StageUpdate(const TestRelease& release) {
    EXPECT_EQ(Check(release), TALVEX_OK) << LastSentence();
    Download(release);
    return talvex_stage(client);
  }
  std::string Plan(const TestRelease& release) const {
    return ReadTestFile(
        At(L".talvex-update\\" + Utf8ToWide(HexDigestOf(release.ManifestText())) + L"\\apply.plan"));
  }

  talvex_result LastCode() const { return talvex_last_error(client, nullptr, 0); }
  std::string LastSentence() const {
    wchar_t sentence[300];
    talvex_last_error(client, sentence, std::size(sentence));
    return WideToUtf8(sentence);
  }
  std::wstring At(const std::wstring& relative) const { return root + L"\\" + relative; }

  ScratchDirectory scratch;
  std::wstring root = scratch / L"client";
  std::string other_key;
  std::string development_key = ReadTestFile(L"development-key\\public.pem");
  talvex_key keys[2] = {{PublisherKeyBlob().data(), PublisherKeyBlob().size()},
                        {development_key.c_str(), development_key.size() + 1}};
  talvex_options options = {};
  talvex_client* client = nullptr;
  std::string log;
};

}  // namespace talvex::test

#include "tests/proof/small_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "app/rollback_mode.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "tests/support/helper_run.h"

namespace talvex::test {
namespace {

constexpr std::wstring_view kWork = L".talvex-update\\";

HANDLE Duplicate(HANDLE handle) {
  HANDLE copy = nullptr;
  EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, TRUE,
                              DUPLICATE_SAME_ACCESS));
  return copy;
}

bool IsUpdatersOwn(std::wstring_view path) {
  return path.starts_with(L"TalvexUpdateState.dat") || path.starts_with(kFailureMark) ||
         path.starts_with(L".talvex-update-cache\\");
}

// What a run that died while it wrote one of the updater's own files leaves of it. Nothing ever reads it.
bool IsLeftOver(std::wstring_view path) {
  return IsUpdatersOwn(path) && (path.ends_with(L".new") || path.find(L".new-") != std::wstring::npos);
}

// Where the previous version of a client file is kept from the moment on at which it leaves its place.
std::wstring CopyOf(const std::wstring& path) {
  return L".talvex-update\\previous\\" + std::wstring(IsUpdatersOwn(path) ? L"old-install\\" : L"files\\") +
         path;
}

}  // namespace

SmallClient::SmallClient(TestRelease old, TestRelease next, const std::wstring& existing_root)
    : root(existing_root.empty() ? scratch / L"client" : existing_root), lock_(MakeInheritableMutex()) {
  settings.program = JoinPath(ParentOfRelativePath(root), L"TalvexUpdateHelper.exe");
  settings.after_change = [this](const RunRecord& record) { return WhatIsWrong(record); };
  Offer(std::move(old), std::move(next));
  if (existing_root.empty()) {
    InstallTestRelease(old_release, root);
    WriteTestFile(settings.program, old_release.files.at("TalvexUpdateHelper.exe"));
  }
}

void SmallClient::Offer(TestRelease old, TestRelease next) {
  old_release = std::move(old);
  new_release = std::move(next);
  plan_ = {};
  for (const auto& [path, contents] : new_release.files) {
    const auto before = old_release.files.find(path);
    if (before == old_release.files.end() || before->second != contents) {
      plan_.install.push_back(path);
    }
  }
  for (const auto& [path, contents] : old_release.files) {
    if (!new_release.files.contains(path)) {
      plan_.retire.push_back(path);
    }
  }
  old_files = old_release.Installed();
  new_files = new_release.Installed();
  journal_head_ = "TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + HexDigestOf(new_release.ManifestText()) + "\n";
}

RunRecord SmallClient::Apply(const FaultPoint& fault, const Mode& mode) {
  const std::wstring digest = Utf8ToWide(HexDigestOf(new_release.ManifestText()));
  const std::wstring plan_digest = Utf8ToWide(HexDigestOf(PlanText(new_release, plan_)));
  return Run(mode,
             {L"helper", L"--apply-plan", root, JoinPath(JoinPath(root, kWork), digest), L"", digest,
              plan_digest, L""},
             4, fault);
}

RunRecord SmallClient::Rollback(const FaultPoint& fault) {
  return Run(RunRollbackMode, {L"helper", L"--rollback-journal", root, L"", L""}, 3, fault);
}

RunRecord SmallClient::Run(const Mode& mode, std::vector<std::wstring> arguments, std::size_t parent_place,
                           const FaultPoint& fault) {
  const HANDLE parent = MakeInheritableEvent(true).Release();
  const HANDLE lock = Duplicate(lock_.Get());
  settings.handed_over = {parent, lock};
  arguments[parent_place] = HandleText(parent);
  arguments.back() = HandleText(lock);
  for (const auto& [place, text] : wrong_arguments) {
    arguments[place] = text;
  }
  std::vector<const wchar_t*> pointers;
  for (const std::wstring& argument : arguments) {
    pointers.push_back(argument.c_str());
  }
  RunRecord record =
      RunWithFault([&] { return mode(static_cast<int>(pointers.size()), pointers.data()); }, fault, settings);
  // Free again, and abandoned only by the dead, or when giving it back was what failed.
  const DWORD lock_state = WaitForSingleObject(lock_.Get(), 0);
  const bool may_abandon = record.died || std::ranges::any_of(record.calls, [](const ApiCall& call) {
                             return call.name == "ReleaseMutex" && call.made_to_fail;
                           });
  if (lock_state != WAIT_OBJECT_0 && !(lock_state == WAIT_ABANDONED && may_abandon)) {
    record.violations += "the lock was not given back\n";
  }
  ReleaseMutex(lock_.Get());
  return record;
}

// The order that the journal promises, looked at after every change that a run makes.
std::string SmallClient::WhatIsWrong(const RunRecord& record) const {
  const ApiCall& call = record.calls.back();
  for (const std::wstring& text : call.texts) {
    // The source of a copy stays as it is.
    if (!text.starts_with(root + L"\\") || (call.name == "CopyFileW" && text == call.texts[0])) {
      continue;
    }
    const std::wstring path = text.substr(root.size() + 1);
    // (An update takes a file back to its stage that it could not flush.)
    if (call.name == "MoveFileExW" && path.find(L".new") != std::wstring::npos &&
        record.unflushed.contains(text)) {
      return "put in place before it was flushed: " + WideToUtf8(path) + "\n";
    }
    if (!path.starts_with(kWork) && call.name != "CreateDirectoryW" && call.name != "RemoveDirectoryW") {
      const std::string journal = ReadTestFile(JoinPath(root, kJournal));
      std::string row = "\t" + WideToUtf8(path) + "\n";
      std::ranges::replace(row, '\\', '/');
      const bool is_named = IsUpdatersOwn(path) || journal.find(row) != std::string::npos;
      if (!journal.starts_with(journal_head_) || !is_named) {
        return "changed before a journal named it: " + WideToUtf8(path) + "\n";
      }
    }
    for (const auto& [own, contents] : old_files) {
      const std::wstring copy = CopyOf(own);
      if ((path == own || path == copy) && ReadTestFile(JoinPath(root, own)) != contents &&
          ReadTestFile(JoinPath(root, copy)) != contents) {
        return "neither in its place nor among the copies: " + WideToUtf8(own) + "\n";
      }
    }
  }
  return {};
}

void SmallClient::Become(const Tree& tree) const {
  RemoveTestTree(root);
  for (const auto& [path, contents] : tree) {
    if (path.back() == L'\\') {
      MakeTestDirectory(JoinPath(root, path.substr(0, path.size() - 1)));
    } else {
      WriteTestFile(JoinPath(root, path), contents);
    }
  }
}

Tree SmallClient::ClientFiles(Tree tree) {
  std::erase_if(tree, [](const auto& item) {
    return item.first.back() == L'\\' || item.first.starts_with(kWork) || IsLeftOver(item.first);
  });
  return tree;
}

Tree SmallClient::Marked(Tree files) const {
  files[kFailureMark] = HexDigestOf(new_release.ManifestText()) + "\n";
  return files;
}

bool SmallClient::HasOwnJournal(const Tree& tree) const {
  const auto journal = tree.find(kJournal);
  return journal != tree.end() && journal->second.starts_with(journal_head_);
}

}  // namespace talvex::test

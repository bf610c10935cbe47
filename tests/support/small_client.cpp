#include "tests/support/small_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "app/rollback_mode.h"
#include "apply/apply_transaction.h"
#include "core/regular_file.h"
#include "core/text_encoding.h"
#include "storage/client_root.h"
#include "tests/support/helper_run.h"

namespace talvex::test {
namespace {

constexpr std::wstring_view kWork = L".talvex-update\\";
constexpr std::wstring_view kPrevious = L".talvex-update\\previous\\";
constexpr std::wstring_view kJournal = L".talvex-update\\previous\\rollback.journal";

std::wstring WidePath(const std::string& path) {
  std::wstring wide = Utf8ToWide(path);
  std::ranges::replace(wide, L'/', L'\\');
  return wide;
}

std::string NarrowPath(const std::wstring& path) {
  std::string narrow = WideToUtf8(path);
  std::ranges::replace(narrow, '\\', '/');
  return narrow;
}

OwnedHandle Duplicate(const OwnedHandle& handle) {
  HANDLE copy = nullptr;
  EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), handle.Get(), GetCurrentProcess(), &copy, 0, TRUE,
                              DUPLICATE_SAME_ACCESS));
  return OwnedHandle(copy);
}

bool IsUpdatersOwn(const std::wstring& path) {
  return path.starts_with(L"TalvexUpdateState.dat") || path.starts_with(L"TalvexUpdateFailure.dat") ||
         path.starts_with(L".talvex-update-cache\\");
}

// What a run that died while it wrote a small file leaves of it. Nothing ever reads it.
bool IsLeftOver(const std::wstring& path) {
  return path.starts_with(L"TalvexUpdateState.dat.new-") || path == L"TalvexUpdateFailure.dat.new" ||
         path == L".talvex-update-cache\\manifest.txt.new" ||
         path == L".talvex-update-cache\\manifest.sig.new";
}

// Where the previous version of a client file is kept from the moment on at which it leaves its place.
std::wstring CopyOf(const std::wstring& path) {
  return std::wstring(kPrevious) + (IsUpdatersOwn(path) ? L"old-install\\" : L"files\\") + path;
}

}  // namespace

SmallClient::SmallClient(TestRelease old, TestRelease next)
    : SmallClient(std::wstring(), std::move(old), std::move(next)) {
  InstallTestRelease(old_release, root);
  WriteTestFile(settings.program, new_release.files.at("TalvexUpdateHelper.exe"));
}

SmallClient::SmallClient(std::wstring existing_root, TestRelease old, TestRelease next)
    : root(existing_root.empty() ? scratch / L"client" : std::move(existing_root)),
      lock_(MakeInheritableMutex()) {
  settings.program = JoinPath(ParentOfRelativePath(root), L"TalvexUpdateHelper.exe");
  settings.after_change = [this](const RunRecord& record) { return WhatIsWrong(record); };
  Offer(std::move(old), std::move(next));
}

void SmallClient::Offer(TestRelease old, TestRelease next) {
  old_release = std::move(old);
  new_release = std::move(next);
  plan = {};
  for (const auto& [path, contents] : new_release.files) {
    if (const auto found = old_release.files.find(path);
        found == old_release.files.end() || found->second != contents) {
      plan.install.push_back(path);
    }
  }
  for (const auto& [path, contents] : old_release.files) {
    if (!new_release.files.contains(path)) {
      plan.retire.push_back(path);
    }
  }
  old_files = Installed(old_release);
  new_files = Installed(new_release);
  journal_head_ = "TALVEX-ROLLBACK-V1\nmanifest-sha256\t" + HexDigestOf(new_release.ManifestText()) + "\n";
  stage_.clear();
  const std::wstring stage = std::wstring(kWork) + Utf8ToWide(HexDigestOf(new_release.ManifestText()));
  stage_[stage + L"\\manifest.txt"] = new_release.ManifestText();
  stage_[stage + L"\\manifest.sig"] = new_files.at(L".talvex-update-cache\\manifest.sig");
  stage_[stage + L"\\apply.plan"] = PlanText(new_release, plan);
  for (const std::string& path : plan.install) {
    stage_[stage + L"\\files\\" + WidePath(path)] = new_release.files.at(path);
  }
}

void SmallClient::StageAgain() const {
  for (const auto& [path, contents] : stage_) {
    if (!MayExist(JoinPath(root, path))) {
      WriteTestFile(JoinPath(root, path), contents);
    }
  }
}

RunRecord SmallClient::Apply(const FaultPoint& fault) {
  const std::string digest = HexDigestOf(new_release.ManifestText());
  return Run(RunApplyTransaction,
             {L"helper", L"--apply-plan", root, JoinPath(JoinPath(root, kWork), Utf8ToWide(digest)), L"",
              Utf8ToWide(digest), Utf8ToWide(HexDigestOf(PlanText(new_release, plan))), L""},
             4, fault);
}

RunRecord SmallClient::Rollback(const FaultPoint& fault) {
  return Run(RunRollbackMode, {L"helper", L"--rollback-journal", root, L"", L""}, 3, fault);
}

RunRecord SmallClient::Run(int (*mode)(int, const wchar_t* const*), std::vector<std::wstring> arguments,
                           std::size_t parent_operand, const FaultPoint& fault) {
  const HANDLE parent = Duplicate(MakeInheritableEvent(true)).Release();
  const HANDLE lock = Duplicate(lock_).Release();
  arguments[parent_operand] = HandleText(parent);
  arguments.back() = HandleText(lock);
  std::vector<const wchar_t*> pointers;
  for (const std::wstring& argument : arguments) {
    pointers.push_back(argument.c_str());
  }
  settings.handed_over = {parent, lock};
  settings.process_id = next_process_id++;
  RunRecord record =
      RunWithFault([&] { return mode(static_cast<int>(pointers.size()), pointers.data()); }, fault, settings);
  // Free again, and abandoned only by the dead, or when giving it back was what failed.
  const DWORD free = WaitForSingleObject(lock_.Get(), 0);
  const bool may_abandon = record.died || fault.fault != Fault::kNone;
  if (free != WAIT_OBJECT_0 && !(free == WAIT_ABANDONED && may_abandon &&
                                 (record.died || record.calls[fault.index].name == "ReleaseMutex"))) {
    record.violations.emplace_back("the lock was not given back");
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
    std::wstring path = text.substr(root.size() + 1);
    if (path == kJournal && call.name == "MoveFileExW" && !record.IsFlushed(text + L".new")) {
      return "the journal was put in place before it was flushed";
    }
    if (!path.starts_with(kWork) && call.name != "CreateDirectoryW" && call.name != "RemoveDirectoryW") {
      const std::string journal = ReadTestFile(JoinPath(root, kJournal));
      const std::string name = NarrowPath(path);
      if (!journal.starts_with(journal_head_) ||
          (!IsUpdatersOwn(path) && journal.find("\t1\t" + name + "\n") == std::string::npos &&
           journal.find("\t0\t" + name + "\n") == std::string::npos)) {
        return "changed before a journal named it: " + name;
      }
    }
    for (const auto& [own, contents] : old_files) {
      const std::wstring copy = CopyOf(own);
      if ((path == own || path == copy) && ReadTestFile(JoinPath(root, own)) != contents &&
          ReadTestFile(JoinPath(root, copy)) != contents) {
        return "neither in its place nor among the copies: " + NarrowPath(own);
      }
    }
  }
  return {};
}

void SmallClient::Become(const Tree& tree, const Tree& now) const {
  for (auto item = now.rbegin(); item != now.rend(); ++item) {
    if (tree.contains(item->first)) {
      continue;
    }
    const std::wstring path = JoinPath(root, item->first);
    if (path.back() == L'\\') {
      RemoveDirectoryW(path.c_str());
    } else {
      SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
      DeleteFileW(path.c_str());
    }
  }
  for (const auto& [path, contents] : tree) {
    if (const auto found = now.find(path); found != now.end() && found->second == contents) {
      continue;
    }
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

Tree SmallClient::Installed(const TestRelease& release) const {
  const std::string manifest = release.ManifestText();
  Tree tree{{L".talvex-update-cache\\manifest.txt", manifest},
            {L".talvex-update-cache\\manifest.sig", release.Signature()},
            {L"TalvexUpdateState.dat", "TALVEX-UPDATE-STATE-V1\nsequence\t" +
                                           std::to_string(release.sequence) + "\nrelease\t" + release.name +
                                           "\nmanifest-sha256\t" + HexDigestOf(manifest) + "\n"}};
  for (const auto& [path, contents] : release.files) {
    tree[WidePath(path)] = contents;
  }
  return tree;
}

Tree SmallClient::RolledBack() const {
  Tree tree = old_files;
  tree[L"TalvexUpdateFailure.dat"] = HexDigestOf(new_release.ManifestText()) + "\n";
  return tree;
}

bool SmallClient::HasOwnJournal(const Tree& tree) const {
  const auto journal = tree.find(std::wstring(kJournal));
  return journal != tree.end() && journal->second.starts_with(journal_head_);
}

}  // namespace talvex::test

#include "client/helper_place.h"

#include <windows.h>
// Need windows.h first.
#include <knownfolders.h>
#include <sddl.h>
#include <shlobj.h>

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "client/final_path.h"
#include "core/ascii_case.h"
#include "core/local_memory.h"
#include "core/owned_handle.h"
#include "core/regular_file.h"
#include "core/sha256.h"
#include "core/text_encoding.h"
#include "formats/managed_file.h"
#include "storage/client_root.h"
#include "storage/directory_listing.h"
#include "storage/held_directory.h"
#include "storage/update_layout.h"

namespace talvex::client {
namespace {

constexpr wchar_t kPlacePrefix[] = L"TalvexUpdate-";
constexpr std::size_t kPlaceNameLength = 16;  // characters: enough to tell the clients of a user apart

constexpr wchar_t kNoPlace[] = L"There is no place for the update helper";
constexpr wchar_t kCopyFailed[] = L"The update helper could not be copied";
constexpr wchar_t kWrongHelper[] = L"The update helper is not the one of its release.";

struct CoTaskMemFreeDeleter {
  void operator()(void* memory) const noexcept { CoTaskMemFree(memory); }
};

std::wstring LocalApplicationData() {
  PWSTR path = nullptr;
  const HRESULT result = SHGetKnownFolderPath(FOLDERID_LocalAppData, 0, nullptr, &path);
  const std::unique_ptr<wchar_t, CoTaskMemFreeDeleter> owner(path);  // freed after a failure too
  return SUCCEEDED(result) ? std::wstring(path) : std::wstring();
}

std::wstring TemporaryFolder() {
  std::array<wchar_t, MAX_PATH + 1> path{};
  const DWORD length = GetTempPathW(static_cast<DWORD>(path.size()), path.data());
  return length < path.size() ? std::wstring(path.data(), length) : std::wstring();
}

// The first part of the names of this client's helper directories.
std::wstring PlacePrefix(const std::wstring& client_root) {
  const std::wstring folded = FoldAsciiCase(client_root);
  Sha256Digest digest;
  UpdateError unreported;  // the zero digest will do
  static_cast<void>(Sha256OfBuffer(std::as_bytes(std::span(folded)), digest, unreported));
  return kPlacePrefix + DigestToHex(digest).substr(0, kPlaceNameLength) + L"-";
}

std::wstring SidText(PSID sid) {
  wchar_t* text = nullptr;
  if (!ConvertSidToStringSidW(sid, &text)) {
    return {};
  }
  return LocalMemory<wchar_t>(text).get();
}

// The SID in an attribute of the process's token, as text; empty on failure.
template <typename Attribute>
std::wstring TokenSid(HANDLE token, TOKEN_INFORMATION_CLASS attribute_class,
                      SID_AND_ATTRIBUTES Attribute::*sid) {
  alignas(Attribute) std::array<std::byte, sizeof(Attribute) + SECURITY_MAX_SID_SIZE> buffer{};
  DWORD size = 0;
  return GetTokenInformation(token, attribute_class, buffer.data(), static_cast<DWORD>(buffer.size()), &size)
             ? SidText((reinterpret_cast<Attribute*>(buffer.data())->*sid).Sid)
             : std::wstring();
}

// Only this user and the system may use the directory, whatever it would inherit, and no process of a lower
// integrity level than this one may write to it: the user's other programs must not be able to exchange what
// an elevated client is about to start. Null on failure, and then the last error is the reason.
LocalMemory<void> PrivateSecurity() {
  HANDLE opened = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened)) {
    return nullptr;
  }
  const OwnedHandle token(opened);
  const std::wstring user = TokenSid(token.Get(), TokenUser, &TOKEN_USER::User);
  if (user.empty()) {
    return nullptr;
  }
  const std::wstring level = TokenSid(token.Get(), TokenIntegrityLevel, &TOKEN_MANDATORY_LABEL::Label);
  if (level.empty()) {
    return nullptr;
  }
  const std::wstring text = L"D:P(A;OICI;FA;;;" + user + L")(A;OICI;FA;;;SY)S:(ML;OICI;NW;;;" + level + L")";
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &descriptor,
                                                            nullptr)) {
    return nullptr;
  }
  return LocalMemory<void>(descriptor);
}

// Whether access lists and sharing protect what is in the open directory. FAT has no access lists, and a
// server may ignore them, and return other bytes than those that were proven.
bool IsProtected(HANDLE directory) {
  DWORD flags = 0;
  return !IsOnShare(directory) &&
         GetVolumeInformationByHandleW(directory, nullptr, 0, nullptr, nullptr, &flags, nullptr, 0) &&
         (flags & FILE_PERSISTENT_ACLS) != 0;
}

// A new directory that cannot be exchanged as long as it is held.
struct Place {
  std::wstring path;
  OwnedHandle held;
};

// Makes the directory for a helper below `base`, which nobody vouches for: without any elevation a user can
// redirect both bases, to a stick or to a share too. On failure the last error is the reason.
bool MakePlaceIn(const std::wstring& base, const std::wstring& name, SECURITY_ATTRIBUTES& security,
                 Place& place) {
  place.path = JoinPath(base, name);
  // The directory must be new: one that is there already may be anybody's.
  if (!CreateDirectoryW(place.path.c_str(), &security)) {
    return false;
  }
  if (HoldDirectory(place.path, place.held) == PathKind::kDirectory && IsProtected(place.held.Get())) {
    return true;
  }
  place.held.Reset();
  RemoveDirectoryW(place.path.c_str());
  SetLastError(ERROR_NOT_SUPPORTED);
  return false;
}

// Makes a new directory for a helper. False with the reason in `code`.
bool MakePlace(const std::wstring& client_root, Place& place, DWORD& code) {
  const LocalMemory<void> security = PrivateSecurity();
  if (security == nullptr) {
    code = GetLastError();
    return false;
  }
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), security.get(), FALSE};
  // A number that no earlier helper has: the one that restarted this client may still be about to exit.
  const std::wstring name = PlacePrefix(client_root) + std::to_wstring(GetTickCount64());
  code = ERROR_PATH_NOT_FOUND;  // without a base
  for (const std::wstring& base : {LocalApplicationData(), TemporaryFolder()}) {
    if (base.empty()) {
      continue;
    }
    if (MakePlaceIn(base, name, attributes, place)) {
      return true;
    }
    code = GetLastError();
  }
  return false;
}

// Deletes the helper in `place` and then `place`. Others may have put a link there, which an elevated client
// would follow: only what really is a file of this name in a directory of this name is deleted.
void RemovePlace(const std::wstring& place) {
  const std::wstring program = JoinPath(place, kHelperFileName);
  OwnedHandle file(CreateFileW(program.c_str(), DELETE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  const std::size_t name_start = place.rfind(L'\\');
  const std::wstring end = FoldAsciiCase(program.substr(name_start));
  if (file.IsValid() && FoldAsciiCase(FinalPath(file.Get(), VOLUME_NAME_NONE)).ends_with(end)) {
    FILE_DISPOSITION_INFO disposition{TRUE};
    SetFileInformationByHandle(file.Get(), FileDispositionInfo, &disposition, sizeof(disposition));
  }
  file.Reset();  // before the directory can go
  RemoveDirectoryW(place.c_str());
}

}  // namespace

talvex_result PlaceHelper(const std::wstring& client_root, const std::wstring& source,
                          const Manifest& release, PlacedHelper& placed, Failure& failure) {
  // The helper rejects a release that it does not belong to, but only after the client has exited.
  const ManifestEntry* const entry = FindManifestEntry(release, kHelperFileName);
  if (entry == nullptr) {
    return Fail(failure, TALVEX_E_SYSTEM, kWrongHelper);
  }
  // Open until it is copied, because a copy follows links, and one of a wrong file could fill the disk.
  const OwnedHandle original =
      OpenVerifiedManagedFile(source, *entry, entry->size, kWrongHelper, failure.error);
  if (!original.IsValid()) {
    return Fail(failure, TALVEX_E_SYSTEM);
  }
  DWORD code = ERROR_SUCCESS;
  Place place;
  if (!MakePlace(client_root, place, code)) {
    return FailWithWindowsError(failure, TALVEX_E_SYSTEM, kNoPlace, code);
  }
  placed.program = JoinPath(place.path, kHelperFileName);
  if (!CopyFileW(source.c_str(), placed.program.c_str(), TRUE)) {
    code = GetLastError();
    place.held.Reset();
    RemovePlace(place.path);
    return FailWithWindowsError(failure, TALVEX_E_SYSTEM, kCopyFailed, code);
  }
  SetFileAttributesW(placed.program.c_str(), FILE_ATTRIBUTE_NORMAL);  // a read-only copy could not be deleted
  placed.proof = OpenVerifiedManagedFile(placed.program, *entry, entry->size, kWrongHelper, failure.error);
  place.held.Reset();  // an open file keeps the directories above it in their place
  if (!placed.proof.IsValid()) {
    RemovePlace(place.path);
    return Fail(failure, TALVEX_E_SYSTEM);
  }
  // What is proven is started, even if a directory above it becomes a link meanwhile.
  if (std::wstring true_path = TruePath(placed.proof.Get()); !true_path.empty()) {
    placed.program = std::move(true_path);
  }
  placed.directory = ParentOfRelativePath(placed.program);
  return TALVEX_OK;
}

void RemoveOldHelpers(const std::wstring& client_root) {
  const std::wstring prefix = FoldAsciiCase(PlacePrefix(client_root));
  for (const std::wstring& base : {LocalApplicationData(), TemporaryFolder()}) {
    if (base.empty()) {
      continue;
    }
    for (DirectoryListing listing(base); listing.AtEntry(); listing.Advance()) {
      if (FoldAsciiCase(listing.Name()).starts_with(prefix) && !listing.IsReparsePoint()) {
        RemovePlace(JoinPath(base, listing.Name()));
      }
    }
  }
}

}  // namespace talvex::client

#pragma once

// What has to be right about the two programs of a release, Talvex.exe and TalvexUpdateHelper.exe, before
// players get them: a wrong one cannot be corrected by another update.

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "formats/manifest.h"
#include "publisher/findings.h"
#include "publisher/public_key_file.h"

namespace talvex {

// What the release engineer declares to be meant.
struct ProgramAllowances {
  bool development = false;           // programs that trust a development key
  bool client_key_elsewhere = false;  // the client reads its keys from another place than its program file
};

// The update library's DLL, beside the client that uses it.
inline constexpr wchar_t kLibraryFileName[] = L"TalvexUpdate.dll";

// The public keys of a release.
struct ReleaseKeys {
  PublicKey signing;                  // signs it; the one that its helper trusts
  std::vector<PublicKey> for_client;  // others that its client has to hold, for a change of keys
};

// Checks the program file `bytes` of the helper: it is the helper; Windows can start it, without elevation;
// it is a 32-bit program; it trusts the signing key and no other; it is no development build.
// Errors about `subject`, its name.
void CheckHelperProgram(std::wstring_view subject, std::span<const std::byte> bytes, const ReleaseKeys& keys,
                        const ProgramAllowances& allowances, Findings& findings);

// Checks that of the client: Windows can start it, without elevation and without redirecting what it writes
// (a warning); it is no development build. It must hold all of `keys`, unless they are declared to be
// elsewhere: without the signing key it could neither verify the next release nor start a rollback, without
// another one it could not follow the change to that. A key that is none of them is a warning: its owner
// could publish for this client.
void CheckClientProgram(std::wstring_view subject, std::span<const std::byte> bytes, const ReleaseKeys& keys,
                        const ProgramAllowances& allowances, Findings& findings);

// Checks the DLL of the update library: it is there if the program file `client` imports it, since Windows
// would not start that without it; and it is for the same processor, also where the client loads it by
// itself. `library` is its entry in the release, or null, and `library_bytes` are its contents, if they are
// known.
void CheckClientLibrary(std::span<const std::byte> client, const ManifestEntry* library,
                        std::span<const std::byte> library_bytes, Findings& findings);

}  // namespace talvex

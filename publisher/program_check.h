#pragma once

// What has to be right about the two programs of a release, Talvex.exe and TalvexUpdateHelper.exe, before
// players get them: a wrong one cannot be corrected by another update.

#include <cstddef>
#include <span>
#include <string_view>

#include "publisher/findings.h"
#include "publisher/public_key_file.h"

namespace talvex {

// What the release engineer declares to be meant.
struct ProgramAllowances {
  bool development = false;           // programs that trust a development key
  bool client_key_elsewhere = false;  // the client reads its keys from another place than its program file
};

// Checks the program file `bytes` of the helper, for releases signed with `key`: Windows can start it,
// without elevation; it is a 32-bit program; it trusts this key and no other; it is no development build.
// Errors about `subject`, its name.
void CheckHelperProgram(std::wstring_view subject, std::span<const std::byte> bytes, const PublicKey& key,
                        const ProgramAllowances& allowances, Findings& findings);

// Checks that of the client: Windows can start it, without elevation and without redirecting what it writes
// (a warning); it is no development build. It must hold `key`, unless that is declared to be elsewhere: without it, it could neither
// verify the next release nor start a rollback.
void CheckClientProgram(std::wstring_view subject, std::span<const std::byte> bytes, const PublicKey& key,
                        const ProgramAllowances& allowances, Findings& findings);

}  // namespace talvex

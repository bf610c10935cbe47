#pragma once

// Verifies a whole release on disk: what a web server would serve, before it does.

#include <string>

#include "formats/signed_manifest.h"
#include "publisher/findings.h"
#include "publisher/program_check.h"
#include "publisher/public_key_file.h"
#include "storage/update_layout.h"

namespace talvex {

// Whether `read`, with which LoadSignedManifest or one of its steps has failed, was refused for its
// signature: both files could be read, and `key` has not signed the manifest.
[[nodiscard]] bool IsSignatureRefused(const SignedManifest& read, const PublicKey& key);

// Verifies the signed pair `pair` with the signing key, every file below `files_directory` against the
// manifest, that nothing else is there, and then what release_check.h checks. Each file is read once.
// Everything that is wrong is among `findings`; nothing is parsed or read before the signature has been
// verified, so a wrong one is the only finding, and `release` is empty.
void VerifyRelease(const SignedPairPaths& pair, const std::wstring& files_directory, const ReleaseKeys& keys,
                   const ProgramAllowances& allowances, SignedManifest& release, Findings& findings);

}  // namespace talvex

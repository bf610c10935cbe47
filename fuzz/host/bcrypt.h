#pragma once

// The CNG functions that core/cng.h names the types of. Like all that leaves the process, they are missing.

#include <windows.h>

using NTSTATUS = std::int32_t;
using UCHAR = unsigned char;
using ULONG = std::uint32_t;
using BCRYPT_ALG_HANDLE = void*;
using BCRYPT_HASH_HANDLE = void*;
using BCRYPT_KEY_HANDLE = void*;

NTSTATUS BCryptOpenAlgorithmProvider();
NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE provider, ULONG flags);
NTSTATUS BCryptGetProperty();
NTSTATUS BCryptCreateHash();
NTSTATUS BCryptHashData();
NTSTATUS BCryptFinishHash();
NTSTATUS BCryptDestroyHash(BCRYPT_HASH_HANDLE hash);
NTSTATUS BCryptImportKeyPair();
NTSTATUS BCryptVerifySignature();
NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE key);

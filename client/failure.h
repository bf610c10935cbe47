#pragma once

// How an operation of the library reports a failure: a message, as everywhere, and the stable code of the
// public header.

#include <windows.h>

#include "client/talvex_update.h"
#include "core/update_error.h"

namespace talvex::client {

struct Failure {
  talvex_result code = TALVEX_OK;
  UpdateError error;
};

// Each sets both parts and returns the code: `return Fail(failure, TALVEX_E_ORDER, kWhy);`. The second is for
// a step whose operation has set the message already.
inline talvex_result Fail(Failure& failure, talvex_result code, std::wstring_view message) {
  SetError(failure.error, message);
  return failure.code = code;
}
inline talvex_result Fail(Failure& failure, talvex_result code) {
  return failure.code = code;
}
inline talvex_result FailWithWindowsError(Failure& failure, talvex_result code, const wchar_t* prefix,
                                          DWORD windows_code) {
  SetWindowsError(failure.error, prefix, windows_code);
  return failure.code = code;
}

}  // namespace talvex::client

// The C boundary: nothing that is wrong with a call gets further, and no exception gets out.

#include "client/talvex_update.h"

#include <windows.h>

#include <cstddef>
#include <map>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <utility>

#include "client/failure.h"
#include "client/text_buffer.h"
#include "client/update_client.h"

namespace talvex::client {
namespace {

constexpr wchar_t kNullPointer[] = L"A pointer is null.";
constexpr wchar_t kStructSize[] = L"A struct does not have its size in struct_size.";
constexpr wchar_t kNoHandle[] = L"This is not a handle of talvex_open, or it was closed.";
constexpr wchar_t kInCall[] = L"Another call with this handle has not returned yet.";
constexpr wchar_t kNoMemory[] = L"There is not enough memory.";
constexpr wchar_t kCancelled[] = L"Cancelled.";
constexpr wchar_t kUnexpected[] = L"An unexpected error has occurred.";
constexpr wchar_t kBufferTooSmall[] = L"The buffer is too small.";

// A handle's client, and the last failure of a call with it.
struct Session {
  UpdateClient client;
  Failure last;
  bool in_call = false;
};

class ExclusiveLock {
 public:
  explicit ExclusiveLock(SRWLOCK& lock) noexcept : lock_(lock) { AcquireSRWLockExclusive(&lock_); }
  ExclusiveLock(const ExclusiveLock&) = delete;
  ExclusiveLock& operator=(const ExclusiveLock&) = delete;
  ~ExclusiveLock() { ReleaseSRWLockExclusive(&lock_); }

 private:
  SRWLOCK& lock_;
};

// The open handles. A handle is a number and not an address, and none is given twice: one that was closed can
// be told from every other.
class Sessions {
 public:
  talvex_client* Add(std::shared_ptr<Session> session) {
    const ExclusiveLock lock(lock_);
    const std::uintptr_t number = next_;
    open_.emplace(number, std::move(session));
    next_ += kStep;
    return reinterpret_cast<talvex_client*>(number);
  }
  // Begins a call; null when there is no such handle. `busy`: another call has not ended yet.
  std::shared_ptr<Session> BeginCall(const talvex_client* client, bool& busy) {
    const ExclusiveLock lock(lock_);
    const auto found = open_.find(reinterpret_cast<std::uintptr_t>(client));
    if (found == open_.end()) {
      return nullptr;
    }
    busy = std::exchange(found->second->in_call, true);
    return found->second;
  }
  void EndCall(Session& session) noexcept {
    const ExclusiveLock lock(lock_);
    session.in_call = false;
  }
  void Remove(const talvex_client* client) noexcept {
    const ExclusiveLock lock(lock_);
    open_.erase(reinterpret_cast<std::uintptr_t>(client));
  }

 private:
  static constexpr std::uintptr_t kStep = 4;  // looks like an address to those who check the alignment

  SRWLOCK lock_ = SRWLOCK_INIT;
  std::uintptr_t next_ = kStep;
  std::map<std::uintptr_t, std::shared_ptr<Session>> open_;
};

Sessions g_sessions;

// The last failure of talvex_open, which has no handle to keep it. Not thread-local: objects of threads that
// outlive an unloaded DLL could not be destroyed any more.
SRWLOCK g_open_lock = SRWLOCK_INIT;
Failure g_failed_open;

// Runs `operation` and turns its exceptions into results.
template <typename Operation>
talvex_result CallGuarded(Failure& failure, Operation operation) noexcept {
  try {
    failure = {};
    try {
      const talvex_result result = operation();
      if (failure.code == TALVEX_OK) {
        failure = {};  // what a step has said that did not matter in the end
      }
      return result;
    } catch (const std::bad_alloc&) {
      return Fail(failure, TALVEX_E_MEMORY, kNoMemory);
    } catch (const Cancelled&) {
      return Fail(failure, TALVEX_E_CANCELLED, kCancelled);
    } catch (...) {
      return Fail(failure, TALVEX_E_SYSTEM, kUnexpected);
    }
  } catch (...) {  // not even the sentence has room
    return failure.code = TALVEX_E_MEMORY;
  }
}

enum class Handle { kStays, kIsClosed };

// One call with a handle: `operation` gets the client and the failure to fill in.
template <typename Operation>
talvex_result Call(talvex_client* handle, Operation operation, Handle after = Handle::kStays) noexcept {
  bool busy = false;
  const std::shared_ptr<Session> session = g_sessions.BeginCall(handle, busy);
  if (session == nullptr) {
    return TALVEX_E_HANDLE;
  }
  if (busy) {
    return TALVEX_E_IN_CALL;
  }
  const talvex_result result =
      CallGuarded(session->last, [&] { return operation(session->client, session->last); });
  if (after == Handle::kIsClosed) {
    g_sessions.Remove(handle);  // still in its call, so that no other thread can begin one
  } else {
    g_sessions.EndCall(*session);
  }
  return result;
}

template <typename Struct>
bool HasItsSize(const Struct* value, Failure& failure) {
  if (value == nullptr) {
    static_cast<void>(Fail(failure, TALVEX_E_ARGUMENT, kNullPointer));
    return false;
  }
  if (value->struct_size != sizeof(Struct)) {
    static_cast<void>(Fail(failure, TALVEX_E_ARGUMENT, kStructSize));
    return false;
  }
  return true;
}

}  // namespace
}  // namespace talvex::client

using namespace talvex::client;

talvex_result TALVEX_CALL talvex_open(const talvex_options* options, talvex_client** client) {
  Failure failure;
  const talvex_result result = CallGuarded(failure, [&] {
    if (client == nullptr) {
      return Fail(failure, TALVEX_E_ARGUMENT, kNullPointer);
    }
    *client = nullptr;
    if (!HasItsSize(options, failure)) {
      return failure.code;
    }
    auto session = std::make_shared<Session>();
    if (session->client.Open(*options, failure) == TALVEX_OK) {
      *client = g_sessions.Add(std::move(session));
    }
    return failure.code;
  });
  const ExclusiveLock lock(g_open_lock);
  std::swap(g_failed_open, failure);
  return result;
}

talvex_result TALVEX_CALL talvex_settle(talvex_client* client, int32_t* start) {
  return Call(client, [&](UpdateClient& update, Failure& failure) {
    return start == nullptr ? Fail(failure, TALVEX_E_ARGUMENT, kNullPointer) : update.Settle(*start, failure);
  });
}

talvex_result TALVEX_CALL talvex_confirm(talvex_client* client) {
  return Call(client, [](UpdateClient& update, Failure& failure) { return update.Confirm(failure); });
}

talvex_result TALVEX_CALL talvex_installed(talvex_client* client, talvex_release* release) {
  return Call(client, [&](const UpdateClient& update, Failure& failure) {
    return HasItsSize(release, failure) ? update.Installed(*release, failure) : failure.code;
  });
}

talvex_result TALVEX_CALL talvex_check(talvex_client* client, const void* manifest, size_t manifest_size,
                                       const void* signature, size_t signature_size,
                                       talvex_release* release) {
  return Call(client, [&](UpdateClient& update, Failure& failure) {
    if (manifest == nullptr || signature == nullptr) {
      return Fail(failure, TALVEX_E_ARGUMENT, kNullPointer);
    }
    if (release != nullptr && !HasItsSize(release, failure)) {
      return failure.code;
    }
    return update.Check({static_cast<const std::byte*>(manifest), manifest_size},
                        {static_cast<const std::byte*>(signature), signature_size}, release, failure);
  });
}

talvex_result TALVEX_CALL talvex_next_file(talvex_client* client, talvex_file* file) {
  return Call(client, [&](UpdateClient& update, Failure& failure) {
    return HasItsSize(file, failure) ? update.NextFile(*file, failure) : failure.code;
  });
}

talvex_result TALVEX_CALL talvex_stage(talvex_client* client) {
  return Call(client, [](UpdateClient& update, Failure& failure) { return update.Stage(failure); });
}

talvex_result TALVEX_CALL talvex_install(talvex_client* client, const wchar_t* arguments) {
  return Call(client, [&](UpdateClient& update, Failure& failure) {
    return update.Install(arguments == nullptr ? L"" : arguments, failure);
  });
}

talvex_result TALVEX_CALL talvex_arguments(talvex_client* client, wchar_t* buffer, size_t capacity) {
  return Call(client, [&](const UpdateClient& update, Failure& failure) {
    const std::wstring& arguments = update.Arguments();
    if (buffer == nullptr) {
      return Fail(failure, TALVEX_E_ARGUMENT, kNullPointer);
    }
    if (capacity <= arguments.size()) {
      return Fail(failure, TALVEX_E_ARGUMENT, kBufferTooSmall);
    }
    CopyText(arguments, buffer, capacity);
    return arguments.empty() ? talvex_result{TALVEX_DONE} : talvex_result{TALVEX_OK};
  });
}

talvex_result TALVEX_CALL talvex_last_error(talvex_client* client, wchar_t* buffer, size_t capacity) {
  if (client == nullptr) {
    const ExclusiveLock lock(g_open_lock);
    CopyText(g_failed_open.error.Message(), buffer, capacity);
    return g_failed_open.code;
  }
  bool busy = false;
  const std::shared_ptr<Session> session = g_sessions.BeginCall(client, busy);
  if (session == nullptr || busy) {
    CopyText(busy ? kInCall : kNoHandle, buffer, capacity);
    return busy ? TALVEX_E_IN_CALL : TALVEX_E_HANDLE;
  }
  CopyText(session->last.error.Message(), buffer, capacity);
  const talvex_result code = session->last.code;
  g_sessions.EndCall(*session);
  return code;
}

talvex_result TALVEX_CALL talvex_close(talvex_client* client) {
  return Call(
      client,
      [](UpdateClient& update, Failure&) {
        update.Close();
        return talvex_result{TALVEX_OK};
      },
      Handle::kIsClosed);
}

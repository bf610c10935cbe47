#pragma once

// Which handles a child process inherits: the listed ones, and no other inheritable handle that is open.

#include <windows.h>

#include <cstddef>
#include <utility>
#include <vector>

namespace talvex {

// The attribute list that makes a child created by CreateProcessW inherit exactly `handles`.
class InheritedHandleList {
 public:
  explicit InheritedHandleList(std::vector<HANDLE> handles) : handles_(std::move(handles)) {
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    storage_.resize(size);
    auto* const list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_.data());
    if (size == 0 || !InitializeProcThreadAttributeList(list, 1, 0, &size)) {
      return;
    }
    list_ = list;
    // Windows keeps the address, not the handles.
    is_complete_ = UpdateProcThreadAttribute(list_, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles_.data(),
                                             handles_.size() * sizeof(HANDLE), nullptr, nullptr) != 0;
  }
  InheritedHandleList(const InheritedHandleList&) = delete;
  InheritedHandleList& operator=(const InheritedHandleList&) = delete;
  ~InheritedHandleList() {
    if (list_ != nullptr) {
      DeleteProcThreadAttributeList(list_);
    }
  }

  [[nodiscard]] bool IsComplete() const noexcept { return is_complete_; }
  [[nodiscard]] LPPROC_THREAD_ATTRIBUTE_LIST Get() const noexcept { return list_; }

 private:
  std::vector<HANDLE> handles_;
  std::vector<std::byte> storage_;
  LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
  bool is_complete_ = false;
};

}  // namespace talvex

#pragma once

// Puts a function of the test in the place of a Windows function, for every call that this program makes.

#include <windows.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace talvex::test {

// A function of any kind; only the caller of the import knows its arguments.
using AnyFunction = void (*)();

// The slot of the import address table through which this program calls `function`. A program that does not
// import it is ended, because its test would prove nothing.
inline AnyFunction* FindImportSlot(const char* function) {
  auto* const base = reinterpret_cast<std::byte*>(GetModuleHandleW(nullptr));
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const auto& directory = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  const auto* dll = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
  for (; dll->Name != 0; ++dll) {
    const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + dll->OriginalFirstThunk);
    auto* slot = reinterpret_cast<AnyFunction*>(base + dll->FirstThunk);
    for (; name->u1.AddressOfData != 0; ++name, ++slot) {
      const auto* const import = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
      if (!IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal) &&
          std::strcmp(reinterpret_cast<const char*>(import->Name), function) == 0) {
        return slot;
      }
    }
  }
  std::abort();
}

// What the slot leads to now. (The address of an imported function may be that of a jump through the slot,
// and a replacement that calls it would call itself.)
template <typename Function>
Function* ImportedFunction(const char* name) {
  return reinterpret_cast<Function*>(*FindImportSlot(name));
}

// The replacement lasts as long as this object.
class ImportPatch {
 public:
  ImportPatch(const char* name, AnyFunction replacement) : slot_(FindImportSlot(name)), original_(*slot_) {
    DWORD before = 0;
    VirtualProtect(slot_, sizeof(*slot_), PAGE_READWRITE, &before);
    *slot_ = replacement;
  }
  template <typename Result, typename... Arguments>
  ImportPatch(const char* name, Result(WINAPI* replacement)(Arguments...))
      : ImportPatch(name, reinterpret_cast<AnyFunction>(replacement)) {}
  ImportPatch(const ImportPatch&) = delete;
  ImportPatch& operator=(const ImportPatch&) = delete;
  ~ImportPatch() { *slot_ = original_; }

 private:
  AnyFunction* slot_;
  AnyFunction original_;
};

template <typename Result, typename... Arguments>
Result WINAPI Fail(Arguments...) {
  SetLastError(ERROR_ACCESS_DENIED);
  return Result{};
}

// A replacement for a function of this kind that fails with null, zero or false and "access denied".
template <typename Result, typename... Arguments>
AnyFunction Failing(Result(WINAPI* /*function*/)(Arguments...)) {
  return reinterpret_cast<AnyFunction>(&Fail<Result, Arguments...>);
}

}  // namespace talvex::test

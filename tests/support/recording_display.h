#pragma once

// A display that keeps what a transaction shows, one line a call.

#include <cstdint>
#include <string>
#include <string_view>

#include "apply/transaction_display.h"

namespace talvex::test {

class RecordingDisplay final : public TransactionDisplay {
 public:
  // Room for all of it, because memory that a run with faults allocates is freed at its end.
  RecordingDisplay() { shown.reserve(4'096); }
  void StartStatusWindow(std::wstring_view text) noexcept override { Note(L"start ", text); }
  void SetStatusText(std::wstring_view text) noexcept override { Note(L"text ", text); }
  void SetStatusProgress(std::uint64_t done, std::uint64_t total) noexcept override {
    Note(std::to_wstring(done), L" of " + std::to_wstring(total));
  }
  void StopStatusWindow() noexcept override { Note(L"stop", L""); }
  void ShowUpdateFailure(const wchar_t* message) override { Note(L"failure ", message); }

  std::wstring shown;

 private:
  void Note(std::wstring_view what, std::wstring_view value) {
    shown.append(what).append(value).append(L"\n");
  }
};

}  // namespace talvex::test

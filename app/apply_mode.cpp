#include "app/apply_mode.h"

#include <cstdint>
#include <string_view>

#include "app/reporting.h"
#include "app/status_window.h"
#include "apply/apply_transaction.h"
#include "apply/transaction_display.h"

namespace talvex {
namespace {

class WindowDisplay final : public TransactionDisplay {
 public:
  void StartStatusWindow(std::wstring_view initial_text) noexcept override {
    window_.StartStatusWindow(initial_text);
  }
  void SetStatusText(std::wstring_view text) noexcept override { window_.SetStatusText(text); }
  void SetStatusProgress(std::uint64_t done, std::uint64_t total) noexcept override {
    window_.SetStatusProgress(done, total);
  }
  void StopStatusWindow() noexcept override { window_.StopStatusWindow(); }
  void ShowUpdateFailure(const wchar_t* message) override { talvex::ShowUpdateFailure(message); }

 private:
  StatusWindow window_;
};

}  // namespace

int RunApplyMode(int argument_count, const wchar_t* const* arguments) {
  WindowDisplay display;
  return RunApplyTransaction(argument_count, arguments, display);
}

}  // namespace talvex

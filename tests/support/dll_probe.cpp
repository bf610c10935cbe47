// Uses the delay-loaded DLLs as the helper does, with or without its restriction of the search:
//   dll_probe guarded|unguarded hash|window

#include <string_view>

#include "app/dll_search.h"
#include "app/status_window.h"
#include "core/sha256.h"

int main(int count, char** arguments) {
  if (count != 3) {
    return 2;
  }
  if (std::string_view(arguments[1]) == "guarded") {
    talvex::RestrictDllSearch();
  }
  if (std::string_view(arguments[2]) == "window") {
    talvex::StatusWindow window;
    return window.StartStatusWindow(L"Probe") ? 0 : 1;
  }
  talvex::Sha256Digest digest;
  talvex::UpdateError error;
  return talvex::Sha256OfBuffer({}, digest, error) ? 0 : 1;
}

#pragma once

// What a command has found wrong. Everything is collected, so that a release can be corrected at once.

#include <string>
#include <string_view>
#include <vector>

#include "core/update_error.h"
#include "publisher/json_writer.h"

namespace talvex {

// An error would reach players. A warning may be meant, and counts as an error until --allow-warnings says
// so.
enum class Severity { kError, kWarning };

// Read as "subject: message": the message begins with a verb, says what is wrong and what to do.
struct Finding {
  Severity severity = Severity::kError;
  std::wstring subject;  // a file or a property of the release; empty when the message needs none
  std::wstring message;
};

class Findings {
 public:
  void AddError(std::wstring_view subject, std::wstring_view message);
  void AddWarning(std::wstring_view subject, std::wstring_view message);

  // False when there are errors, or warnings that are not allowed.
  [[nodiscard]] bool Pass(bool allow_warnings) const;

  // A line each on standard error: "error: subject: message".
  void Print() const;
  // The key "findings" and its array, inside an object.
  void Write(JsonWriter& json) const;

 private:
  std::vector<Finding> findings_;
};

}  // namespace talvex

#include "publisher/findings.h"

#include <algorithm>

#include "publisher/console.h"

namespace talvex {
namespace {

const wchar_t* NameOf(Severity severity) {
  return severity == Severity::kError ? L"error" : L"warning";
}

}  // namespace

void Findings::AddError(std::wstring_view subject, std::wstring_view message) {
  findings_.push_back({Severity::kError, std::wstring(subject), std::wstring(message)});
}

void Findings::AddWarning(std::wstring_view subject, std::wstring_view message) {
  findings_.push_back({Severity::kWarning, std::wstring(subject), std::wstring(message)});
}

bool Findings::Pass(bool allow_warnings) const {
  return std::all_of(findings_.begin(), findings_.end(), [&](const Finding& finding) {
    return allow_warnings && finding.severity == Severity::kWarning;
  });
}

void Findings::Print() const {
  for (const Finding& finding : findings_) {
    std::wstring line = std::wstring(NameOf(finding.severity)) + L": ";
    if (!finding.subject.empty()) {
      line += finding.subject + L": ";
    }
    WriteLine(Stream::kError, line + finding.message);
  }
}

void Findings::Write(JsonWriter& json) const {
  json.Key(L"findings");
  json.BeginArray();
  for (const Finding& finding : findings_) {
    json.BeginObject();
    json.Key(L"severity");
    json.String(NameOf(finding.severity));
    json.Key(L"subject");
    json.String(finding.subject);
    json.Key(L"message");
    json.String(finding.message);
    json.EndObject();
  }
  json.EndArray();
}

}  // namespace talvex

// What the daemon would make of descriptions, for people, scripts and the journal.
#include "wexctl/check.h"

#include "description/check.h"
#include "platform/log.h"
#include "wexctl/here.h"
#include "wexctl/output.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace wexctl {

namespace {

const char* severity_word(Severity severity) {
  static constexpr std::array words{"note", "warning", "error"};
  return words[static_cast<size_t>(severity)];
}

Colour severity_colour(Severity severity) {
  static constexpr std::array colours{Colour::Dim, Colour::Yellow, Colour::Red};
  return colours[static_cast<size_t>(severity)];
}

// Before a start the journal is told what matters how much.
std::string journal_mark(Severity severity) {
  static const bool told = stream_is_journal(STDOUT_FILENO);
  switch (severity) {
  case Severity::Note:
    return told ? priority_mark(LOG_NOTICE) : "";
  case Severity::Warning:
    return told ? priority_mark(LOG_WARNING) : "";
  case Severity::Error:
    return told ? priority_mark(LOG_ERR) : "";
  }
  return "";
}

} // namespace

bool check_files(const std::vector<std::string>& files, bool here, bool json) {
  auto findings = check_descriptions(files);
  if (here) {
    const auto of_hardware = check_hardware(files);
    findings.insert(findings.end(), of_hardware.begin(), of_hardware.end());
  }
  Json array = Json::array();
  for (const auto& finding : findings) {
    array.push_back({{"file", finding.file},
                     {"line", finding.line},
                     {"severity", severity_word(finding.severity)},
                     {"text", finding.text}});
    if (!json) {
      print("{}{}:{}: {}: {}\n", journal_mark(finding.severity), printable(finding.file),
            finding.line,
            coloured(severity_colour(finding.severity), severity_word(finding.severity)),
            printable(finding.text));
    }
  }
  if (json) {
    print_json(array);
  }
  return std::ranges::all_of(
      findings, [](const Finding& finding) { return finding.severity == Severity::Note; });
}

} // namespace wexctl

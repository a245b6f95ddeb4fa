#pragma once

// The checker's output: one line per check and a totals line, as plain text
// ("category: check: OK") or as TAP version 13.

#include <cstdio>
#include <string>

namespace aovcompliance {

enum class Verdict { kOk, kFail, kWarn, kSkip };

struct Totals {
    int passed = 0;
    int failed = 0;
    int warnings = 0;
    int skipped = 0;
};

class Report {
  public:
    enum class Format { kPlain, kTap };

    // `only`, when not empty, is the one category whose checks are written
    // and counted; the others still run as far as later checks need them.
    Report(std::FILE* out, Format format, bool verbose, std::string only);

    // Writes the first lines (TAP's version line).
    void begin();
    // One check. `detail` is the text in parentheses: what was expected and
    // got for a failure or warning, why for a skip, an optional note for a pass.
    void check(const char* category, const std::string& name, Verdict verdict,
               const std::string& detail = std::string());
    // A line shown with -v only.
    void note(const std::string& text);
    // Ends the run early with `why` (a request that never returned, a driver
    // that went away, a path that is no AOV node), then the totals. TAP: the
    // plan of the checks shown, then "Bail out!".
    void bail(const std::string& why);
    // The totals line (TAP: the plan and the totals as a comment).
    void end();

    bool selected(const char* category) const { return only_.empty() || only_ == category; }
    const Totals& totals() const { return totals_; }

  private:
    void totalsLine();

    std::FILE* out_;
    const Format format_;
    const bool verbose_;
    const std::string only_;
    Totals totals_;
    int number_ = 0;
};

}  // namespace aovcompliance

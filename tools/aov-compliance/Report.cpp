#include "Report.h"

#include <utility>

namespace aovcompliance {

Report::Report(std::FILE* out, Format format, bool verbose, std::string only)
    : out_(out), format_(format), verbose_(verbose), only_(std::move(only)) {}

void Report::begin() {
    if (format_ == Format::kTap) {
        std::fputs("TAP version 13\n", out_);
    }
}

void Report::check(const char* category, const std::string& name, Verdict verdict,
                   const std::string& detail) {
    if (!selected(category)) {
        return;
    }
    const std::string paren = detail.empty() ? std::string() : " (" + detail + ")";
    const char* word = "OK";
    switch (verdict) {
        case Verdict::kOk:
            ++totals_.passed;
            break;
        case Verdict::kFail:
            ++totals_.failed;
            word = "FAIL";
            break;
        case Verdict::kWarn:
            ++totals_.warnings;
            word = "WARN";
            break;
        case Verdict::kSkip:
            ++totals_.skipped;
            word = "SKIP";
            break;
    }
    if (format_ == Format::kPlain) {
        std::fprintf(out_, "%s: %s: %s%s\n", category, name.c_str(), word, paren.c_str());
    } else {
        // A warning is an "ok" line that keeps its text after "# WARN".
        const bool ok = verdict != Verdict::kFail;
        std::fprintf(out_, "%s %d - %s: %s", ok ? "ok" : "not ok", ++number_, category,
                     name.c_str());
        if (verdict == Verdict::kSkip) {
            std::fprintf(out_, " # SKIP %s", detail.c_str());
        } else if (verdict == Verdict::kWarn) {
            std::fprintf(out_, " # WARN %s", detail.c_str());
        } else if (!detail.empty()) {
            std::fprintf(out_, " # %s", detail.c_str());
        }
        std::fputc('\n', out_);
    }
    std::fflush(out_);
}

void Report::note(const std::string& text) {
    if (verbose_) {
        std::fprintf(out_, format_ == Format::kTap ? "# %s\n" : "  %s\n", text.c_str());
        std::fflush(out_);
    }
}

void Report::bail(const std::string& why) {
    if (format_ == Format::kTap) {
        // The plan of the checks shown first, so that a consumer finds one,
        // then the bail-out that ends the run.
        std::fprintf(out_, "1..%d\nBail out! %s\n# ", number_, why.c_str());
    } else {
        std::fprintf(out_, "aov-compliance: stopped: %s\n", why.c_str());
    }
    totalsLine();
}

void Report::end() {
    if (format_ == Format::kTap) {
        std::fprintf(out_, "1..%d\n# ", number_);
    }
    totalsLine();
}

void Report::totalsLine() {
    std::fprintf(out_, "aov-compliance: %d passed, %d failed, %d warnings, %d skipped\n",
                 totals_.passed, totals_.failed, totals_.warnings, totals_.skipped);
    std::fflush(out_);
}

}  // namespace aovcompliance

// Parses arbitrary command lines (the input split at NUL bytes into
// arguments) and checks what the option parser promises: an error is one
// short printable line, and a run gets values within every option's range.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Excerpt.h"
#include "FuzzCheck.h"
#include "Options.h"

namespace {

using aovfuzz::check;
using aovfuzz::printableLine;

constexpr size_t kMaxArguments = 64;

bool secondsInRange(double seconds) {
    return seconds == 0 || (seconds > 0 && seconds <= aovsimtool::kMaxSeconds);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args{"aov-sim"};
    std::string current;
    for (size_t i = 0; i < size && args.size() < kMaxArguments; ++i) {
        if (data[i] == 0) {
            args.push_back(current);
            current.clear();
        } else {
            current += static_cast<char>(data[i]);
        }
    }
    if (!current.empty() && args.size() < kMaxArguments) {
        args.push_back(current);
    }
    std::vector<const char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(arg.c_str());
    }

    aovsimtool::Options o;
    std::string message;
    switch (aovsimtool::parseOptions(static_cast<int>(argv.size()), argv.data(), &o, &message)) {
        case aovsimtool::ParseOutcome::kHelp:
            check(!message.empty());
            break;
        case aovsimtool::ParseOutcome::kError:
            check(!message.empty() && message.size() <= aovsimtool::kMessageChars);
            check(printableLine(message));
            break;
        case aovsimtool::ParseOutcome::kRun:
            check(o.events >= 1 && o.events <= aovsimtool::kMaxEvents);
            check(secondsInRange(o.duration) && secondsInRange(o.timeout));
            check(!o.size_given || (o.width >= 1 && o.width <= aovsimtool::kMaxSize &&
                                    o.height >= 1 && o.height <= aovsimtool::kMaxSize));
            check(o.notify_ids.size() <= aovsimtool::kMaxNotifyIds);
            check(o.notify_ids_given == !o.notify_ids.empty());
            break;
    }
    return 0;
}

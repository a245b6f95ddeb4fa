#pragma once

// The subcommands of aov-rec. Each returns the process's exit status and
// writes its one-line errors to `err` as "aov-rec: ...".

#include <cstdio>
#include <string>
#include <vector>

#include "aovsession/SessionFormat.h"
#include "kelo_aov.h"

namespace aovrec {

// Exit status of bad input, shared by every subcommand.
constexpr int kExitBadInput = 2;
// aov-rec record: the command succeeded but a recording stopped.
constexpr int kExitRecordingStopped = 3;
// retrace: the node could not be opened, or went away during the session.
constexpr int kExitNodeUnavailable = 3;

int runRecord(const std::string& out_path, ContentMode content,
              const std::vector<std::string>& command, FILE* err);
int runDump(const std::string& path, FILE* out, FILE* err);
int runInfo(const std::string& path, FILE* out, FILE* err);

struct RetraceOptions {
    std::string node = AOV_DEVICE_NODE;
    int ready_timeout_ms = 5000;    // how long a dequeue waits for the node to be ready
    int request_timeout_ms = 2000;  // the longest one call into the node may take
    int max_differences = 10;       // printed in full; the rest are counted
};
int runRetrace(const std::string& path, const RetraceOptions& options, FILE* out, FILE* err);

}  // namespace aovrec

// aov-rec: records the AOV node's traffic of a process into a session file,
// prints a session file, and retraces it against a node.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Commands.h"
#include "NumberText.h"
#include "kelo_aov.h"

namespace {

constexpr char kUsage[] =
    "usage: aov-rec record [-o FILE] [--content all|written|none] -- COMMAND [ARGS...]\n"
    "       aov-rec dump FILE\n"
    "       aov-rec info FILE\n"
    "       aov-rec retrace FILE [-d PATH] [--ready-timeout MS] [--request-timeout MS]\n";

constexpr char kRecordHelp[] =
    "usage: aov-rec record [-o FILE] [--content all|written|none] -- COMMAND [ARGS...]\n"
    "Runs COMMAND with the recorder preloaded and records its calls on the AOV node\n"
    "into FILE (default aov-session.rec), replaced only once something is recorded.\n"
    "The node is " AOV_DEVICE_NODE ", DIR/" AOV_DEVICE_NAME
    " when AOV_DEV_DIR=DIR is set, or the path\n"
    "in AOV_REC_NODE; it is known by its identity, so any path or duplicate counts.\n"
    "A child of COMMAND that uses the node records into FILE.PID.\n"
    "  --content  data areas kept: all, written (what the driver wrote; default), none\n"
    "Exit: COMMAND's status; 3 when it succeeded but a recording stopped; 2 on bad input.\n";
constexpr char kDumpHelp[] =
    "usage: aov-rec dump FILE\nPrints each record of a session file as one JSON line.\n";
constexpr char kInfoHelp[] =
    "usage: aov-rec info FILE\nSummarises a session file: calls, requests, events, errors,\n"
    "and the dequeues whose areas were dropped.\n";
constexpr char kRetraceHelp[] =
    "usage: aov-rec retrace FILE [-d PATH] [--ready-timeout MS] [--request-timeout MS]\n"
    "Sends the recorded requests to the node at PATH (default " AOV_DEVICE_NODE
    ") and\n"
    "prints where its answers differ from the recording, then checks what any\n"
    "driver must do. Each call into the node runs in a child process under the\n"
    "request limit (default 2000 ms); each wait for readiness under the ready\n"
    "limit (default 5000 ms) on top.\n"
    "Exit: 0 no difference, 1 differences, 2 a file or option refused, 3 no node\n"
    "at PATH, the node went away, or no process could be made for a call.\n";

bool asksHelp(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            return false;
        }
        if (arg == "-h" || arg == "--help") {
            return true;
        }
    }
    return false;
}

int usage(const char* problem, const char* detail = "") {
    std::fprintf(stderr, "aov-rec: %s%s\n%s", problem, detail, kUsage);
    return aovrec::kExitBadInput;
}

constexpr int kMaxMs = 3600000;

int record(int argc, char** argv) {
    std::string out = "aov-session.rec";
    aovrec::ContentMode content = aovrec::ContentMode::kWritten;
    int i = 2;
    for (; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if ((arg == "-o" || arg == "--content") && i + 1 >= argc) {
            return usage(arg.c_str(), " needs a value");
        }
        if (arg == "-o") {
            out = argv[++i];
        } else if (arg == "--content") {
            if (!aovrec::parseContentMode(argv[++i], &content)) {
                return usage("--content must be all, written or none, not ", argv[i]);
            }
        } else {
            return usage("record: unknown option ", arg.c_str());
        }
    }
    if (i >= argc) {
        return usage("record: no command after --");
    }
    if (out.empty()) {
        return usage("-o: empty file name");
    }
    return aovrec::runRecord(out, content, std::vector<std::string>(argv + i, argv + argc), stderr);
}

int retrace(int argc, char** argv) {
    aovrec::RetraceOptions options;
    std::string file;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "-d" || arg == "--ready-timeout" || arg == "--request-timeout") &&
            i + 1 >= argc) {
            return usage(arg.c_str(), " needs a value");
        }
        if (arg == "-d") {
            options.node = argv[++i];
        } else if (arg == "--ready-timeout") {
            std::string problem;
            if (!aovsimtool::readInteger(arg, argv[++i], 0, kMaxMs, &options.ready_timeout_ms,
                                         &problem)) {
                return usage(problem.c_str());
            }
        } else if (arg == "--request-timeout") {
            std::string problem;
            if (!aovsimtool::readInteger(arg, argv[++i], 1, kMaxMs, &options.request_timeout_ms,
                                         &problem)) {
                return usage(problem.c_str());
            }
        } else if (!arg.empty() && arg[0] == '-') {
            return usage("retrace: unknown option ", arg.c_str());
        } else if (file.empty()) {
            file = arg;
        } else {
            return usage("retrace: more than one file");
        }
    }
    if (file.empty()) {
        return usage("retrace: no session file");
    }
    const int code = aovrec::runRetrace(file, options, stdout, stderr);
    // A close left stuck in the driver shares this process's descriptor
    // table: closing the output here keeps it from holding a reader's pipe
    // open after the exit.
    std::fflush(stdout);
    std::fflush(stderr);
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return usage("no command");
    }
    const std::string command = argv[1];
    const struct {
        const char* name;
        const char* help;
    } helps[] = {{"record", kRecordHelp},
                 {"dump", kDumpHelp},
                 {"info", kInfoHelp},
                 {"retrace", kRetraceHelp}};
    for (const auto& h : helps) {
        if (command == h.name && asksHelp(argc, argv)) {
            std::fputs(h.help, stdout);
            return 0;
        }
    }
    if (command == "record") {
        return record(argc, argv);
    }
    if (command == "retrace") {
        return retrace(argc, argv);
    }
    if (command == "dump" || command == "info") {
        if (argc != 3) {
            return usage(argv[1], ": one session file");
        }
        return command == "dump" ? aovrec::runDump(argv[2], stdout, stderr)
                                 : aovrec::runInfo(argv[2], stdout, stderr);
    }
    if (command == "-h" || command == "--help") {
        std::fputs(kUsage, stdout);
        std::fputs("aov-rec COMMAND --help for each command; record watches " AOV_DEVICE_NODE
                   ", DIR/" AOV_DEVICE_NAME " under AOV_DEV_DIR=DIR, or AOV_REC_NODE=PATH\n",
                   stdout);
        return 0;
    }
    return usage("unknown command ", argv[1]);
}

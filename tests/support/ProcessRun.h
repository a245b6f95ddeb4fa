#pragma once

// Runs a program with given arguments and extra environment variables, its
// standard input empty, and collects its standard output and error together.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

struct ProcessResult {
    int exit_code = -1;       // 128 + signal when killed by one; -1 when it did not end
    std::string output;       // the first `keep` bytes of the output
    size_t output_bytes = 0;  // all of it
};

// A run still going after this long is killed; its result has exit code -1
// and its output ends with a line saying so.
constexpr std::chrono::seconds kRunLimit{90};

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& args,
                         const std::vector<std::string>& environment = {}, size_t keep = 64 * 1024);

// The same with the program's standard output and error on a terminal (a
// pseudo-terminal the test reads), for what a program shows only there.
ProcessResult runProcessOnTerminal(const std::string& program, const std::vector<std::string>& args,
                                   const std::vector<std::string>& environment = {},
                                   size_t keep = 64 * 1024);

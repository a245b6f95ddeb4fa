#pragma once

// Runs a program with given arguments and extra environment variables, its
// standard input empty, and collects its standard output and error together.

#include <cstddef>
#include <string>
#include <vector>

struct ProcessResult {
    int exit_code = -1;       // 128 + signal when killed by one
    std::string output;       // the first `keep` bytes of the output
    size_t output_bytes = 0;  // all of it
};

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& args,
                         const std::vector<std::string>& environment = {}, size_t keep = 64 * 1024);

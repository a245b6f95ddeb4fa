#pragma once

// The kernel boundary as a baseline for other figures: one real ioctl
// (FIONREAD on an empty pipe) per iteration.

#include <benchmark/benchmark.h>

void runBareKernelIoctl(benchmark::State& state);

#pragma once

// The end of every benchmark program's main(): run what the command line
// names. Free of Qt and of the robot, so that wz_bench can use it too.

#include <benchmark/benchmark.h>

namespace bench {

inline int runBenchmarks(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace bench

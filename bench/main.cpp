#include "ratios.hpp"

#include <cstdlib>

int main(int i_count, char** io_arguments)
{
    benchmark::Initialize(&i_count, io_arguments);
    if (benchmark::ReportUnrecognizedArguments(i_count, io_arguments))
    {
        return EXIT_FAILURE;
    }
    KeepingReporter l_results;
    benchmark::RunSpecifiedBenchmarks(&l_results);
    return printRatios(l_results) ? EXIT_SUCCESS : EXIT_FAILURE;
}

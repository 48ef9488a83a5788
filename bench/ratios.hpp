// Turns the results of one run into a table of ratios.
#ifndef TOLV_BENCH_RATIOS_HPP
#define TOLV_BENCH_RATIOS_HPP

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

/// Prints results as they come and keeps the shortest time of each benchmark.
/// Times are the processor's, also those that a benchmark takes itself: what
/// else the machine does hardly counts.
class KeepingReporter : public benchmark::ConsoleReporter
{
  public:
    KeepingReporter();

    void ReportRuns(const std::vector<Run>& i_runs) override;

    /// Units:   nanoseconds of one iteration.
    /// Returns: 0 when there is no result of that name.
    double time(const std::string& i_name) const;

  private:
    std::map<std::string, double> iv_Times;
};

/// Prints the table.
///
/// Returns: whether every benchmark that it needs has a result.
bool printRatios(const KeepingReporter& i_results);

#endif

#include "ratios.hpp"

#include <cstdio>

namespace
{

struct Ratio
{
    const char* iv_What;
    const char* iv_Name;
    const char* iv_Base;
};

const Ratio RATIOS[] = {
    {"event, 1 descriptor, to select() alone", "event/1", "selectAlone/1"},
    {"event, 100 descriptors, to select() alone", "event/100",
     "selectAlone/100"},
    {"event, 900 descriptors, to select() alone", "event/900",
     "selectAlone/900"},
    {"event with 4 threads to 1 thread, 1 descriptor", "eventThreads/1",
     "event/1"},
    {"event with 4 threads to 1 thread, 100 descriptors", "eventThreads/100",
     "event/100"},
    {"event with 4 threads to 1 thread, 900 descriptors", "eventThreads/900",
     "event/900"},
    {"tick among 10,000 timers to one among 100", "tick/10000", "tick/100"},
    {"tick among 100,000 timers to one among 100", "tick/100000", "tick/100"},
    {"add to 10,000 timers to add to 100", "addTimer/10000", "addTimer/100"},
    {"add to 100,000 timers to add to 100", "addTimer/100000", "addTimer/100"},
    {"update among 10,000 timers to one among 100", "updateTimer/10000",
     "updateTimer/100"},
    {"update among 100,000 timers to one among 100", "updateTimer/100000",
     "updateTimer/100"},
    {"cancel among 10,000 timers to one among 100", "cancelTimer/10000",
     "cancelTimer/100"},
    {"cancel among 100,000 timers to one among 100", "cancelTimer/100000",
     "cancelTimer/100"},
};

// The cost of an event beyond its select(), and how it grows.
const int DESCRIPTORS[] = {1, 100, 900};

} // namespace

KeepingReporter::KeepingReporter() : ConsoleReporter(OO_Tabular), iv_Times() {}

void KeepingReporter::ReportRuns(const std::vector<Run>& i_runs)
{
    for (const Run& l_run : i_runs)
    {
        if (l_run.run_type == Run::RT_Iteration && !l_run.error_occurred)
        {
            const double l_time = l_run.run_name.time_type.empty()
                                      ? l_run.GetAdjustedCPUTime()
                                      : l_run.GetAdjustedRealTime();
            const auto l_kept = iv_Times.emplace(l_run.run_name.function_name +
                                                     "/" + l_run.run_name.args,
                                                 l_time);
            if (l_time < l_kept.first->second)
            {
                l_kept.first->second = l_time;
            }
        }
    }
    ConsoleReporter::ReportRuns(i_runs);
}

double KeepingReporter::time(const std::string& i_name) const
{
    const auto l_found = iv_Times.find(i_name);
    return l_found != iv_Times.end() ? l_found->second : 0;
}

bool printRatios(const KeepingReporter& i_results)
{
    bool l_complete = true;
    std::printf("\n%-50s %10s\n", "cost of", "ratio");
    for (const Ratio& l_ratio : RATIOS)
    {
        const double l_time = i_results.time(l_ratio.iv_Name);
        const double l_base = i_results.time(l_ratio.iv_Base);
        if (l_time > 0 && l_base > 0)
        {
            std::printf("%-50s %10.2f\n", l_ratio.iv_What, l_time / l_base);
        }
        else
        {
            std::printf("%-50s %10s\n", l_ratio.iv_What, "none");
            l_complete = false;
        }
    }
    std::printf("\n%-50s %10s\n", "an event's own cost beyond its select()",
                "ns");
    for (const int l_count : DESCRIPTORS)
    {
        const std::string l_arguments = std::to_string(l_count);
        std::printf("%-50s %10.0f\n",
                    (l_arguments + " descriptors, one of them busy").c_str(),
                    i_results.time("event/" + l_arguments) -
                        i_results.time("selectAlone/" + l_arguments));
    }
    return l_complete;
}

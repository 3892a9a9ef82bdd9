#include "bench/side_by_side.h"

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <unistd.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

std::vector<std::pair<std::string, std::string>> &Pairs() {
    static std::vector<std::pair<std::string, std::string>> pairs;
    return pairs;
}

class Reporter : public benchmark::ConsoleReporter {
  public:
    Reporter() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Color : OO_None) {}

    void ReportRuns(const std::vector<Run> &runs) override {
        std::vector<Run> shown;
        for (const Run &run : runs) {
            if (run.aggregate_name == "median") {
                const auto counted = run.counters.find("cpu_s");
                medians_[run.run_name.str()] = {run.GetAdjustedRealTime(),
                                                counted == run.counters.end()
                                                    ? run.GetAdjustedCPUTime()
                                                    : counted->second.value};
            }
            if (run.aggregate_name == "median" || run.aggregate_name == "cv" ||
                run.error_occurred) {
                shown.push_back(run);
            }
        }
        ConsoleReporter::ReportRuns(shown);
    }

    void PrintRatios() const {
        for (const auto &[mine, theirs] : Pairs()) {
            for (const auto &[name, times] : medians_) {
                const std::string arguments = name.substr(0, mine.size()) == mine
                                                  ? name.substr(mine.size())
                                                  : std::string{"no match"};
                const auto other = medians_.find(theirs + arguments);
                if ((arguments.empty() || arguments[0] == '/') && other != medians_.end()) {
                    printf("%s takes %.2f times the time of %s (processor time: %.2f)\n",
                           name.c_str(), times.real / other->second.real, other->first.c_str(),
                           times.cpu / other->second.cpu);
                }
            }
        }
    }

  private:
    struct Times {
        double real;
        double cpu;
    };
    std::map<std::string, Times> medians_;
};

}  // namespace

SideBySide::SideBySide(const char *pMine, const char *pTheirs) {
    Pairs().emplace_back(pMine, pTheirs);
}

int RunBenchmarks(int argc, char *argv[], std::initializer_list<const char *> defaults) {
    std::vector<std::string> words = {argv[0], "--benchmark_repetitions=9",
                                      "--benchmark_min_time=0.05",
                                      "--benchmark_enable_random_interleaving=true"};
    words.insert(words.end(), defaults.begin(), defaults.end());
    words.insert(words.end(), argv + 1, argv + argc);
    std::vector<char *> arguments;
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    return 0;
}

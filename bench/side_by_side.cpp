#include "bench/side_by_side.h"

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace {

struct Row {
    Side ours;
    Side peer;
    std::string unit;
    std::string work;
    std::string aim;
};

std::vector<Row> &Rows() {
    static std::vector<Row> rows;
    return rows;
}

struct Pair {
    std::string mine;
    std::string theirs;
    const char *work;
    const char *aim;
};

std::vector<Pair> &Pairs() {
    static std::vector<Pair> pairs;
    return pairs;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The ratios of the two sides' medians in each of up to ten parts of the run, in rising order.
std::vector<double> Ratios(const Side &ours, const Side &peer) {
    const size_t count = std::min(ours.values.size(), peer.values.size());
    const size_t parts = std::min<size_t>(count, 10);
    std::vector<double> ratios;
    for (size_t i = 0; i < parts; ++i) {
        const auto part = [i, parts](const std::vector<double> &values) {
            const size_t begin = i * values.size() / parts;
            const size_t end = (i + 1) * values.size() / parts;
            return std::vector<double>(values.begin() + static_cast<ptrdiff_t>(begin),
                                       values.begin() + static_cast<ptrdiff_t>(end));
        };
        ratios.push_back(Median(part(ours.values)) / Median(part(peer.values)));
    }
    std::sort(ratios.begin(), ratios.end());
    return ratios;
}

// Names and descriptions have no characters that JSON escapes, except quotation marks.
std::string Quoted(const std::string &text) {
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    }
    return quoted + "\"";
}

// Times in the unit in which they are read easily.
const char *Scale(const std::string &unit, double value, double *pFactor) {
    *pFactor = 1;
    if (unit != "ns") {
        return unit.c_str();
    }
    static const std::pair<double, const char *> kUnits[] = {{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}};
    for (const auto &[factor, name] : kUnits) {
        if (value >= factor) {
            *pFactor = 1 / factor;
            return name;
        }
    }
    return "ns";
}

// Without the settings that the library adds to the name.
std::string NameOf(const benchmark::BenchmarkName &name) {
    std::string text = name.function_name;
    for (const std::string &part : {name.args, name.threads}) {
        text += part.empty() ? "" : "/" + part;
    }
    return text;
}

class Reporter : public benchmark::ConsoleReporter {
  public:
    explicit Reporter(bool printMedians) : ConsoleReporter(OO_None), printMedians_(printMedians) {}

    bool ReportContext(const Context &context) override {
        return printMedians_ ? ConsoleReporter::ReportContext(context) : true;
    }

    void ReportRuns(const std::vector<Run> &runs) override {
        std::vector<Run> shown;
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                const auto counted = run.counters.find("cpu_s");
                const double factor = 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
                values_[NameOf(run.run_name)].push_back(counted == run.counters.end()
                                                            ? run.GetAdjustedRealTime() * factor
                                                            : counted->second.value * 1e9);
            }
            if ((printMedians_ && (run.aggregate_name == "median" || run.aggregate_name == "cv")) ||
                run.error_occurred) {
                shown.push_back(run);
            }
        }
        if (!shown.empty()) {
            ConsoleReporter::ReportRuns(shown);
        }
    }

    // Prints the benchmarks that no row compares.
    void AddRows() {
        std::set<std::string> compared;
        for (const Pair &pair : Pairs()) {
            for (const auto &[name, values] : values_) {
                if (name.compare(0, pair.mine.size(), pair.mine) != 0) {
                    continue;
                }
                const std::string arguments = name.substr(pair.mine.size());
                const auto peer = values_.find(pair.theirs + arguments);
                if ((arguments.empty() || arguments[0] == '/') && peer != values_.end()) {
                    AddRow({name, values}, {peer->first, peer->second}, "ns", pair.work, pair.aim);
                    compared.insert({name, peer->first});
                }
            }
        }
        for (const auto &[name, values] : values_) {
            if (compared.count(name) == 0) {
                double factor;
                const char *pUnit = Scale("ns", Median(values), &factor);
                // Nothing changes the map here; the analyser believes that Median does.
                // NOLINTNEXTLINE(clang-analyzer-cplusplus.InnerPointer)
                printf("%-38s %10.2f %-2s\n", name.c_str(), Median(values) * factor, pUnit);
            }
        }
    }

  private:
    bool printMedians_;
    std::map<std::string, std::vector<double>> values_;
};

}  // namespace

void AddRow(const Side &ours, const Side &peer, const char *pUnit, const char *pWork,
            const char *pAim) {
    Rows().push_back({ours, peer, pUnit, pWork, pAim});
}

void PrintRows(const char *pSubject) {
    const char *pFile = getenv("TALVEK_BENCH_ROWS");
    FILE *pOut = pFile != nullptr ? fopen(pFile, "a") : nullptr;
    printf("%-38s %13s   %-44s %13s %6s %12s %6s\n", "", "median", "beside", "median", "ratio",
           "spread", "aim");
    for (const Row &row : Rows()) {
        const double ours = Median(row.ours.values);
        const double peer = Median(row.peer.values);
        const std::vector<double> ratios = Ratios(row.ours, row.peer);
        double ourFactor;
        double peerFactor;
        const char *pOurUnit = Scale(row.unit, ours, &ourFactor);
        const char *pPeerUnit = Scale(row.unit, peer, &peerFactor);
        printf("%-38s %10.2f %-2s   %-44s %10.2f %-2s %6.2f %5.2f to %-.2f", row.ours.name.c_str(),
               ours * ourFactor, pOurUnit, row.peer.name.c_str(), peer * peerFactor, pPeerUnit,
               ours / peer, ratios.front(), ratios.back());
        printf(" %6s   %s\n", row.aim.c_str(), row.work.c_str());
        if (pOut != nullptr) {
            fprintf(pOut,
                    "{\"subject\": %s, \"ours\": %s, \"peer\": %s, \"work\": %s, \"unit\": %s, "
                    "\"ours_median\": %.6g, \"peer_median\": %.6g, \"ratio\": %.4f, "
                    "\"ratio_least\": %.4f, \"ratio_most\": %.4f, \"aim\": %s, \"values\": %zu}\n",
                    Quoted(pSubject).c_str(), Quoted(row.ours.name).c_str(),
                    Quoted(row.peer.name).c_str(), Quoted(row.work).c_str(),
                    Quoted(row.unit).c_str(), ours, peer, ours / peer, ratios.front(),
                    ratios.back(), Quoted(row.aim).c_str(), row.ours.values.size());
        }
    }
    if (pOut != nullptr) {
        fclose(pOut);
    }
}

SideBySide::SideBySide(const char *pMine, const char *pTheirs, const char *pWork,
                       const char *pAim) {
    Pairs().push_back({pMine, pTheirs, pWork, pAim});
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
    Reporter reporter{Pairs().empty()};
    benchmark::RunSpecifiedBenchmarks(&reporter);
    if (!Pairs().empty()) {
        reporter.AddRows();
        const char *pName = strrchr(argv[0], '/');
        PrintRows(pName != nullptr ? pName + 1 : argv[0]);
    }
    return 0;
}

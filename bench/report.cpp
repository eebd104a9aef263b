#include "report.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>

namespace bench {
namespace {

constexpr int kRepetitions = 9;
constexpr double kSecondsEach = 0.05;

std::vector<Measurement> measurements;
std::vector<std::function<std::vector<Ready>()>> procedures;

// Collects the seconds per call of every repetition; prints nothing itself.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override
    {
        return true;
    }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred && run.iterations > 0) {
                seconds[run.run_name.function_name].push_back(run.real_accumulated_time /
                                                              static_cast<double>(run.iterations));
            }
        }
    }

    std::map<std::string, std::vector<double>> seconds;
};

double median(std::vector<double> values)
{
    if (values.empty()) {
        return 0;
    }
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

double inUnit(const Measurement &measurement, double seconds)
{
    if (seconds <= 0) {
        return 0;
    }
    if (measurement.unit == "GB/s") {
        return measurement.perCall / seconds / 1e9;
    }
    if (measurement.unit == "ms") {
        return seconds * 1e3 / measurement.perCall;
    }
    if (measurement.unit == "us") {
        return seconds * 1e6 / measurement.perCall;
    }
    return seconds * 1e9 / measurement.perCall;
}

void loop(benchmark::State &state, const std::function<void()> &work)
{
    work(); // caches, page tables, branch predictors
    for (auto _ : state) {
        work();
    }
}

void timed(benchmark::State &state, const std::function<double()> &work)
{
    work();
    for (auto _ : state) {
        state.SetIterationTime(work());
    }
}

void registerSide(const std::string &name, const std::function<void()> &work, const std::function<double()> &seconds)
{
    if (seconds) {
        benchmark::RegisterBenchmark(name.c_str(), [seconds](benchmark::State &state) { timed(state, seconds); })
            ->Repetitions(kRepetitions)->MinTime(kSecondsEach)
            ->UseManualTime();
    } else if (work) {
        benchmark::RegisterBenchmark(name.c_str(), [work](benchmark::State &state) { loop(state, work); })
            ->Repetitions(kRepetitions)->MinTime(kSecondsEach);
    }
}

struct Row {
    Ready ready;
    double ratio() const
    {
        return ready.limit > 0 ? ready.value / ready.limit : 0;
    }
};

std::string json(const std::vector<Row> &rows)
{
    std::string text = "[\n";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Ready &row = rows[i].ready;
        const bool held = row.limit > 0;
        text += fmt::format(R"(  {{"name": "{}", "value": {:.6g}, "unit": "{}", "limit": {}, "ratio": {}}}{})", row.name,
                            row.value, row.unit, held ? fmt::format("{:.6g}", row.limit) : "null",
                            held ? fmt::format("{:.4f}", rows[i].ratio()) : "null", i + 1 < rows.size() ? ",\n" : "\n");
    }
    return text + "]\n";
}

} // namespace

void add(Measurement measurement)
{
    measurements.push_back(std::move(measurement));
}

void add(std::function<std::vector<Ready>()> procedure)
{
    procedures.push_back(std::move(procedure));
}

int run(const std::string &filter, const std::string &jsonPath)
{
    const auto wanted = [&](const std::string &name) { return name.find(filter) != std::string::npos; };

    Collector collector;
    for (const Measurement &measurement : measurements) {
        if (wanted(measurement.name)) {
            registerSide(measurement.name, measurement.value, measurement.seconds);
            registerSide(measurement.name + "@limit", measurement.limit, measurement.limitSeconds);
        }
    }
    std::fprintf(stderr, "bench: %zu measurements, %d repetitions each, value and limit in turns\n", measurements.size(),
                 kRepetitions);
    std::string program = "bench", interleave = "--benchmark_enable_random_interleaving=true";
    char *arguments[] = {program.data(), interleave.data(), nullptr};
    int count = 2;
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::vector<Row> rows;
    for (const Measurement &measurement : measurements) {
        if (wanted(measurement.name)) {
            rows.push_back({{measurement.name, measurement.unit,
                             inUnit(measurement, median(collector.seconds[measurement.name])),
                             inUnit(measurement, median(collector.seconds[measurement.name + "@limit"]))}});
        }
    }
    for (const auto &procedure : procedures) {
        for (Ready &ready : procedure()) {
            if (wanted(ready.name)) {
                rows.push_back({std::move(ready)});
            }
        }
    }

    // The rigs go before the machine does.
    benchmark::ClearRegisteredBenchmarks();
    measurements.clear();
    procedures.clear();

    fmt::print("{:<24} {:>12} {:<10} {:>12} {:>7}\n", "name", "value", "unit", "limit", "ratio");
    for (const Row &row : rows) {
        const bool held = row.ready.limit > 0;
        fmt::print("{:<24} {:>12.4g} {:<10} {:>12} {:>7}\n", row.ready.name, row.ready.value, row.ready.unit,
                   held ? fmt::format("{:.4g}", row.ready.limit) : "-", held ? fmt::format("{:.3f}", row.ratio()) : "-");
    }
    std::ofstream file(jsonPath);
    file << json(rows);
    return file.good() ? 0 : 2;
}

} // namespace bench

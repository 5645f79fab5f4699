// Runs the pairs of a topic and prints them as a table, or as JSON.
//
//   <topic>_bench [--filter TEXT] [--json] [--part] [--list]
//
// --part leaves out the head of the table, or the brackets of the array, for scripts/bench.sh, which joins the topics.
// Exit status: 0, 1 when an operation is over its bound or could not be measured, 2 for a wrong argument.

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pair.h"
#include "vwincompat.h"

namespace {

constexpr double kMinSeconds = 0.002;
constexpr int kRunsPerRepetition = 5;
constexpr double kSlowNs = 1e7;  // operations that take so long are run once per repetition
constexpr const char *kSides[] = {"ours", "raw"};

std::vector<bench::Pair> &pairs() {
    static auto *const pairs = new std::vector<bench::Pair>;
    return *pairs;
}

// What the process of one pair reports: medians. The ratio is that of runs next to each other, so that passing load
// slows both of its sides.
struct Result {
    double ours_ns;
    double raw_ns;
    double ratio;
    char error[112];
};

double median(std::vector<double> *values) {
    if (values->empty()) {
        return 0;
    }
    const auto middle = values->begin() + static_cast<std::ptrdiff_t>(values->size() / 2);
    std::nth_element(values->begin(), middle, values->end());
    return *middle;
}

// Receives the measurement of one run of one side.
class Collector : public benchmark::BenchmarkReporter {
  public:
    explicit Collector(bench::Clock clock) : clock_(clock) {}

    bool ReportContext(const Context &) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.error_occurred) {
                error_ = run.error_message;
            }
            iterations_ = run.iterations / run.threads;
            time_ns_ = clock_ == bench::Clock::wall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
        }
    }

    double time_ns() const { return time_ns_; }
    int64_t iterations() const { return iterations_; }
    const std::string &error() const { return error_; }

  private:
    const bench::Clock clock_;
    double time_ns_ = 0;
    int64_t iterations_ = 0;
    std::string error_;
};

benchmark::internal::Benchmark *registerSide(const bench::Pair &pair, const char *side, bench::Body body) {
    benchmark::internal::Benchmark *const run = benchmark::RegisterBenchmark(side, body);
    run->Arg(pair.argument)->Threads(pair.threads);
    if (pair.clock == bench::Clock::wall) {
        run->UseRealTime();
    } else if (pair.clock == bench::Clock::process) {
        run->MeasureProcessCPUTime();
    }
    return run;
}

// Finds the number of iterations of each side, and registers both with it.
void registerSides(const bench::Pair &pair, Collector *collector) {
    int64_t iterations[2];
    const bench::Body bodies[] = {pair.ours, pair.raw};
    for (int side = 0; side < 2; ++side) {
        registerSide(pair, kSides[side], bodies[side])->MinTime(kMinSeconds);
        benchmark::RunSpecifiedBenchmarks(collector, kSides[side]);
        iterations[side] = collector->iterations();
        benchmark::ClearRegisteredBenchmarks();
    }
    for (int side = 0; side < 2 && collector->error().empty(); ++side) {
        registerSide(pair, kSides[side], bodies[side])->Iterations(iterations[side]);
    }
}

// One repetition: some short runs of both sides in turn, beginning with the side "first". The fastest run of each side
// counts, since other processes can only make a run slower.
void runBoth(Collector *collector, int first, double *best) {
    best[0] = best[1] = HUGE_VAL;
    for (int run = 0; run < kRunsPerRepetition; ++run) {
        for (const int side : {first, 1 - first}) {
            benchmark::RunSpecifiedBenchmarks(collector, kSides[side]);
            best[side] = std::min(best[side], collector->time_ns());
        }
        if (best[0] + best[1] > kSlowNs) {
            break;
        }
    }
}

void stayOnOneProcessor() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &set);
    if (sched_setaffinity(0, sizeof set, &set) == -1) {
        perror("sched_setaffinity");
        _exit(1);
    }
}

Result measureHere(const bench::Pair &pair) {
    if (pair.one_processor) {
        stayOnOneProcessor();
    }
    char name[] = "bench";
    char *arguments[] = {name, nullptr};
    int count = 1;
    benchmark::Initialize(&count, arguments);
    vllvwincompatMain();
    Collector collector(pair.clock);
    registerSides(pair, &collector);
    std::vector<double> times[2];
    std::vector<double> ratios;
    for (int i = 0; i < pair.repetitions && collector.error().empty(); ++i) {
        double best[2];
        runBoth(&collector, i % 2, best);
        times[0].push_back(best[0]);
        times[1].push_back(best[1]);
        ratios.push_back(best[0] / best[1]);
    }
    Result result = {median(&times[0]), median(&times[1]), median(&ratios), ""};
    snprintf(result.error, sizeof result.error, "%s", collector.error().c_str());
    return result;
}

// Measures one pair in a child.
Result measure(const bench::Pair &pair) {
    Result result = {};
    int ends[2];
    if (pipe(ends) == -1) {
        snprintf(result.error, sizeof result.error, "pipe: %s", strerror(errno));
        return result;
    }
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        result = measureHere(pair);
        _exit(write(ends[1], &result, sizeof result) == sizeof result ? 0 : 1);
    }
    close(ends[1]);
    if (child == -1 || read(ends[0], &result, sizeof result) != sizeof result) {
        snprintf(result.error, sizeof result.error, "the measuring process failed");
    }
    close(ends[0]);
    if (child != -1) {
        waitpid(child, nullptr, 0);
    }
    return result;
}

void printHead() {
    printf("%-60s %12s %12s %7s %7s\n", "operation", "ours ns", "raw ns", "ratio", "bound");
}

// Names and messages are plain, but an error text may hold any character.
std::string jsonText(const char *text) {
    std::string quoted = "\"";
    for (; *text != '\0'; ++text) {
        if (*text == '"' || *text == '\\') {
            quoted += '\\';
        }
        quoted += static_cast<unsigned char>(*text) < ' ' ? ' ' : *text;
    }
    return quoted + '"';
}

void printRow(const bench::Pair &pair, const Result &result, bool within) {
    printf("%-60s %12.1f %12.1f %7.2f %7.2f%s%s\n", pair.operation, result.ours_ns, result.raw_ns,
           result.ratio, pair.bound, within ? "" : "  OVER ", result.error);
}

void printJson(const bench::Pair &pair, const Result &result, bool within, bool first) {
    printf(
        "%s{\"operation\": %s, \"ours_ns\": %.1f, \"raw_ns\": %.1f, \"ratio\": %.3f, \"bound\": %.2f, "
        "\"within\": %s, \"error\": %s}",
        first ? "" : ",\n", jsonText(pair.operation).c_str(), result.ours_ns, result.raw_ns, result.ratio,
        pair.bound, within ? "true" : "false", jsonText(result.error).c_str());
}

struct Options {
    const char *filter = "";
    bool json = false;
    bool part = false;
    bool list = false;
};

bool parseOptions(int argc, char **argv, Options *options) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0) {
            options->json = true;
        } else if (strcmp(argv[i], "--part") == 0) {
            options->part = true;
        } else if (strcmp(argv[i], "--list") == 0) {
            options->list = true;
        } else if (strcmp(argv[i], "--filter") == 0 && i + 1 < argc) {
            options->filter = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [--filter TEXT] [--json] [--part] [--list]\n", argv[0]);
            return false;
        }
    }
    return true;
}

// Measures and prints the pairs that match the filter. True when all are within their bounds.
bool runPairs(const Options &options) {
    bool all_within = true;
    bool first = true;
    for (const bench::Pair &pair : pairs()) {
        if (strstr(pair.operation, options.filter) == nullptr) {
            continue;
        }
        if (options.list) {
            puts(pair.operation);
            continue;
        }
        const Result result = measure(pair);
        const bool within = result.error[0] == '\0' && result.ratio > 0 && result.ratio <= pair.bound;
        all_within = all_within && within;
        if (options.json) {
            printJson(pair, result, within, first);
        } else {
            printRow(pair, result, within);
        }
        fflush(stdout);
        first = false;
    }
    return all_within;
}

}  // namespace

void bench::addPair(const Pair &pair) {
    pairs().push_back(pair);
}

int main(int argc, char **argv) {
    Options options;
    if (!parseOptions(argc, argv, &options)) {
        return 2;
    }
    bench::registerPairs();
    const bool head = !options.part && !options.list;
    if (head) {
        options.json ? static_cast<void>(puts("[")) : printHead();
    }
    const bool within = runPairs(options);
    if (head && options.json) {
        puts("\n]");
    }
    return within ? 0 : 1;
}

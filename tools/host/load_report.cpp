// The figures of a load, for people and for programs.
#include <algorithm>
#include <cmath>

#include "load.h"

namespace nrpc::tool {

void LoadResult::Add(const LoadResult &other) {
    Replies += other.Replies;
    Wrong += other.Wrong;
    Lost += other.Lost;
    TimedOut += other.TimedOut;
    Connections += other.Connections;
    Latencies.insert(Latencies.end(), other.Latencies.begin(), other.Latencies.end());
}

// Of sorted values.
static double Percentile(const std::vector<float> &values, double part) {
    if (values.empty()) {
        return 0;
    }
    const auto last = static_cast<double>(values.size() - 1);
    return values[static_cast<size_t>(std::lround(part * last))];
}

// A line for each doubling of the latency.
static void PrintHistogram(const std::vector<float> &sorted) {
    constexpr size_t kWidth = 50;
    auto from = sorted.begin();
    for (float limit = 0.125F; from != sorted.end(); limit *= 2) {
        const auto to = std::upper_bound(from, sorted.end(), limit);
        const auto count = static_cast<size_t>(to - from);
        if (count > 0 || from != sorted.begin()) {
            PrintLine("  up to {:>9.3f} ms  {:>9}  {}", limit, count,
                      std::string((count * kWidth + sorted.size() - 1) / sorted.size(), '#'));
        }
        from = to;
    }
}

void PrintLoad(const LoadOptions &options, LoadResult &result) {
    std::sort(result.Latencies.begin(), result.Latencies.end());
    const std::vector<float> &sorted = result.Latencies;
    const double rate = static_cast<double>(result.Replies) / result.Seconds;
    const double megabytes = rate * options.ByteCount / 1e6;
    const double p50 = Percentile(sorted, 0.5);
    const double p90 = Percentile(sorted, 0.9);
    const double p99 = Percentile(sorted, 0.99);
    const double most = Percentile(sorted, 1);
    if (options.Json) {
        PrintJson({
            {"clients", options.Clients},
            {"mode", options.Mode},
            {"bytes", options.ByteCount},
            {"seconds", result.Seconds},
            {"replies", result.Replies},
            {"wrong", result.Wrong},
            {"lost", result.Lost},
            {"timed_out", result.TimedOut},
            {"requests_per_second", rate},
            {"megabytes_per_second", megabytes},
            {"p50_ms", p50},
            {"p90_ms", p90},
            {"p99_ms", p99},
            {"max_ms", most},
            {"connections", result.Connections},
        });
        return;
    }
    PrintLine("{} for {:.1f} s, {} at once, {} each way",
              Counted(result.Replies, "reply", "replies"), result.Seconds,
              Counted(static_cast<size_t>(options.Clients), options.Mode + " client"),
              Counted(static_cast<size_t>(options.ByteCount), "byte"));
    PrintLine("  requests   {:.1f} per second, {:.2f} MB/s each way", rate, megabytes);
    PrintLine("  wrong      {}", result.Wrong);
    PrintLine("  lost       {}", result.Lost);
    PrintLine("  timed out  {}", result.TimedOut);
    PrintLine("  latency    p50 {:.2f}  p90 {:.2f}  p99 {:.2f}  max {:.2f} ms", p50, p90, p99,
              most);
    PrintHistogram(sorted);
}

} // namespace nrpc::tool

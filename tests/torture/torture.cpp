// Makes each call of the library fail, one at a time, in processes of their own.
//
// A point reads <scene>:<call>.<way>@<offset>/<thread>#<n>[+], the n-th call at that place, with a
// + from there on for ever. First each scene is played untouched and its places are counted; then
// each place fails in each way: at its first call, at later ones, for ever from both on.

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "torture/torture.h"

using namespace nrpc::torture;

static constexpr size_t kShortCount = 80;

namespace {

struct Point {
    std::string Scene;
    Fault What;
    const Way *How;

    std::string Kind() const { return fmt::format("{}.{}", How->Call, How->Name); }
    std::string Text() const {
        return fmt::format("{}:{}@{:x}/{}#{}{}", Scene, Kind(), What.Where.Offset,
                           What.Where.Thread, What.Nth, What.ForEver ? "+" : "");
    }
};

struct Played {
    bool Fell;
    bool Fired;
    std::string Output;
};

struct Tally {
    std::mutex Lock;                                                          // guards all below
    std::map<std::pair<std::string, std::string>, std::pair<int, int>> Cells; // kind and scene
    int Tried = 0, Fell = 0, NotReached = 0;
};

} // namespace

static std::optional<Point> Parse(const std::string &text) {
    char scene[16], call[32], way[16], thread[16], forEver = 0;
    Fault fault = {};
    if (sscanf(text.c_str(), "%15[^:]:%31[^.].%15[^@]@%x/%15[^#]#%u%c", scene, call, way,
               &fault.Where.Offset, thread, &fault.Nth, &forEver) < 6) {
        return std::nullopt;
    }
    fault.Where.Call = call;
    fault.Where.Thread = thread;
    fault.ForEver = forEver == '+';
    for (const Way &one : kWays) {
        if (one.Call == fault.Where.Call && one.Name == std::string_view(way)) {
            fault.Outcome = one.Outcome;
            return Point{scene, fault, &one};
        }
    }
    return std::nullopt;
}

// --- one process ------------------------------------------------------------------------------

static std::string OutputOf(const std::string &command) {
    std::string text;
    if (FILE *pipe = popen(command.c_str(), "r")) {
        for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe)) {
            text += static_cast<char>(byte);
        }
        pclose(pipe);
    }
    return text;
}

static Played Play(const std::string &scene, const std::string &point) {
    static const std::string s_Program = std::filesystem::read_symlink("/proc/self/exe");
    const std::string output =
        OutputOf(fmt::format("'{}' --play {} '{}' 2>&1; echo status $?", s_Program, scene, point));
    return {!output.ends_with("status 0\n") || output.find("fell: ") != std::string::npos,
            output.find("fired 0\n") == std::string::npos, output};
}

// --- the points -------------------------------------------------------------------------------

// On the host's own thread the count of a place hardly varies, so that each call can be failed.
static std::set<unsigned> CallsToFail(const Place &where, unsigned count) {
    std::set<unsigned> calls = {1, (count + 1) / 2};
    for (unsigned i = 1; (where.Thread == "host" || where.Thread == "any") && i <= count; ++i) {
        i <= 24 ? void(calls.insert(i)) : void();
    }
    return calls;
}

static std::vector<Point> PointsOf(const std::string &scene, const std::string &output) {
    std::vector<Point> points;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        char call[32], thread[16];
        Place where = {};
        unsigned count = 0;
        if (sscanf(line.c_str(), "hit %31s %x %15s %u", call, &where.Offset, thread, &count) != 4) {
            continue;
        }
        where.Call = call;
        where.Thread = thread;
        for (const Way &way : kWays) {
            if (way.Call != where.Call) {
                continue;
            }
            if (way.Outcome == kHeldUp) {
                points.push_back({scene, {where, way.Outcome, (count + 1) / 2, false}, &way});
                continue;
            }
            for (const unsigned nth : CallsToFail(where, count)) {
                points.push_back({scene, {where, way.Outcome, nth, false}, &way});
            }
            for (const unsigned nth : std::set{1U, (count + 1) / 2}) {
                points.push_back({scene, {where, way.Outcome, nth, true}, &way});
            }
        }
    }
    return points;
}

static std::vector<Point> FindPoints(const std::string &match, Tally &tally) {
    std::vector<Point> points;
    std::vector<std::jthread> lanes;
    for (const std::string &scene : SceneNames()) {
        lanes.emplace_back([&, scene] {
            const Played played = Play(scene, "");
            const std::lock_guard guard(tally.Lock);
            std::ranges::copy_if(
                PointsOf(scene, played.Output), std::back_inserter(points),
                [&](const Point &point) { return point.Text().find(match) != std::string::npos; });
            tally.Tried += 1;
            tally.Fell += played.Fell;
            fmt::print("{}", played.Fell ? scene + " fell untouched\n" + played.Output : "");
        });
    }
    lanes.clear();
    return points;
}

// One point of each kind and scene first, then others, as the seed has it.
static void TakeSample(std::vector<Point> &points, unsigned seed) {
    std::shuffle(points.begin(), points.end(), std::mt19937(seed));
    std::set<std::pair<std::string, std::string>> seen;
    std::stable_partition(points.begin(), points.end(), [&](const Point &point) {
        return seen.insert({point.Scene, point.Kind()}).second;
    });
    points.resize(std::min(points.size(), kShortCount));
}

// --- all of them ------------------------------------------------------------------------------

static void Print(const Point &point, const Played &played) {
    fmt::print("{} {}   {}", played.Fell ? "FELL" : "held", point.Text(),
               OutputOf(fmt::format("addr2line -sfCpe '{}' {:#x} 2>/dev/null || echo", NRPC_LIBRARY,
                                    point.What.Where.Offset - 1)));
    std::istringstream lines(played.Output);
    for (std::string line; std::getline(lines, line);) {
        fmt::print("{}", line.starts_with("hit ") ? "" : "     " + line + "\n");
    }
    fflush(stdout);
}

static void TryAll(const std::vector<Point> &points, unsigned jobs, bool all, Tally &tally) {
    std::atomic<size_t> next = 0;
    std::vector<std::jthread> lanes;
    for (unsigned lane = 0; lane < jobs; ++lane) {
        lanes.emplace_back([&] {
            for (size_t i = next++; i < points.size(); i = next++) {
                const Point &point = points[i];
                const Played played = Play(point.Scene, point.Text());
                const std::lock_guard guard(tally.Lock);
                auto &[tried, fell] = tally.Cells[{point.Kind(), point.Scene}];
                for (int *count : {&tried, &tally.Tried}) {
                    *count += 1;
                }
                for (int *count : {&fell, &tally.Fell}) {
                    *count += played.Fell;
                }
                tally.NotReached += !played.Fired && !played.Fell;
                all || played.Fell ? Print(point, played) : void();
            }
        });
    }
}

static void PrintTable(Tally &tally) {
    fmt::print("\n{:30}", "points tried (and fallen)");
    for (const std::string &scene : SceneNames()) {
        fmt::print("{:>14}", scene);
    }
    for (const Way &way : kWays) {
        fmt::print("\n{:30}", Point{"", {}, &way}.Kind());
        for (const std::string &scene : SceneNames()) {
            const auto [tried, fell] = tally.Cells[{Point{"", {}, &way}.Kind(), scene}];
            fmt::print("{:>14}", std::to_string(tried) + (fell ? fmt::format(" ({})", fell) : ""));
        }
    }
    fmt::print("\n{} of them were not reached this time\n", tally.NotReached);
}

int main(int count, char **words) {
    if (count == 4 && words[1] == std::string("--play")) {
        auto point = Parse(words[3]);
        const Healing heals = !point ? kHeals : point->How->Heals;
        PlayScene(words[2], point ? &point->What : nullptr,
                  heals == kHeals || (heals == kHealsOnce && !point->What.ForEver));
    }
    bool isShort = false;
    unsigned seed = 1, jobs = 40;
    std::string match;
    std::vector<std::string> only;
    CLI::App options{"Makes each call of the library fail, one at a time."};
    options.add_flag("--short", isShort, "a sample of the points");
    options.add_option("--seed", seed, "chooses the sample");
    options.add_option("--jobs", jobs, "processes side by side")->check(CLI::Range(1, 500));
    options.add_option("--match", match, "only points with this in their names");
    options.add_option("--only", only, "this point, with what its process says");
    CLI11_PARSE(options, count, words);

    Tally tally;
    std::vector<Point> points;
    for (const std::string &text : only) {
        const auto point = Parse(text);
        point ? points.push_back(*point) : void(fmt::print("no such point: {}\n", text));
        tally.Fell += !point;
    }
    if (only.empty()) {
        points = FindPoints(match, tally);
        isShort ? TakeSample(points, seed) : void();
    }
    fmt::print("{} points, seed {}\n", points.size(), seed);
    TryAll(points, jobs, !only.empty(), tally);
    PrintTable(tally);
    fmt::print("{} passed, {} failed\n", std::max(tally.Tried - tally.Fell, 0), tally.Fell);
    return tally.Fell == 0 && !points.empty() ? 0 : 1;
}

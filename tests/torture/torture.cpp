// Makes each call of the library fail, one at a time, in processes of their own.
//
// A point reads <scene>:<call>.<way>@<offset>/<thread>#<n>[+], the n-th call at that place, with a
// + from there on for ever. First each scene is played untouched (<scene>:) and tells the points
// that it has: each place fails in each way, at its first call, at later ones, for ever from both.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "torture/torture.h"

using namespace nrpc::torture;

static constexpr unsigned kDeadlineS = 180;
static constexpr size_t kShortCount = 80;

namespace {

struct Point {
    std::string Scene;
    Fault What;
    const Way *How; // null: untouched
};

struct Played {
    bool Fell;
    std::string Output;
};

struct Count {
    int Tried, Fell;
};

struct Tally {
    std::mutex Lock;                    // guards all below
    std::map<std::string, Count> Cells; // by the head of a point
    std::vector<std::string> Found;     // points
    int NotReached = 0;
};

} // namespace

static Point Parse(const std::string &text) {
    char scene[16] = "", kind[32] = "", thread[16] = "", forEver = 0;
    Fault fault = {};
    sscanf(text.c_str(), "%15[^:]:%31[^@]@%x/%15[^#]#%u%c", scene, kind, &fault.Where.Offset,
           thread, &fault.Nth, &forEver);
    const auto way = std::ranges::find(kWays, kind, &Way::Kind);
    if (way == std::end(kWays) || std::ranges::count(kScenes, scene) == 0) {
        return {scene, {}, nullptr};
    }
    fault.Where.Call = way->Call();
    fault.Where.Thread = thread;
    fault.Outcome = way->Outcome;
    fault.ForEver = forEver == '+';
    return {scene, fault, way};
}

// Scene and kind.
static std::string HeadOf(const std::string &point) {
    return point.substr(0, point.find('@'));
}

// --- one process ------------------------------------------------------------------------------

static void PrintPoints(const std::string &scene, const Place &where, unsigned count) {
    // On the host's own thread the count hardly varies, so that each call can be failed.
    const bool isSteady = where.Thread == "host" || where.Thread == "any";
    const unsigned middle = (count + 1) / 2;
    std::set<std::string> calls = {"1", "1+", fmt::format("{}", middle),
                                   fmt::format("{}+", middle)};
    for (unsigned i = 1; isSteady && i <= std::min(count, 24U); ++i) {
        calls.insert(std::to_string(i));
    }
    for (const Way &way : kWays) {
        if (way.Call() == where.Call) {
            for (const std::string &nth :
                 way.Outcome == kHeldUp ? std::set{std::to_string(middle)} : calls) {
                fmt::print("point {}:{}@{:x}/{}#{}\n", scene, way.Kind, where.Offset, where.Thread,
                           nth);
            }
        }
    }
}

[[noreturn]] static void PlayHere(const std::string &text) {
    const Point point = Parse(text);
    const Healing heals = point.How == nullptr ? kHeals : point.How->Heals;
    alarm(kDeadlineS);
    const Result result =
        PlayScene(point.Scene, point.How == nullptr ? nullptr : &point.What,
                  heals == kHeals || (heals == kHealsOnce && !point.What.ForEver));
    for (const auto &[place, count] : result.Hits) {
        point.How == nullptr ? PrintPoints(point.Scene, place, count) : void();
    }
    fmt::print("{}", result.Fired || point.How == nullptr ? "" : "not reached\n");
    fflush(stdout);
    _exit(result.Holds ? 0 : 1);
}

static Played Run(const std::string &command) {
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {true, "not started\n"};
    }
    std::string output;
    for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe)) {
        output += static_cast<char>(byte);
    }
    return {pclose(pipe) != 0, output};
}

// --- all of them ------------------------------------------------------------------------------

static void Print(const std::string &point, const Played &played) {
    fmt::print("{} {}   {}", played.Fell ? "FELL" : "held", point,
               Run(fmt::format("addr2line -sfCpe '{}' {:#x} || echo", NRPC_LIBRARY,
                               Parse(point).What.Where.Offset - 1))
                   .Output);
    std::istringstream lines(played.Output);
    for (std::string line; std::getline(lines, line);) {
        fmt::print("     {}\n", line);
    }
    fflush(stdout);
}

static void Record(const std::string &point, const Played &played, bool show, Tally &tally) {
    const std::lock_guard guard(tally.Lock);
    Count &count = tally.Cells[HeadOf(point)];
    count.Tried += 1;
    count.Fell += played.Fell;
    tally.NotReached += !played.Fell && played.Output.find("not reached") != std::string::npos;
    std::istringstream lines(played.Output);
    for (std::string line; std::getline(lines, line);) {
        line.starts_with("point ") ? tally.Found.push_back(line.substr(6)) : void();
    }
    show || played.Fell ? Print(point, played) : void();
}

static void TryAll(const std::vector<std::string> &points, unsigned jobs, bool show, Tally &tally) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::atomic<size_t> next = 0;
    std::vector<std::jthread> lanes;
    for (unsigned lane = 0; lane < jobs; ++lane) {
        lanes.emplace_back([&] {
            for (size_t i = next++; i < points.size(); i = next++) {
                Record(points[i], Run(fmt::format("exec '{}' --play '{}'", self, points[i])), show,
                       tally);
            }
        });
    }
}

// One point of each kind and scene first, then others, as the seed has it.
static void TakeSample(std::vector<std::string> &points, unsigned seed) {
    std::shuffle(points.begin(), points.end(), std::mt19937(seed));
    std::set<std::string> seen;
    std::stable_partition(points.begin(), points.end(), [&](const std::string &point) {
        return seen.insert(HeadOf(point)).second;
    });
    points.resize(std::min(points.size(), kShortCount));
}

static void PrintTable(Tally &tally) {
    fmt::print("\n{:30}{:>14}{:>14}{:>14}\n", "points tried (and fallen)", kScenes[0], kScenes[1],
               kScenes[2]);
    for (const Way &way : kWays) {
        fmt::print("{:30}", way.Kind);
        for (const std::string_view scene : kScenes) {
            const auto [tried, fell] = tally.Cells[fmt::format("{}:{}", scene, way.Kind)];
            fmt::print("{:>14}", std::to_string(tried) + (fell ? fmt::format(" ({})", fell) : ""));
        }
        fmt::print("\n");
    }
    fmt::print("{} of them were not reached this time\n", tally.NotReached);
}

int main(int count, char **words) {
    if (count == 3 && words[1] == std::string("--play")) {
        PlayHere(words[2]);
    }
    bool isShort = false;
    unsigned seed = 1, jobs = 40;
    std::string match;
    std::vector<std::string> points;
    CLI::App options{"Makes each call of the library fail, one at a time."};
    options.add_flag("--short", isShort, "a sample of the points");
    options.add_option("--seed", seed, "chooses the sample");
    options.add_option("--jobs", jobs, "processes side by side")->check(CLI::Range(1, 500));
    options.add_option("--match", match, "only points with this in their names");
    options.add_option("--only", points, "this point, with what its process says")
        ->check([](const std::string &text) {
            return Parse(text).How == nullptr ? "no such point" : "";
        });
    CLI11_PARSE(options, count, words);

    Tally tally;
    const bool areGiven = !points.empty();
    if (!areGiven) {
        TryAll({"life:", "bursts:", "inside:"}, jobs, false, tally);
        std::ranges::copy_if(tally.Found, std::back_inserter(points), [&](const auto &point) {
            return point.find(match) != std::string::npos;
        });
        isShort ? TakeSample(points, seed) : void();
    }
    fmt::print("{} points, seed {}\n", points.size(), seed);
    TryAll(points, jobs, areGiven, tally);
    PrintTable(tally);
    Count all = {};
    for (const auto &[head, cell] : tally.Cells) {
        all = {all.Tried + cell.Tried, all.Fell + cell.Fell};
    }
    fmt::print("{} passed, {} failed\n", all.Tried - all.Fell, all.Fell);
    return all.Fell == 0 && !points.empty() ? 0 : 1;
}

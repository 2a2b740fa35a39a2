// orvun_bench: runs every scenario for the library, a raw POSIX baseline and
// (when built with Boost) Boost.Asio's synchronous sockets, interleaved in
// one process, and prints medians and pairwise ratios.
//
//   orvun_bench [--quick] [--reps N] [--only name,name...]
//
// Scenarios: tcp_rtt tcp_bulk tcp_small udp_rtt udp_rate tcp_accept profiler.
// Exit status: 0 when every run completed (whatever the numbers), 1 when a
// run failed, 2 for a bad command line, 3 when a run hung.
#include "Harness.h"
#include "Scenarios.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <sched.h>

namespace bench {
namespace {

struct Variant {
    std::string label;
    std::function<Sample()> run;                        // one run, one sample
    std::function<std::unique_ptr<RttPeer>()> peer;     // round-trip scenarios
    std::function<std::unique_ptr<BlockPeer>()> blocks; // throughput scenarios
    std::vector<Sample> samples;

    double Value() const
    {
        std::vector<double> values;
        for (const Sample& s : samples) {
            values.push_back(s.value);
        }
        return Median(values);
    }
    double P99() const
    {
        std::vector<double> values;
        for (const Sample& s : samples) {
            values.push_back(s.p99);
        }
        return Median(values);
    }
    double Loss() const
    {
        std::vector<double> values;
        for (const Sample& s : samples) {
            values.push_back(s.loss);
        }
        return Median(values);
    }
};

using Variants = std::vector<Variant>;

const Variant& Find(const Variants& variants, const std::string& label)
{
    for (const Variant& v : variants) {
        if (v.label == label) {
            return v;
        }
    }
    throw std::logic_error("no variant " + label);
}

bool Has(const Variants& variants, const std::string& label)
{
    for (const Variant& v : variants) {
        if (v.label == label) {
            return true;
        }
    }
    return false;
}

// Median over the repetitions of `a` against `b` in the same repetition,
// as a speed ratio: above 1 means `a` is faster.
double PairRatio(const Variant& a, const Variant& b, bool lowerIsBetter)
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < a.samples.size() && i < b.samples.size(); ++i) {
        const double x = a.samples[i].value;
        const double y = b.samples[i].value;
        if (x > 0 && y > 0) {
            ratios.push_back(lowerIsBetter ? y / x : x / y);
        }
    }
    return Median(ratios);
}

std::string Format(double value, int decimals = 2)
{
    char text[64];
    if (std::fabs(value) >= 100000.0) {
        std::snprintf(text, sizeof(text), "%.0f", value);
    } else {
        std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    }
    return text;
}

struct Check {
    std::string scenario;
    std::string measure;
    std::string library;
    std::string baseline;
    double ratio = 0.0;
    std::string target; // empty: reported only
    bool met = true;
};

struct Context {
    Counts counts;
    int reps = 5;
    bool repsGiven = false;
    bool quick = false;
    std::set<std::string> only;
    std::vector<Check> checks;
    double workerMessagesPerSecond = 0.0; // tcp_small's worker mode, for the profiler's ceilings
    bool failed = false;

    bool Wanted(const std::string& scenario) const { return only.empty() || only.count(scenario) != 0; }
    // Repetitions of a scenario: `--reps` for all, else more of the cheap
    // throughput scenarios (their peers' thread placement varies from one
    // repetition to the next) and fewer of the long udp_rate.
    int RepsFor(int normal) const { return repsGiven ? reps : normal; }
};

void RunInterleaved(Context& context, const std::string& scenario, Variants& variants)
{
    std::printf("; %d repetition%s of %s, variants interleaved\n", context.reps, context.reps == 1 ? "" : "s",
                scenario.c_str());
    std::fflush(stdout);
    for (int rep = 0; rep < context.reps; ++rep) {
        // Rotate the order so that no variant always runs first.
        for (std::size_t i = 0; i < variants.size(); ++i) {
            Variant& variant = variants[(static_cast<std::size_t>(rep) + i) % variants.size()];
            Watchdog::Arm(scenario + " / " + variant.label, 120);
            variant.samples.push_back(variant.run());
            Watchdog::Disarm();
        }
    }
}

// A fresh order of the variants for every block: a fixed cyclic order would
// always run the same variant right after the same other one.
std::vector<std::size_t> BlockOrder(std::size_t n, int rep, int block)
{
    std::vector<std::size_t> order(n);
    for (std::size_t i = 0; i < n; ++i) {
        order[i] = i;
    }
    std::mt19937 shuffle(static_cast<unsigned>(rep * 1000 + block));
    std::shuffle(order.begin(), order.end(), shuffle);
    return order;
}

// Round-trip scenarios: per repetition every variant's peer is built, then
// blocks of round trips alternate between the peers, so that each variant
// gets `rounds` round trips spread over the same stretch of time.
void RunRoundTrips(Context& context, const std::string& scenario, Variants& variants, int rounds)
{
    std::printf("; %d repetition%s of %s, blocks of round trips interleaved\n", context.reps,
                context.reps == 1 ? "" : "s", scenario.c_str());
    std::fflush(stdout);
    const std::size_t n = variants.size();
    const int blocks = std::max(1, std::min(20, rounds / 10));
    for (int rep = 0; rep < context.reps; ++rep) {
        std::vector<std::unique_ptr<RttPeer>> peers(n);
        std::vector<std::vector<double>> samples(n);
        for (std::size_t i = 0; i < n; ++i) {
            const std::size_t index = (static_cast<std::size_t>(rep) + i) % n;
            Watchdog::Arm(scenario + " / " + variants[index].label + " (setup)", 60);
            peers[index] = variants[index].peer();
            samples[index].reserve(static_cast<std::size_t>(rounds));
        }
        for (int block = 0; block < blocks; ++block) {
            const std::vector<std::size_t> order = BlockOrder(n, rep, block);
            const int count = rounds / blocks + (block < rounds % blocks ? 1 : 0);
            for (std::size_t i = 0; i < n; ++i) {
                const std::size_t index = order[i];
                Watchdog::Arm(scenario + " / " + variants[index].label, 60);
                peers[index]->Run(count, samples[index]);
            }
        }
        Watchdog::Arm(scenario + " (teardown)", 60);
        for (std::size_t i = 0; i < n; ++i) {
            peers[i].reset();
            variants[i].samples.push_back(LatencySample(std::move(samples[i])));
        }
        Watchdog::Disarm();
    }
}

int BlocksFor(int units, int most = 20) { return std::max(1, std::min(most, units / 10)); }

// Throughput scenarios, built the same way: per repetition every variant's
// peer is built, then blocks alternate between them. `scale` turns units per
// second into the unit printed.
void RunBlocks(const std::string& scenario, Variants& variants, int units, int reps, int blocks, double scale = 1.0)
{
    std::printf("; %d repetition%s of %s, blocks interleaved\n", reps, reps == 1 ? "" : "s", scenario.c_str());
    std::fflush(stdout);
    const std::size_t n = variants.size();
    const int perBlock = units / blocks;
    for (int rep = 0; rep < reps; ++rep) {
        std::vector<std::unique_ptr<BlockPeer>> peers(n);
        std::vector<BlockResult> totals(n);
        for (std::size_t i = 0; i < n; ++i) {
            const std::size_t index = (static_cast<std::size_t>(rep) + i) % n;
            Watchdog::Arm(scenario + " / " + variants[index].label + " (setup)", 60);
            peers[index] = variants[index].blocks();
        }
        for (int block = 0; block < blocks; ++block) {
            const std::vector<std::size_t> order = BlockOrder(n, rep, block);
            for (std::size_t i = 0; i < n; ++i) {
                const std::size_t index = order[i];
                Watchdog::Arm(scenario + " / " + variants[index].label, 60);
                const BlockResult result = peers[index]->Block(perBlock);
                totals[index].delivered += result.delivered;
                totals[index].seconds += result.seconds;
                totals[index].offered += result.offered;
            }
        }
        Watchdog::Arm(scenario + " (teardown)", 60);
        for (std::size_t i = 0; i < n; ++i) {
            peers[i].reset();
            const BlockResult& total = totals[i];
            variants[i].samples.push_back(
                Sample{total.delivered / total.seconds * scale, 0.0, 1.0 - total.delivered / total.offered});
        }
        Watchdog::Disarm();
    }
}

// Adds a ratio check; `minimum` 0 means the ratio is only reported.
void AddRatio(Context& context, const std::string& scenario, const std::string& measure, const Variant& library,
              const Variant& baseline, bool lowerIsBetter, double minimum)
{
    Check check;
    check.scenario = scenario;
    check.measure = measure;
    check.library = Format(library.Value());
    check.baseline = Format(baseline.Value());
    check.ratio = PairRatio(library, baseline, lowerIsBetter);
    if (minimum > 0) {
        check.target = ">= " + Format(minimum);
        check.met = check.ratio >= minimum;
    }
    context.checks.push_back(check);
}

void PrintRows(const Variants& variants, const std::string& unit, bool latency, bool loss)
{
    std::printf("  %-28s %14s", "variant", unit.c_str());
    if (latency) {
        std::printf(" %12s", "p99 us");
    }
    if (loss) {
        std::printf(" %8s", "loss");
    }
    std::printf("   per repetition\n");
    for (const Variant& v : variants) {
        std::printf("  %-28s %14s", v.label.c_str(), Format(v.Value()).c_str());
        if (latency) {
            std::printf(" %12s", Format(v.P99()).c_str());
        }
        if (loss) {
            std::printf(" %7.1f%%", 100.0 * v.Loss());
        }
        std::printf("  ");
        for (const Sample& s : v.samples) {
            std::printf(" %s", Format(s.value).c_str());
        }
        std::printf("\n");
    }
    std::fflush(stdout);
}

const char* const kRaw = "raw";
const char* const kLib = "library";
const char* const kLibProf = "library, profiling on";
const char* const kAsio = "asio";

Variant Single(const std::string& label, std::function<Sample()> run) { return {label, std::move(run), {}, {}, {}}; }
Variant Peer(const std::string& label, std::function<std::unique_ptr<RttPeer>()> make)
{
    return {label, {}, std::move(make), {}, {}};
}
Variant Blocks(const std::string& label, std::function<std::unique_ptr<BlockPeer>()> make)
{
    return {label, {}, {}, std::move(make), {}};
}

#if ORVUN_BENCH_ASIO
constexpr bool kWithAsio = true;
#else
constexpr bool kWithAsio = false;
#endif

// The checks every TCP scenario shares: library against raw with profiling
// off and on, and against Asio.
void TcpChecks(Context& context, const std::string& scenario, const std::string& measure, const Variants& variants,
               bool lowerIsBetter)
{
    const Variant& raw = Find(variants, kRaw);
    AddRatio(context, scenario, measure + ", library / raw", Find(variants, kLib), raw, lowerIsBetter, 0.95);
    AddRatio(context, scenario, measure + ", library with profiling / raw", Find(variants, kLibProf), raw,
             lowerIsBetter, 0.92);
    if (Has(variants, kAsio)) {
        AddRatio(context, scenario, measure + ", library / Asio", Find(variants, kLib), Find(variants, kAsio),
                 lowerIsBetter, 0.97);
    }
}

void TcpRtt(Context& context)
{
    const Counts& c = context.counts;
    Variants variants;
    variants.push_back(Peer(kRaw, [&] { return RawTcpRtt(c); }));
    variants.push_back(Peer(kLib, [&] { return LibTcpRtt(c, false); }));
    variants.push_back(Peer(kLibProf, [&] { return LibTcpRtt(c, true); }));
#if ORVUN_BENCH_ASIO
    variants.push_back(Peer(kAsio, [&] { return AsioTcpRtt(c); }));
#endif
    std::printf("\n# tcp_rtt: 64-byte request and response, %d round trips per run", c.rttRounds);
    RunRoundTrips(context, "tcp_rtt", variants, c.rttRounds);
    PrintRows(variants, "median us", true, false);
    TcpChecks(context, "tcp_rtt", "median us", variants, true);
}

void TcpBulk(Context& context)
{
    const Counts& c = context.counts;
    Variants variants;
    variants.push_back(Blocks(kRaw, [&] { return RawTcpBulk(c, false); }));
    variants.push_back(Blocks("raw, copy then send", [&] { return RawTcpBulk(c, true); }));
    variants.push_back(Blocks(kLib, [&] { return LibTcpBulk(c, false); }));
    variants.push_back(Blocks(kLibProf, [&] { return LibTcpBulk(c, true); }));
#if ORVUN_BENCH_ASIO
    variants.push_back(Blocks(kAsio, [&] { return AsioTcpBulk(c); }));
#endif
    std::printf("\n# tcp_bulk: %zu MiB one way in %zu KiB flushes", c.bulkBytes >> 20, c.bulkChunk >> 10);
    const int chunks = static_cast<int>(c.bulkBytes / c.bulkChunk);
    RunBlocks("tcp_bulk", variants, chunks, context.RepsFor(context.quick ? 1 : 9), BlocksFor(chunks, 64),
              static_cast<double>(c.bulkChunk) / (1024.0 * 1024.0));
    PrintRows(variants, "MiB/s", false, false);
    TcpChecks(context, "tcp_bulk", "MiB/s", variants, false);
    // What the buffered design itself costs: the same copy, made by hand.
    AddRatio(context, "tcp_bulk", "MiB/s, library / raw with the same copy", Find(variants, kLib),
             Find(variants, "raw, copy then send"), false, 0);
}

void TcpSmall(Context& context)
{
    const Counts& c = context.counts;
    const int block = c.smallMessages / BlocksFor(c.smallMessages);
    Variants variants;
    variants.push_back(Blocks(kRaw, [block] { return RawTcpSmall(block, false); }));
    variants.push_back(Blocks("raw + profiler extra", [block] { return RawTcpSmall(block, true); }));
    variants.push_back(Blocks(kLib, [block] { return LibTcpSmall(block, false, false); }));
    variants.push_back(Blocks(kLibProf, [block] { return LibTcpSmall(block, false, true); }));
#if ORVUN_BENCH_ASIO
    variants.push_back(Blocks(kAsio, [block] { return AsioTcpSmall(block); }));
#endif
    variants.push_back(Blocks("library worker", [block] { return LibTcpSmall(block, true, false); }));
    variants.push_back(Blocks("library worker, profiling on", [block] { return LibTcpSmall(block, true, true); }));
    std::printf("\n# tcp_small: %d one-way 16-byte messages, one Write + Flush (raw: one send) each", c.smallMessages);
    RunBlocks("tcp_small", variants, c.smallMessages, context.RepsFor(context.quick ? 1 : 7),
              BlocksFor(c.smallMessages));
    PrintRows(variants, "messages/s", false, false);
    TcpChecks(context, "tcp_small", "direct messages/s", variants, false);
    // The "TCP TX" extra that every flush records, added to the raw loop:
    // its cost alone, and the library with profiling against it.
    AddRatio(context, "tcp_small", "direct messages/s, raw + profiler extra / raw",
             Find(variants, "raw + profiler extra"), Find(variants, kRaw), false, 0);
    AddRatio(context, "tcp_small", "direct messages/s, library with profiling / raw + profiler extra",
             Find(variants, kLibProf), Find(variants, "raw + profiler extra"), false, 0);
    const Variant& worker = Find(variants, "library worker");
    AddRatio(context, "tcp_small", "messages/s, worker / direct", worker, Find(variants, kLib), false, 10.0);
    AddRatio(context, "tcp_small", "messages/s, worker with profiling / worker",
             Find(variants, "library worker, profiling on"), worker, false, 0.90);
    context.workerMessagesPerSecond = worker.Value();
}

// UDP checks: the fair baseline is the threaded raw loop; the blocking one
// shows what the threaded design costs.
void UdpChecks(Context& context, const std::string& scenario, const std::string& measure, const Variants& variants,
               bool lowerIsBetter)
{
    const Variant& threaded = Find(variants, "raw, poll thread");
    const Variant& blocking = Find(variants, "raw, blocking");
    AddRatio(context, scenario, measure + ", library / raw poll thread", Find(variants, kLib), threaded, lowerIsBetter,
             0.90);
    AddRatio(context, scenario, measure + ", library with profiling / raw poll thread", Find(variants, kLibProf),
             threaded, lowerIsBetter, 0);
    AddRatio(context, scenario, measure + ", library / raw blocking", Find(variants, kLib), blocking, lowerIsBetter, 0);
    if (Has(variants, kAsio)) {
        AddRatio(context, scenario, measure + ", library / Asio", Find(variants, kLib), Find(variants, kAsio),
                 lowerIsBetter, 0.97);
        // What the poll-then-receive loop allows at best against Asio's
        // blocking receive: the raw code built like the library.
        AddRatio(context, scenario, measure + ", raw poll thread / Asio (ceiling)", threaded, Find(variants, kAsio),
                 lowerIsBetter, 0);
    }
}

void UdpRtt(Context& context)
{
    const Counts& c = context.counts;
    Variants variants;
    variants.push_back(Peer("raw, poll thread", [&] { return RawUdpRttThreaded(c); }));
    variants.push_back(Peer("raw, blocking", [&] { return RawUdpRttBlocking(c); }));
    variants.push_back(Peer(kLib, [&] { return LibUdpRtt(c, false); }));
    variants.push_back(Peer(kLibProf, [&] { return LibUdpRtt(c, true); }));
#if ORVUN_BENCH_ASIO
    variants.push_back(Peer(kAsio, [&] { return AsioUdpRtt(c); }));
#endif
    std::printf("\n# udp_rtt: 64-byte datagram answered through a reply socket, %d round trips per run",
                c.udpRttRounds);
    RunRoundTrips(context, "udp_rtt", variants, c.udpRttRounds);
    PrintRows(variants, "median us", true, false);
    UdpChecks(context, "udp_rtt", "median us", variants, true);
}

void UdpRate(Context& context, std::size_t size)
{
    const Counts& c = context.counts;
    const std::string scenario = "udp_rate " + std::to_string(size) + " B";
    Variants variants;
    variants.push_back(Blocks("raw, poll thread", [size] { return RawUdpRateThreaded(size); }));
    variants.push_back(Blocks("raw, blocking", [size] { return RawUdpRateBlocking(size); }));
    variants.push_back(Blocks(kLib, [size] { return LibUdpRate(size, false); }));
    variants.push_back(Blocks(kLibProf, [size] { return LibUdpRate(size, true); }));
#if ORVUN_BENCH_ASIO
    variants.push_back(Blocks(kAsio, [size] { return AsioUdpRate(size); }));
#endif
    std::printf("\n# %s: %d datagrams into a counting callback", scenario.c_str(), c.udpRateDatagrams);
    // The longest scenario: fewer repetitions unless asked for.
    RunBlocks(scenario, variants, c.udpRateDatagrams, context.RepsFor(context.quick ? 1 : 3),
              BlocksFor(c.udpRateDatagrams));
    PrintRows(variants, "delivered/s", false, true);
    UdpChecks(context, scenario, "delivered/s", variants, false);
}

void TcpAccept(Context& context)
{
    Variants variants;
    variants.push_back(Blocks(kRaw, [] { return RawTcpAccept(false); }));
    variants.push_back(Blocks("raw, poll + lookup", [] { return RawTcpAccept(true); }));
    variants.push_back(Blocks(kLib, [] { return LibTcpAccept(false); }));
    variants.push_back(Blocks(kLibProf, [] { return LibTcpAccept(true); }));
#if ORVUN_BENCH_ASIO
    variants.push_back(Blocks(kAsio, [] { return AsioTcpAccept(); }));
#endif
    std::printf("\n# tcp_accept: %d connect + accept + close", context.counts.acceptConnections);
    RunBlocks("tcp_accept", variants, context.counts.acceptConnections, context.RepsFor(context.quick ? 1 : 9),
              BlocksFor(context.counts.acceptConnections));
    PrintRows(variants, "connections/s", false, false);
    const Variant& raw = Find(variants, kRaw);
    AddRatio(context, "tcp_accept", "connections/s, library / raw", Find(variants, kLib), raw, false, 0.90);
    AddRatio(context, "tcp_accept", "connections/s, library with profiling / raw", Find(variants, kLibProf), raw, false,
             0);
    // The poll before each accept and the client's lookup are part of the
    // design; this baseline makes them too.
    AddRatio(context, "tcp_accept", "connections/s, library / raw with poll + lookup", Find(variants, kLib),
             Find(variants, "raw, poll + lookup"), false, 0);
    if (Has(variants, kAsio)) {
        AddRatio(context, "tcp_accept", "connections/s, library / Asio", Find(variants, kLib), Find(variants, kAsio),
                 false, 0.97);
    }
}

void ProfilerCosts(Context& context)
{
    const Counts& c = context.counts;
    Variants variants;
    const ProfilerOp ops[] = {ProfilerOp::Scope, ProfilerOp::Extra};
    for (ProfilerOp op : ops) {
        for (int depth : {1, 4}) {
            for (int threads : {1, 2}) {
                for (bool enabled : {true, false}) {
                    std::ostringstream label;
                    label << (op == ProfilerOp::Scope ? "scope" : "extra") << " depth " << depth << ", " << threads
                          << (threads == 1 ? " thread" : " threads") << (enabled ? "" : ", off");
                    variants.push_back(Single(label.str(), [&c, op, depth, threads, enabled] {
                        return ProfilerThroughput(c, op, depth, threads, enabled);
                    }));
                }
            }
        }
    }
    for (int threads : {1, 2}) {
        std::ostringstream label;
        label << "registry lock shared hold, " << threads << (threads == 1 ? " thread" : " threads");
        variants.push_back(Single(
            label.str(), [&c, threads] { return ProfilerThroughput(c, ProfilerOp::SharedHold, 0, threads, true); }));
    }
    std::printf("\n# profiler: %d operations per thread per run; ns per operation on each thread", c.profilerOps);
    RunInterleaved(context, "profiler", variants);
    std::printf("  %-28s %14s %14s\n", "variant", "ns per op", "Mops/s total");
    for (const Variant& v : variants) {
        const int threads = v.label.find("2 threads") != std::string::npos ? 2 : 1;
        std::printf("  %-28s %14s %14s\n", v.label.c_str(), Format(1e9 * threads / v.Value(), 1).c_str(),
                    Format(v.Value() / 1e6).c_str());
    }
    std::fflush(stdout);

    for (const char* op : {"scope", "extra"}) {
        const double limit = std::string(op) == "scope" ? 250.0 : 150.0;
        for (int depth : {1, 4}) {
            const std::string base = std::string(op) + " depth " + std::to_string(depth);
            const Variant& single = Find(variants, base + ", 1 thread");
            Check check{"profiler", base + ", ns per op, 1 thread", Format(1e9 / single.Value(), 1),
                        "-",        1e9 / single.Value(),           "",
                        true};
            if (depth == 1) {
                check.target = "< " + Format(limit, 0) + " ns";
                check.met = check.ratio < limit;
            }
            context.checks.push_back(check);
            AddRatio(context, "profiler", base + ", throughput 2 threads / 1 thread",
                     Find(variants, base + ", 2 threads"), single, false, 1.5);
        }
    }
    // The floor under the two-thread figures: the registry lock alone.
    const Variant& holds1 = Find(variants, "registry lock shared hold, 1 thread");
    const Variant& holds2 = Find(variants, "registry lock shared hold, 2 threads");
    AddRatio(context, "profiler", "registry lock shared hold, throughput 2 threads / 1 thread", holds2, holds1, false,
             0);
    // Upper bounds that the lock alone puts on the figures above, even if
    // everything else cost nothing: a scope takes the shared mode twice (open
    // and end), an extra once, and two threads together cannot take it more
    // often than the bare-hold run did.
    auto ceiling = [&context](const std::string& measure, double bound, const std::string& library,
                              const std::string& baseline) {
        context.checks.push_back(Check{"profiler", measure, library, baseline, bound, "", true});
    };
    const Variant& scope1 = Find(variants, "scope depth 1, 1 thread");
    const Variant& extra1 = Find(variants, "extra depth 1, 1 thread");
    ceiling("scope depth 1, 2 threads / 1 thread, at most (registry lock)", holds2.Value() / 2 / scope1.Value(),
            Format(holds2.Value() / 2), Format(scope1.Value()));
    ceiling("extra depth 1, 2 threads / 1 thread, at most (registry lock)", holds2.Value() / extra1.Value(),
            Format(holds2.Value()), Format(extra1.Value()));
    if (context.workerMessagesPerSecond > 0) {
        // Every worker-mode flush records "TCP TX", so with profiling on it
        // pays at least one bare shared hold on top of its own cost.
        const double flushNs = 1e9 / context.workerMessagesPerSecond;
        const double holdNs = 1e9 / holds1.Value();
        context.checks.push_back(
            Check{"tcp_small", "worker with profiling / worker, at most (one shared hold per flush)",
                  Format(flushNs, 1) + " ns", Format(holdNs, 1) + " ns", flushNs / (flushNs + holdNs), "", true});
    }
}

void PrintSummary(const Context& context)
{
    std::printf("\n== Summary (ratios: median over repetitions of library/baseline speed taken in the same "
                "repetition; above 1 is faster)\n\n");
    std::printf("| scenario | measure | library | baseline | ratio | target | met |\n");
    std::printf("|---|---|---:|---:|---:|---|---|\n");
    for (const Check& check : context.checks) {
        std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", check.scenario.c_str(), check.measure.c_str(),
                    check.library.c_str(), check.baseline.c_str(), Format(check.ratio).c_str(),
                    check.target.empty() ? "-" : check.target.c_str(),
                    check.target.empty() ? "-" : (check.met ? "yes" : "NO"));
    }
    std::fflush(stdout);
}

int Usage()
{
    std::fprintf(stderr, "usage: orvun_bench [--quick] [--reps N] [--only name,name...]\n"
                         "scenarios: tcp_rtt tcp_bulk tcp_small udp_rtt udp_rate tcp_accept profiler\n");
    return 2;
}

} // namespace
} // namespace bench

int main(int argc, char** argv)
{
    using namespace bench;
    Context context;
    bool quick = false;
    int reps = -1;
    const std::set<std::string> known = {"tcp_rtt",  "tcp_bulk",   "tcp_small", "udp_rtt",
                                         "udp_rate", "tcp_accept", "profiler"};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            quick = true;
        } else if (arg == "--reps" && i + 1 < argc) {
            reps = std::atoi(argv[++i]);
            context.repsGiven = true;
            if (reps < 1) {
                return Usage();
            }
        } else if (arg == "--only" && i + 1 < argc) {
            std::stringstream list(argv[++i]);
            std::string name;
            while (std::getline(list, name, ',')) {
                if (known.count(name) == 0) {
                    return Usage();
                }
                context.only.insert(name);
            }
        } else {
            return Usage();
        }
    }
    if (quick) {
        context.counts = Counts::Quick();
    }
    context.reps = reps > 0 ? reps : (quick ? 1 : 5);
    context.quick = quick;

    // The baselines write to peers that may be gone; the library itself never
    // raises SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);
    Watchdog::Start();

    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    const int cpus = sched_getaffinity(0, sizeof(allowed), &allowed) == 0 ? CPU_COUNT(&allowed) : 0;
    std::printf("orvun_bench: %s counts, %d CPU%s allowed\n", quick ? "quick" : "full", cpus, cpus == 1 ? "" : "s");
    if (!kWithAsio) {
        std::printf("note: built without Boost headers, so the Boost.Asio column is left out\n");
    }
    std::fflush(stdout);

    const std::vector<std::pair<std::string, std::function<void(Context&)>>> scenarios = {
        {"tcp_rtt", TcpRtt},
        {"tcp_bulk", TcpBulk},
        {"tcp_small", TcpSmall},
        {"udp_rtt", UdpRtt},
        {"udp_rate",
         [](Context& c) {
             UdpRate(c, 64);
             UdpRate(c, 1400);
         }},
        {"tcp_accept", TcpAccept},
        {"profiler", ProfilerCosts},
    };
    const auto begun = Clock::now();
    for (const auto& [name, run] : scenarios) {
        if (!context.Wanted(name)) {
            continue;
        }
        try {
            const auto started = Clock::now();
            run(context);
            std::printf("  (%s took %.1f s)\n", name.c_str(), SecondsBetween(started, Clock::now()));
        } catch (const std::exception& error) {
            Watchdog::Disarm();
            std::fprintf(stderr, "orvun_bench: %s failed: %s\n", name.c_str(), error.what());
            context.failed = true;
        }
    }
    PrintSummary(context);
    std::printf("\nwhole run: %.1f s\n", SecondsBetween(begun, Clock::now()));
    if (context.failed) {
        std::fprintf(stderr, "orvun_bench: some runs failed\n");
        return 1;
    }
    return 0;
}

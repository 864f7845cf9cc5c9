// SPDX-License-Identifier: LGPL-2.1-or-later
// What a sensor getter costs: alone, beside a plain copy and a copy under a mutex, and with another reader and a writer
// that never pauses, where no read may be torn. Then how long after a call the signal that arrived with its reply is
// applied. It speaks to a simulated controller: bdbus-sim run -- sdr --benchmark_repetitions=9
#include "sdr/connection.hpp"
#include "sdr/store.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

using bdbus::sdr_records;
using std::chrono::steady_clock;

static void plain_copy(benchmark::State &state)
{
    static bdbus_sdr_record source;
    for (auto _ : state) {
        bdbus_sdr_record copy = source;
        benchmark::DoNotOptimize(copy);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(plain_copy);

static void mutex_copy(benchmark::State &state)
{
    static std::mutex mutex;
    static bdbus_sdr_record guarded;
    for (auto _ : state) {
        const std::lock_guard guard(mutex);
        bdbus_sdr_record copy = guarded;
        benchmark::DoNotOptimize(copy);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(mutex_copy);

static void getter(benchmark::State &state)
{
    for (auto _ : state) {
        bdbus_sdr_record copy;
        benchmark::DoNotOptimize(bdbus_sdr_get(1, &copy));
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(getter);

/** The IDs that are read and written. */
static uint16_t ids[48];
static uint16_t other_ids[48];

/** A record is whole when its words, first to last, were written together. */
static bool is_whole(uint16_t id)
{
    bdbus_sdr_record record;
    bool whole = bdbus_sdr_get(id, &record) == 0 && record.context == record.sdr[63] &&
                 record.thresholds.readable_mask == record.thresholds.upper_nonrecoverable;
    for (std::size_t i = 7; i < sizeof(record.sdr); i += 8) {
        whole = whole && record.sdr[i] == record.sdr[63];
    }
    return whole;
}

static void write_one(uint16_t id, uint8_t value)
{
    sdr_records.load(std::memory_order_relaxed)->update(id, [value](bdbus_sdr_record &record) {
        memset(record.sdr, value, sizeof(record.sdr));
        memset(&record.thresholds, value, sizeof(record.thresholds));
        record.context = value;
        return true;
    });
}

static void set_one(uint16_t id, uint8_t value)
{
    bdbus_sdr_thresholds thresholds;
    memset(&thresholds, value, sizeof(thresholds));
    bdbus_sdr_threshold_set(id, &thresholds);
}

/**
 * The measured reader and, given a write, another reader and a thread that writes without pause: the same records, or
 * others, which tells what busy neighbors cost on this machine from what sharing a record costs.
 */
static void checked_getter(benchmark::State &state, void (*write)(uint16_t id, uint8_t value), bool same_records = true)
{
    for (std::size_t i = 0; i < std::size(ids); i++) {
        write_one(ids[i], 0);
        write_one(other_ids[i], 0);
    }
    std::atomic<bool> done = false;
    std::atomic<int64_t> torn = 0;
    std::atomic<int64_t> other_reads = 0;
    std::thread threads[2];
    if (write != nullptr) {
        const uint16_t *const theirs = same_records ? ids : other_ids;
        threads[0] = std::thread([&, theirs] {
            for (uint32_t i = 0; !done.load(std::memory_order_relaxed); i++) {
                write(theirs[i % std::size(ids)], static_cast<uint8_t>(i / std::size(ids)));
            }
        });
        threads[1] = std::thread([&, theirs] {
            int64_t reads = 0;
            int64_t seen = 0;
            for (; !done.load(std::memory_order_relaxed); reads++) {
                seen += is_whole(theirs[static_cast<std::size_t>(reads) % std::size(ids)]) ? 0 : 1;
            }
            other_reads = reads;
            torn = seen;
        });
    }
    std::size_t turn = 0;
    int64_t seen = 0;
    for (auto _ : state) {
        seen += is_whole(ids[turn++ % std::size(ids)]) ? 0 : 1;
    }
    done = true;
    for (std::thread &thread : threads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
    state.counters["torn"] = static_cast<double>(torn + seen);
    state.counters["reads"] = static_cast<double>(state.iterations() + other_reads);
}
BENCHMARK_CAPTURE(checked_getter, alone, nullptr);
BENCHMARK_CAPTURE(checked_getter, beside_a_reader_and_a_setter_of_other_records, set_one, false)
    ->Iterations(60'000'000);
BENCHMARK_CAPTURE(checked_getter, beside_a_reader_and_a_setter, set_one)->Iterations(60'000'000);
BENCHMARK_CAPTURE(checked_getter, beside_a_reader_and_a_writer_without_the_bus, write_one)->Iterations(60'000'000);

/** Have the simulator send a signal of another client's right before its replies to SetHysteresis. */
static bool announce_with_replies(sd_bus *bus, int reading)
{
    const std::string fault = R"({"service": "SensorDataRepository1", "member": "SetHysteresis", "count": 1, "signal":)"
                              R"( {"member": "ReadingSet", "signature": "sqy", "args": [":9.99", 1, )" +
                              std::to_string(reading) + "]}}";
    return sd_bus_call_method(bus, "com.brisemont.Simulator1", "/com/brisemont/Simulator1", "com.brisemont.Simulator1",
                              "AddFault", nullptr, nullptr, "s", fault.c_str()) >= 0;
}

/** The time from a call's return to the store's knowing what came with its reply; nothing else is on the bus. */
static void signal_with_a_reply(benchmark::State &state)
{
    sd_bus *control = nullptr;
    if (sd_bus_open_system(&control) < 0) {
        state.SkipWithError("no bus");
        return;
    }
    double worst = 0;
    int turn = 0;
    for (auto _ : state) {
        turn++;
        const bdbus_sdr_hysteresis value = {static_cast<uint8_t>(turn), static_cast<uint8_t>(turn >> 8)};
        const auto reading = static_cast<uint8_t>(turn);
        if (!announce_with_replies(control, reading) || bdbus_sdr_hysteresis_set(1, &value) != 0) {
            state.SkipWithError("a call failed");
            break;
        }
        const auto returned = steady_clock::now();
        uint8_t seen = 0;
        double waited = 0;
        do {
            bdbus_sdr_reading_get(1, &seen);
            waited = std::chrono::duration<double>(steady_clock::now() - returned).count();
        } while (seen != reading && waited < 5);
        worst = std::max(worst, waited);
        state.SetIterationTime(waited);
    }
    state.counters["worst_ms"] = worst * 1000;
    sd_bus_unref(control);
}
BENCHMARK(signal_with_a_reply)->Iterations(300)->UseManualTime()->Unit(benchmark::kMicrosecond);

int main(int argc, char **argv)
{
    uint32_t id = 0;
    uint8_t reading = 0;
    const bool read = bdbus_sdr_init() == 0;
    for (std::size_t i = 0; i < 2 * std::size(ids); i++) {
        while (read && ++id < 0xFFFF && bdbus_sdr_reading_get(static_cast<uint16_t>(id), &reading) != 0) {
        }
        (i < std::size(ids) ? ids : other_ids)[i % std::size(ids)] = static_cast<uint16_t>(id);
    }
    if (id == 0 || id == 0xFFFF) {
        fprintf(stderr, "no sensors: is this a simulated controller?\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

// SPDX-License-Identifier: LGPL-2.1-or-later
// What a read of the sensor store costs: alone, beside a plain copy and a copy under a mutex, and with another reader
// and a writer that never pauses, where no read may be torn.
#include "sdr/store.hpp"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <mutex>

using bdbus::sdr_store;

static constexpr uint16_t key = 0x0102;

static sdr_store &store()
{
    static sdr_store *const filled = [] {
        sdr_store *made = sdr_store::create();
        const uint8_t sdr[BDBUS_SDR_BYTES] = {};
        made->insert(key, sdr, 0);
        return made;
    }();
    return *filled;
}

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

static std::mutex mutex;
static bdbus_sdr_record guarded;

static void mutex_read(benchmark::State &state)
{
    for (auto _ : state) {
        const std::lock_guard guard(mutex);
        bdbus_sdr_record copy = guarded;
        benchmark::DoNotOptimize(copy);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(mutex_read);

/** A record all of whose words say the same is whole. */
static bool is_whole(const bdbus_sdr_record &record)
{
    for (const uint8_t byte : record.sdr) {
        if (byte != record.reading) {
            return false;
        }
    }
    return record.context == record.reading;
}

static void write_one(uint8_t value)
{
    store().update(key, [value](bdbus_sdr_record &record) {
        memset(record.sdr, value, sizeof(record.sdr));
        record.reading = value;
        record.context = value;
        return true;
    });
}

static void store_read(benchmark::State &state)
{
    for (auto _ : state) {
        bdbus_sdr_record copy;
        benchmark::DoNotOptimize(store().read(key, copy));
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(store_read);

// Thread 0 writes without pause; the others read, and count what is torn.
static void store_read_beside_a_writer(benchmark::State &state)
{
    int64_t torn = 0;
    uint8_t value = 0;
    for (auto _ : state) {
        if (state.thread_index() == 0) {
            write_one(++value);
            continue;
        }
        bdbus_sdr_record copy;
        torn += store().read(key, copy) && is_whole(copy) ? 0 : 1;
    }
    state.counters["torn"] = static_cast<double>(torn);
}
BENCHMARK(store_read_beside_a_writer)->Threads(3)->UseRealTime();

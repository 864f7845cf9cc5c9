// SPDX-License-Identifier: LGPL-2.1-or-later
// The writers' side of the record store, and the reader's last resort.
#include "sdr/store.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace bdbus
{

namespace
{

/** Reads that may be lost to a writer before a reader waits for it. */
constexpr int read_attempts = 64;

/**
 * Cells that are allocated together: so many that the allocator maps them apart from its heap, where single ones among
 * the bus's messages would leave holes that every later message is fitted around. Pages are touched as they are used.
 */
constexpr uint32_t cells_at_once = 2048;

} // namespace

void sdr_cell::store(const bdbus_sdr_record &record)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(&record);
#pragma GCC unroll 32
    for (std::size_t i = 0; i < count; i++) {
        uintptr_t value = 0;
        memcpy(&value, bytes + i * sizeof(value), std::min(sizeof(value), sizeof(record) - i * sizeof(value)));
        words[i].store(value, std::memory_order_relaxed);
    }
}

constinit sdr_store *sdr_store::created_ = nullptr;
constinit std::atomic<sdr_store *> sdr_records{nullptr};

sdr_store *sdr_store::create()
{
    auto *store = static_cast<sdr_store *>(calloc(1, sizeof(sdr_store)));
    if (store == nullptr) {
        return nullptr;
    }
    pthread_mutex_init(&store->lock_, nullptr);
    created_ = store;
    const auto lock = [] {
        pthread_mutex_lock(&created_->lock_);
    };
    const auto unlock = [] {
        pthread_mutex_unlock(&created_->lock_);
    };
    if (pthread_atfork(lock, unlock, unlock) != 0) {
        free(store);
        return nullptr;
    }
    return store;
}

bool sdr_store::read_again(const sdr_slot &slot, bdbus_sdr_record &out) const
{
    for (int attempt = 0; attempt < read_attempts; attempt++) {
        const outcome next = try_read(slot, out);
        if (next != outcome::lost) {
            return next == outcome::copied;
        }
    }
    const mutex_guard guard(lock_);
    return copy_cell(slot, out) != nullptr;
}

bdbus_sdr_record *sdr_store::find(uint16_t key) const
{
    return reinterpret_cast<bdbus_sdr_record *>(slots_[key].cell.load(std::memory_order_acquire));
}

/** Copy a slot's record out. The lock is held. @return its cell, or null. */
sdr_cell *sdr_store::copy_cell(const sdr_slot &slot, bdbus_sdr_record &out)
{
    sdr_cell *cell = slot.cell.load(std::memory_order_relaxed);
    if (cell != nullptr) {
        cell->load().put(out);
    }
    return cell;
}

/** Have the slot hold this record in this cell, or nothing when the cell is null. */
void sdr_store::write(sdr_slot &slot, sdr_cell *cell, const bdbus_sdr_record &record)
{
    const uint32_t sequence = slot.sequence.load(std::memory_order_relaxed);
    slot.sequence.store(sequence + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    if (cell != nullptr) {
        cell->store(record);
    }
    slot.cell.store(cell, std::memory_order_release);
    slot.sequence.store(sequence + 2, std::memory_order_release);
}

sdr_cell *sdr_store::take_cell()
{
    sdr_cell *cell = free_cells_;
    if (cell != nullptr) {
        free_cells_ = reinterpret_cast<sdr_cell *>(cell->words[0].load(std::memory_order_relaxed));
        return cell;
    }
    if (unused_count_ == 0) {
        unused_cells_ = static_cast<sdr_cell *>(malloc(cells_at_once * sizeof(sdr_cell)));
        if (unused_cells_ == nullptr) {
            return nullptr;
        }
        unused_count_ = cells_at_once;
    }
    return &unused_cells_[--unused_count_];
}

namespace
{

uint16_t little_endian(const uint8_t *bytes)
{
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

/** Fill a record from its SDR (IPMI 2.0, full sensor record); the numbers are offsets in it. */
void derive(bdbus_sdr_record &record, uint16_t key, const uint8_t *sdr)
{
    record.record_id = key;
    memcpy(record.sdr, sdr, sizeof(record.sdr));
    record.sdr[0] = static_cast<uint8_t>(key);
    record.sdr[1] = static_cast<uint8_t>(key >> 8);
    record.event_enable = {
        .flags = static_cast<uint8_t>(sdr[10] << 6), // scanning and event generation at power-up become bits 6 and 7
        .assertion_mask = little_endian(sdr + 14),
        .deassertion_mask = little_endian(sdr + 16),
    };
    record.reading = sdr[31];
    record.thresholds = {
        .readable_mask = sdr[18],
        .lower_noncritical = sdr[41],
        .lower_critical = sdr[40],
        .lower_nonrecoverable = sdr[39],
        .upper_noncritical = sdr[38],
        .upper_critical = sdr[37],
        .upper_nonrecoverable = sdr[36],
    };
    record.hysteresis = {.positive = sdr[42], .negative = sdr[43]};
}

} // namespace

int32_t sdr_store::insert(uint16_t key, const uint8_t *sdr, uintptr_t context)
{
    const mutex_guard guard(lock_);
    sdr_slot &slot = slots_[key];
    bdbus_sdr_record record = {};
    sdr_cell *cell = copy_cell(slot, record);
    if (cell == nullptr) {
        cell = take_cell();
    }
    if (cell == nullptr) {
        return -ENOMEM;
    }
    derive(record, key, sdr);
    if (context != 0) {
        record.context = context;
    }
    write(slot, cell, record);
    return 0;
}

bool sdr_store::remove(uint16_t key)
{
    const mutex_guard guard(lock_);
    sdr_slot &slot = slots_[key];
    sdr_cell *cell = slot.cell.load(std::memory_order_relaxed);
    if (cell == nullptr) {
        return false;
    }
    write(slot, nullptr, {});
    cell->words[0].store(reinterpret_cast<uintptr_t>(free_cells_), std::memory_order_relaxed);
    free_cells_ = cell;
    return true;
}

} // namespace bdbus

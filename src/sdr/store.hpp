// SPDX-License-Identifier: LGPL-2.1-or-later
// The record store: one slot for each 16-bit record ID.
//
// Readers take no lock. A slot's sequence is odd while its record is being written; a reader copies the record and
// takes the copy when the sequence was even and has not moved, else tries again. Records live in cells that are reused
// for records only and never given back, so a reader that lost a race has read old bytes, not foreign memory. A reader
// that loses too often, to a writer that was preempted in the middle, takes the lock for that one read.
//
// Writers hold the store lock. It is never held across a bus call or a callback.
#pragma once

#include "bus/connection.hpp"

#include <bdbus/sdr.h>

#include <atomic>
#include <cstring>

namespace bdbus
{

/** A record's memory, as words that may be read while they are written. */
struct sdr_cell {
    using word = std::atomic<uintptr_t>;
    static constexpr std::size_t count = sizeof(bdbus_sdr_record) / sizeof(word);
    static_assert(count * sizeof(word) == sizeof(bdbus_sdr_record) && word::is_always_lock_free);

    word words[count];

    void load(bdbus_sdr_record &out) const;
    void store(const bdbus_sdr_record &record);
};

struct sdr_slot {
    std::atomic<sdr_cell *> cell;
    std::atomic<uint32_t> sequence;
};

class sdr_store
{
public:
    /** An empty store, or null without memory. It lives to the end of the process. */
    static sdr_store *create();

    /** Copy a record out. @return whether the ID is stored. */
    bool read(uint16_t key, bdbus_sdr_record &out) const;

    /** The stored record itself, for the reading callback; null when the ID is not stored. */
    [[nodiscard]] bdbus_sdr_record *find(uint16_t key) const;

    /**
     * Change a record in place: `change` gets a copy and says whether to keep what it made of it.
     *
     * @return whether the ID is stored.
     */
    template <typename Change>
    bool update(uint16_t key, Change change)
    {
        const mutex_guard guard(lock_);
        sdr_cell *cell = slots_[key].cell.load(std::memory_order_relaxed);
        if (cell == nullptr) {
            return false;
        }
        bdbus_sdr_record record;
        cell->load(record);
        if (change(record)) {
            write(slots_[key], cell, record);
        }
        return true;
    }

    /** Put an SDR in, with the state that it names. @return 0, or -ENOMEM. */
    int32_t insert(uint16_t key, const uint8_t *sdr, uintptr_t context);

    /** @return whether the ID was stored. */
    bool remove(uint16_t key);

private:
    static void write(sdr_slot &slot, sdr_cell *cell, const bdbus_sdr_record &record);
    sdr_cell *take_cell();

    mutable pthread_mutex_t lock_;
    sdr_slot slots_[0x10000];
    sdr_cell *free_cells_; // each one's first word points to the next
};

} // namespace bdbus

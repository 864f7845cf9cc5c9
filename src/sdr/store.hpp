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
#include <utility>

namespace bdbus
{

/** A record's memory, as words that may be read while they are written. */
struct sdr_cell {
    using word = std::atomic<uintptr_t>;
    static constexpr std::size_t count = (sizeof(bdbus_sdr_record) + 2 * sizeof(word) - 1) / (2 * sizeof(word)) * 2;
    static_assert(count * sizeof(word) - sizeof(bdbus_sdr_record) < 2 * sizeof(word) && word::is_always_lock_free);

    word words[count];

    /** A copy of the words, in pairs, that a compiler can keep in registers. */
    struct copy {
        using pair = uintptr_t __attribute__((vector_size(2 * sizeof(uintptr_t))));
        pair pairs[count / 2];

        void put(bdbus_sdr_record &out) const { memcpy(&out, pairs, sizeof(out)); }
    };
    [[nodiscard]] copy load() const { return load(std::make_index_sequence<count / 2>()); }

    void store(const bdbus_sdr_record &record);

private:
    template <std::size_t... I>
    [[nodiscard]] copy load(std::index_sequence<I...> /*pairs*/) const
    {
        return {{copy::pair{words[2 * I].load(std::memory_order_relaxed),
                            words[2 * I + 1].load(std::memory_order_relaxed)}...}};
    }
};

struct sdr_slot {
    std::atomic<sdr_cell *> cell;
    std::atomic<uint32_t> sequence;
};

class sdr_store
{
public:
    /**
     * The store of the process, empty, or null without memory. It lives to the end of the process. A fork waits for its
     * writers, so that a child can read it.
     */
    static sdr_store *create();

    /** Copy a record out; `out` is written when there is one. @return whether the ID is stored. */
    bool read(uint16_t key, bdbus_sdr_record &out) const
    {
        const outcome first = try_read(slots_[key], out);
        return first == outcome::lost ? read_again(slots_[key], out) : first == outcome::copied;
    }

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
        bdbus_sdr_record record;
        sdr_cell *cell = copy_cell(slots_[key], record);
        if (cell != nullptr && change(record)) {
            write(slots_[key], cell, record);
        }
        return cell != nullptr;
    }

    /** Put an SDR in, with the state that it names. @return 0, or -ENOMEM. */
    int32_t insert(uint16_t key, const uint8_t *sdr, uintptr_t context);

    /** @return whether the ID was stored. */
    bool remove(uint16_t key);

private:
    enum class outcome : uint8_t { absent, copied, lost };

    static outcome try_read(const sdr_slot &slot, bdbus_sdr_record &out)
    {
        const uint32_t before = slot.sequence.load(std::memory_order_acquire);
        const sdr_cell *cell = slot.cell.load(std::memory_order_acquire);
        if (cell == nullptr) {
            return outcome::absent;
        }
        const sdr_cell::copy copy = cell->load();
        std::atomic_thread_fence(std::memory_order_acquire);
        if ((before & 1) != 0 || slot.sequence.load(std::memory_order_relaxed) != before) {
            return outcome::lost;
        }
        copy.put(out);
        return outcome::copied;
    }

    bool read_again(const sdr_slot &slot, bdbus_sdr_record &out) const;
    static sdr_cell *copy_cell(const sdr_slot &slot, bdbus_sdr_record &out);
    static void write(sdr_slot &slot, sdr_cell *cell, const bdbus_sdr_record &record);
    sdr_cell *take_cell();

    static sdr_store *created_;

    mutable pthread_mutex_t lock_;
    sdr_slot slots_[0x10000];
    sdr_cell *free_cells_; // each one's first word points to the next
    sdr_cell *unused_cells_;
    uint32_t unused_count_;
};

/** The store, or null before a successful init. */
extern std::atomic<sdr_store *> sdr_records;

} // namespace bdbus

// SPDX-License-Identifier: LGPL-2.1-or-later
// The sensor repository: reading it, getters, setters, and the signals that keep the copy alive. The library's thread
// that takes them is in its counts; the bare program takes them after its calls.
#include "bare.hpp"
#include "lockstep.hpp"
#include "row.hpp"

#include <bdbus/sdr.h>

#include <semaphore.h>

#include <cstring>
#include <mutex>

namespace bench
{

namespace
{

constexpr uint16_t sensor = 0;
constexpr uint8_t last_reading = 255;
bdbus_sdr_record copies[0x10000];

bool library_init()
{
    uint8_t reading = 0;
    return bdbus_sdr_init() == 0 && bdbus_sdr_reading_get(sensor, &reading) == 0;
}

/** Take what a signal says, unless it is this program's own doing. */
int on_reading(sd_bus_message *signal, void *last, sd_bus_error * /*error*/)
{
    const char *client = nullptr;
    const char *own = nullptr;
    uint16_t id = 0;
    uint8_t reading = 0;
    if (sd_bus_message_read(signal, "sqy", &client, &id, &reading) < 0) {
        return 0;
    }
    sd_bus_get_unique_name(sd_bus_message_get_bus(signal), &own);
    if (strcmp(client, own) != 0) {
        copies[id].reading = reading;
        *static_cast<uint8_t *>(last) = reading;
    }
    return 0;
}

uint8_t received = 0;

/** The seven signals of a live copy. */
sd_bus *live_bus()
{
    static bool subscribed = false;
    if (!subscribed) {
        subscribed = true;
        for (const char *member : {"RecordAdded", "RecordDeleted", "EventSet", "EventStatusSet", "HysteresisSet",
                                   "ReadingSet", "ThresholdSet"}) {
            sd_bus_match_signal(kept_bus(), nullptr, nullptr, sdr.path, sdr.name, member, on_reading, &received);
        }
    }
    return kept_bus();
}

/** Ask for a record and keep it. @return whether there is a next one. */
bool fetch(uint16_t &id)
{
    call get;
    uint8_t status = 0;
    const void *bytes = nullptr;
    size_t length = 0;
    if (!get.invoke(kept_bus(), sdr, "GetSdr", "q", id) || sd_bus_message_read(get.reply, "yq", &status, &id) < 0 ||
        sd_bus_message_read_array(get.reply, 'y', &bytes, &length) < 0 || length != BDBUS_SDR_BYTES) {
        id = 0;
        return false;
    }
    const auto *record = static_cast<const uint8_t *>(bytes);
    memcpy(copies[record[0] | record[1] << 8].sdr, bytes, length);
    return id != 0xFFFF;
}

bool bare_init()
{
    live_bus();
    uint16_t id = 0;
    while (fetch(id)) {
    }
    return id == 0xFFFF;
}

bool library_set()
{
    static const bool ready = library_init();
    return ready && bdbus_sdr_reading_set(sensor, 1) == 0;
}

bool bare_set()
{
    copies[sensor].reading = 1;
    call set;
    return set.invoke(live_bus(), sdr, "SetReading", "qy", sensor, 1);
}

bool bare_set_announced()
{
    const bool set = bare_set();
    while (sd_bus_process(kept_bus(), nullptr) > 0) {
    }
    return set;
}

constexpr unsigned burst = 10000;
sem_t burst_is_over;

void on_library_reading(bdbus_sdr_record *record)
{
    if (record->reading == last_reading) {
        sem_post(&burst_is_over);
    }
}

bool library_burst()
{
    static const bool ready = library_init();
    bdbus_sdr_set_reading_and_event_status_callback = on_library_reading;
    expect_signals(burst);
    return ready && bdbus_sdr_reading_set(sensor, 1) == 0 && sem_wait(&burst_is_over) == 0;
}

bool bare_burst()
{
    static const bool ready = bare_init();
    received = 0;
    expect_signals(burst);
    bool going = ready && bare_set();
    while (going && received != last_reading) {
        const int processed = sd_bus_process(kept_bus(), nullptr);
        going = processed > 0 || (processed == 0 && sd_bus_wait(kept_bus(), UINT64_MAX) >= 0);
    }
    return going;
}

/** Many times, so that the way to it does not count. */
constexpr unsigned copies_at_once = 100;

template <typename Copy>
bool copy_often(Copy copy_one)
{
    bool copied = true;
    for (unsigned i = 0; i < copies_at_once; i++) {
        bdbus_sdr_record copy;
        copied = copy_one(copy) && copied;
        asm volatile("" : : "r"(&copy) : "memory");
    }
    return copied;
}

bool library_get()
{
    static const bool ready = library_init();
    return ready && copy_often([](bdbus_sdr_record &copy) { return bdbus_sdr_get(sensor, &copy) == 0; });
}

bool bare_copy()
{
    return copy_often([](bdbus_sdr_record &copy) {
        copy = copies[sensor];
        return true;
    });
}

bool bare_copy_under_mutex()
{
    static std::mutex mutex;
    return copy_often([](bdbus_sdr_record &copy) {
        const std::lock_guard guard(mutex);
        copy = copies[sensor];
        return true;
    });
}

constexpr row rows[] = {
    {.name = "sdr-init-100",
     .title = "sensors: init, 100 records",
     .library = library_init,
     .bare = bare_init,
     .budget = 1.06,
     .few = 0,
     .many = 1,
     .service = "records=100"},
    {.name = "sdr-init-3000",
     .title = "sensors: init, 3,000 records",
     .library = library_init,
     .bare = bare_init,
     .budget = 1.02,
     .few = 0,
     .many = 1,
     .service = "records=3000"},
    {.name = "sdr-init-65535",
     .title = "sensors: init, 65,535 records",
     .library = library_init,
     .bare = bare_init,
     .budget = 1.02,
     .few = 0,
     .many = 1,
     .service = "records=65535",
     .long_running = true},
    {"sdr-set", "sensors: setter, with the listener", library_set, bare_set, 1.10},
    {.name = "sdr-set-announced",
     .title = "sensors: setter, announced",
     .library = library_set,
     .bare = bare_set_announced,
     .budget = 1.35,
     .service = "announce"},
    {.name = "sdr-signals",
     .title = "sensors: a signal of 10,000",
     .library = library_burst,
     .bare = bare_burst,
     .budget = 1.02,
     .few = 1,
     .many = 2,
     .per = burst,
     .service = "signals=10000"},
    {.name = "sdr-get",
     .title = "sensors: getter, and a plain copy",
     .library = library_get,
     .bare = bare_copy,
     .budget = 0,
     .few = 10,
     .many = 1010,
     .per = copies_at_once},
    {.name = "sdr-get-mutex",
     .title = "sensors: getter, and under a mutex",
     .library = library_get,
     .bare = bare_copy_under_mutex,
     .budget = 0,
     .few = 10,
     .many = 1010,
     .per = copies_at_once},
};

} // namespace

const std::span<const row> sdr_rows = rows;

} // namespace bench

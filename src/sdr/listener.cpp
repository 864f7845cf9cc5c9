// SPDX-License-Identifier: LGPL-2.1-or-later
// The listener: one thread that applies other clients' changes to the store and hands readings to the caller's
// callback.
//
// It dispatches under the module lock, one message a turn, until nothing is queued, and waits without the lock on an
// epoll set that holds the connection's descriptor. While a caller has the connection the set reports nothing of it, so
// that a reply wakes its caller alone. A caller that leaves messages in the queue has the set report that the
// descriptor can be written to, which it always can.
#include "sdr/connection.hpp"
#include "sdr/store.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

void (*bdbus_sdr_set_reading_and_event_status_callback)(bdbus_sdr_record *record) = nullptr;

namespace bdbus
{

namespace
{

constinit const char *own_name = nullptr; // unknown: every change counts as another client's
constinit int epoll_fd = -1;

// Guarded by the module lock.
constinit uint32_t reported = 0; // what the set reports of the connection
constinit bool paused = false;

/** The record whose reading the message in dispatch announced; the listener's own. */
constinit bdbus_sdr_record *read_record = nullptr;

constexpr uint32_t arrivals = EPOLLIN;
constexpr uint32_t at_once = EPOLLIN | EPOLLOUT;

void report_of_bus(uint32_t events)
{
    if (events != reported) {
        reported = events;
        epoll_event event = {.events = events, .data = {}};
        epoll_ctl(epoll_fd, EPOLL_CTL_MOD, sd_bus_get_fd(sdr_module.bus), &event);
    }
}

} // namespace

void sdr_hush_listener()
{
    if (reported != at_once) { // which it has not seen yet
        report_of_bus(0);
    }
}

bool sdr_rouse_listener()
{
    uint64_t queued = 0;
    sd_bus_get_n_queued_read(sdr_module.bus, &queued);
    if (queued > 0) {
        report_of_bus(at_once);
    } else if (reported != at_once && !paused) {
        report_of_bus(arrivals);
    }
    return queued > 0;
}

constinit std::atomic<bool> sdr_listener_waits{false};

// A mutex goes to whoever is there first, which would be a caller that makes one call after another, every time.
void sdr_let_listener_in()
{
    for (int i = 0; i < 100 && sdr_listener_waits.load(std::memory_order_relaxed); i++) {
        sched_yield();
    }
    if (sdr_listener_waits.load(std::memory_order_relaxed)) {
        poll(nullptr, 0, 1); // to a caller of a higher priority, the listener's turn comes only while it sleeps
    }
}

listener_pause::listener_pause()
{
    const mutex_guard guard(sdr_module.lock);
    paused = true;
    sdr_hush_listener();
}

listener_pause::~listener_pause()
{
    const mutex_guard guard(sdr_module.lock);
    paused = false;
    sdr_rouse_listener();
}

namespace
{

sdr_store &store()
{
    return *sdr_records.load(std::memory_order_relaxed);
}

bool is_own(const char *client)
{
    return own_name != nullptr && strcmp(client, own_name) == 0;
}

// The handlers. A signal that cannot be read, or is for a record that is not stored, leaves no trace.

int on_record_added(sd_bus_message *signal, void * /*userdata*/, sd_bus_error * /*error*/)
{
    const char *client = nullptr;
    if (read_message<"s">(signal, &client) <= 0) {
        return 0;
    }
    const uint8_t *sdr = read_exactly(signal, BDBUS_SDR_BYTES);
    if (sdr != nullptr && !is_own(client)) {
        store().insert(static_cast<uint16_t>(sdr[0] | sdr[1] << 8), sdr, 0); // without memory it is not stored
    }
    return 0;
}

int on_record_deleted(sd_bus_message *signal, void * /*userdata*/, sd_bus_error * /*error*/)
{
    const char *client = nullptr;
    uint16_t id = 0;
    if (read_message<"sq">(signal, &client, &id) > 0 && !is_own(client)) {
        store().remove(id);
    }
    return 0;
}

/** EventSet and EventStatusSet: one field of the record takes the three values. */
template <bdbus_sdr_event bdbus_sdr_record::*Field>
int on_event(sd_bus_message *signal, void * /*userdata*/, sd_bus_error * /*error*/)
{
    const char *client = nullptr;
    uint16_t id = 0;
    bdbus_sdr_event event = {};
    if (read_message<"sqyqq">(signal, &client, &id, &event.flags, &event.assertion_mask, &event.deassertion_mask) > 0 &&
        !is_own(client)) {
        store().update(id, [&event](bdbus_sdr_record &record) {
            record.*Field = event;
            return true;
        });
    }
    return 0;
}

int on_hysteresis(sd_bus_message *signal, void * /*userdata*/, sd_bus_error * /*error*/)
{
    const char *client = nullptr;
    uint16_t id = 0;
    bdbus_sdr_hysteresis hysteresis = {};
    if (read_message<"sqyy">(signal, &client, &id, &hysteresis.positive, &hysteresis.negative) > 0 && !is_own(client)) {
        store().update(id, [&hysteresis](bdbus_sdr_record &record) {
            record.hysteresis = hysteresis;
            return true;
        });
    }
    return 0;
}

int on_reading(sd_bus_message *signal, void * /*userdata*/, sd_bus_error * /*error*/)
{
    const char *client = nullptr;
    uint16_t id = 0;
    uint8_t reading = 0;
    if (read_message<"sqy">(signal, &client, &id, &reading) <= 0) {
        return 0;
    }
    if (!is_own(client)) {
        store().update(id, [reading](bdbus_sdr_record &record) {
            record.reading = reading;
            return true;
        });
    }
    read_record = store().find(id);
    return 0;
}

int on_thresholds(sd_bus_message *signal, void * /*userdata*/, sd_bus_error * /*error*/)
{
    const char *client = nullptr;
    uint16_t id = 0;
    if (read_message<"sq">(signal, &client, &id) <= 0) {
        return 0;
    }
    const uint8_t *bytes = read_exactly(signal, sizeof(bdbus_sdr_thresholds));
    if (bytes != nullptr && !is_own(client)) {
        store().update(id, [bytes](bdbus_sdr_record &record) {
            memcpy(&record.thresholds, bytes, sizeof(record.thresholds));
            return true;
        });
    }
    return 0;
}

constexpr struct {
    const char *member;
    sd_bus_message_handler_t handler;
} signals[] = {
    {"RecordAdded", on_record_added},
    {"RecordDeleted", on_record_deleted},
    {"EventSet", on_event<&bdbus_sdr_record::event_enable>},
    {"EventStatusSet", on_event<&bdbus_sdr_record::event_status>},
    {"HysteresisSet", on_hysteresis},
    {"ReadingSet", on_reading},
    {"ThresholdSet", on_thresholds},
};

// How long to wait, in milliseconds.
constexpr int not_at_all = 0;
constexpr int a_second = 1000;
constexpr int without_end = -1;

/** The time to what sd-bus itself waits for, rounded up. */
int until_timeout(sd_bus *bus)
{
    uint64_t until_us = UINT64_MAX;
    sd_bus_get_timeout(bus, &until_us); // on the monotonic clock; leaves "without end" when it fails
    if (until_us == UINT64_MAX) {
        return without_end;
    }
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t now_us = static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    return until_us <= now_us ? not_at_all
                              : static_cast<int>(std::min<uint64_t>((until_us - now_us) / 1000 + 1, INT_MAX));
}

/** Dispatch at most one message. The module lock is held. @return how long to wait before the next turn. */
int dispatch_one()
{
    sd_bus *bus = sdr_module.bus;
    const int processed = sd_bus_process(bus, nullptr);
    if (processed > 0) {
        return not_at_all;
    }
    if (processed == 0) {
        const int events = sd_bus_get_events(bus);
        report_of_bus(events > 0 && (events & POLLOUT) != 0 ? at_once : paused ? 0 : arrivals);
        return until_timeout(bus);
    }
    if (sd_bus_is_open(bus) > 0) {
        report_of_bus(0);
        return a_second; // such an error passes
    }
    // A connection that broke never comes back: there is nothing left to wait for. A set reports its end in any case.
    epoll_ctl(epoll_fd, EPOLL_CTL_DEL, sd_bus_get_fd(bus), nullptr);
    return without_end;
}

void wait(int milliseconds)
{
    epoll_event event = {};
    if (epoll_wait(epoll_fd, &event, 1, milliseconds) < 0 && errno != EINTR) {
        poll(nullptr, 0, a_second); // the process may have no descriptors at all: what can still be done is not to spin
    }
}

/** Hand the reading of the message just dispatched to the caller. No lock is held. */
void report_reading()
{
    bdbus_sdr_record *record = read_record;
    read_record = nullptr;
    const auto callback = __atomic_load_n(&bdbus_sdr_set_reading_and_event_status_callback, __ATOMIC_ACQUIRE);
    if (record != nullptr && callback != nullptr) {
        callback(record);
    }
}

void *listen(void * /*argument*/)
{
    for (;;) {
        int pause = not_at_all;
        {
            sdr_listener_waits.store(true, std::memory_order_relaxed);
            const mutex_guard guard(sdr_module.lock);
            sdr_listener_waits.store(false, std::memory_order_relaxed);
            pause = dispatch_one();
        }
        report_reading();
        if (pause != not_at_all) {
            wait(pause);
        }
    }
    return nullptr;
}

/** Create the thread, with no signal of the process delivered to it but its own faults. */
int create_thread()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    for (const int signal : fault_signals) {
        sigdelset(&all, signal);
    }
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread = {};
    const int error = pthread_create(&thread, nullptr, listen, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error == 0) {
        pthread_setname_np(thread, "bdbus-sdr");
    }
    return error;
}

} // namespace

int32_t sdr_subscribe(sd_bus *bus)
{
    own_name = nullptr;
    sd_bus_get_unique_name(bus, &own_name);
    int32_t result = 0;
    for (const auto &[member, handler] : signals) {
        result = result < 0 ? result : match_signal(bus, sdr_service, member, handler);
    }
    return result;
}

namespace
{

/** A set whose descriptor is none of the standard streams', which a program may have closed. */
int create_epoll()
{
    const int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(fd);
    errno = error;
    return moved;
}

/** Create the set, which reports nothing of the connection yet. @return 0, or a negative error number. */
int32_t watch_bus(sd_bus *bus)
{
    const int fd = create_epoll();
    if (fd < 0) {
        return -errno;
    }
    epoll_event nothing = {};
    if (epoll_ctl(fd, EPOLL_CTL_ADD, sd_bus_get_fd(bus), &nothing) < 0) {
        const int error = errno;
        close(fd);
        return -error;
    }
    epoll_fd = fd;
    return 0;
}

} // namespace

int32_t sdr_listener_start()
{
    const int32_t watched = epoll_fd < 0 ? watch_bus(sdr_module.bus) : 0; // an earlier attempt's is taken up again
    return watched < 0 ? watched : -create_thread();
}

} // namespace bdbus

// SPDX-License-Identifier: LGPL-2.1-or-later
// The listener: one thread that applies other clients' changes to the store and hands readings to the caller's
// callback.
//
// It dispatches under the module lock, one message a turn, until nothing is queued, and waits without the lock for the
// connection's descriptor and for callers that left messages in the queue.
#include "sdr/connection.hpp"
#include "sdr/store.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

void (*bdbus_sdr_set_reading_and_event_status_callback)(bdbus_sdr_record *record) = nullptr;

namespace bdbus
{

namespace
{

constinit const char *own_name = nullptr; // unknown: every change counts as another client's
constinit int wake_fd = -1;
constinit std::atomic<bool> paused{false};

/** The record whose reading the message in dispatch announced; the listener's own. */
constinit bdbus_sdr_record *read_record = nullptr;

} // namespace

void sdr_wake_listener()
{
    uint64_t queued = 0;
    if (sd_bus_get_n_queued_read(sdr_module.bus, &queued) >= 0 && queued > 0) {
        eventfd_write(wake_fd, 1); // fails only when it is raised already
    }
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
    paused.store(true, std::memory_order_relaxed);
}

listener_pause::~listener_pause()
{
    paused.store(false, std::memory_order_relaxed);
    eventfd_write(wake_fd, 1);
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

/** Read a byte array of exactly this length, or null. */
const uint8_t *read_exactly(sd_bus_message *signal, size_t length)
{
    const void *bytes = nullptr;
    size_t count = 0;
    const bool read = sd_bus_message_read_array(signal, 'y', &bytes, &count) >= 0 && count == length;
    return read ? static_cast<const uint8_t *>(bytes) : nullptr;
}

// The handlers. A signal that cannot be read, or is for a record that is not stored, leaves no trace.

int on_record_added(sd_bus_message *signal, void * /*userdata*/, sd_bus_error * /*error*/)
{
    const char *client = nullptr;
    if (sd_bus_message_read(signal, "s", &client) < 0) {
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
    if (sd_bus_message_read(signal, "sq", &client, &id) >= 0 && !is_own(client)) {
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
    if (sd_bus_message_read(signal, "sqyqq", &client, &id, &event.flags, &event.assertion_mask,
                            &event.deassertion_mask) >= 0 &&
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
    if (sd_bus_message_read(signal, "sqyy", &client, &id, &hysteresis.positive, &hysteresis.negative) >= 0 &&
        !is_own(client)) {
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
    if (sd_bus_message_read(signal, "sqy", &client, &id, &reading) < 0) {
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
    if (sd_bus_message_read(signal, "sq", &client, &id) < 0) {
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

/** How long to wait for what. */
struct wait_for {
    int fd;
    short events;
    uint64_t until_us; // on the monotonic clock; 0: do not wait, UINT64_MAX: without end
};

constexpr uint64_t us_per_s = 1'000'000;

uint64_t monotonic_us()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * us_per_s + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

/** Dispatch at most one message. The module lock is held. @return what to wait for before the next turn. */
wait_for dispatch_one()
{
    sd_bus *bus = sdr_module.bus;
    const int processed = sd_bus_process(bus, nullptr);
    if (processed > 0) {
        return {.fd = -1, .events = 0, .until_us = 0};
    }
    if (processed < 0) {
        // A connection that broke never comes back: there is nothing left to wait for. Other errors pass.
        return {.fd = -1, .events = 0, .until_us = sd_bus_is_open(bus) > 0 ? monotonic_us() + us_per_s : UINT64_MAX};
    }
    wait_for wait = {.fd = sd_bus_get_fd(bus), .events = 0, .until_us = UINT64_MAX};
    const int events = sd_bus_get_events(bus);
    wait.events = static_cast<short>(events < 0 ? 0 : events);
    sd_bus_get_timeout(bus, &wait.until_us); // leaves "without end" when it fails
    return wait;
}

void wait(const wait_for &what)
{
    pollfd fds[] = {{.fd = wake_fd, .events = POLLIN, .revents = 0},
                    {.fd = paused.load(std::memory_order_relaxed) ? -1 : what.fd, .events = what.events, .revents = 0}};
    timespec limit = {};
    if (what.until_us != UINT64_MAX) {
        const uint64_t now = monotonic_us();
        const uint64_t left = what.until_us > now ? what.until_us - now : 0;
        limit = {.tv_sec = static_cast<time_t>(left / us_per_s), .tv_nsec = static_cast<long>(left % us_per_s * 1000)};
    }
    if (ppoll(fds, 2, what.until_us == UINT64_MAX ? nullptr : &limit, nullptr) < 0 && errno != EINTR) {
        poll(nullptr, 0, 1000); // the process may have no descriptors at all: what can still be done is not to spin
    }
    if (fds[0].revents != 0) {
        eventfd_t raised = 0;
        eventfd_read(wake_fd, &raised);
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
        wait_for next = {};
        {
            sdr_listener_waits.store(true, std::memory_order_relaxed);
            const mutex_guard guard(sdr_module.lock);
            sdr_listener_waits.store(false, std::memory_order_relaxed);
            next = dispatch_one();
        }
        report_reading();
        if (next.until_us != 0) {
            wait(next);
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

/** A descriptor that stands for none of the standard streams, which a program may have closed. */
int create_wake_fd()
{
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    close(fd);
    errno = error;
    return moved;
}

} // namespace

int32_t sdr_listener_start()
{
    if (wake_fd < 0) {
        wake_fd = create_wake_fd();
        if (wake_fd < 0) {
            return -errno;
        }
    }
    return -create_thread();
}

} // namespace bdbus

// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/capture.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <bdbus/sdr.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <thread>

using bytes = std::vector<uint8_t>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

static constexpr uint16_t unknown_id = 0xFFFE;

/** A full sensor record whose state fields are all different. */
static bytes sensor(uint16_t id)
{
    bytes sdr(64);
    for (size_t i = 0; i < sdr.size(); i++) {
        sdr[i] = static_cast<uint8_t>(i + 100);
    }
    sdr[0] = static_cast<uint8_t>(id);
    sdr[1] = static_cast<uint8_t>(id >> 8);
    return sdr;
}

/** Assign the reading callback while the listener may read it. */
static void set_callback(void (*callback)(bdbus_sdr_record *record))
{
    __atomic_store_n(&bdbus_sdr_set_reading_and_event_status_callback, callback, __ATOMIC_RELEASE);
}

/** The ID of a stored record that other threads may be writing. */
static uint16_t id_of(const bdbus_sdr_record *record)
{
    return __atomic_load_n(&record->record_id, __ATOMIC_RELAXED);
}

static bool is_stored(uint16_t id)
{
    uint8_t reading = 0;
    return bdbus_sdr_reading_get(id, &reading) == 0;
}

static void fault(const char *member, const json &action, int count = 1, int skip = 0)
{
    json one = {{"service", "SensorDataRepository1"}, {"member", member}, {"count", count}, {"skip", skip}};
    one.update(action);
    simulator::fault(one);
}

/** Have the service announce something in another client's name. */
static void announce(const char *member, const char *signature, json values)
{
    values.insert(values.begin(), ":9.99");
    simulator::emit(
        {{"service", "SensorDataRepository1"}, {"member", member}, {"signature", signature}, {"args", values}});
}

// Nothing is there before init, and a process that never got it to work can go on trying.

using sdr_before = controller_test;

TEST_F(sdr_before, init_everything_is_refused_and_a_failed_init_may_be_repeated)
{
    bdbus_sdr_record record = {};
    bdbus_sdr_event event = {};
    uint16_t id = 0;
    EXPECT_EQ(bdbus_sdr_get(1, &record), -EINVAL);
    EXPECT_EQ(bdbus_sdr_event_get(1, &event), -EINVAL);
    EXPECT_EQ(bdbus_sdr_reading_set(1, 1), -EINVAL);
    EXPECT_EQ(bdbus_sdr_event_set(1, &event), -EINVAL);
    EXPECT_EQ(bdbus_sdr_delete(1), -EINVAL);
    EXPECT_EQ(bdbus_sdr_add(sensor(1).data(), 64, &id, 0), -ENOTCONN);
    without_bus([] {
        const stderr_capture said;
        EXPECT_EQ(bdbus_sdr_init(), -ENOENT);
        EXPECT_EQ(said.text(), "Failed to connect to system bus: No such file or directory\n");
        EXPECT_FALSE(is_stored(1));
    });
    std::vector<std::thread> racing;
    for (int i = 0; i < 4; i++) {
        racing.emplace_back([] {
            EXPECT_EQ(bdbus_sdr_init(), 0);
            EXPECT_TRUE(is_stored(1));
        });
    }
    for (std::thread &thread : racing) {
        thread.join();
    }
    EXPECT_EQ(bdbus_sdr_init(), 0);
    const std::vector<std::string> members = simulator::members("SensorDataRepository1");
    EXPECT_EQ(members.size(), simulator::state()["sdr"]["records"].size()) << "the repository was read once";
}

// How the reading of the repository ends. Each case is a process of its own: only a child ever calls init.

class sdr_walk : public controller_test
{
protected:
    /** The number of records in the store of a new process after its init. */
    static int stored_after_init()
    {
        const pid_t child = fork();
        if (child == 0) {
            int count = bdbus_sdr_init() == 0 ? 0 : 200;
            for (uint32_t id = 0; id <= 0xFFFF; id++) {
                count += is_stored(static_cast<uint16_t>(id));
            }
            _exit(count);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WEXITSTATUS(status);
    }

    static void reply(uint16_t key, uint16_t next, uint8_t status = 0, size_t length = 64)
    {
        bytes sdr = sensor(key);
        sdr.resize(length);
        fault("GetSdr", {{"reply", {{"signature", "yqay"}, {"values", {status, next, sdr}}}}});
    }

    static size_t asked() { return simulator::calls("SensorDataRepository1").size(); }
};

TEST_F(sdr_walk, follows_the_chain_to_its_end)
{
    reply(0, 1);
    reply(1, 2);
    reply(2, 0xFFFF);
    EXPECT_EQ(stored_after_init(), 3);
    EXPECT_EQ(asked(), 3U);

    for (uint16_t id = 1; id <= 3; id++) { // a service that counts its records from 1
        reply(id, id == 3 ? 0xFFFF : id);
    }
    EXPECT_EQ(stored_after_init(), 3);
}

TEST_F(sdr_walk, keeps_what_it_has_read_when_a_record_cannot_be_read)
{
    const auto after_two = [](const std::function<void()> &third) {
        simulator::reset();
        reply(0x0102, 7);
        reply(7, 8);
        third();
        EXPECT_EQ(stored_after_init(), 2);
        EXPECT_EQ(asked(), 3U);
    };
    after_two([] { reply(8, 9, 0xC1); });
    after_two([] { reply(8, 9, 0, 60); });
    after_two([] { reply(8, 9, 0, 65); });
    after_two([] { reply(8, 9, 0, 0); });
    after_two([] { fault("GetSdr", {{"reply", {{"signature", "yq"}, {"values", {0, 9}}}}}); });
    after_two([] { fault("GetSdr", {{"reply", {{"signature", "s"}, {"values", {"?"}}}}}); });
    after_two([] { fault("GetSdr", {{"error", {{"name", "org.freedesktop.DBus.Error.Failed"}, {"message", "no"}}}}); });
    after_two([] { fault("GetSdr", {{"die", true}}); });
}

TEST_F(sdr_walk, stops_at_an_id_that_comes_again)
{
    const std::vector<std::vector<std::pair<uint16_t, uint16_t>>> chains = {
        {{5, 5}, {5, 5}},         // the last record
        {{5, 6}, {6, 0}},         // restarts the walk
        {{5, 6}, {6, 7}, {7, 6}}, // a loop
        {{5, 6}, {5, 8}, {5, 8}}, // one record under many IDs
    };
    for (const auto &chain : chains) {
        simulator::reset();
        for (const auto &[key, next] : chain) {
            reply(key, next);
        }
        stored_after_init();
        EXPECT_EQ(asked(), chain.size());
    }
}

TEST_F(sdr_walk, hears_of_changes_while_it_lasts)
{
    fault("GetSdr", {{"delay_ms", 300}}, 0, 3); // half a minute, if it went on to the end
    const pid_t child = fork();
    if (child == 0) {
        std::thread init([] { bdbus_sdr_init(); });
        const bool heard = eventually([] {
            uint8_t reading = 0;
            return bdbus_sdr_reading_get(1, &reading) == 0 && reading == 77;
        });
        _exit(heard ? 0 : 1);
    }
    ASSERT_TRUE(eventually([] { return asked() > 4; }));
    announce("ReadingSet", "sqy", {1, 77});
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_LT(asked(), simulator::state()["sdr"]["records"].size());
}

// Of what the standard streams and the last descriptors are, a thread in the background must not depend.
TEST_F(sdr_walk, leaves_a_listener_that_takes_no_stream_and_does_not_spin)
{
    const pid_t child = fork();
    if (child == 0) {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            close(stream);
        }
        const bool read = bdbus_sdr_init() == 0;
        bool taken = false;
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            taken |= fcntl(stream, F_GETFD) >= 0;
        }
        const rlimit none = {.rlim_cur = 1, .rlim_max = 1};
        setrlimit(RLIMIT_NOFILE, &none);
        bdbus_sdr_reading_set(1, 77); // wakes it
        const bool idle = eventually([] {
            const clock_t before = clock();
            poll(nullptr, 0, 500);
            return clock() - before < CLOCKS_PER_SEC / 10;
        });
        _exit(read && !taken && idle ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

class sdr : public controller_test
{
protected:
    static void SetUpTestSuite() { EXPECT_EQ(bdbus_sdr_init(), 0); }

    void SetUp() override
    {
        controller_test::SetUp();
        uint16_t id = 0;
        ASSERT_EQ(bdbus_sdr_add(sensor(0xFFFF).data(), 64, &id, 0), 0);
        id_ = id;
        simulator::clear_calls();
    }

    void TearDown() override
    {
        set_callback(nullptr);
        const stderr_capture said;
        bdbus_sdr_delete(id_);
    }

    /** The last call's member, signature and arguments; the store and the service know the test's record by its ID. */
    static json last_call()
    {
        const json calls = simulator::calls("SensorDataRepository1");
        return calls.empty() ? json() : json({calls.back()["member"], calls.back()["signature"], calls.back()["args"]});
    }

    static size_t sent() { return simulator::calls("SensorDataRepository1").size(); }

    uint16_t id_ = 0;
};

TEST_F(sdr, derives_a_sensors_state_from_its_record)
{
    bytes data = sensor(0);
    data[10] = 0x7D;
    uint16_t id = 0;
    ASSERT_EQ(bdbus_sdr_add(data.data(), 64, &id, 0xCAFE), 0);
    EXPECT_EQ(last_call()[0], "AddSdr");
    EXPECT_EQ(last_call()[2][0]["length"], 64);

    bdbus_sdr_record record;
    memset(&record, 0xEE, sizeof(record));
    ASSERT_EQ(bdbus_sdr_get(id, &record), 0);
    EXPECT_EQ(record.record_id, id);
    EXPECT_EQ(record.sdr[0] | record.sdr[1] << 8, id);
    EXPECT_EQ(memcmp(record.sdr + 2, &data[2], 62), 0);
    EXPECT_EQ(record.event_enable.flags, 0x40);
    EXPECT_EQ(record.event_enable.assertion_mask, 115 << 8 | 114);
    EXPECT_EQ(record.event_enable.deassertion_mask, 117 << 8 | 116);
    EXPECT_EQ(record.event_status.flags | record.event_status.assertion_mask | record.event_status.deassertion_mask, 0);
    EXPECT_EQ(record.context, 0xCAFEU);

    uint8_t reading = 0;
    bdbus_sdr_thresholds limits = {};
    bdbus_sdr_hysteresis hysteresis = {};
    EXPECT_EQ(bdbus_sdr_reading_get(id, &reading), 0);
    EXPECT_EQ(bdbus_sdr_threshold_get(id, &limits), 0);
    EXPECT_EQ(bdbus_sdr_hysteresis_get(id, &hysteresis), 0);
    EXPECT_EQ(reading, 131);
    EXPECT_EQ(json({limits.readable_mask, limits.lower_noncritical, limits.lower_critical, limits.lower_nonrecoverable,
                    limits.upper_noncritical, limits.upper_critical, limits.upper_nonrecoverable}),
              json({118, 141, 140, 139, 138, 137, 136}));
    EXPECT_EQ(json({hysteresis.positive, hysteresis.negative}), json({142, 143}));

    const bdbus_sdr_event status = {1, 2, 3};
    EXPECT_EQ(bdbus_sdr_event_status_set(id, &status), 0);
    fault("AddSdr", {{"reply", {{"signature", "q"}, {"values", {id}}}}});
    EXPECT_EQ(bdbus_sdr_add(data.data(), 64, &id, 0), 0) << "the same ID again";
    EXPECT_EQ(bdbus_sdr_get(id, &record), 0);
    EXPECT_EQ(record.context, 0xCAFEU);
    EXPECT_EQ(record.event_status.deassertion_mask, 3);

    EXPECT_EQ(bdbus_sdr_delete(id), 0);
    EXPECT_EQ(last_call(), json({"DeleteSdr", "q", {id}}));
    fault("AddSdr", {{"reply", {{"signature", "q"}, {"values", {id}}}}});
    EXPECT_EQ(bdbus_sdr_add(data.data(), 64, &id, 0), 0);
    EXPECT_EQ(bdbus_sdr_get(id, &record), 0);
    EXPECT_EQ(record.context, 0U) << "a record that was deleted leaves nothing behind";
    EXPECT_EQ(record.event_status.deassertion_mask, 0);
    const stderr_capture said;
    EXPECT_LT(bdbus_sdr_delete(id), 0) << "the service never had it the second time";
    EXPECT_FALSE(is_stored(id));
}

TEST_F(sdr, tells_the_service_what_has_changed_and_nothing_else)
{
    const bdbus_sdr_event event = {0xC0, 0x1234, 0x5678};
    const bdbus_sdr_hysteresis hysteresis = {9, 8};
    const bdbus_sdr_thresholds thresholds = {1, 2, 3, 4, 5, 6, 7};
    for (const bool again : {false, true}) {
        const size_t before = sent();
        EXPECT_EQ(bdbus_sdr_event_set(id_, &event), 0);
        EXPECT_TRUE(again || last_call() == json({"SetEvent", "qyqq", {id_, 0xC0, 0x1234, 0x5678}})) << last_call();
        EXPECT_EQ(bdbus_sdr_event_status_set(id_, &event), 0);
        EXPECT_TRUE(again || last_call() == json({"SetEventStatus", "qyqq", {id_, 0xC0, 0x1234, 0x5678}}));
        EXPECT_EQ(bdbus_sdr_hysteresis_set(id_, &hysteresis), 0);
        EXPECT_TRUE(again || last_call() == json({"SetHysteresis", "qyy", {id_, 9, 8}}));
        EXPECT_EQ(bdbus_sdr_threshold_set(id_, &thresholds), 0);
        EXPECT_TRUE(again || last_call()[2] == json({id_, {{"length", 7}, {"hex", "01020304050607"}}})) << last_call();
        EXPECT_EQ(sent() - before, again ? 0U : 4U);
    }
    for (int i = 1; i <= 2; i++) {
        const size_t before = sent();
        EXPECT_EQ(bdbus_sdr_reading_set(id_, 42), 0);
        EXPECT_EQ(last_call(), json({"SetReading", "qy", {id_, 42}}));
        EXPECT_EQ(sent(), before + 1) << "a reading is sent even when it is the same";
    }
    bdbus_sdr_event read = {};
    EXPECT_EQ(bdbus_sdr_event_status_get(id_, &read), 0);
    EXPECT_EQ(read.assertion_mask, 0x1234);
}

TEST_F(sdr, refuses_bad_arguments_without_bus_traffic)
{
    uint16_t id = 77;
    const bytes data = sensor(1);
    EXPECT_EQ(bdbus_sdr_add(data.data(), 63, &id, 0), -EINVAL);
    EXPECT_EQ(bdbus_sdr_add(data.data(), 65, &id, 0), -EINVAL);
    EXPECT_EQ(bdbus_sdr_add(nullptr, 64, &id, 0), -EINVAL);
    EXPECT_EQ(bdbus_sdr_add(data.data(), 64, nullptr, 0), -EINVAL);
    EXPECT_EQ(bdbus_sdr_get(id_, nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sdr_threshold_get(id_, nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sdr_threshold_set(id_, nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sdr_event_set(id_, nullptr), -EINVAL);
    EXPECT_EQ(bdbus_sdr_reading_set(unknown_id, 1), -EINVAL);
    EXPECT_EQ(bdbus_sdr_delete(unknown_id), -EINVAL);
    EXPECT_EQ(id, 77);
    EXPECT_EQ(sent(), 0U);
}

TEST_F(sdr, keeps_the_copy_as_written_when_the_service_fails)
{
    uint8_t next = 10;
    expect_every_failure_is_told({.service = "SensorDataRepository1",
                                  .member = "AddSdr",
                                  .call =
                                      [] {
                                          uint16_t id = unknown_id;
                                          const bool added = bdbus_sdr_add(sensor(1).data(), 64, &id, 0) == 0;
                                          EXPECT_EQ(added, id != unknown_id);
                                          return added && bdbus_sdr_delete(id) == 0;
                                      },
                                  .issue_text = "Failed to issue method call",
                                  .prints_error_text = true,
                                  .parse_text = "Failed to parse response message"});
    const stderr_capture said;
    fault("SetReading", {{"error", {{"name", "org.freedesktop.DBus.Error.AccessDenied"}, {"message", "not today"}}}});
    EXPECT_EQ(bdbus_sdr_reading_set(id_, next), -EACCES);
    EXPECT_EQ(said.text(), "Failed to issue method call: not today\n");
    uint8_t reading = 0;
    EXPECT_EQ(bdbus_sdr_reading_get(id_, &reading), 0);
    EXPECT_EQ(reading, next);
    fault("DeleteSdr", {{"error", {{"name", "org.freedesktop.DBus.Error.AccessDenied"}, {"message", "no"}}}});
    EXPECT_EQ(bdbus_sdr_delete(id_), -EACCES);
    EXPECT_FALSE(is_stored(id_));
}

TEST_F(sdr, applies_what_other_clients_change)
{
    const bytes seven = {9, 8, 7, 6, 5, 4, 3};
    announce("EventSet", "sqyqq", {id_, 1, 0x0203, 0x0405});
    announce("EventStatusSet", "sqyqq", {id_, 6, 0x0708, 0x090A});
    announce("HysteresisSet", "sqyy", {id_, 11, 12});
    announce("ThresholdSet", "sqay", {id_, seven});
    announce("ReadingSet", "sqy", {id_, 99});
    const auto record = [this] {
        bdbus_sdr_record copy = {};
        bdbus_sdr_get(id_, &copy);
        return copy;
    };
    ASSERT_TRUE(eventually([&] { return record().reading == 99; }));
    EXPECT_EQ(record().event_enable.assertion_mask, 0x0203);
    EXPECT_EQ(record().event_status.deassertion_mask, 0x090A);
    EXPECT_EQ(record().hysteresis.negative, 12);
    EXPECT_EQ(record().thresholds.upper_nonrecoverable, 3);
    EXPECT_EQ(record().thresholds.readable_mask, 9);

    announce("RecordAdded", "say", {sensor(0xFEDC)});
    EXPECT_TRUE(eventually([] { return is_stored(0xFEDC); }));
    announce("RecordDeleted", "sq", {0xFEDC});
    EXPECT_TRUE(eventually([] { return !is_stored(0xFEDC); }));
    EXPECT_EQ(sent(), 0U);
}

TEST_F(sdr, drops_signals_that_are_malformed_strange_or_its_own)
{
    uint8_t before = 0;
    bdbus_sdr_reading_get(id_, &before);
    bdbus_sdr_reading_set(id_, before);
    const std::string own = simulator::calls("SensorDataRepository1").back()["sender"];
    const auto own_signal = [&own](const char *member, const char *signature, json values) {
        values.insert(values.begin(), own);
        simulator::emit(
            {{"service", "SensorDataRepository1"}, {"member", member}, {"signature", signature}, {"args", values}});
    };
    own_signal("RecordAdded", "say", {sensor(0xFEDC)});
    own_signal("RecordDeleted", "sq", {id_});
    own_signal("EventSet", "sqyqq", {id_, 1, 2, 3});
    own_signal("ReadingSet", "sqy", {id_, before + 1});
    announce("ThresholdSet", "sqay", {id_, bytes(6, 1)});
    announce("ThresholdSet", "sqay", {id_, bytes(8, 1)});
    announce("ThresholdSet", "sqay", {unknown_id, bytes(7, 1)});
    announce("RecordAdded", "say", {bytes(63, 0xDC)});
    announce("RecordAdded", "s", json::array());
    announce("RecordDeleted", "su", {id_});
    announce("ReadingSet", "sq", {id_});
    announce("ReadingSet", "sqy", {unknown_id, 1});
    announce("HysteresisSet", "s", json::array());
    announce("Unheard", "sqy", {id_, 1});
    announce("HysteresisSet", "sqyy", {id_, 201, 202}); // the last one: those before it have been handled
    bdbus_sdr_record record = {};
    ASSERT_TRUE(eventually([&] { return bdbus_sdr_get(id_, &record) == 0 && record.hysteresis.negative == 202; }));
    EXPECT_EQ(record.reading, before);
    EXPECT_EQ(record.event_enable.flags, static_cast<uint8_t>(110 << 6));
    EXPECT_EQ(record.thresholds.lower_critical, 140);
    EXPECT_FALSE(is_stored(0xFEDC));
}

namespace
{
std::atomic<int> called;
std::atomic<uint16_t> called_with;
std::atomic<int> called_reading;

void count_call(bdbus_sdr_record *record)
{
    called_with = id_of(record);
    called_reading = __atomic_load_n(&record->reading, __ATOMIC_RELAXED);
    called++;
}

void call_back(bdbus_sdr_record *record)
{
    bdbus_sdr_record copy = {};
    const bdbus_sdr_event event = {static_cast<uint8_t>(called + 1), 1, 1};
    EXPECT_EQ(bdbus_sdr_get(id_of(record), &copy), 0);
    EXPECT_EQ(bdbus_sdr_event_status_set(id_of(record), &event), 0);
    called++;
}
} // namespace

TEST_F(sdr, hands_every_reading_to_the_callback_once)
{
    called = 0;
    set_callback(count_call);
    announce("ReadingSet", "sqy", {id_, 55});
    ASSERT_TRUE(eventually([] { return called == 1; }));
    EXPECT_EQ(called_with, id_);
    EXPECT_EQ(called_reading, 55);
    EXPECT_EQ(bdbus_sdr_reading_set(id_, 56), 0); // its own: announced by the service, too
    ASSERT_TRUE(eventually([] { return called == 2; }));
    EXPECT_EQ(called_reading, 56);
    announce("ReadingSet", "sqy", {unknown_id, 1});
    announce("HysteresisSet", "sqyy", {id_, 1, 1});
    set_callback(call_back);
    announce("ReadingSet", "sqy", {id_, 57});
    ASSERT_TRUE(eventually([] { return called == 3; })) << "a callback may call the family back";
    EXPECT_TRUE(eventually([this] {
        bdbus_sdr_event status = {};
        return bdbus_sdr_event_status_get(id_, &status) == 0 && status.flags == 3;
    }));
}

TEST_F(sdr, calls_back_in_a_thread_with_a_name_and_its_own_faults)
{
    static std::array<char, 16> name;
    static sigset_t blocked;
    called = 0;
    set_callback([](bdbus_sdr_record *) {
        pthread_getname_np(pthread_self(), name.data(), name.size());
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        called++;
    });
    announce("ReadingSet", "sqy", {id_, 1});
    ASSERT_TRUE(eventually([] { return called == 1; }));
    EXPECT_STREQ(name.data(), "bdbus-sdr");
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        EXPECT_EQ(sigismember(&blocked, fault), 0) << fault;
    }
    for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGUSR1}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
}

TEST_F(sdr, misses_no_signal_that_came_in_with_a_reply)
{
    called = 0;
    set_callback(count_call);
    for (int i = 0; i < 300; i++) { // the service announces each reading right before it replies
        ASSERT_EQ(bdbus_sdr_reading_set(id_, static_cast<uint8_t>(i)), 0);
    }
    EXPECT_TRUE(eventually([] { return called == 300; })) << called;
    for (int i = 1; i <= 300; i++) { // another client's, with the reply to a call and nothing after it
        const auto value = static_cast<uint8_t>(i);
        fault("SetHysteresis",
              {{"signal", {{"member", "ReadingSet"}, {"signature", "sqy"}, {"args", {":9.99", id_, value}}}}});
        const bdbus_sdr_hysteresis changed = {value, static_cast<uint8_t>(i >> 8)};
        ASSERT_EQ(bdbus_sdr_hysteresis_set(id_, &changed), 0);
        uint8_t reading = 0;
        ASSERT_TRUE(eventually([&] { return bdbus_sdr_reading_get(id_, &reading) == 0 && reading == value; })) << i;
    }
}

TEST_F(sdr, answers_getters_while_a_call_hangs_and_while_the_service_is_away)
{
    fault("SetHysteresis", {{"no_reply", true}});
    std::atomic<bool> hanging = true;
    std::thread caller([&] {
        const stderr_capture said;
        const bdbus_sdr_hysteresis hysteresis = {1, 2};
        EXPECT_LT(bdbus_sdr_hysteresis_set(id_, &hysteresis), 0);
        hanging = false;
    });
    ASSERT_TRUE(eventually([] { return sent() == 1; }));
    EXPECT_TRUE(is_stored(id_));
    EXPECT_TRUE(hanging);

    simulator::stop("SensorDataRepository1");
    caller.join();
    EXPECT_TRUE(is_stored(id_));
    {
        const stderr_capture said;
        EXPECT_EQ(bdbus_sdr_reading_set(id_, 1), -EHOSTUNREACH);
    }
    simulator::start("SensorDataRepository1");
    EXPECT_EQ(bdbus_sdr_reading_set(id_, 2), 0);
}

TEST_F(sdr, stays_whole_in_a_storm)
{
    const char *seconds = getenv("BDBUS_STORM_SECONDS");
    const auto end = steady_clock::now() + milliseconds(seconds != nullptr ? atoi(seconds) * 1000 : 1000);
    const stderr_capture said; // of deletions that race
    const auto look_back = [](bdbus_sdr_record *record) {
        is_stored(id_of(record));
    };
    const bdbus_sdr_thresholds even = {};
    bdbus_sdr_threshold_set(id_, &even);
    std::atomic<int> torn = 0;
    std::atomic<long> reads = 0;
    std::vector<std::thread> threads;
    const auto run = [&](const std::function<void(int)> &body) {
        threads.emplace_back([&reads, body, end] {
            for (int i = 0; steady_clock::now() < end || reads < 1000; i++) {
                body(i);
            }
        });
    };
    for (int reader = 0; reader < 2; reader++) {
        run([&](int) {
            bdbus_sdr_record record;
            if (bdbus_sdr_get(id_, &record) == 0 &&
                (record.thresholds.lower_critical != record.thresholds.upper_critical ||
                 record.thresholds.readable_mask != record.thresholds.lower_critical)) {
                torn++;
            }
            if (bdbus_sdr_get(0xFEDC, &record) == 0 && (record.record_id != 0xFEDC || record.sdr[63] != 163)) {
                torn++;
            }
            reads++;
        });
    }
    run([this](int i) {
        const auto value = static_cast<uint8_t>(i);
        const bdbus_sdr_thresholds same = {value, value, value, value, value, value, value};
        bdbus_sdr_threshold_set(id_, &same);
    });
    run([](int) {
        uint16_t id = 0;
        if (bdbus_sdr_add(sensor(1).data(), 64, &id, 1) == 0) {
            bdbus_sdr_delete(id);
        }
    });
    run([&](int i) { // a callback that comes and goes
        set_callback(i % 3 == 0 ? nullptr : i % 3 == 1 ? count_call : +look_back);
        std::this_thread::yield();
    });
    run([this](int i) {
        announce(i % 2 == 0 ? "RecordAdded" : "RecordDeleted", i % 2 == 0 ? "say" : "sq",
                 i % 2 == 0 ? json({sensor(0xFEDC)}) : json({0xFEDC}));
        announce("ReadingSet", "sqy", {id_, i & 0xFF});
    });
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn, 0);
}

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

static const char *const repository = "SensorDataRepository1";

/** Have the service announce something in a client's name. */
static void announce(const char *member, const char *signature, json values, const std::string &client = ":9.99")
{
    values.insert(values.begin(), client);
    simulator::emit({{"service", repository}, {"member", member}, {"signature", signature}, {"args", values}});
}

// Nothing is there before init, and a process that never got it to work can go on trying.

using sdr_before = controller_test;

TEST_F(sdr_before, init_everything_is_refused_and_a_failed_init_may_be_repeated)
{
    bdbus_sdr_record record = {};
    bdbus_sdr_event event = {};
    uint16_t id = 0;
    for (const int32_t refused : {bdbus_sdr_get(1, &record), bdbus_sdr_event_get(1, &event), bdbus_sdr_delete(1),
                                  bdbus_sdr_reading_set(1, 1), bdbus_sdr_event_set(1, &event)}) {
        EXPECT_EQ(refused, -EINVAL);
    }
    EXPECT_EQ(bdbus_sdr_add(sensor(1).data(), 64, &id, 0), -ENOTCONN);
    without_bus([] {
        const stderr_capture said;
        EXPECT_EQ(bdbus_sdr_init(), -ENOENT);
        EXPECT_EQ(said.text(), "Failed to connect to system bus: No such file or directory\n");
        EXPECT_FALSE(is_stored(1));
    });
    std::vector<std::jthread> racing;
    for (int i = 0; i < 4; i++) {
        racing.emplace_back([] {
            EXPECT_EQ(bdbus_sdr_init(), 0);
            EXPECT_TRUE(is_stored(1));
        });
    }
    racing.clear(); // joins them
    EXPECT_EQ(bdbus_sdr_init(), 0);
    EXPECT_EQ(simulator::calls(repository).size(), simulator::state()["sdr"]["records"].size()) << "read once";

    // No call of the program's own has had the listener look at the connection since.
    for (const uint16_t stranger : {uint16_t{0xFEDC}, uint16_t{0xFEDD}}) {
        announce("RecordAdded", "say", json::array({sensor(stranger)}));
        EXPECT_TRUE(eventually([stranger] { return is_stored(stranger); }));
    }
}

// How the reading of the repository ends. Each case is a process of its own: only a child ever calls init.

class sdr_walk : public controller_test
{
protected:
    /** The number of records in the store of a new process after its init. */
    static int stored_after_init()
    {
        return in_child([] {
            int count = bdbus_sdr_init() == 0 ? 0 : 200;
            for (uint32_t id = 0; id <= 0xFFFF; id++) {
                count += is_stored(static_cast<uint16_t>(id));
            }
            return count;
        });
    }

    static json reply(uint16_t key, uint16_t next, uint8_t status = 0, size_t length = 64)
    {
        bytes sdr = sensor(key);
        sdr.resize(length);
        return {{"reply", {{"signature", "yqay"}, {"values", {status, next, sdr}}}}};
    }

    static void answer(const std::vector<json> &replies)
    {
        for (const json &one : replies) {
            simulator::fault(repository, "GetSdr", one);
        }
    }

    static size_t asked() { return simulator::calls(repository).size(); }
};

TEST_F(sdr_walk, follows_the_chain_to_its_end)
{
    answer({reply(0, 1), reply(1, 2), reply(2, 0xFFFF)});
    EXPECT_EQ(stored_after_init(), 3);
    EXPECT_EQ(asked(), 3U);

    answer({reply(1, 1), reply(2, 2), reply(3, 0xFFFF)}); // a service that counts its records from 1
    EXPECT_EQ(stored_after_init(), 3);
}

TEST_F(sdr_walk, keeps_what_it_has_read_when_a_record_cannot_be_read)
{
    const json thirds[] = {
        reply(8, 9, 0xC1),
        reply(8, 9, 0, 60),
        reply(8, 9, 0, 65),
        reply(8, 9, 0, 0),
        {{"reply", {{"signature", "yq"}, {"values", {0, 9}}}}},
        {{"reply", {{"signature", "s"}, {"values", {"?"}}}}},
        simulator::refusal(),
        {{"die", true}},
    };
    for (const json &third : thirds) {
        simulator::reset();
        answer({reply(0x0102, 7), reply(7, 8), third});
        EXPECT_EQ(stored_after_init(), 2) << third;
        EXPECT_EQ(asked(), 3U) << third;
    }
}

TEST_F(sdr_walk, stops_at_an_id_that_comes_again)
{
    const std::vector<json> chains[] = {
        {reply(5, 5), reply(5, 5)},              // the last record
        {reply(5, 6), reply(6, 0)},              // restarts the walk
        {reply(5, 6), reply(6, 7), reply(7, 6)}, // a loop
        {reply(5, 6), reply(5, 8), reply(5, 8)}, // one record under many IDs
    };
    for (const std::vector<json> &chain : chains) {
        simulator::reset();
        answer(chain);
        stored_after_init();
        EXPECT_EQ(asked(), chain.size());
    }
}

TEST_F(sdr_walk, hears_of_changes_while_it_lasts)
{
    simulator::fault(repository, "GetSdr", {{"delay_ms", 300}}, 0, 3); // half a minute, if it went on to the end
    const pid_t child = fork();
    if (child == 0) {
        std::thread init([] { bdbus_sdr_init(); });
        const bool heard = eventually([] {
            uint8_t reading = 0;
            return bdbus_sdr_reading_get(1, &reading) == 0 && reading == 77;
        });
        _exit(heard ? 0 : 1);
    }
    EXPECT_TRUE(eventually([] { return asked() > 4; }));
    announce("ReadingSet", "sqy", {1, 77});
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_LT(asked(), simulator::state()["sdr"]["records"].size());
}

// Of what the standard streams and the last descriptors are, a thread in the background must not depend.
TEST_F(sdr_walk, leaves_a_listener_that_takes_no_stream_and_does_not_spin)
{
    const int status = in_child([] {
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            close(stream);
        }
        bool sound = bdbus_sdr_init() == 0;
        for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            sound &= fcntl(stream, F_GETFD) < 0;
        }
        const rlimit none = {.rlim_cur = 1, .rlim_max = 1};
        setrlimit(RLIMIT_NOFILE, &none);
        bdbus_sdr_reading_set(1, 77); // wakes it
        sound &= eventually([] {
            const clock_t before = clock();
            poll(nullptr, 0, 500);
            return clock() - before < CLOCKS_PER_SEC / 10;
        });
        return sound ? 0 : 1;
    });
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

    /** All that the store has of a record but its SDR: enabled events, event status, hysteresis, reading, thresholds,
     * context. */
    static json fields(uint16_t id)
    {
        bdbus_sdr_record record = {};
        bdbus_sdr_event on = {};
        bdbus_sdr_event status = {};
        bdbus_sdr_hysteresis hysteresis = {};
        bdbus_sdr_thresholds limits = {};
        uint8_t reading = 0;
        EXPECT_EQ(bdbus_sdr_get(id, &record), 0);
        EXPECT_EQ(record.record_id, id);
        EXPECT_EQ(record.sdr[0] | record.sdr[1] << 8, id);
        EXPECT_EQ(bdbus_sdr_event_get(id, &on), 0);
        EXPECT_EQ(bdbus_sdr_event_status_get(id, &status), 0);
        EXPECT_EQ(bdbus_sdr_hysteresis_get(id, &hysteresis), 0);
        EXPECT_EQ(bdbus_sdr_reading_get(id, &reading), 0);
        EXPECT_EQ(bdbus_sdr_threshold_get(id, &limits), 0);
        return {{on.flags, on.assertion_mask, on.deassertion_mask},
                {status.flags, status.assertion_mask, status.deassertion_mask},
                {hysteresis.positive, hysteresis.negative},
                reading,
                {limits.readable_mask, limits.lower_noncritical, limits.lower_critical, limits.lower_nonrecoverable,
                 limits.upper_noncritical, limits.upper_critical, limits.upper_nonrecoverable},
                record.context};
    }

    static size_t sent() { return simulator::calls(repository).size(); }

    uint16_t id_ = 0;
};

TEST_F(sdr, derives_a_sensors_state_from_its_record)
{
    bytes data = sensor(0);
    data[10] = 0x7D;
    uint16_t id = 0;
    const auto add = [&](uintptr_t context) {
        EXPECT_EQ(bdbus_sdr_add(data.data(), 64, &id, context), 0);
        EXPECT_EQ(simulator::last_call(repository)[2][0]["length"], 64);
        simulator::answer(repository, "AddSdr", "q", {id}); // the same again
        return fields(id);
    };
    json expected = {{0x40, 115 << 8 | 114, 117 << 8 | 116}, {0, 0, 0}, {142, 143}, 131,
                     {118, 141, 140, 139, 138, 137, 136},    0xCAFE};
    EXPECT_EQ(add(0xCAFE), expected);
    bdbus_sdr_record record = {};
    EXPECT_EQ(bdbus_sdr_get(id, &record), 0);
    EXPECT_EQ(memcmp(record.sdr + 2, &data[2], 62), 0);

    const bdbus_sdr_event status = {1, 2, 3};
    EXPECT_EQ(bdbus_sdr_event_status_set(id, &status), 0);
    expected[1] = {1, 2, 3};
    EXPECT_EQ(add(0), expected);

    EXPECT_EQ(bdbus_sdr_delete(id), 0);
    EXPECT_EQ(simulator::last_call(repository), json({"DeleteSdr", "q", {id}}));
    expected[1] = {0, 0, 0};
    expected[5] = 0;
    EXPECT_EQ(add(0), expected) << "a record that was deleted leaves nothing behind";
    const stderr_capture said;
    EXPECT_LT(bdbus_sdr_delete(id), 0) << "the service never had it the second time";
    EXPECT_FALSE(is_stored(id));
}

TEST_F(sdr, tells_the_service_what_has_changed_and_nothing_else)
{
    const auto expect_sent = [](const json &call, const std::function<int32_t()> &set) {
        EXPECT_EQ(set(), 0);
        EXPECT_EQ(simulator::last_call(repository), call);
        const size_t before = sent();
        EXPECT_EQ(set(), 0);
        EXPECT_EQ(sent() - before, call[0] == "SetReading" ? 1U : 0U) << "a reading is sent even when it is the same";
    };
    const bdbus_sdr_event event = {0xC0, 0x1234, 0x5678};
    const bdbus_sdr_hysteresis hysteresis = {9, 8};
    const bdbus_sdr_thresholds thresholds = {1, 2, 3, 4, 5, 6, 7};
    expect_sent({"SetEvent", "qyqq", {id_, 0xC0, 0x1234, 0x5678}}, [&] { return bdbus_sdr_event_set(id_, &event); });
    expect_sent({"SetEventStatus", "qyqq", {id_, 0xC0, 0x1234, 0x5678}},
                [&] { return bdbus_sdr_event_status_set(id_, &event); });
    expect_sent({"SetHysteresis", "qyy", {id_, 9, 8}}, [&] { return bdbus_sdr_hysteresis_set(id_, &hysteresis); });
    expect_sent({"SetThresholds", "qay", {id_, {{"length", 7}, {"hex", "01020304050607"}}}},
                [&] { return bdbus_sdr_threshold_set(id_, &thresholds); });
    expect_sent({"SetReading", "qy", {id_, 42}}, [&] { return bdbus_sdr_reading_set(id_, 42); });
    EXPECT_EQ(fields(id_),
              json({{0xC0, 0x1234, 0x5678}, {0xC0, 0x1234, 0x5678}, {9, 8}, 42, {1, 2, 3, 4, 5, 6, 7}, 0}));
}

TEST_F(sdr, refuses_bad_arguments_without_bus_traffic)
{
    uint16_t id = 77;
    const bytes data = sensor(1);
    for (const int32_t refused :
         {bdbus_sdr_add(data.data(), 63, &id, 0), bdbus_sdr_add(data.data(), 65, &id, 0),
          bdbus_sdr_add(nullptr, 64, &id, 0), bdbus_sdr_add(data.data(), 64, nullptr, 0), bdbus_sdr_get(id_, nullptr),
          bdbus_sdr_threshold_get(id_, nullptr), bdbus_sdr_threshold_set(id_, nullptr),
          bdbus_sdr_event_set(id_, nullptr), bdbus_sdr_reading_set(unknown_id, 1), bdbus_sdr_delete(unknown_id)}) {
        EXPECT_EQ(refused, -EINVAL);
    }
    EXPECT_EQ(id, 77);
    EXPECT_EQ(sent(), 0U);
}

TEST_F(sdr, keeps_the_copy_as_written_when_the_service_fails)
{
    const stderr_capture said;
    simulator::fault(repository, "SetReading", simulator::refusal("not today"));
    EXPECT_EQ(bdbus_sdr_reading_set(id_, 10), -EACCES);
    EXPECT_EQ(said.text(), "Failed to issue method call: not today\n");
    EXPECT_EQ(fields(id_)[3], 10);
    simulator::fault(repository, "DeleteSdr", simulator::refusal());
    EXPECT_EQ(bdbus_sdr_delete(id_), -EACCES);
    EXPECT_FALSE(is_stored(id_));
}

TEST_F(sdr, applies_what_other_clients_change)
{
    announce("EventSet", "sqyqq", {id_, 1, 0x0203, 0x0405});
    announce("EventStatusSet", "sqyqq", {id_, 6, 0x0708, 0x090A});
    announce("HysteresisSet", "sqyy", {id_, 11, 12});
    announce("ThresholdSet", "sqay", {id_, bytes{9, 8, 7, 6, 5, 4, 3}});
    announce("ReadingSet", "sqy", {id_, 99});
    EXPECT_TRUE(eventually([this] { return fields(id_)[3] == 99; }));
    EXPECT_EQ(fields(id_), json({{1, 0x0203, 0x0405}, {6, 0x0708, 0x090A}, {11, 12}, 99, {9, 8, 7, 6, 5, 4, 3}, 0}));

    announce("RecordAdded", "say", {sensor(0xFEDC)});
    EXPECT_TRUE(eventually([] { return is_stored(0xFEDC); }));
    announce("RecordDeleted", "sq", {0xFEDC});
    EXPECT_TRUE(eventually([] { return !is_stored(0xFEDC); }));
    EXPECT_EQ(sent(), 0U);
}

TEST_F(sdr, drops_signals_that_are_malformed_strange_or_its_own)
{
    json before = fields(id_);
    bdbus_sdr_reading_set(id_, before[3]);
    const std::string own = simulator::calls(repository).back()["sender"];
    announce("RecordAdded", "say", {sensor(0xFEDC)}, own);
    announce("RecordDeleted", "sq", {id_}, own);
    announce("EventSet", "sqyqq", {id_, 1, 2, 3}, own);
    announce("ReadingSet", "sqy", {id_, 1}, own);
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
    before[2] = {201, 202};
    EXPECT_TRUE(eventually([&] { return fields(id_)[2] == before[2]; }));
    EXPECT_EQ(fields(id_), before);
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

void look_back(bdbus_sdr_record *record)
{
    is_stored(id_of(record));
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
    const auto expect_called = [this](int times, int reading) {
        ASSERT_TRUE(eventually([times] { return called == times; }));
        EXPECT_EQ(called_with, id_);
        EXPECT_EQ(called_reading, reading);
    };
    called = 0;
    set_callback(count_call);
    announce("ReadingSet", "sqy", {id_, 55});
    expect_called(1, 55);
    EXPECT_EQ(bdbus_sdr_reading_set(id_, 56), 0); // its own: announced by the service, too
    expect_called(2, 56);
    announce("ReadingSet", "sqy", {unknown_id, 1});
    announce("HysteresisSet", "sqyy", {id_, 1, 1});
    set_callback(call_back);
    announce("ReadingSet", "sqy", {id_, 57});
    ASSERT_TRUE(eventually([] { return called == 3; })) << "a callback may call the family back";
    EXPECT_EQ(fields(id_)[1], json({3, 1, 1}));
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
        simulator::fault(
            repository, "SetHysteresis",
            {{"signal", {{"member", "ReadingSet"}, {"signature", "sqy"}, {"args", {":9.99", id_, value}}}}});
        const bdbus_sdr_hysteresis changed = {value, static_cast<uint8_t>(i >> 8)};
        ASSERT_EQ(bdbus_sdr_hysteresis_set(id_, &changed), 0);
        ASSERT_TRUE(eventually([&] { return fields(id_)[3] == value; })) << i;
    }
}

TEST_F(sdr, answers_getters_while_a_call_hangs_and_while_the_service_is_away)
{
    const stderr_capture said;
    const bdbus_sdr_hysteresis hysteresis = {1, 2};
    simulator::fault(repository, "SetHysteresis", {{"no_reply", true}});
    std::atomic<bool> hanging = true;
    std::thread caller([&] {
        EXPECT_LT(bdbus_sdr_hysteresis_set(id_, &hysteresis), 0);
        hanging = false;
    });
    ASSERT_TRUE(eventually([] { return sent() == 1; }));
    EXPECT_TRUE(is_stored(id_));
    EXPECT_TRUE(hanging);
    simulator::stop(repository);
    caller.join();
    EXPECT_TRUE(is_stored(id_));
    EXPECT_EQ(bdbus_sdr_reading_set(id_, 1), -EHOSTUNREACH);
    simulator::start(repository);
    EXPECT_EQ(bdbus_sdr_reading_set(id_, 2), 0);
}

TEST_F(sdr, stays_whole_in_a_storm)
{
    const char *given = getenv("BDBUS_STORM_SECONDS");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(given != nullptr ? atoi(given) : 1);
    const stderr_capture said; // of deletions that race
    const bdbus_sdr_thresholds even = {};
    bdbus_sdr_threshold_set(id_, &even);
    std::atomic<int> torn = 0;
    std::atomic<long> reads = 0;
    std::vector<std::jthread> threads;
    const auto run = [&](const std::function<void(int)> &body) {
        threads.emplace_back([&reads, body, end] {
            for (int i = 0; std::chrono::steady_clock::now() < end || reads < 1000; i++) {
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
        set_callback(i % 3 == 0 ? nullptr : i % 3 == 1 ? count_call : look_back);
        std::this_thread::yield();
    });
    run([this](int i) {
        if (i % 2 == 0) {
            announce("RecordAdded", "say", {sensor(0xFEDC)});
        } else {
            announce("RecordDeleted", "sq", {0xFEDC});
        }
        announce("ReadingSet", "sqy", {id_, i & 0xFF});
    });
    threads.clear(); // joins them
    EXPECT_EQ(torn, 0);
}

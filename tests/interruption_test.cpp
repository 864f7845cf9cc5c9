// SPDX-License-Identifier: LGPL-2.1-or-later
// What else happens to a process while its threads are inside calls: signals, cancellations, forks, a stderr that
// nobody reads.
#include "support/calls.hpp"
#include "support/capture.hpp"
#include "support/image.hpp"
#include "support/simulator.hpp"
#include "support/wait.hpp"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace
{

std::atomic<int> handled;

/** A signal that is handled while this lives, as programs do that want their calls to go on. */
class handler
{
public:
    explicit handler(int signal) : signal_(signal)
    {
        handled = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) {
            handled++;
        };
        action.sa_flags = SA_RESTART;
        sigaction(signal, &action, &before_);
    }
    ~handler() { sigaction(signal_, &before_, nullptr); }
    handler(const handler &) = delete;
    handler &operator=(const handler &) = delete;

private:
    int signal_;
    struct sigaction before_ = {};
};

/** One that a timer sends, more often than calls are answered. */
class timer : handler
{
public:
    timer() : handler(SIGALRM) { set(500); }
    ~timer() { set(0); }

private:
    static void set(long microseconds)
    {
        const itimerval value = {.it_interval = {.tv_sec = 0, .tv_usec = microseconds},
                                 .it_value = {.tv_sec = 0, .tv_usec = microseconds}};
        setitimer(ITIMER_REAL, &value, nullptr);
    }
};

void fault(const sample_call &call, const json &action)
{
    json one = action;
    if (call.service == std::string("Config1")) {
        one["kind"] = "set";
    }
    simulator::clear_calls();
    simulator::fault(call.service, call.member, one);
}

/** The service has the call that was made since the fault. */
bool has_arrived(const sample_call &call)
{
    return eventually([&call] { return !simulator::calls(call.service).empty(); });
}

/** Make a call in whose wait this thread gets a signal over and over. @return its result. */
int make_under(int signal, const sample_call &call)
{
    std::atomic<bool> ended = false;
    std::thread sender([&, target = pthread_self()] {
        has_arrived(call);
        do {
            pthread_kill(target, signal);
            usleep(1000);
        } while (!ended);
    });
    const int result = call.make();
    ended = true;
    sender.join();
    return result;
}

class interruption : public controller_test
{
protected:
    void SetUp() override
    {
        controller_test::SetUp();
        simulator::set({{"bypass", {{"answer", 5}}}});
    }
};

using interrupted_opening = interruption;

} // namespace

TEST_F(interrupted_opening, leaves_nothing_half_done)
{
    const int opened = in_child([] {
        const timer running;
        return static_cast<int>(bdbus_upgrade_signal_process());
    });
    EXPECT_EQ(opened, 0);
    const int stored = in_child([] {
        const timer running;
        int count = bdbus_sdr_init() == 0 ? 0 : 200;
        for (uint32_t id = 0; id <= 0xFFFF; id++) {
            uint8_t reading = 0;
            count += bdbus_sdr_reading_get(static_cast<uint16_t>(id), &reading) == 0;
        }
        return count;
    });
    EXPECT_EQ(stored, simulator::state()["sdr"]["records"].size());
}

TEST_F(interruption, by_a_signal_waits_for_the_call_or_ends_it)
{
    for (const sample_call &call : sample_calls) {
        SCOPED_TRACE(call.name);
        for (const int signal : {SIGCHLD, SIGWINCH, SIGIO, SIGURG, SIGPROF, SIGVTALRM}) {
            const handler reports(signal);
            fault(call, {{"delay_ms", 20}});
            EXPECT_EQ(make_under(signal, call), 0) << signal;
            EXPECT_GT(handled, 0) << signal;
        }
        const handler limits(SIGALRM);
        const stderr_capture said;
        fault(call, {{"no_reply", true}});
        EXPECT_EQ(make_under(SIGALRM, call), -EINTR);
        EXPECT_EQ(said.text().ends_with(": Interrupted system call\n"), call.prints) << said.text();
    }
}

TEST_F(interruption, by_a_timer_leaves_no_upgrade_half_done)
{
    const bytes version = {2, 0, 0, 0, 0, 0};
    const bytes data = pattern(300'000);
    const agent_context context(image_builder().prepare(0x02).upload(0x02, version, data).build());
    {
        const timer running;
        EXPECT_EQ(bdbus_upgrade_agent_target_check(), 0);
        EXPECT_EQ(bdbus_upgrade_agent_preparation_stage(context), 0);
        EXPECT_EQ(bdbus_upgrade_agent_pre_upgrade_check(context), 0);
        EXPECT_EQ(bdbus_upgrade_agent_upgrade_stage(context), 0);
        EXPECT_EQ(bdbus_upgrade_agent_activation_stage(context), 0);
        EXPECT_GT(handled, 0);
    }
    EXPECT_EQ(simulator::received(1), data);
    EXPECT_EQ(take_log_text().find("roll"), std::string::npos);
}

TEST_F(interruption, by_a_cancellation_leaves_no_lock_behind)
{
    for (const sample_call &call : sample_calls) {
        fault(call, {{"delay_ms", 50}});
        pthread_t thread = {};
        const auto body = [](void *subject) -> void * {
            static_cast<const sample_call *>(subject)->make();
            for (;;) {
                pause();
            }
        };
        ASSERT_EQ(pthread_create(&thread, nullptr, body, const_cast<sample_call *>(&call)), 0);
        EXPECT_TRUE(has_arrived(call));
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        EXPECT_EQ(call.make(), 0) << call.name;
    }
}

TEST_F(interruption, by_a_service_that_does_not_answer_holds_up_its_own_module_alone)
{
    for (const sample_call &hanging : sample_calls) {
        const stderr_capture said;
        fault(hanging, {{"no_reply", true}});
        std::atomic<int> ended = 0;
        const auto call = [&] {
            EXPECT_LT(hanging.make(), 0);
            ended++;
        };
        std::thread first(call);
        EXPECT_TRUE(has_arrived(hanging));
        std::thread second(call); // waits for the first, and the service is gone by then
        for (const sample_call &other : sample_calls) {
            if (&other != &hanging) {
                EXPECT_EQ(other.make(), 0) << other.name << " beside " << hanging.name;
            }
        }
        EXPECT_EQ(ended, 0) << hanging.name;
        simulator::stop(hanging.service);
        first.join();
        second.join();
        simulator::start(hanging.service);
    }
}

TEST_F(interruption, by_a_stuck_stderr_holds_up_nobody_else)
{
    int full[2] = {};
    ASSERT_EQ(pipe(full), 0);
    const auto fill = [&full] {
        const std::string filling(4096, '.');
        fcntl(full[1], F_SETFL, O_NONBLOCK);
        while (write(full[1], filling.data(), filling.size()) > 0) {
        }
        fcntl(full[1], F_SETFL, 0);
    };
    fill();
    const int before = dup(STDERR_FILENO);
    dup2(full[1], STDERR_FILENO);

    for (const sample_call &call : sample_calls) {
        if (!call.prints) {
            continue;
        }
        // What fails with a line of its own, then passes.
        fault(call, simulator::refusal());
        std::atomic<bool> ended = false;
        std::thread stuck([&] {
            EXPECT_LT(call.make(), 0);
            ended = true;
        });
        EXPECT_TRUE(has_arrived(call));
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(call.make(), 0) << call.name;
            usleep(1000);
        }
        EXPECT_FALSE(ended) << call.name;
        std::string emptied(1 << 20, '\0');
        while (!ended) {
            EXPECT_GT(read(full[0], emptied.data(), emptied.size()), 0);
            usleep(1000);
        }
        stuck.join();
        fill();
    }
    dup2(before, STDERR_FILENO);
    close(before);
    close(full[0]);
    close(full[1]);
}

TEST_F(interruption, by_a_fork_gives_the_child_an_answer_at_once)
{
    ASSERT_EQ(bdbus_sdr_init(), 0);
    const stderr_capture said;
    const auto forks_during = [](const sample_call &call, const std::function<int()> &body) {
        fault(call, {{"delay_ms", 100}});
        std::thread holder([&call] { EXPECT_EQ(call.make(), 0); });
        EXPECT_TRUE(has_arrived(call));
        const int result = in_child(body);
        holder.join();
        return result;
    };
    for (const sample_call &call : sample_calls) {
        if (call.keeps_connection) {
            EXPECT_EQ(call.make(), 0);
            EXPECT_EQ(forks_during(call, [&call] { return -call.make(); }), ECHILD) << call.name;
        }
    }
    const sample_call sensors = {"sensors", "SensorDataRepository1", "SetReading", true, [] {
                                     return static_cast<int>(bdbus_sdr_reading_set(1, 77));
                                 }};
    EXPECT_EQ(forks_during(sensors,
                           [] {
                               uint8_t reading = 0;
                               const int got = bdbus_sdr_reading_get(1, &reading);
                               return got == 0 && reading == 77 && bdbus_sdr_init() == -ECHILD
                                          ? -bdbus_sdr_reading_set(1, 78)
                                          : 0;
                           }),
              ECHILD);
}

// SPDX-License-Identifier: LGPL-2.1-or-later
// The simulated controller that the test programs run against, steered through its control object, and the fixture for
// tests that need it. Services are named without their common prefix: "Upgrade1".
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <vector>

using nlohmann::json;

class simulator
{
public:
    static void reset() { control("Reset"); }
    static void set(const json &patch) { control("SetState", patch.dump()); }
    static json state() { return json::parse(control("GetState")); }
    static void fault(const json &fault) { control("AddFault", fault.dump()); }
    static void clear_faults() { control("ClearFaults"); }
    static void emit(const json &signal) { control("Emit", signal.dump()); }
    static void stop(const std::string &service) { control("Stop", service); }
    static void start(const std::string &service) { control("Start", service); }
    static void clear_calls() { control("ClearCalls"); }

    /** The calls that a service has received, oldest first. */
    static json calls(const std::string &service) { return json::parse(control("Calls", service)); }

    /** Their members alone. */
    static std::vector<std::string> members(const std::string &service);

    /** The bytes that the upgrade target received for a component. */
    static std::vector<uint8_t> received(uint8_t component);

private:
    template <typename... Argument>
    static std::string control(const char *member, const Argument &...argument);
};

/** A test on a controller in its first state, with nothing said yet. */
class controller_test : public testing::Test
{
protected:
    void SetUp() override;
};

/** Run with the system bus out of reach. */
void without_bus(const std::function<void()> &body);

/**
 * Every way in which a service can fail a call, each on a fresh controller: `call` must fail and print one line,
 * `expect_line`, and the same call must go through right after.
 */
struct failing_call {
    std::string service;
    std::string member;
    std::function<bool()> call; // whether it succeeded
    std::string issue_text;     // of a call that got no reply, or an error
    bool prints_error_text;     // or the errno text
    std::string parse_text;     // of a reply that cannot be read
    bool waits_without_limit = false;
};
void expect_every_failure_is_told(const failing_call &subject);

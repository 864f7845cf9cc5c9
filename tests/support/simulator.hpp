// SPDX-License-Identifier: LGPL-2.1-or-later
// The simulated controller that the test programs run against, steered through its control object, and the fixture for
// tests that need it. Services are named without their common prefix: "Upgrade1".
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cerrno>
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

    /** Change how a member's calls end, in the way of a fault's action: so many of them, after so many let pass. */
    static void fault(const std::string &service, const std::string &member, json action, int count = 1, int skip = 0);

    /** Have the next call of a member answered so. */
    static void answer(const std::string &service, const std::string &member, const char *signature, json values);

    /** The action of a call that is refused. */
    static json refusal(const json &message = "no");

    static void clear_faults() { control("ClearFaults"); }
    static void emit(const json &signal) { control("Emit", signal.dump()); }
    static void stop(const std::string &service) { control("Stop", service); }
    static void start(const std::string &service) { control("Start", service); }
    static void clear_calls() { control("ClearCalls"); }

    /** The calls that a service has received, oldest first. */
    static json calls(const std::string &service) { return json::parse(control("Calls", service)); }

    /** Their members alone. */
    static std::vector<std::string> members(const std::string &service);

    /** The last call that a service's own object received, as [member, signature, arguments]. */
    static json last_call(const std::string &service);

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

/** What a function sends, and the reply that it is to read. */
struct exchange {
    std::string service;
    const char *member;
    const char *in;
    json args;
    const char *out;
    json reply;
};

/**
 * Call a function that takes a record: it must send what it is to, and put the reply's values into these fields.
 * Without a record it must send nothing.
 */
template <typename Record, typename... Fields>
void expect_exchange(const exchange &expected, int32_t (*function)(Record *), Record record, Fields Record::*...fields)
{
    SCOPED_TRACE(expected.member);
    simulator::answer(expected.service, expected.member, expected.out, expected.reply);
    EXPECT_GT(function(&record), 0) << "whatever the reply's completion code is";
    EXPECT_EQ(json::array({record.*fields...}), expected.reply);
    EXPECT_EQ(simulator::last_call(expected.service), json({expected.member, expected.in, expected.args}));
    simulator::clear_calls();
    EXPECT_EQ(function(nullptr), -EINVAL);
    EXPECT_EQ(simulator::calls(""), json::array());
}

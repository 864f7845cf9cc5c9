// SPDX-License-Identifier: LGPL-2.1-or-later
// Faults: what goes wrong with which calls, and how often. They act on the JSON values of replies, so that they work
// for every service.
#pragma once

#include "frame/bus.hpp"
#include "frame/call.hpp"
#include "frame/json.hpp"
#include "frame/objects.hpp"

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>

namespace bdbus_sim
{

/** A signal to be sent; an empty interface or path is the service's own. */
struct signal_message {
    std::string member;
    std::string signature;
    json args = json::array();
    std::string interface;
    std::string path;
};

struct fault {
    std::string service{};
    call_kind kind = call_kind::method;
    std::string interface {
    }; // "" for any
    std::string member{};
    uint64_t skip = 0;
    std::optional<uint64_t> left{}; // none: for ever
    size_t bytes = 0;               // of its description

    std::chrono::milliseconds delay{};
    std::optional<signal_message> signal{};
    std::optional<dbus_error> error{};
    bool no_reply = false;
    std::optional<reply> instead{};
    std::optional<size_t> truncate{};
    std::optional<size_t> oversize{};
    std::optional<uint8_t> completion_code{};
    bool carry_out = false;
    bool die = false;
    std::optional<std::chrono::milliseconds> return_after{};

    /** Whether it is for such a call of its member. */
    bool matches(const call &request) const;

    /**
     * The reply to give in place of the one that `execute` makes; `execute` is called only when the call is to be
     * carried out. Throws the fault's error. `no_reply`, `delay`, `signal` and `die` are left to the service.
     */
    reply apply(const std::function<reply()> &execute) const;
};

class fault_list
{
public:
    /** The objects of the service of that name; null when there is none. */
    using service_lookup = std::function<const object_tree *(const std::string &name)>;

    /** Throws std::invalid_argument for a fault that is malformed or does not fit the service that it names. */
    void add(const json &description, const service_lookup &objects_of);

    void clear();

    /** The fault that acts on this call, or one that does nothing. Counts the call. */
    fault match(const std::string &service_name, const call &request);

private:
    fault use(std::list<fault> &faults, std::list<fault>::iterator at);

    std::map<std::string, std::list<fault>> faults_; // by service and member
    size_t bytes_ = 0;
};

} // namespace bdbus_sim

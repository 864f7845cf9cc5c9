// SPDX-License-Identifier: LGPL-2.1-or-later
// Faults: what shall go wrong, with which calls, how often. They act on a reply's JSON values, so every service has
// them.
#pragma once

#include "frame/bus.hpp"
#include "frame/json.hpp"

#include <chrono>
#include <functional>
#include <list>
#include <optional>
#include <string>

namespace bdbus_sim
{

struct call;
class service;

struct reply {
    std::string signature;
    json values = json::array();
};

/** What a service says by itself; an empty interface or path is the service's own. */
struct announcement {
    std::string member;
    std::string signature;
    json args = json::array();
    std::string interface;
    std::string path;
};

struct fault {
    std::string service{};
    std::string kind{};
    std::string interface {
    }; // "" for any
    std::string member{};
    uint64_t skip = 0;
    std::optional<uint64_t> left{}; // none: for ever
    size_t bytes = 0;               // of its description

    std::chrono::milliseconds delay{};
    std::optional<announcement> signal{};
    std::optional<dbus_error> error{};
    bool no_reply = false;
    std::optional<reply> instead{};
    std::optional<size_t> truncate{};
    std::optional<size_t> oversize{};
    std::optional<uint8_t> completion_code{};
    bool carry_out = false;
    bool die = false;
    std::optional<std::chrono::milliseconds> return_after{};

    /**
     * The reply to give in place of the one that `normal` makes; `normal` is only called when the call is to be carried
     * out. Throws the fault's error. `no_reply`, `delay`, `signal` and `die` are the service's to carry
     * out.
     */
    reply apply(const std::string &normal_signature, const std::function<reply()> &normal) const;
};

class fault_list
{
public:
    /** Throws std::invalid_argument for a fault that is malformed or does not fit the service that it names. */
    void add(const json &description, const std::function<const bdbus_sim::service *(const std::string &)> &find_service);

    void clear();

    /** The fault that acts on this call, if any; counts the call. */
    fault take(const std::string &service, const call &what);

private:
    std::list<fault> faults_;
    size_t bytes_ = 0;
};

} // namespace bdbus_sim

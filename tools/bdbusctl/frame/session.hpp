// SPDX-License-Identifier: LGPL-2.1-or-later
// One run of the program: its options, its output, questions and failures. It is passed to every verb.
#pragma once

#include "frame/capture.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

namespace bdbusctl
{

using json = nlohmann::ordered_json;

enum class exit_status { done = 0, failed = 1, usage = 2, no_bus = 3 };

/**
 * Ends a verb. `error` goes into the error object of the JSON output beside the message, `document` beside that object.
 */
struct failure : std::runtime_error {
    explicit failure(const std::string &message, exit_status code = exit_status::failed)
        : std::runtime_error(message), status(code)
    {
    }

    exit_status status;
    json error = json::object();
    json document = json::object();
};

enum class json_style { off, compact, pretty };

struct session {
    json_style style = json_style::off;
    bool quiet = false;
    bool no_legend = false;
    bool yes = false;
    bool verbose = false;

    bool wants_json() const { return style != json_style::off; }
    bool wants_color() const;

    /** A result: one line, or the one JSON document. */
    void print(const std::string &line, const json &document) const;
    void print(const json &document) const;
    std::string text_of(const json &document) const;

    /** A remark for people: not with --quiet, not in JSON. */
    void remark(const std::string &line) const;
    /** A line on stderr, whatever the output is. */
    void warn(const std::string &line) const;

    /** Asks whether to go on; returns only with a yes. */
    void confirm(const std::string &question) const;

    /** Calls the library, and shows with --verbose what it reports. */
    outcome observe(const std::function<int32_t()> &call) const;
    /** The same for a call whose negative result is a failure: "cannot <intent>: <reason>". */
    int32_t call(const std::string &intent, const std::function<int32_t()> &call) const;
    /** The same for a call whose result is the service's own number: when it fails, that is 0 and a fault is reported.
     */
    int32_t call_for_value(const std::string &intent, const std::function<int32_t()> &call) const;
    void show_details(const outcome &seen) const;

    void report(const failure &error) const;
};

failure failed_with(const std::string &message, const std::string &reason, exit_status status = exit_status::failed);
failure failed_call(const std::string &message, const outcome &seen);

} // namespace bdbusctl

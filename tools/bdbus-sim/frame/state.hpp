// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * The simulated controller's state: one JSON document, with a section for each service that has any.
 *
 * A section comes with its defaults and its shape. The shape has the form of the document, with the type of each value
 * in its place:
 *
 *   "b"                       true or false
 *   "y", "q", "i", "u", "t"   number in the range of that D-Bus type
 *   "s", "s11"                text, of at most so many bytes
 *   "p"                       password: a text that is not shown
 *   "ay", "6y"                bytes as an array of numbers, any or exactly so many
 *   [shape]                   array of such values
 *   [shape, shape, …]         array of just these values
 *   {"key": shape, …}         object with just these keys; "key?" may be missing, "*" stands for any key, "#" for any
 *                             record ID, a number from 1 to 65534 in decimal, "#y" for one from 0 to 255, and "@" for
 *                             any element of an object path
 */
#pragma once

#include "frame/json.hpp"

#include <functional>
#include <map>
#include <string>

namespace bdbus_sim
{

class state_document
{
public:
    using listener = std::function<void(const json &before, const json &after)>;

    void add_section(const std::string &name, json defaults, json shape);

    /** Called after each change of the section, with its values before and after it. */
    void on_change(const std::string &section, listener action);

    /** From now on a reset gives the defaults changed by this merge patch. */
    void set_scenario(const json &patch);

    void reset();

    /**
     * Applies an RFC 7396 merge patch; throws std::invalid_argument, with nothing changed, when the result is no valid
     * state.
     */
    void patch(const json &patch);

    /** The whole state, with its passwords hidden. */
    json shown() const;

    /** The value at a place such as "/bmc/post". */
    const json &at(const std::string &pointer) const { return current_.at(json::json_pointer(pointer)); }

    template <typename T>
    T get(const std::string &pointer) const
    {
        return at(pointer).get<T>();
    }

    /** For the services: the value is taken as it is. */
    void set(const std::string &pointer, json value);

    /** For a section's own service: it changes the section in place, and its listener is not called. */
    json &own(const std::string &section) { return current_.at(section); }

private:
    void replace(json next);
    void notify(const std::string &section, const json &before);

    json defaults_ = json::object();
    json shape_ = json::object();
    json start_ = json::object();
    json current_ = json::object();
    std::map<std::string, listener> listeners_;
};

} // namespace bdbus_sim

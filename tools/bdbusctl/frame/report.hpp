// SPDX-License-Identifier: LGPL-2.1-or-later
// Results. A verb fills rows or fields once; people get a table, programs get JSON.
#pragma once

#include "frame/session.hpp"

#include <concepts>
#include <string>
#include <utility>
#include <vector>

namespace bdbusctl
{

/** One value: its text in a table and its value in JSON. */
struct cell {
    cell(std::string shown, json stored, std::string shown_in = {})
        : text(std::move(shown)), value(std::move(stored)), color(std::move(shown_in))
    {
    }
    cell(const std::string &both) : text(both), value(both) {}
    cell(const char *both) : text(both), value(both) {}
    cell(bool both) : text(both ? "yes" : "no"), value(both) {}
    template <std::integral number>
    cell(number both) : text(std::to_string(both)), value(both)
    {
    }
    static cell none() { return {"-", nullptr}; }
    /** The field is in the JSON only. */
    static cell hidden(json stored) { return {std::string(), std::move(stored)}; }

    std::string text;
    json value;
    std::string color; // of libsmartcols, or empty
};

/** A list of names: separated by commas in a table, an array in JSON. */
cell list_cell(const std::vector<std::string> &names);

struct column {
    const char *key;
    const char *title = nullptr; // null: in the JSON only
    bool right = false;
};

class report
{
public:
    explicit report(std::vector<column> columns) : columns_(std::move(columns)) {}
    void add(std::vector<cell> row);
    void show(const session &run) const;
    void show_table(const session &run) const;
    /**
     * For a list that could not be read to its end: shows the table and fails. In JSON the rows stand as `key` beside
     * the error; `rows` are those of the table unless given.
     */
    [[noreturn]] void show_so_far(const session &run, failure error, const char *key, json rows = nullptr) const;
    json to_json() const;

private:
    std::vector<column> columns_;
    std::vector<std::vector<cell>> rows_;
};

/** One thing with named fields: lines of "label: value", or one JSON object. */
class record
{
public:
    void add(const char *key, const char *label, cell value);
    void hide(const char *key, json value);
    void show(const session &run) const;
    json to_json() const { return object_; }

private:
    report lines_{{{"field", "FIELD"}, {"value", "VALUE"}}};
    json object_ = json::object();
};

} // namespace bdbusctl

// SPDX-License-Identifier: LGPL-2.1-or-later
// Results. A verb fills rows or fields once; people get a table, programs get JSON.
#pragma once

#include "frame/session.hpp"

#include <concepts>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct libscols_table;

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

/** Rows, held as what they are shown as: lines of a table, or texts of JSON objects. */
class report
{
public:
    report(const session &run, std::vector<column> columns);
    void add(const std::vector<cell> &row);
    /** A row that is another object in JSON. */
    void add(const std::vector<cell> &row, const json &object);
    void show() const;
    /** For a list that could not be read to its end: shows the table and fails; in JSON, rows stand beside the error.
     */
    [[noreturn]] void show_so_far(failure error, const char *key) const;
    /** The rows; without JSON output, none. */
    json to_json() const;

private:
    void add_object(const json &object);
    void add_line(const std::vector<cell> &row);
    void print_objects() const;

    const session &run_;
    std::vector<column> columns_;
    std::shared_ptr<libscols_table> table_;
    std::string objects_; // with their separators
};

/** A row by itself. */
json row_object(const std::vector<column> &columns, const std::vector<cell> &row);

/** One thing with named fields: lines of "label: value", or one JSON object. */
class record
{
public:
    void add(const char *key, const char *label, cell value);
    void hide(const char *key, json value);
    void show(const session &run) const;
    const json &to_json() const { return object_; }

private:
    std::vector<std::vector<cell>> lines_;
    json object_ = json::object();
};

} // namespace bdbusctl

// SPDX-License-Identifier: LGPL-2.1-or-later
// Tables by libsmartcols, and the same rows as JSON.
#include "frame/report.hpp"

#include "frame/text.hpp"

#include <libsmartcols/libsmartcols.h>
#include <unistd.h>

#include <memory>
#include <new>

namespace bdbusctl
{

namespace
{

struct table_unref {
    void operator()(libscols_table *table) const { scols_unref_table(table); }
};
using table_pointer = std::unique_ptr<libscols_table, table_unref>;

template <class pointer>
pointer not_null(pointer allocated)
{
    if (allocated == nullptr) {
        throw std::bad_alloc();
    }
    return allocated;
}

void add_heading(libscols_table *table, const char *title, bool right, bool colored)
{
    libscols_column *heading = not_null(scols_table_new_column(table, title, 0, right ? SCOLS_FL_RIGHT : 0));
    if (colored) {
        scols_cell_set_color(scols_column_get_header(heading), "bold");
    }
}

void set_cell(libscols_line *line, size_t index, const cell &value, bool colored)
{
    if (scols_line_set_data(line, index, value.text.c_str()) != 0) {
        throw std::bad_alloc();
    }
    if (colored && !value.color.empty()) {
        scols_cell_set_color(scols_line_get_cell(line, index), value.color.c_str());
    }
}

} // namespace

cell list_cell(const std::vector<std::string> &names)
{
    return {names.empty() ? "-" : join(names, ", "), names};
}

void report::add(std::vector<cell> row)
{
    if (row.size() != columns_.size()) {
        throw std::logic_error("a row must have one cell for each column");
    }
    rows_.push_back(std::move(row));
}

void report::show(const session &run) const
{
    if (run.wants_json()) {
        run.print(to_json());
    } else {
        show_table(run);
    }
}

void report::show_so_far(const session &run, failure error, const char *key, json rows) const
{
    error.document[key] = rows.is_null() ? to_json() : std::move(rows);
    if (!run.wants_json()) {
        show_table(run);
    }
    throw failure(std::move(error));
}

void report::show_table(const session &run) const
{
    const table_pointer table(not_null(scols_new_table()));
    const bool colored = run.wants_color();
    scols_table_enable_noheadings(table.get(), run.no_legend ? 1 : 0);
    scols_table_enable_colors(table.get(), colored ? 1 : 0);
    for (const auto &[key, title, right] : columns_) {
        if (title != nullptr) {
            add_heading(table.get(), title, right, colored);
        }
    }
    for (const auto &row : rows_) {
        libscols_line *line = not_null(scols_table_new_line(table.get(), nullptr));
        size_t shown = 0;
        for (size_t index = 0; index < columns_.size(); index++) {
            if (columns_[index].title != nullptr) {
                set_cell(line, shown++, row[index], colored);
            }
        }
    }
    scols_print_table(table.get());
    fflush(stdout);
}

json report::to_json() const
{
    json array = json::array();
    for (const auto &row : rows_) {
        json object = json::object();
        for (size_t index = 0; index < columns_.size(); index++) {
            object[columns_[index].key] = row[index].value;
        }
        array.push_back(std::move(object));
    }
    return array;
}

void record::add(const char *key, const char *label, cell value)
{
    object_[key] = value.value;
    lines_.add({std::string(label) + ":", std::move(value)});
}

void record::hide(const char *key, json value)
{
    object_[key] = std::move(value);
}

void record::show(const session &run) const
{
    session plain = run;
    plain.no_legend = true;
    if (run.wants_json()) {
        run.print(object_);
    } else {
        lines_.show_table(plain);
    }
}

} // namespace bdbusctl

// SPDX-License-Identifier: LGPL-2.1-or-later
// Tables by libsmartcols, and the same rows as JSON.
#include "frame/report.hpp"

#include "frame/text.hpp"

#include <libsmartcols/libsmartcols.h>

#include <cstdio>
#include <new>

namespace bdbusctl
{

namespace
{

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

/** Between the objects of an array, as the JSON library has it. */
std::string separator(json_style style)
{
    return style == json_style::pretty ? ",\n  " : ",";
}

} // namespace

cell list_cell(const std::vector<std::string> &names)
{
    return {names.empty() ? "-" : join(names, ", "), names};
}

report::report(const session &run, std::vector<column> columns) : run_(run), columns_(std::move(columns))
{
    if (run.wants_json()) {
        return;
    }
    table_ = {not_null(scols_new_table()), scols_unref_table};
    scols_table_enable_noheadings(table_.get(), run.no_legend ? 1 : 0);
    scols_table_enable_colors(table_.get(), run.wants_color() ? 1 : 0);
    for (const auto &[key, title, right] : columns_) {
        if (title != nullptr) {
            add_heading(table_.get(), title, right, run.wants_color());
        }
    }
}

void report::add(const std::vector<cell> &row)
{
    if (table_ != nullptr) {
        add_line(row);
    } else {
        add_object(row_object(columns_, row));
    }
}

void report::add(const std::vector<cell> &row, const json &object)
{
    if (table_ != nullptr) {
        add_line(row);
    } else {
        add_object(object);
    }
}

void report::add_line(const std::vector<cell> &row)
{
    if (row.size() != columns_.size()) {
        throw std::logic_error("a row must have one cell for each column");
    }
    libscols_line *line = not_null(scols_table_new_line(table_.get(), nullptr));
    size_t shown = 0;
    for (size_t index = 0; index < columns_.size(); index++) {
        if (columns_[index].title != nullptr) {
            set_cell(line, shown++, row[index], scols_table_colors_wanted(table_.get()) != 0);
        }
    }
}

void report::add_object(const json &object)
{
    if (!objects_.empty()) {
        objects_ += separator(run_.style);
    }
    const std::string text = run_.text_of(object);
    size_t copied = 0;
    for (size_t end; (end = text.find('\n', copied)) != std::string::npos; copied = end + 1) {
        objects_.append(text, copied, end + 1 - copied).append("  ");
    }
    objects_.append(text, copied);
}

void report::show() const
{
    if (table_ != nullptr) {
        scols_print_table(table_.get());
        fflush(stdout);
    } else {
        print_objects();
    }
}

void report::print_objects() const
{
    const bool broken = run_.style == json_style::pretty && !objects_.empty();
    fputs(broken ? "[\n  " : "[", stdout);
    fputs(objects_.c_str(), stdout);
    puts(broken ? "\n]" : "]");
}

void report::show_so_far(failure error, const char *key) const
{
    error.document[key] = to_json();
    if (table_ != nullptr) {
        show();
    }
    throw failure(std::move(error));
}

json report::to_json() const
{
    return json::parse("[" + objects_ + "]");
}

json row_object(const std::vector<column> &columns, const std::vector<cell> &row)
{
    if (row.size() != columns.size()) {
        throw std::logic_error("a row must have one cell for each column");
    }
    json::object_t object; // keys are unique, so none is looked for
    object.reserve(columns.size());
    for (size_t index = 0; index < columns.size(); index++) {
        object.emplace_back(columns[index].key, row[index].value);
    }
    return object;
}

void record::add(const char *key, const char *label, cell value)
{
    object_[key] = value.value;
    lines_.push_back({std::string(label) + ":", std::move(value)});
}

void record::hide(const char *key, json value)
{
    object_[key] = std::move(value);
}

void record::show(const session &run) const
{
    if (run.wants_json()) {
        run.print(object_);
        return;
    }
    session plain = run;
    plain.no_legend = true;
    report shown(plain, {{"field", "FIELD"}, {"value", "VALUE"}});
    for (const auto &line : lines_) {
        shown.add(line);
    }
    shown.show();
}

} // namespace bdbusctl

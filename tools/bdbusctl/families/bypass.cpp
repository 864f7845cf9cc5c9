// SPDX-License-Identifier: LGPL-2.1-or-later
// bypass: the advanced bypass controls.
#include "frame/command.hpp"
#include "frame/report.hpp"

#include <bdbus/abp.h>

namespace bdbusctl
{

namespace
{

struct values {
    uint8_t first = 0;
    uint8_t second = 0;
};

void declare_one(CLI::App &command, values &given)
{
    add_number(command, "VALUE", given.first, "0 to 255; its meaning is the service's")->required();
}

void declare_two(CLI::App &command, values &given)
{
    add_number(command, "FIRST", given.first, "0 to 255; its meaning is the service's")->required();
    add_number(command, "SECOND", given.second, "0 to 255; its meaning is the service's")->required();
}

void change(const session &run, const std::string &what, const std::function<int32_t()> &call)
{
    run.confirm("This sets the " + what + ".");
    record answer;
    answer.add("answer", "Answer", run.call_for_value("set the " + what, call));
    answer.show(run);
}

void global_reset(const session &run, const values &given)
{
    change(run, format("global reset to %u", given.first), [&] { return bdbus_abp_set_global_reset(given.first); });
}

void permanent_global_reset(const session &run, const values &given)
{
    change(run, format("permanent global reset to %u", given.first),
           [&] { return bdbus_abp_set_permanent_global_reset(given.first); });
}

void permanent_bypass(const session &run, const values &given)
{
    change(run, format("permanent bypass to %u, %u", given.first, given.second),
           [&] { return bdbus_abp_set_permanent_bypass(given.first, given.second); });
}

} // namespace

void add_bypass(CLI::App &program, session &run)
{
    add_family(program, run, "bypass", "Advanced bypass: resets and the bypass itself", [](family &bypass) {
        bypass.verb("global-reset", "Set the global reset", declare_one, global_reset);
        bypass.verb("permanent-global-reset", "Set the permanent global reset", declare_one, permanent_global_reset);
        bypass.verb("permanent-bypass", "Set the permanent bypass", declare_two, permanent_bypass);
    });
}

} // namespace bdbusctl

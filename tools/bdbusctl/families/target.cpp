// SPDX-License-Identifier: LGPL-2.1-or-later
// Properties and capabilities of the target, whose completion codes become failures.
#include "families/target.hpp"

#include "frame/text.hpp"
#include "names/ipmi-names.hpp"

#include <algorithm>

namespace bdbusctl
{

hpm1_version component_property::version() const
{
    hpm1_version version;
    std::copy_n(data.begin(), version.size(), version.begin());
    return version;
}

std::string component_property::text() const
{
    return one_line(std::string(data.begin(), std::find(data.begin(), data.end(), 0)));
}

component_property read_property(const session &run, uint8_t component, uint8_t selector)
{
    bdbus_hpm1_component_props_rec request{};
    request.component_id = component;
    request.selector = selector;
    run.call(format("read property %u of component %u", selector, component),
             [&] { return bdbus_hpm1_component_props(&request); });
    component_property property{request.completion_code, {}};
    std::copy(std::begin(request.data), std::end(request.data), property.data.begin());
    return property;
}

component_property require_property(const session &run, uint8_t component, uint8_t selector)
{
    const component_property property = read_property(run, component, selector);
    require_success(format("read property %u of component %u", selector, component), hpm1_command::component_properties,
                    property.completion_code);
    return property;
}

bdbus_hpm1_target_caps_rec read_capabilities(const session &run)
{
    bdbus_hpm1_target_caps_rec capabilities{};
    run.call("read the target's capabilities", [&] { return bdbus_hpm1_target_upgrade_caps(&capabilities); });
    require_success("read the target's capabilities", hpm1_command::target_capabilities, capabilities.completion_code);
    return capabilities;
}

failure completion_failure(const std::string &message, hpm1_command command, uint8_t code)
{
    return completion_failure(message, code, completion_name(command, code));
}

void require_success(const std::string &intent, hpm1_command command, uint8_t code)
{
    if (code != BDBUS_HPM1_CC_SUCCESS) {
        throw completion_failure("cannot " + intent, command, code);
    }
}

} // namespace bdbusctl

// SPDX-License-Identifier: LGPL-2.1-or-later
#include "watch.hpp"

#include "held-signals.hpp"

#include <cstdio>
#include <ctime>

namespace bdbusctl
{

void declare_watch(CLI::App &command, watch_arguments &given)
{
    add_number(command, "--count", given.count, "End after so many lines", 1)->type_name("NUMBER");
}

void follow(const session &run, const watch_arguments &given, const std::function<std::vector<happening>()> &take)
{
    constexpr std::chrono::milliseconds interval{100};
    session lines = run;
    if (run.wants_json())
        lines.style = json_style::compact;
    const held_signals signals;
    uint64_t shown = 0;
    do {
        std::vector<happening> happenings;
        signals.end_during([&] { happenings = take(); });
        for (const auto &[line, document] : happenings) {
            const std::string now = time_text(static_cast<uint32_t>(time(nullptr)));
            json object{{"time", now}};
            object.update(document);
            signals.end_during([&, &text = line] {
                lines.print(now + " " + text, object);
                if (fflush(stdout) != 0)
                    throw failure("cannot write the output");
            });
            if (++shown == given.count)
                return;
        }
    } while (!signals.wait(interval));
}

} // namespace bdbusctl

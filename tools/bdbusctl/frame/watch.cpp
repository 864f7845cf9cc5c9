// SPDX-License-Identifier: LGPL-2.1-or-later
// Events are asked for ten times a second; between that, signals and the end of the bus are looked for.
#include "frame/watch.hpp"

#include "common/bus.hpp"
#include "frame/held-signals.hpp"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace bdbusctl
{

namespace
{

/**
 * Whether the bus and a service are still there. The library does not report that, so this has a connection of its own.
 */
class presence
{
public:
    explicit presence(const char *service) : service_(service)
    {
        sd_bus *bus = nullptr;
        const int opened = sd_bus_open_system(&bus);
        bus_.reset(bus);
        const std::string rule =
            format("type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='%s'", service);
        require(opened < 0 ? opened : sd_bus_add_match(bus, nullptr, rule.c_str(), on_owner_changed, this));
        // Whether it was there when the match was made.
        const int found = sd_bus_get_name_creds(bus, service, 0, nullptr);
        gone_ = found == -ENXIO;
        if (!gone_) {
            require(found);
        }
    }

    /** Why there will be no more notices, if so. */
    std::optional<failure> lost()
    {
        int result = 0;
        do {
            result = sd_bus_process(bus_.get(), nullptr);
        } while (result > 0);
        if (result < 0 || sd_bus_is_open(bus_.get()) <= 0) {
            return failure("the connection to the bus was lost", exit_status::no_bus);
        }
        if (gone_) {
            return failure(format("%s is not on the bus", service_));
        }
        return std::nullopt;
    }

private:
    static void require(int result)
    {
        if (result < 0) {
            throw failed_with("cannot reach the bus", strerror(-result), exit_status::no_bus);
        }
    }

    static int on_owner_changed(sd_bus_message *message, void *userdata, sd_bus_error * /*error*/)
    {
        const char *owner = nullptr;
        if (sd_bus_message_read(message, "sss", nullptr, nullptr, &owner) >= 0 && *owner == '\0') {
            static_cast<presence *>(userdata)->gone_ = true;
        }
        return 0;
    }

    const char *service_;
    bdbus_tools::bus_pointer bus_;
    bool gone_ = false;
};

/** Prints events, each with the time, until there were enough. */
class event_printer
{
public:
    event_printer(const session &run, uint64_t limit, const held_signals &signals)
        : run_(run), limit_(limit), signals_(signals)
    {
        if (run.wants_json()) {
            run_.style = json_style::compact;
        }
    }

    /** @return whether there were enough. */
    bool print(const std::vector<event> &events)
    {
        for (const event &each : events) {
            print(each);
            if (++printed_ == limit_) {
                return true;
            }
        }
        return false;
    }

private:
    void print(const event &printed) const
    {
        const std::string now = time_text(static_cast<uint32_t>(time(nullptr)));
        json object{{"time", now}};
        object.update(printed.document);
        signals_.end_during([&] {
            run_.print(now + " " + printed.line, object);
            if (fflush(stdout) != 0) {
                throw failure("cannot write the output");
            }
        });
    }

    session run_;
    uint64_t limit_;
    const held_signals &signals_;
    uint64_t printed_ = 0;
};

} // namespace

void declare_watch(CLI::App &command, watch_arguments &given)
{
    add_number(command, "--count", given.count, "End after so many lines", 1)->type_name("NUMBER");
}

void follow(const session &run, const watch_arguments &given, const char *service,
            const std::function<std::vector<event>()> &collect)
{
    constexpr std::chrono::milliseconds interval{100};
    const held_signals signals;
    event_printer printer(run, given.count, signals);
    std::optional<presence> watched;
    signals.end_during([&] { watched.emplace(service); });
    std::optional<failure> lost;
    do {
        std::vector<event> events;
        signals.end_during([&] { events = collect(); });
        if (printer.print(events)) {
            return;
        }
        // What came before the end is shown before it.
        if (lost && events.empty()) {
            throw failure(*lost);
        }
        lost = watched->lost();
    } while (!signals.wait(interval));
}

} // namespace bdbusctl

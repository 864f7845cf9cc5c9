// SPDX-License-Identifier: LGPL-2.1-or-later
// A bus that does less than a bus: what a real daemon does only when something is badly wrong.
#pragma once

#include <atomic>
#include <string>
#include <thread>

/** While this lives, it is the system bus. There is nobody on it. */
class bare_bus
{
public:
    enum class ending { silence, hang_up };

    /** @param answers how many of a connection's requests get an answer, of which the greeting is the first. */
    bare_bus(int answers, ending end);

    /** One that answers everything, and refuses every match. */
    static constexpr int refuse_matches = -1;

    ~bare_bus();
    bare_bus(const bare_bus &) = delete;
    bare_bus &operator=(const bare_bus &) = delete;

    /** How many connections there were. */
    [[nodiscard]] int connections() const { return connections_; }

private:
    void serve();

    int answers_;
    ending end_;
    int listener_;
    int stop_[2];
    std::string before_;
    std::atomic<int> connections_ = 0;
    std::thread thread_;
};

// SPDX-License-Identifier: LGPL-2.1-or-later
// The progress of an upload: a bar redrawn in place on a terminal, plain lines elsewhere, nothing with --quiet or in
// JSON.
#pragma once

#include "frame/session.hpp"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace bdbusctl
{

struct component_upload {
    uint8_t component;
    std::string name;
    uint64_t bytes;
};

class progress
{
public:
    progress(const session &run, std::vector<component_upload> uploads);

    /**
     * The upgrade agent's present status: the component it is at, and a percentage that stays at the last component's
     * 100 until the first block of the next one.
     */
    void update(uint8_t component, uint8_t percent);

    /** Removes the bar; with `completed` the uploads whose end was not observed have ended, too. */
    void end(bool completed);

private:
    using clock = std::chrono::steady_clock;

    void start(size_t upload);
    void finish();
    void draw();
    void show(const std::string &line);
    double elapsed_s() const;
    std::string bar_line(size_t width) const;

    const session &run_;
    int terminal_;
    std::vector<component_upload> uploads_;
    size_t current_ = 0;
    bool started_ = false;
    bool fresh_ = false;
    unsigned percent_ = 0;
    unsigned shown_tenths_ = 0;
    clock::time_point since_;
};

} // namespace bdbusctl

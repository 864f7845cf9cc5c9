// SPDX-License-Identifier: LGPL-2.1-or-later
// How an upload gets on: a bar redrawn in place on a terminal, plain lines elsewhere, nothing when nobody wants it.
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
    /** `original_stderr`: where the standard error leads, which is captured meanwhile. */
    progress(const session &run, int original_stderr, std::vector<component_upload> uploads);

    /**
     * What the upgrade agent shows now: the component it is at, and a percentage that stays at the last component's 100
     * until the first block of the next one.
     */
    void update(uint8_t component, uint8_t percent);

    /** Takes the bar away; with `completed` the uploads that were not seen to end have ended too. */
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

// SPDX-License-Identifier: LGPL-2.1-or-later
// The bar, or the lines in its place.
#include "frame/progress.hpp"

#include "frame/text.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace bdbusctl
{

namespace
{

constexpr int no_terminal = -1;

/** A terminal shows "^C" at the end of the line. */
constexpr size_t room_for_interrupt = 3;

int find_terminal(const session &run)
{
    const char *kind = getenv("TERM");
    if (run.quiet || run.wants_json() || kind == nullptr || std::string_view(kind) == "dumb") {
        return no_terminal;
    }
    if (isatty(STDOUT_FILENO)) {
        return STDOUT_FILENO;
    }
    return isatty(STDERR_FILENO) ? STDERR_FILENO : no_terminal;
}

size_t terminal_width(int fd)
{
    winsize size{};
    return ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string bar_text(size_t width, unsigned percent)
{
    const size_t filled = width * percent / 100;
    std::string bar(width, ' ');
    std::fill_n(bar.begin(), filled, '=');
    if (filled < width) {
        bar[filled] = '>';
    }
    return "[" + bar + "]";
}

} // namespace

progress::progress(const session &run, std::vector<component_upload> uploads)
    : run_(run), terminal_(find_terminal(run)), uploads_(std::move(uploads)), since_(clock::now())
{
}

void progress::update(uint8_t component, uint8_t percent)
{
    const auto from = uploads_.begin() + static_cast<ptrdiff_t>(current_);
    const auto found =
        std::find_if(from, uploads_.end(), [=](const auto &each) { return each.component == component; });
    // Before its first upload the agent is at component 0 without being there.
    if (found == uploads_.end() || (!started_ && component == 0 && percent == 0)) {
        return;
    }
    const auto upload = static_cast<size_t>(found - uploads_.begin());
    if (!started_) {
        start(0);
    }
    while (current_ < upload) {
        finish();
        start(current_ + 1);
    }
    fresh_ = fresh_ || percent != 100 || current_ == 0;
    percent_ = fresh_ ? percent : 0;
    draw();
}

void progress::end(bool completed)
{
    while (completed && current_ < uploads_.size()) {
        if (!started_) {
            start(current_);
        }
        finish();
        started_ = false;
        current_++;
    }
    if (!completed && started_ && terminal_ != no_terminal) {
        dprintf(terminal_, "\n");
    }
}

void progress::start(size_t upload)
{
    started_ = true;
    current_ = upload;
    fresh_ = false;
    percent_ = 0;
    shown_tenths_ = 0;
    since_ = clock::now();
    if (terminal_ == no_terminal) {
        run_.remark(uploads_[upload].name + ": uploading " + size_text(uploads_[upload].bytes));
    }
}

void progress::finish()
{
    const auto &upload = uploads_[current_];
    const std::string line =
        format("%s: uploaded %s in %.1f s", upload.name.c_str(), size_text(upload.bytes).c_str(), elapsed_s());
    if (terminal_ == no_terminal) {
        run_.remark(line);
    } else {
        dprintf(terminal_, "\r%s\033[K\n", line.c_str());
    }
}

void progress::draw()
{
    if (terminal_ != no_terminal) {
        dprintf(terminal_, "\r%s\033[K",
                bar_line(std::max<size_t>(terminal_width(terminal_), 20) - room_for_interrupt).c_str());
    } else if (const unsigned tenths = percent_ / 10; tenths > shown_tenths_ && tenths < 10) {
        shown_tenths_ = tenths;
        run_.remark(format("%s: %u %%", uploads_[current_].name.c_str(), tenths * 10));
    }
}

double progress::elapsed_s() const
{
    return std::chrono::duration<double>(clock::now() - since_).count();
}

std::string progress::bar_line(size_t width) const
{
    const auto &upload = uploads_[current_];
    const uint64_t done = upload.bytes * percent_ / 100;
    uint64_t left = upload.bytes - done;
    for (size_t later = current_ + 1; later < uploads_.size(); later++) {
        left += uploads_[later].bytes;
    }

    std::string figures =
        format(" %3u %%  %s of %s", percent_, size_text(done).c_str(), size_text(upload.bytes).c_str());
    if (const double rate = static_cast<double>(done) / elapsed_s(); rate >= 1) {
        const auto seconds = static_cast<unsigned>(std::min(static_cast<double>(left) / rate, 359999.0));
        figures +=
            format("  %s/s  %u:%02u left", size_text(static_cast<uint64_t>(rate)).c_str(), seconds / 60, seconds % 60);
    }
    constexpr size_t narrowest_bar = 10;
    constexpr size_t widest_bar = 30;
    const size_t around = upload.name.size() + figures.size() + 3;
    std::string line = upload.name;
    if (around + narrowest_bar <= width) {
        line += " " + bar_text(std::min(width - around, widest_bar), percent_);
    }
    return (line + figures).substr(0, width);
}

} // namespace bdbusctl

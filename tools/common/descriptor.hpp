// SPDX-License-Identifier: LGPL-2.1-or-later
// An owner for a file descriptor, and failures of the C library as exceptions.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace bdbus_tools
{

class descriptor
{
public:
    explicit descriptor(int fd = -1) : fd_(fd) {}
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    ~descriptor() { reset(); }

    int get() const { return fd_; }

    /** For somebody who closes it. */
    int release() { return std::exchange(fd_, -1); }

    void reset()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = -1;
    }

private:
    int fd_;
};

/** The result, unless it is negative: then the error number is thrown as std::system_error. */
template <class number>
number check_errno(number result, const std::string &what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

} // namespace bdbus_tools

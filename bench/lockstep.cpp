// SPDX-License-Identifier: LGPL-2.1-or-later
// Keeps the reads of a D-Bus connection in step with what is sent, so that a call costs the same each time.
//
// Whether an answer has arrived when a client first looks for it is a race: a look that finds nothing costs sd-bus some
// six hundred instructions and a wait. Here the first look after a message was sent never finds anything, as is usual
// where the two have a processor each, and every further one waits for the whole of what was promised: the rest of a
// message, the answer to a call, a known number of signals. Looks that nothing was promised to see what there is.
//
// It stands between the program and the C library's functions, only while instructions are counted, and in a file of
// its own, so that what it costs can be left out.
#include "lockstep.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace
{

/** What a descriptor's peer still owes. */
struct promise {
    bool just_sent; // nothing was looked for since
    bool answer;    // of a call, or of the connection's beginning
    uint32_t rest;  // bytes of the message that is being read
};

constexpr std::size_t descriptors = 256;
promise promises[descriptors];
std::atomic<unsigned> signals_due{0};

bool in_step()
{
    static const bool wanted = getenv("BENCH_LOCKSTEP") != nullptr;
    return wanted;
}

// The beginning of a message (D-Bus specification): endianness, type, flags, version; length of the body; serial;
// length of the fields, which are padded to eight bytes. sd-bus asks for this much first.
constexpr std::size_t beginning_bytes = 24;
constexpr std::size_t fixed_bytes = 16;
constexpr uint8_t type_return = 2;
constexpr uint8_t type_error = 3;
constexpr uint8_t type_signal = 4;

uint32_t number_at(const uint8_t *bytes)
{
    uint32_t number = 0;
    memcpy(&number, bytes, sizeof(number));
    return number;
}

void note_beginning(promise &due, const uint8_t *bytes)
{
    const uint32_t body = number_at(bytes + 4);
    const uint32_t fields = (number_at(bytes + 12) + 7) & ~7U;
    due.rest = static_cast<uint32_t>(fixed_bytes + fields + body - beginning_bytes);
    if (bytes[1] == type_return || bytes[1] == type_error) {
        due.answer = false;
    } else if (bytes[1] == type_signal && signals_due.load(std::memory_order_relaxed) > 0) {
        signals_due.fetch_sub(1, std::memory_order_relaxed);
    }
}

ssize_t receive(int fd, msghdr *message, int flags)
{
    return syscall(SYS_recvmsg, fd, message, flags);
}

/** Fill the room there is, however many reads that takes. @return its size, or what the first read gave. */
ssize_t receive_whole(int fd, msghdr *message, int flags)
{
    pollfd readable = {.fd = fd, .events = POLLIN, .revents = 0};
    poll(&readable, 1, -1);
    ssize_t got = receive(fd, message, flags);
    const iovec &room = message->msg_iov[0];
    while (got > 0 && static_cast<std::size_t>(got) < room.iov_len) {
        poll(&readable, 1, -1);
        const ssize_t more =
            recv(fd, static_cast<uint8_t *>(room.iov_base) + got, room.iov_len - static_cast<std::size_t>(got), flags);
        if (more <= 0) {
            return more;
        }
        got += more;
    }
    return got;
}

} // namespace

void expect_signals(unsigned count)
{
    signals_due.fetch_add(count);
}

extern "C" ssize_t sendmsg(int fd, const msghdr *message, int flags)
{
    const ssize_t sent = syscall(SYS_sendmsg, fd, message, flags);
    if (sent > 0 && in_step()) {
        promise &due = promises[static_cast<std::size_t>(fd) % descriptors];
        due.just_sent = true;
        due.answer = true;
    }
    return sent;
}

extern "C" ssize_t recvmsg(int fd, msghdr *message, int flags)
{
    if (!in_step()) {
        return receive(fd, message, flags);
    }
    promise &due = promises[static_cast<std::size_t>(fd) % descriptors];
    if (due.just_sent) {
        due.just_sent = false;
        errno = EAGAIN;
        return -1;
    }
    const std::size_t room = message->msg_iov[0].iov_len;
    const bool is_rest = due.rest > 0 && room == due.rest;
    if (room != beginning_bytes && !is_rest) { // the connection's beginning: lines of text
        return receive(fd, message, flags);
    }
    if (!is_rest && !due.answer && signals_due.load(std::memory_order_relaxed) == 0) {
        return receive(fd, message, flags);
    }
    const ssize_t got = receive_whole(fd, message, flags);
    if (is_rest) {
        due.rest = 0;
    } else if (got == static_cast<ssize_t>(beginning_bytes)) {
        note_beginning(due, static_cast<const uint8_t *>(message->msg_iov[0].iov_base));
    }
    return got;
}

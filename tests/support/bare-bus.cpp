// SPDX-License-Identifier: LGPL-2.1-or-later
#include "support/bare-bus.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <vector>

namespace
{

/** The bus's end of a connection. */
struct peer {
    peer(int fd, int answers) : left(answers)
    {
        sd_bus_new(&bus);
        sd_bus_set_fd(bus, fd, fd);
        sd_bus_set_server(bus, 1, {});
        sd_bus_set_anonymous(bus, 1);
        sd_bus_negotiate_fds(bus, 1);
        sd_bus_add_filter(bus, nullptr, answer, this);
        sd_bus_start(bus);
    }
    ~peer() { sd_bus_unref(bus); }
    peer(const peer &) = delete;
    peer &operator=(const peer &) = delete;

    static int answer(sd_bus_message *request, void *userdata, sd_bus_error * /*error*/)
    {
        peer &self = *static_cast<peer *>(userdata);
        if (self.left == 0) {
            return 1;
        }
        self.left--;
        if (sd_bus_message_is_method_call(request, nullptr, "Hello") > 0) {
            sd_bus_reply_method_return(request, "s", ":1.1");
        } else if (self.left >= 0 && sd_bus_message_is_method_call(request, nullptr, "AddMatch") > 0) {
            sd_bus_reply_method_return(request, nullptr);
        } else {
            sd_bus_reply_method_errorf(request, SD_BUS_ERROR_SERVICE_UNKNOWN, "nobody is here");
        }
        return 1;
    }

    sd_bus *bus = nullptr;
    int left;
};

} // namespace

bare_bus::bare_bus(int answers, ending end)
    : answers_(answers), end_(end), listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      before_(getenv("DBUS_SYSTEM_BUS_ADDRESS"))
{
    static int number = 0;
    const std::string name = "bdbus-bare-bus-" + std::to_string(getpid()) + "-" + std::to_string(number++);
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    name.copy(address.sun_path + 1, name.size());
    bind(listener_, reinterpret_cast<const sockaddr *>(&address),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()));
    listen(listener_, 10);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:abstract=" + name).c_str(), 1);

    if (pipe(stop_) != 0) {
        abort();
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { serve(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

bare_bus::~bare_bus()
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", before_.c_str(), 1);
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
    close(listener_);
}

void bare_bus::serve()
{
    std::vector<std::unique_ptr<peer>> peers;
    for (;;) {
        std::vector<pollfd> fds = {{.fd = stop_[0], .events = POLLIN, .revents = 0},
                                   {.fd = listener_, .events = POLLIN, .revents = 0}};
        for (const auto &one : peers) {
            const int events = sd_bus_get_events(one->bus);
            fds.push_back({.fd = events < 0 ? -1 : sd_bus_get_fd(one->bus),
                           .events = static_cast<short>(events < 0 ? 0 : events),
                           .revents = 0});
        }
        poll(fds.data(), fds.size(), -1);
        if (fds[0].revents != 0) {
            return;
        }
        for (const auto &one : peers) {
            while (sd_bus_process(one->bus, nullptr) > 0) {
            }
        }
        if (end_ == ending::hang_up) {
            std::erase_if(peers, [](const auto &one) { return one->left == 0 && sd_bus_is_ready(one->bus) > 0; });
        }
        if (fds[1].revents != 0) {
            peers.push_back(std::make_unique<peer>(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), answers_));
            connections_++;
        }
    }
}

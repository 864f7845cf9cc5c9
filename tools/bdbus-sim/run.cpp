// SPDX-License-Identifier: LGPL-2.1-or-later
// Serving on a bus, and running a command on a private bus that goes away with it.
#include "run.hpp"

#include "common/descriptor.hpp"
#include "frame/bus.hpp"
#include "frame/event.hpp"
#include "services/services.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <system_error>

namespace bdbus_sim
{

using bdbus_tools::check_errno;
using bdbus_tools::descriptor;

namespace
{

using bdbus_tools::check_errno;
using bdbus_tools::descriptor;

struct pipe_ends {
    explicit pipe_ends(int (&fds)[2]) : read(fds[0]), write(fds[1]) {}

    descriptor read;
    descriptor write;
};

/** Both ends are closed in a program that a child executes. */
pipe_ends make_pipe()
{
    int fds[2];
    check_errno(pipe2(fds, O_CLOEXEC), "pipe");
    return pipe_ends(fds);
}

// ---- signals

/** Blocks signals for the event loop to take. A child is started with the mask that was there before. */
class blocked_signals
{
public:
    explicit blocked_signals(std::initializer_list<int> signals)
    {
        sigset_t blocked;
        sigemptyset(&blocked);
        for (int number : signals) {
            sigaddset(&blocked, number);
        }
        sigprocmask(SIG_BLOCK, &blocked, &before_);
    }

    const sigset_t &before() const { return before_; }

private:
    sigset_t before_;
};

// ---- children

class cannot_execute : public std::system_error
{
public:
    using std::system_error::system_error;
};

/** A child that does not outlive this process, however it ends. */
class child
{
public:
    /** `prepare` runs in the child. Throws cannot_execute. */
    child(
        const std::vector<std::string> &argv, const sigset_t &mask, const std::function<void()> &prepare = [] {})
    {
        pipe_ends failure = make_pipe();
        pid_t parent = getpid();
        pid_ = check_errno(fork(), "fork");
        if (pid_ == 0) {
            execute(argv, mask, prepare, parent, failure.write.get());
        }
        failure.write.reset();
        int error = 0;
        if (read(failure.read.get(), &error, sizeof error) == sizeof error) {
            wait();
            throw cannot_execute(error, std::generic_category(), argv.front());
        }
    }
    child(const child &) = delete;
    child &operator=(const child &) = delete;
    ~child()
    {
        send(SIGKILL);
        wait();
    }

    pid_t pid() const { return pid_; }

    void send(int signal) const
    {
        if (pid_ != 0) {
            kill(pid_, signal);
        }
    }

    /** To be called when somebody else has waited for it. */
    void forget() { pid_ = 0; }

private:
    [[noreturn]] static void execute(const std::vector<std::string> &argv, const sigset_t &mask,
                                     const std::function<void()> &prepare, pid_t parent, int failure)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(EXIT_FAILURE);
        }
        prepare();
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        std::vector<char *> arguments;
        arguments.reserve(argv.size() + 1);
        for (const std::string &argument : argv) {
            arguments.push_back(const_cast<char *>(argument.c_str()));
        }
        arguments.push_back(nullptr);
        execvp(arguments.front(), arguments.data());
        int error = errno;
        [[maybe_unused]] ssize_t written = write(failure, &error, sizeof error);
        _exit(EXIT_FAILURE);
    }

    void wait()
    {
        while (pid_ != 0 && waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
            continue;
        }
        pid_ = 0;
    }

    pid_t pid_ = 0;
};

// ---- private bus

std::string private_address()
{
    std::random_device random;
    return "unix:abstract=bdbus-sim-" + std::to_string(getpid()) + "-" + std::to_string(random());
}

/** Everything is allowed to this user, and to this user only. */
std::string bus_configuration(const std::string &address)
{
    std::string limits;
    for (const char *limit :
         {"max_incoming_bytes", "max_outgoing_bytes", "max_incoming_unix_fds", "max_outgoing_unix_fds",
          "max_completed_connections", "max_incomplete_connections", "max_connections_per_user",
          "max_names_per_connection", "max_match_rules_per_connection", "max_replies_per_connection"}) {
        limits += " <limit name=\"" + std::string(limit) + "\">1000000000</limit>\n";
    }
    return "<busconfig>\n <listen>" + address +
           "</listen>\n"
           " <auth>EXTERNAL</auth>\n"
           " <policy context=\"default\">\n"
           "  <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
           "  <allow eavesdrop=\"true\"/>\n"
           "  <allow own=\"*\"/>\n"
           " </policy>\n" +
           limits + "</busconfig>\n";
}

class private_bus
{
public:
    explicit private_bus(const sigset_t &mask)
        : address_(private_address()), configuration_(memfd_create("bdbus-sim-bus", MFD_CLOEXEC)), ready_(make_pipe()),
          daemon_(arguments(), mask, [this] { prepare(); })
    {
        ready_.write.reset();
        wait_until_ready();
    }

    const std::string &address() const { return address_; }

private:
    std::vector<std::string> arguments()
    {
        check_errno(configuration_.get(), "memfd_create");
        std::string text = bus_configuration(address_);
        check_errno(write(configuration_.get(), text.data(), text.size()), "memfd");
        return {"dbus-daemon", "--nofork", "--nopidfile",
                "--config-file=/proc/self/fd/" + std::to_string(configuration_.get()),
                "--print-address=" + std::to_string(ready_.write.get())};
    }

    void prepare() const
    {
        // Away from the terminal: its signals are meant for the command.
        setsid();
        fcntl(configuration_.get(), F_SETFD, 0);
        fcntl(ready_.write.get(), F_SETFD, 0);
        int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        for (int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            dup2(null, standard);
        }
    }

    // The daemon prints its address once it listens.
    void wait_until_ready()
    {
        constexpr int limit_ms = 30'000;
        pollfd readable{ready_.read.get(), POLLIN, 0};
        char byte = 0;
        if (poll(&readable, 1, limit_ms) <= 0 || read(ready_.read.get(), &byte, 1) != 1) {
            throw std::runtime_error("dbus-daemon did not start");
        }
        ready_.read.reset();
    }

    std::string address_;
    descriptor configuration_;
    pipe_ends ready_;
    child daemon_;
};

// ---- command

struct running_command {
    child process;
    bool ended = false;
};

int on_command_ended(sd_event_source *source, const siginfo_t *info, void *userdata)
{
    // The event loop has waited for it.
    auto *command = static_cast<running_command *>(userdata);
    command->process.forget();
    command->ended = true;
    int status = info->si_code == CLD_EXITED ? info->si_status : 128 + info->si_status;
    return sd_event_exit(sd_event_source_get_event(source), status);
}

int pass_on(sd_event_source *, const signalfd_siginfo *info, void *userdata)
{
    // What a terminal sends has reached the command already.
    bool from_terminal = info->ssi_signo == SIGINT && info->ssi_code == SI_KERNEL;
    if (!from_terminal) {
        static_cast<running_command *>(userdata)->process.send(static_cast<int>(info->ssi_signo));
    }
    return 0;
}

int supervise(event_loop &loop, const std::vector<std::string> &argv, const sigset_t &mask)
{
    running_command command{child(argv, mask)};
    check(sd_event_add_child(loop.get(), nullptr, command.process.pid(), WEXITED, on_command_ended, &command),
          "command");
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        check(sd_event_add_signal(loop.get(), nullptr, number, pass_on, &command), "signals");
    }
    int status = loop.run();
    if (!command.ended) {
        throw std::runtime_error("the private bus has ended");
    }
    return status;
}

} // namespace

int serve(const json &scenario)
{
    blocked_signals signals{SIGINT, SIGTERM};
    event_loop loop;
    check(sd_event_add_signal(loop.get(), nullptr, SIGINT, nullptr, nullptr), "signals");
    check(sd_event_add_signal(loop.get(), nullptr, SIGTERM, nullptr, nullptr), "signals");
    simulator sim(loop, all_services, scenario);
    sim.start();
    if (loop.run() != 0) {
        throw std::runtime_error("the bus has ended");
    }
    return 0;
}

int run_command(const json &scenario, const std::vector<std::string> &command)
{
    blocked_signals signals{SIGCHLD, SIGINT, SIGTERM, SIGHUP};
    private_bus bus(signals.before());
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);

    event_loop loop;
    simulator sim(loop, all_services, scenario);
    sim.start();
    try {
        return supervise(loop, command, signals.before());
    } catch (const cannot_execute &error) {
        fprintf(stderr, "bdbus-sim: %s\n", error.what());
        return error.code() == std::errc::no_such_file_or_directory ? 127 : 126;
    }
}

} // namespace bdbus_sim

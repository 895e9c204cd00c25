// NameServer: a real DNS server on a loopback address, for one test; a server that never answers; and the
// choice of the server that this process asks.
#pragma once

#include "support/Child.h"
#include "support/Mounts.h"
#include "support/ScratchDir.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace zorvo::check {

inline sockaddr_in loopback(const char* address, uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    ::inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

/// dnsmasq on 127.0.0.53, with the settings it is given and nothing else. In debug mode, because otherwise it
/// forks for a question over TCP, and that child can keep the port for a moment longer than the test.
class NameServer {
public:
    explicit NameServer(const std::vector<std::string>& settings)
    {
        std::string text = "listen-address=127.0.0.53\nbind-interfaces\nno-resolv\nno-hosts\nuser=root\n"
                           "log-queries\nlog-facility=" +
                           log() + "\npid-file\n";
        for (const std::string& setting : settings)
            text += setting + "\n";
        support::writeFile(scratch_.file("conf"), text);
        const std::string conf = "--conf-file=" + scratch_.file("conf");
        const std::string errors = scratch_.file("errors");
        process_ = support::forkChild([&] {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            // It repeats its log there.
            if (!::freopen(errors.c_str(), "w", stderr))
                return 126;
            ::execl("/usr/sbin/dnsmasq", "dnsmasq", "--no-daemon", conf.c_str(), nullptr);
            return 127;
        });
        while (!_started())
            ::usleep(1000);
    }
    NameServer(const NameServer&) = delete;
    NameServer& operator=(const NameServer&) = delete;
    ~NameServer()
    {
        ::kill(process_, SIGKILL);
        support::waitFor(process_);
    }

    /// How often each question was asked: "query[A] one.example", once for each time.
    std::multiset<std::string> queries() const
    {
        std::multiset<std::string> result;
        std::ifstream lines(log());
        for (std::string line; std::getline(lines, line);) {
            const auto begin = line.find("query[");
            if (begin != std::string::npos)
                result.insert(line.substr(begin, line.find(" from ") - begin));
        }
        return result;
    }

private:
    std::string log() const { return scratch_.file("log"); }

    /// It reports this once it has its sockets.
    bool _started() const
    {
        int status = 0;
        if (::waitpid(process_, &status, WNOHANG) != 0)
            throw std::runtime_error("dnsmasq does not start: " + _contents("errors"));
        return _contents("log").find(": started, version") != std::string::npos;
    }

    std::string _contents(const char* name) const
    {
        std::ifstream file(scratch_.file(name));
        return {std::istreambuf_iterator<char>(file), {}};
    }

    support::ScratchDir scratch_;
    pid_t process_ = -1;
};

/// resolv.conf and hosts files of this process's own. Needs support::canMount().
class ResolverFiles {
public:
    ResolverFiles(const std::string& resolvConf, const std::string& hosts)
        : resolvConf_(_written("resolv.conf", resolvConf), "/etc/resolv.conf", nullptr, MS_BIND),
          hosts_(_written("hosts", hosts), "/etc/hosts", nullptr, MS_BIND)
    {
    }

private:
    std::string _written(const std::string& name, const std::string& text) const
    {
        support::writeFile(scratch_.file(name), text);
        return scratch_.file(name);
    }

    support::ScratchDir scratch_;
    support::ScopedMount resolvConf_;
    support::ScopedMount hosts_;
};

/// A socket that takes questions and leaves them unanswered.
class SilentServer {
public:
    SilentServer(const char* address, uint16_t port) : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const int buffer = 1 << 24; // of what may come before questions() is called
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
        const sockaddr_in own = loopback(address, port);
        if (::bind(fd_, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0)
            throw std::runtime_error("cannot bind the silent server");
    }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;
    ~SilentServer() { ::close(fd_); }

    /// The different questions that came, each as its bytes.
    std::set<std::string> questions() const
    {
        constexpr size_t header = 12; // with an identification that differs each time
        std::set<std::string> result;
        char message[512];
        ssize_t size = 0;
        while ((size = ::recv(fd_, message, sizeof message, MSG_DONTWAIT)) > 0) {
            const std::string body(message + header, static_cast<size_t>(size) - header);
            result.insert(body.substr(0, body.find('\0') + 3)); // the name and its type
        }
        return result;
    }

private:
    int fd_;
};

} // namespace zorvo::check

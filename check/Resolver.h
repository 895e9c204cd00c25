// Resolver: many questions to the DNS at once, each asked once.
//
// A caller that needs an answer calls find(), which notes the question if the answer is not known yet.
// resolve() then asks all noted questions in parallel, and the caller tries again:
//
//     do {
//         ... find() whatever is needed, and skip what is missing ...
//     } while (resolver.resolve());
//
// /etc/hosts comes first; the servers are those of resolv.conf(5), but names are never completed with its
// search list, because receivers do not either. Each answer is waited for five seconds at most. If the
// servers fall silent, the rest is not asked: a resolve() then takes five seconds, or ten if they said
// anything before, however much was noted.
#pragma once

#include "check/Facts.h"
#include "check/hostsFile.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct ares_channeldata;

namespace zorvo::check {

class Resolver {
public:
    using Clock = std::chrono::steady_clock;
    /// How many questions are answered, how many there are, and the time since the first was asked.
    using Progress = std::function<void(size_t answered, size_t asked, std::chrono::milliseconds elapsed)>;

    /// Reads /etc/hosts and resolv.conf(5). `progress` is called now and then from resolve(), after a second
    /// for the first time at the latest. Throws std::runtime_error.
    explicit Resolver(Progress progress);
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;
    ~Resolver();

    /// The answer, valid as long as this lives; a null pointer notes the question for resolve().
    const DnsAnswer* find(ns_type type, const std::string& name);

    /// Waits until all that was noted is answered or given up. False if nothing was noted. Throws
    /// SystemError.
    [[nodiscard]] bool resolve();

private:
    struct Entry {
        Resolver* owner = nullptr;
        DnsQuestion question;
        Clock::time_point asked;
        bool isDone = false;
        DnsAnswer answer;
    };

    void _ask(Entry& entry);
    void _finish(Entry& entry, DnsAnswer::State state);
    void _answer(Entry& entry, int status, const unsigned char* message, int size);
    void _giveUpLate();
    void _wait();

    Progress progress_;
    std::map<DnsQuestion, Entry> entries_; ///< Nodes stay where they are: c-ares holds pointers to them.
    std::deque<Entry*> noted_;
    std::deque<Entry*> asked_; ///< In the order of asking; answered ones leave when they get to the front.
    size_t open_ = 0;          ///< Asked and not done.
    size_t done_ = 0;
    /// Questions given up in a row without any reply. With servers that have replied before, as many as are
    /// asked at once may belong to silent zones; servers that never replied are not given that benefit.
    size_t unheard_;
    Clock::time_point begin_;
    std::map<int, short> sockets_; ///< Events of poll(2) by descriptor.
    /// Its destructor ends open questions through the callback, so it has to be destroyed first.
    std::unique_ptr<ares_channeldata, void (*)(ares_channeldata*)> channel_;
};

} // namespace zorvo::check

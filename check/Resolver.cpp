#include "check/Resolver.h"

#include "check/dns.h"
#include "common/SystemError.h"

// ares_query() is what the releases of c-ares from 1.18 to 1.34 have in common; the later ones would rather
// see its successor used.
#define CARES_NO_DEPRECATED
#include <ares.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace zorvo::check {

namespace {

constexpr std::chrono::seconds longestWait{5};

/// The first try. Several fit into longestWait, so a lost packet costs no answer.
constexpr int firstTryMilliseconds = 1000;

/// Each takes twice as long as the one before. c-ares 1.34 shortens the first one to 250 ms for a server that
/// used to be fast: even then it must not stop before longestWait is over.
constexpr int tries = 5;

/// A burst that still fits into the receive buffer of a server's socket: with 200, packets got lost.
constexpr size_t mostAtOnce = 100;

ares_channeldata* newChannel(ares_sock_state_cb onSocket, void* owner)
{
    ares_options options = {};
    options.timeout = firstTryMilliseconds;
    options.tries = tries;
    options.sock_state_cb = onSocket;
    options.sock_state_cb_data = owner;
    ares_channeldata* channel = nullptr;
    const int status =
        ::ares_init_options(&channel, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB);
    if (status != ARES_SUCCESS)
        throw std::runtime_error(std::string("cannot use the DNS: ") + ::ares_strerror(status));
    return channel;
}

/// Whether a server replied, if only to say that it does not know.
bool isFromServer(int status)
{
    return status == ARES_SUCCESS || status == ARES_ENODATA || status == ARES_ENOTFOUND ||
           status == ARES_ESERVFAIL || status == ARES_EREFUSED || status == ARES_ENOTIMP ||
           status == ARES_EFORMERR;
}

} // namespace

Resolver::Resolver(Progress progress)
    : progress_(std::move(progress)),
      unheard_(mostAtOnce),
      begin_(Clock::now()),

      channel_(nullptr, ::ares_destroy)
{
    std::ifstream hosts("/etc/hosts");
    for (auto& [question, answer] : readHostsFile(hosts)) {
        Entry& entry = entries_[question];
        entry.isDone = true;
        entry.answer = std::move(answer);
    }
    const auto onSocket = [](void* self, ares_socket_t fd, int readable, int writable) {
        std::map<int, short>& sockets = static_cast<Resolver*>(self)->sockets_;
        if (readable == 0 && writable == 0)
            sockets.erase(fd);
        else
            sockets[fd] = static_cast<short>((readable != 0 ? POLLIN : 0) | (writable != 0 ? POLLOUT : 0));
    };
    channel_.reset(newChannel(onSocket, this));
}

Resolver::~Resolver() = default;

const DnsAnswer* Resolver::find(ns_type type, const std::string& name)
{
    const auto [place, isNew] = entries_.try_emplace({type, foldedName(name)});
    Entry& entry = place->second;
    if (isNew) {
        entry.owner = this;
        entry.question = place->first;
        noted_.push_back(&entry);
    }
    return entry.isDone ? &entry.answer : nullptr;
}

bool Resolver::resolve()
{
    if (noted_.empty())
        return false;
    while (!noted_.empty() || open_ > 0) {
        while (!noted_.empty() && open_ < mostAtOnce) {
            Entry& entry = *noted_.front();
            noted_.pop_front();
            _ask(entry);
        }
        if (open_ > 0)
            _wait();
        _giveUpLate();
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin_);
        if (progress_)
            progress_(done_, done_ + open_ + noted_.size(), elapsed);
    }
    return true;
}

void Resolver::_ask(Entry& entry)
{
    entry.asked = Clock::now();
    asked_.push_back(&entry);
    ++open_;
    const auto onAnswer = [](void* context, int status, int, unsigned char* message, int size) {
        Entry& answered = *static_cast<Entry*>(context);
        answered.owner->_answer(answered, status, message, size);
    };
    ::ares_query(channel_.get(), entry.question.second.c_str(), ns_c_in, entry.question.first, onAnswer,
                 &entry);
}

void Resolver::_finish(Entry& entry, DnsAnswer::State state)
{
    entry.isDone = true;
    entry.answer.state = state;
    entry.answer.waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - entry.asked);
    --open_;
    ++done_;
}

/// An answer that comes after its question was given up is ignored.
void Resolver::_answer(Entry& entry, int status, const unsigned char* message, int size)
{
    if (isFromServer(status))
        unheard_ = 0;
    if (entry.isDone)
        return;
    if (status == ARES_SUCCESS)
        entry.answer.values = recordsOf(entry.question.first, message, size);
    if (!entry.answer.values.empty())
        _finish(entry, DnsAnswer::State::Found);
    else if (status == ARES_SUCCESS || status == ARES_ENODATA || status == ARES_ENOTFOUND ||
             status == ARES_EBADNAME)
        _finish(entry, DnsAnswer::State::NotThere);
    else
        _finish(entry, DnsAnswer::State::NotKnown);
}

/// c-ares itself waits longer the more servers there are, and has no way to end a single question.
void Resolver::_giveUpLate()
{
    const Clock::time_point now = Clock::now();
    while (!asked_.empty()) {
        Entry& oldest = *asked_.front();
        if (!oldest.isDone) {
            if (now - oldest.asked < longestWait)
                return;
            _finish(oldest, DnsAnswer::State::NotKnown);
            if (++unheard_ > mostAtOnce) {
                for (Entry* const entry : noted_) {
                    entry->isDone = true;
                    ++done_;
                }
                noted_.clear();
            }
        }
        asked_.pop_front();
    }
}

void Resolver::_wait()
{
    using std::chrono::duration_cast;
    using std::chrono::microseconds;
    const auto untilLate = duration_cast<microseconds>(asked_.front()->asked + longestWait - Clock::now());
    timeval latest = {};
    latest.tv_usec = std::max<long>(untilLate.count(), 0);
    latest.tv_sec = std::exchange(latest.tv_usec, latest.tv_usec % 1000000) / 1000000;
    timeval space = {};
    const timeval* const timeout = ::ares_timeout(channel_.get(), &latest, &space);
    const long milliseconds = timeout->tv_sec * 1000 + timeout->tv_usec / 1000 + 1;
    std::vector<pollfd> polled;
    for (const auto& [fd, events] : sockets_)
        polled.push_back({fd, events, 0});
    const int ready = ::poll(polled.data(), polled.size(), static_cast<int>(milliseconds));
    if (ready == -1 && errno != EINTR)
        throwSystemError("poll", errno);
    if (ready <= 0)
        ::ares_process_fd(channel_.get(), ARES_SOCKET_BAD, ARES_SOCKET_BAD); // tries that are due again
    for (const pollfd& socket : polled) {
        if (ready <= 0 || socket.revents == 0)
            continue;
        const bool writable = (socket.revents & POLLOUT) != 0;
        const bool readable = (socket.revents & ~POLLOUT) != 0;
        ::ares_process_fd(channel_.get(), readable ? socket.fd : ARES_SOCKET_BAD,
                          writable ? socket.fd : ARES_SOCKET_BAD);
    }
}

} // namespace zorvo::check

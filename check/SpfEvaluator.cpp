#include "check/SpfEvaluator.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
extern "C" {
#include <spf2/spf.h>
}

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace zorvo::check {

namespace {

constexpr std::chrono::seconds longestEvaluation{20};

/// What libspf2 would write to standard error comes from strangers.
void silenceLibrary()
{
    const auto silent = [](const char*, int, const char*) {};
    SPF_warning_handler = silent;
    SPF_info_handler = silent;
    SPF_debug_handler = silent;
}

int statusOf(DnsAnswer::State state)
{
    switch (state) {
    case DnsAnswer::State::Found:
        return NETDB_SUCCESS;
    case DnsAnswer::State::NotThere:
        return HOST_NOT_FOUND;
    case DnsAnswer::State::NotKnown:
        break;
    }
    return TRY_AGAIN;
}

/// Appends `value` to the records of `answer` in the form that libspf2 has for `type`.
void addRecord(SPF_dns_rr_t& answer, ns_type type, const std::string& value)
{
    const int place = answer.num_rr;
    if (SPF_dns_rr_buf_realloc(&answer, place, std::max(sizeof(SPF_dns_rr_data_t), value.size() + 1)) !=
        SPF_E_SUCCESS)
        throw std::bad_alloc();
    SPF_dns_rr_data_t& record = *answer.rr[place];
    if (type == ns_t_a)
        ::inet_pton(AF_INET, value.c_str(), &record.a);
    else if (type == ns_t_aaaa)
        ::inet_pton(AF_INET6, value.c_str(), &record.aaaa);
    else
        std::memcpy(record.txt, value.c_str(), value.size() + 1);
    answer.num_rr = place + 1;
}

/// Neither a record that cannot be read nor one that cannot be looked up has a result; the errors are given
/// as messages.
SpfVerdict verdictOf(SPF_response_t& response, SPF_errcode_t error)
{
    switch (SPF_response_result(&response)) {
    case SPF_RESULT_PASS:
        return {SpfResult::Pass, ""};
    case SPF_RESULT_FAIL:
        return {SpfResult::Fail, ""};
    case SPF_RESULT_SOFTFAIL:
        return {SpfResult::Softfail, ""};
    case SPF_RESULT_NEUTRAL:
        return {SpfResult::Neutral, ""};
    case SPF_RESULT_NONE:
        return {SpfResult::None, ""};
    case SPF_RESULT_TEMPERROR:
        return {SpfResult::Temperror, ""};
    default:
        break;
    }
    if (error == SPF_E_DNS_ERROR)
        return {SpfResult::Temperror, ""};
    const bool hasMessage = SPF_response_messages(&response) > 0;
    return {SpfResult::Permerror,
            hasMessage ? SPF_error_message(SPF_response_message(&response, 0)) : SPF_strerror(error)};
}

} // namespace

SpfEvaluator::SpfEvaluator(Lookup lookup)
    : lookup_(std::move(lookup)),
      dns_(std::make_unique<SPF_dns_server_t>()),
      server_(nullptr, SPF_server_free)
{
    silenceLibrary();
    dns_->name = "answers";
    dns_->hook = this;
    dns_->lookup = [](SPF_dns_server_t* server, const char* name, ns_type type, int) noexcept {
        return static_cast<SpfEvaluator*>(server->hook)->_lookUp(name, type);
    };
    // The text for refused senders (exp=) takes another lookup, and is not used here.
    dns_->get_exp = [](SPF_server_t*, const char*, char**, size_t*) { return SPF_E_NOT_CONFIG; };
    server_.reset(SPF_server_new_dns(dns_.get(), 0));
    if (server_ == nullptr)
        throw std::bad_alloc();
}

SpfEvaluator::~SpfEvaluator() = default;

SPF_dns_rr_t* SpfEvaluator::_lookUp(const char* name, ns_type type)
{
    const DnsAnswer* const answer = lookup_(type, name);
    DnsAnswer::State state = DnsAnswer::State::NotKnown;
    if (answer == nullptr) {
        isMissing_ = true;
    } else {
        waited_ += answer->waited;
        if (waited_ <= longestEvaluation)
            state = answer->state;
    }
    SPF_dns_rr_t* const result = SPF_dns_rr_new_init(dns_.get(), name, type, 0, statusOf(state));
    if (result == nullptr)
        throw std::bad_alloc();
    if (state == DnsAnswer::State::Found) {
        for (const std::string& value : answer->values)
            addRecord(*result, type, value);
    }
    return result;
}

std::optional<SpfVerdict> SpfEvaluator::evaluate(const std::string& domain, const std::string& helo,
                                                 Family family, const std::string& address)
{
    isMissing_ = false;
    waited_ = std::chrono::milliseconds(0);
    const std::unique_ptr<SPF_request_t, void (*)(SPF_request_t*)> request(SPF_request_new(server_.get()),
                                                                           SPF_request_free);
    if (request == nullptr)
        throw std::bad_alloc();
    if (family == Family::Ip4)
        SPF_request_set_ipv4_str(request.get(), address.c_str());
    else
        SPF_request_set_ipv6_str(request.get(), address.c_str());
    SPF_request_set_helo_dom(request.get(), helo.c_str());
    SPF_request_set_env_from(request.get(), ("postmaster@" + domain).c_str());
    SPF_response_t* made = nullptr;
    const SPF_errcode_t error = SPF_request_query_mailfrom(request.get(), &made);
    const std::unique_ptr<SPF_response_t, void (*)(SPF_response_t*)> response(made, SPF_response_free);
    if (response == nullptr)
        throw std::bad_alloc();
    if (isMissing_)
        return std::nullopt;
    return verdictOf(*response, error);
}

} // namespace zorvo::check

// SpfEvaluator: a domain's SPF record applied to an address (RFC 7208), by libspf2.
#pragma once

#include "check/Address.h"
#include "check/Facts.h"

#include <arpa/nameser.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

struct SPF_server_struct;
struct SPF_dns_server_struct;
struct SPF_dns_rr_struct;

namespace zorvo::check {

class SpfEvaluator {
public:
    /// The answer to a question, or a null pointer if it is not known yet. Must not throw.
    using Lookup = std::function<const DnsAnswer*(ns_type type, const std::string& name)>;

    explicit SpfEvaluator(Lookup lookup);
    SpfEvaluator(const SpfEvaluator&) = delete;
    SpfEvaluator& operator=(const SpfEvaluator&) = delete;
    ~SpfEvaluator();

    /// What a receiver makes of mail from postmaster@`domain` that comes from `address` with the HELO name
    /// `helo`. Nothing if an answer is missing: then the lookup has to have it the next time. Each call asks
    /// from the start again and comes one missing answer further. Answers that took more than 20 seconds in
    /// all make a Temperror (RFC 7208, 4.6.4). Loopback addresses pass everywhere.
    std::optional<SpfVerdict> evaluate(const std::string& domain, const std::string& helo, Family family,
                                       const std::string& address);

private:
    SPF_dns_rr_struct* _lookUp(const char* name, ns_type type);

    Lookup lookup_;
    bool isMissing_ = false;
    std::chrono::milliseconds waited_{0};
    std::unique_ptr<SPF_dns_server_struct> dns_;
    std::unique_ptr<SPF_server_struct, void (*)(SPF_server_struct*)> server_; ///< Uses *dns_.
};

} // namespace zorvo::check

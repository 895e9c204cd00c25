#include "app/request.h"

#include "app/transport_info.h"
#include "common/SystemError.h"
#include "common/eintr.h"
#include "common/sj.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>

namespace {

/// Parses `text`, which the parser changes: it unescapes strings in place.
std::vector<Binding> parseRequest(std::string& text)
{
    errno = 0; // a refusal's message appends it
    const std::unique_ptr<sj_parser, decltype(&sj_free_parser)> parser(sj_create_parser(text.data(), nullptr),
                                                                       sj_free_parser);
    if (!parser)
        throw std::bad_alloc();
    const auto release = [&parser](transport_info* info) { free_transport_info_object(parser.get(), info); };
    const std::unique_ptr<transport_info, decltype(release)> info(create_transport_info_object(parser.get()),
                                                                  release);
    if (!info)
        throw std::runtime_error("can not create transport_info object");
    if (parse_transport_info_object(parser.get(), info.get()) != 0)
        throw std::runtime_error(std::string("can not parse data from stdin : ") +
                                 sj_parser_strerror(parser.get()));

    std::vector<Binding> bindings;
    for (size_t i = 0; i < info->count; ++i) {
        const transport_info_entry& entry = info->entries[i];
        bindings.push_back({entry.domain, entry.ip4_addr, entry.ip6_addr});
    }
    return bindings;
}

} // namespace

std::vector<Binding> readRequest()
{
    std::optional<std::string> text = zorvo::readAll(STDIN_FILENO);
    if (!text)
        throw zorvo::SystemError("stdin read", errno);
    return parseRequest(*text);
}

// Fuzz target: the request document (app/transport_info.h) read by the JSON reader (common/sj.h), and what
// zorvo-smtp-check says of it.
//
// Input: one byte, then the document. The low six bits of the byte are the number of allocations granted
// before memory runs out; 63 ('?') grants all.
#include "app/transport_info.h"
#include "check/checkRequest.h"
#include "check/report.h"
#include "check/routes.h"
#include "common/sj.h"
#include "fuzz/JsonReference.h"
#include "fuzz/fuzz.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <vector>

namespace {

/// Allocator hooks that grant a number of blocks, move every block that grows, and count those not given
/// back.
class Hooks {
public:
    explicit Hooks(size_t granted) : granted_(granted) {}

    sj_util_funcs funcs()
    {
        return {this,
                [](void* self, size_t size) { return static_cast<Hooks*>(self)->resize(nullptr, size); },
                [](void* self, void* block, size_t size) {
                    return static_cast<Hooks*>(self)->resize(block, size);
                },
                [](void* self, void* block) { static_cast<Hooks*>(self)->release(block); }};
    }

    bool refused() const { return refused_; }
    size_t live() const { return live_; }

private:
    void* resize(void* block, size_t size)
    {
        if (granted_ == 0) {
            refused_ = true;
            return nullptr;
        }
        --granted_;
        live_ += block == nullptr ? 1U : 0U;
        return std::realloc(block, size);
    }

    void release(void* block)
    {
        live_ -= block != nullptr ? 1U : 0U;
        std::free(block);
    }

    size_t granted_;
    size_t live_ = 0;
    bool refused_ = false;
};

/// An element of "domains"; a string that was never seen, or could not be read, has no value.
struct Entry {
    std::optional<std::string> domain;
    std::optional<std::string> ip4_addr;
    std::optional<std::string> ip6_addr;

    bool operator==(const Entry& other) const
    {
        return domain == other.domain && ip4_addr == other.ip4_addr && ip6_addr == other.ip6_addr;
    }
};

/// The result of reading a document.
struct Outcome {
    int error = 0;
    size_t offset = 0;
    std::vector<Entry> entries;
};

/// As a C function sees it.
std::optional<std::string> cString(const std::optional<std::string>& text)
{
    return text ? std::optional<std::string>(text->c_str()) : std::nullopt;
}

/// The schema once more, over JsonReference.
class ReferenceReader {
public:
    explicit ReferenceReader(const std::string& text) : json_(text) {}

    /// No value if the nesting is too deep for a recursion.
    std::optional<Outcome> read()
    {
        readDocument();
        if (json_.tooDeep())
            return std::nullopt;
        slots_.resize(count_);
        return Outcome{json_.error, json_.cursor, slots_};
    }

private:
    bool ok() const { return json_.error == 0; }

    void readDocument()
    {
        bool seen = false;
        if (json_.parse_object_start() != 0)
            return;
        if (json_.parse_object_end_if_empty() == 0) {
            do {
                const std::optional<std::string> key = cString(json_.parse_object_key());
                if (!ok())
                    return;
                if (key == "domains") {
                    seen = true;
                    readDomains();
                } else {
                    json_.skip_value();
                }
            } while (ok() && json_.parse_object_next() == 0);
        }
        if (ok() && !seen)
            json_.error = 14;
    }

    void readDomains()
    {
        if (json_.parse_array_start() != 0)
            return;
        count_ = 0;
        if (json_.parse_array_end_if_empty() != 0)
            return;
        do {
            if (count_ == slots_.size())
                slots_.emplace_back();
            readEntry(slots_[count_++]);
        } while (ok() && json_.parse_array_next() == 0);
    }

    void readEntry(Entry& entry)
    {
        bool seen[3] = {};
        if (json_.parse_object_start() != 0)
            return;
        if (json_.parse_object_end_if_empty() == 0) {
            do {
                const std::optional<std::string> key = cString(json_.parse_object_key());
                if (!ok())
                    return;
                if (key == "domain")
                    readField(entry.domain, seen[0]);
                else if (key == "ip4_addr")
                    readField(entry.ip4_addr, seen[1]);
                else if (key == "ip6_addr")
                    readField(entry.ip6_addr, seen[2]);
                else
                    json_.skip_value();
            } while (ok() && json_.parse_object_next() == 0);
        }
        if (ok() && !(seen[0] && seen[1] && seen[2]))
            json_.error = 14;
    }

    void readField(std::optional<std::string>& field, bool& seen)
    {
        field = cString(json_.parse_string());
        seen = true;
    }

    fuzz::JsonReference json_;
    std::vector<Entry> slots_;
    size_t count_ = 0;
};

std::optional<std::string> field(const fuzz::ExactText& text, const char* value)
{
    if (value == nullptr)
        return std::nullopt;
    FUZZ_CHECK(text.holds(value));
    FUZZ_CHECK(text.holds(value + std::strlen(value)));
    return value;
}

Outcome outcomeOf(const fuzz::ExactText& text, const sj_parser& parser, const transport_info& info)
{
    FUZZ_CHECK(text.holds(parser.cursor));
    FUZZ_CHECK(info.count <= info.capacity);
    FUZZ_CHECK((info.capacity == 0) == (info.entries == nullptr));
    Outcome outcome{parser.error, static_cast<size_t>(parser.cursor - parser.start), {}};
    for (size_t i = 0; i < info.count; ++i)
        outcome.entries.push_back({field(text, info.entries[i].domain), field(text, info.entries[i].ip4_addr),
                                   field(text, info.entries[i].ip6_addr)});
    return outcome;
}

/// Reads the document with `hooks`; no value if there was not enough memory for the parser or the object.
std::optional<Outcome> read(const std::string& document, Hooks& hooks)
{
    const fuzz::ExactText text(document);
    const sj_util_funcs funcs = hooks.funcs();
    sj_parser* const parser = sj_create_parser(text.begin(), &funcs);
    if (parser == nullptr)
        return std::nullopt;
    std::optional<Outcome> outcome;
    if (transport_info* const info = create_transport_info_object(parser)) {
        const int result = parse_transport_info_object(parser, info);
        FUZZ_CHECK(result == parser->error);
        outcome = outcomeOf(text, *parser, *info);
        FUZZ_CHECK(std::strlen(sj_parser_strerror(parser)) < 1024);
        free_transport_info_object_fields(parser, info);
        FUZZ_CHECK(info->count == 0 && info->capacity == 0 && info->entries == nullptr);
        free_transport_info_object(parser, info);
    }
    sj_free_parser(parser);
    FUZZ_CHECK(hooks.live() == 0);
    return outcome;
}

/// The report on a request that was read: nothing in it can act on a terminal, whatever the request holds.
void checkRequestOf(const Outcome& outcome)
{
    zorvo::check::Request request;
    for (const Entry& entry : outcome.entries)
        request.bindings.push_back({entry.domain.value(), entry.ip4_addr.value(), entry.ip6_addr.value()});
    for (const auto type : {zorvo::check::TransportType::DomainIp, zorvo::check::TransportType::DomainName}) {
        request.type = type;
        const zorvo::check::Report report = {plannedRoutes(request), checkRequest(request)};
        std::ostringstream table;
        std::ostringstream document;
        writeTable(table, report, false);
        writeJson(document, report);
        for (const char c : table.str() + document.str())
            FUZZ_CHECK(c == '\n' || static_cast<signed char>(c) >= ' ');
    }
}

bool same(const Outcome& one, const Outcome& other)
{
    return one.error == other.error && one.offset == other.offset && one.entries == other.entries;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr unsigned all = 63;
    if (size == 0)
        return 0;
    const std::string document = fuzz::toString(data + 1, size - 1);

    Hooks plenty(SIZE_MAX);
    const std::optional<Outcome> full = read(document, plenty);
    FUZZ_CHECK(full.has_value());
    if (const std::optional<Outcome> expected = ReferenceReader(document).read())
        FUZZ_CHECK(same(*full, *expected));
    if (full->error == 0)
        checkRequestOf(*full);

    const unsigned granted = data[0] & all;
    if (granted == all)
        return 0;
    Hooks few(granted);
    const std::optional<Outcome> starved = read(document, few);
    FUZZ_CHECK(starved.has_value() == (granted >= 2));
    if (!few.refused()) {
        FUZZ_CHECK(same(*starved, *full));
    } else if (starved) {
        FUZZ_CHECK(starved->error == SJ_NO_MEMORY);
        FUZZ_CHECK(starved->offset <= full->offset);
    }
    return 0;
}

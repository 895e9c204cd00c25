#include "app/transport_info.h"

#include "common/sj.h"

#include <string_view>

namespace {

/// Which of an element's members were seen.
struct SeenFields {
    bool domain = false;
    bool ip4_addr = false;
    bool ip6_addr = false;

    bool all() const { return domain && ip4_addr && ip6_addr; }
};

int fail(sj_parser* parser, int error)
{
    parser->error = error;
    return error;
}

/// Makes sure that there is a slot for entry number `index`: where it is missing, adds that one.
bool ensureSlot(sj_parser* parser, transport_info* info, size_t index)
{
    if (index < info->capacity)
        return true;
    const sj_util_funcs& hooks = parser->util_funcs;
    void* const block =
        hooks.realloc(hooks.context, info->entries, (info->capacity + 1) * sizeof(transport_info_entry));
    if (block == nullptr)
        return false;
    info->entries = static_cast<transport_info_entry*>(block);
    info->entries[info->capacity++] = transport_info_entry{};
    return true;
}

/// Reads one member's value into `entry`, or skips it. Returns the parser's error.
int parseMember(sj_parser* parser, std::string_view key, transport_info_entry* entry, SeenFields* seen)
{
    if (key == "domain") {
        entry->domain = sj_parse_string(parser);
        seen->domain = true;
    } else if (key == "ip4_addr") {
        entry->ip4_addr = sj_parse_string(parser);
        seen->ip4_addr = true;
    } else if (key == "ip6_addr") {
        entry->ip6_addr = sj_parse_string(parser);
        seen->ip6_addr = true;
    } else {
        sj_skip_value(parser);
    }
    return parser->error;
}

/// One object of the "domains" array.
int parseEntry(sj_parser* parser, transport_info_entry* entry)
{
    if (sj_parse_object_start(parser) != 0)
        return parser->error;
    if (sj_parse_object_end_if_empty(parser))
        return fail(parser, SJ_FIELDS_MISSING);
    SeenFields seen;
    int next = 0;
    while (next == 0) {
        const char* const key = sj_parse_object_key(parser);
        if (key == nullptr || parser->error != SJ_OK)
            return parser->error;
        if (parseMember(parser, key, entry, &seen) != SJ_OK)
            return parser->error;
        next = sj_parse_object_next(parser);
    }
    if (next != 1)
        return next;
    return seen.all() ? 0 : fail(parser, SJ_FIELDS_MISSING);
}

/// The elements of the "domains" array after its "["; counts each before reading it.
int parseEntries(sj_parser* parser, transport_info* info, size_t* count)
{
    if (sj_parse_array_end_if_empty(parser))
        return 0;
    int next = 0;
    while (next == 0) {
        if (!ensureSlot(parser, info, *count))
            return fail(parser, SJ_NO_MEMORY);
        transport_info_entry* const entry = &info->entries[(*count)++];
        if (parseEntry(parser, entry) != 0)
            return parser->error;
        next = sj_parse_array_next(parser);
    }
    return next == 1 ? 0 : next;
}

/// The value of "domains". A repeated member refills the entries from the first one.
int parseDomains(sj_parser* parser, transport_info* info)
{
    if (sj_parse_array_start(parser) != 0)
        return parser->error;
    size_t count = 0;
    const int result = parseEntries(parser, info, &count);
    info->count = count;
    return result;
}

} // namespace

transport_info* create_transport_info_object(sj_parser* parser)
{
    const sj_util_funcs& hooks = parser->util_funcs;
    auto* const info = static_cast<transport_info*>(hooks.malloc(hooks.context, sizeof(transport_info)));
    if (info != nullptr)
        *info = transport_info{};
    return info;
}

int parse_transport_info_object(sj_parser* parser, transport_info* info)
{
    if (sj_parse_object_start(parser) != 0)
        return parser->error;
    if (sj_parse_object_end_if_empty(parser))
        return fail(parser, SJ_FIELDS_MISSING);
    bool domainsSeen = false;
    int next = 0;
    while (next == 0) {
        const char* const key = sj_parse_object_key(parser);
        if (key == nullptr || parser->error != SJ_OK)
            return parser->error;
        if (std::string_view(key) == "domains") {
            domainsSeen = true;
            parseDomains(parser, info);
        } else {
            sj_skip_value(parser);
        }
        if (parser->error != SJ_OK)
            return parser->error;
        next = sj_parse_object_next(parser);
    }
    if (next != 1)
        return next;
    return domainsSeen ? 0 : fail(parser, SJ_FIELDS_MISSING);
}

void free_transport_info_object_fields(sj_parser* parser, transport_info* info)
{
    const sj_util_funcs& hooks = parser->util_funcs;
    info->count = 0;
    info->capacity = 0;
    hooks.free(hooks.context, info->entries);
    info->entries = nullptr;
}

void free_transport_info_object(sj_parser* parser, transport_info* info)
{
    free_transport_info_object_fields(parser, info);
    const sj_util_funcs& hooks = parser->util_funcs;
    hooks.free(hooks.context, info);
}

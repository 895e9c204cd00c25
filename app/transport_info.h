// transport_info: the request document as read from standard input.
//
// {"domains": [{"domain": "example.com", "ip4_addr": "192.0.2.1", "ip6_addr": ""}, ...]}
//
// Unknown members are skipped, repeated ones overwrite, all three strings are required in every element.
#pragma once

#include <cstddef>

struct sj_parser;

/// One element of "domains". The strings point into the parser's text; null until the member is seen.
struct transport_info_entry {
    char* domain;
    char* ip4_addr;
    char* ip6_addr;
};

/// The entries read so far; the array belongs to this object, allocated through the parser's hooks.
struct transport_info {
    size_t count;
    size_t capacity;
    transport_info_entry* entries;
};

/// A new empty object from the parser's malloc hook; null without memory. To be given to
/// free_transport_info_object with the same parser.
transport_info* create_transport_info_object(sj_parser* parser);

/// Reads the document at the parser's cursor into `info`. Returns 0, or the error code it stored in the
/// parser; `info` then holds the entries before the failure. Text after the document is not looked at.
int parse_transport_info_object(sj_parser* parser, transport_info* info);

/// Empties `info`, releasing the entries.
void free_transport_info_object_fields(sj_parser* parser, transport_info* info);

/// The same, then releases `info` itself.
void free_transport_info_object(sj_parser* parser, transport_info* info);

// writeText: the one way in which text for the user is put on a standard stream.
//
//     writeText(std::cerr, {e.what(), "\n"});
//
// A run may end right after the text, so it is written at once, in as few writes as possible so that lines of
// several processes stay whole. Unlike with stdio, writing goes on after an interruption; any other error
// ends it silently.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <iosfwd>
#include <string_view>

namespace zorvo {

/// Flushes `stream` and writes at most eight pieces, one after the other, straight to its descriptor. A
/// stream without a descriptor (a memory stream) gets them through stdio. Keeps errno.
void writeText(std::FILE* stream, std::initializer_list<std::string_view> pieces) noexcept;

/// The same for std::cout, std::cerr and std::clog, after a flush of the stream they are tied to. A stream
/// that is not based on stdio gets the pieces through its own buffer, unflushed, and sets its state;
/// a stream that is not good gets nothing.
void writeText(std::ostream& stream, std::initializer_list<std::string_view> pieces);

/// Formats and writes.
void writeFormatted(std::FILE* stream, const char* format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

} // namespace zorvo

// closeBuffer: the end of a file that was written through a stream buffer.
#pragma once

#include <fstream>

namespace zorvo {

/// Flushes and closes the buffer's file. True when all of it was written; else false with errno, the file
/// being closed all the same.
bool closeBuffer(std::filebuf& buffer);

} // namespace zorvo

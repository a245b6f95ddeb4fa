#pragma once

// Reads a whole regular file of bounded size. Anything else (a directory, a
// FIFO, a device, a socket, a larger file) is refused without blocking and
// without reading more than the limit.

#include <cstddef>
#include <string>

namespace aovsimtool {

// Fills `text` with the file's bytes. False with `problem` set to the reason,
// e.g. "it is a FIFO, not a regular file" or "No such file or directory".
[[nodiscard]] bool readRegularFile(const std::string& path, size_t limit, std::string* text,
                                   std::string* problem);

}  // namespace aovsimtool

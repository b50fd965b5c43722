#include "textfile.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::size_t largest = std::size_t{64} * 1024;

}  // namespace

bool readText(const std::string& path, std::string& text) {
    text.clear();
    // Not to wait for the writer of a pipe.
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) return false;
    text.resize(largest);
    const ssize_t count = read(file, text.data(), largest);
    close(file);
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return count >= 0;
}

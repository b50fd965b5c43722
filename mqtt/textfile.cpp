#include "textfile.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::size_t largest = std::size_t{1024} * 1024;

}  // namespace

bool readText(const std::string& path, std::string& text) {
    text.clear();
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) return false;
    char buffer[4096];
    ssize_t count = 0;
    while (text.size() < largest && (count = read(file, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(file);
    return count >= 0;
}

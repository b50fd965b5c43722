#pragma once

#include <string>

// The content of a small file, at most 64 kB of it. False, with the reason in errno, if it cannot
// be read.
bool readText(const std::string& path, std::string& text);

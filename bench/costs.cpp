// What loading a document costs, beside INIReader of libinih, and what reducing it to the alarm
// mask costs.
//   costs CASE FILE COUNT  does the case so often; prints the shortest time, in ns

#include <INIReader.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <string>

#include "alarmmask.h"

namespace {

// Functions of their own, so that their instructions can be told from those of the rest.
__attribute__((noinline)) void loadIniFile(const std::string& path) { IniFile document(path); }
__attribute__((noinline)) void loadIniReader(const std::string& path) { INIReader document(path); }
__attribute__((noinline)) void evaluate(const IniFile& document) { evaluateAlarmMask(document); }

}  // namespace

int main(int, char* argv[]) {
    const std::string name = argv[1], path = argv[2];
    const IniFile document(name == "evaluate" ? path : "");
    auto best = std::numeric_limits<std::chrono::nanoseconds::rep>::max();
    for (long left = std::strtol(argv[3], nullptr, 10); left > 0; --left) {
        const auto began = std::chrono::steady_clock::now();
        if (name == "IniFile") loadIniFile(path);
        if (name == "INIReader") loadIniReader(path);
        if (name == "evaluate") evaluate(document);
        const std::chrono::nanoseconds took = std::chrono::steady_clock::now() - began;
        best = std::min(best, took.count());
    }
    std::cout << best << '\n';
    return 0;
}

// What loading a document costs, beside INIReader of libinih: costs FOLDER [OPTION of Google
// Benchmark...], with the files that bench/run writes.

#include <INIReader.h>
#include <benchmark/benchmark.h>

#include <string>

#include "inifile.h"

namespace {

// Functions of their own, so that their instructions can be told from those of the rest.
__attribute__((noinline)) void loadIniFile(const std::string& path) { IniFile document(path); }
__attribute__((noinline)) void loadIniReader(const std::string& path) { INIReader document(path); }

}  // namespace

int main(int argc, char* argv[]) {
    benchmark::Initialize(&argc, argv);
    const std::string folder = std::string(argv[1]) + "/";
    for (const char* file : {"small", "1-MB", "1-MB-line"}) {
        const auto load = [](benchmark::State& state, auto function, const std::string& path) {
            for (auto turn : state) function(path);
        };
        const std::string name = std::string("/") + file;
        benchmark::RegisterBenchmark(("IniFile" + name).c_str(), load, loadIniFile, folder + file);
        benchmark::RegisterBenchmark(("INIReader" + name).c_str(), load, loadIniReader,
                                     folder + file);
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

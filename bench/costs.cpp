// What loading a document costs, beside INIReader of libinih, and what reducing it to the alarm
// mask costs.
//   costs FOLDER [OPTION...]  times for the files that bench/run made in FOLDER; options go to
//                             Google Benchmark
//   costs CASE FILE           does one of the cases once, to count its instructions

#include <INIReader.h>
#include <benchmark/benchmark.h>

#include <string>

#include "alarmmask.h"

namespace {

std::string folder;

template <class Document>
__attribute__((noinline)) void loadOnce(const std::string& path) {
    Document document(path);
    benchmark::DoNotOptimize(document);
}

__attribute__((noinline)) void evaluateOnce(const IniFile& document) {
    benchmark::DoNotOptimize(evaluateAlarmMask(document));
}

template <class Document>
void load(benchmark::State& state) {
    const char* const files[] = {"small", "1-MB", "1-MB-line"};
    const std::string path = folder + "/" + files[state.range(0)];
    while (state.KeepRunning()) loadOnce<Document>(path);
}
BENCHMARK_TEMPLATE(load, IniFile)->DenseRange(0, 2);
BENCHMARK_TEMPLATE(load, INIReader)->DenseRange(0, 2);

void evaluate(benchmark::State& state) {
    const IniFile document(folder + "/sections-" + std::to_string(state.range(0)));
    while (state.KeepRunning()) evaluateOnce(document);
}
BENCHMARK(evaluate)->Arg(10)->Arg(1000)->Arg(100000);

}  // namespace

int main(int argc, char* argv[]) {
    folder = argv[1];
    if (argc == 3 && argv[2][0] != '-') {
        const std::string path = argv[2];
        if (folder == "IniFile") loadOnce<IniFile>(path);
        if (folder == "INIReader") loadOnce<INIReader>(path);
        if (folder == "evaluate") evaluateOnce(IniFile(path));
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

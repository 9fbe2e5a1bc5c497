// The core alone: what its operations cost without the interpreter around them.
#include <benchmark/benchmark.h>

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/document_reader.hpp"
#include "core/document_writer.hpp"
#include "core/summary.hpp"

namespace {

using health::HashedText;
using health::ToolStates;
using health::UsageCounts;

constexpr int kActions = 10;

std::size_t hash_of(std::string_view text) { return std::hash<std::string_view>{}(text); }

HashedText hashed(std::string_view text) { return {text, hash_of(text)}; }

std::vector<std::string> tool_names(benchmark::State& state) {
    std::vector<std::string> names;
    for (int i = 0; i < state.range(0); ++i) {
        names.push_back("tool_" + std::to_string(i));
    }
    return names;
}

void fill(UsageCounts& usage, const std::vector<std::string>& names) {
    const auto outcome = hashed("ok");
    for (const auto& name : names) {
        for (int i = 0; i < kActions; ++i) {
            const auto text = "action_" + std::to_string(i);
            const auto tool = hashed(name);
            const auto action = hashed(text);
            usage.record_call({&tool, &action, &outcome, false}, 1.25);
        }
    }
}

void record_success(benchmark::State& state) {
    const auto names = tool_names(state);
    const auto tool = hashed(names.front());
    ToolStates states;
    for (auto _ : state) {
        states.record_success(tool, 1.0);
    }
}

void record_call(benchmark::State& state) {
    const auto names = tool_names(state);
    UsageCounts usage;
    fill(usage, names);
    const std::array<HashedText, 3> key{hashed(names.front()), hashed("action_3"), hashed("ok")};
    for (auto _ : state) {
        usage.record_call({&key[0], &key[1], &key[2], false}, 1.25);
    }
}

void write_document(benchmark::State& state) {
    const auto names = tool_names(state);
    UsageCounts usage;
    fill(usage, names);
    for (auto _ : state) {
        benchmark::DoNotOptimize(health::write_usage_document(usage.snapshot()));
    }
}

void read_document(benchmark::State& state) {
    const auto names = tool_names(state);
    UsageCounts usage;
    fill(usage, names);
    const auto document = health::write_usage_document(usage.snapshot());
    for (auto _ : state) {
        benchmark::DoNotOptimize(health::read_usage_document(document, hash_of));
    }
}

void summarize(benchmark::State& state) {
    const auto names = tool_names(state);
    ToolStates states;
    UsageCounts usage;
    fill(usage, names);
    for (const auto& name : names) {
        states.record_success(hashed(name), 1.0);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(health::summarize(states, usage));
    }
}

BENCHMARK(record_success)->Arg(1000);
BENCHMARK(record_call)->Arg(1000);
BENCHMARK(write_document)->Arg(10)->Arg(1000);
BENCHMARK(read_document)->Arg(10)->Arg(1000);
BENCHMARK(summarize)->Arg(10)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();

// The caller's cost of one recorded and synchronized event at several depths of the queue, of removing one record, and
// of a start.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/support/folder.h"
#include "bench/support/ratios.h"
#include "host/store/sqlite_store.h"
#include "kit/value.h"

namespace morvik {
namespace {

using bench::Folder;

constexpr const char* kQueue = "fendoActivityInfos";
/// Enough for twenty events beyond the 99.9th percentile.
constexpr int kEventsMeasured = 20000;

class ErrorLog : public kit::LogSink {
 public:
  void line(std::string_view text) override {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
  }
  bool tryLine(std::string_view text) override {
    line(text);
    return true;
  }
};

/// The record that the services object stores for one activity.
kit::Value makeRecord(int number) {
  kit::MutableDictionary record(size_t{12});
  record.add(kit::Value::literal("activityEventID"),
             "0192f0c8-7f3a-7c11-9d2b-" + std::to_string(100000000000 + number));
  record.add(kit::Value::literal("activityGroup"), kit::Value::literal("shop"));
  record.add(kit::Value::literal("activity"), kit::Value::literal("purchase"));
  record.add(kit::Value::literal("param"), "{\"price\":12.5,\"number\":" + std::to_string(number) + "}");
  record.add(kit::Value::literal("createdAt"), kit::Date{1'700'000'000'000'000 + number});
  record.add(kit::Value::literal("referralKey"), int64_t{1234567});
  record.add(kit::Value::literal("sessionLength"), number);
  record.add(kit::Value::literal("network"), kit::Value::literal("wifi"));
  record.add(kit::Value::literal("portrait"), true);
  return kit::Value(std::move(record));
}

void append(kit::KeyValueStore& store, int number) {
  kit::MutableArray queue(store.get(kQueue));
  queue.append(makeRecord(number));
  store.set(kQueue, kit::Value(std::move(queue)));
}

void fill(kit::KeyValueStore& store, int depth) {
  for (int i = 0; i < depth; ++i)
    append(store, i);
  store.synchronize();
}

double microseconds(std::chrono::steady_clock::duration time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

void recordAndSynchronize(benchmark::State& state) {
  const Folder folder;
  ErrorLog log;
  host::SqliteStore store({.place = {.folder = folder.path()}}, log);
  const auto depth = static_cast<int>(state.range(0));
  fill(store, depth);
  store.flushAndWait();
  std::vector<double> times;
  int number = depth;
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    append(store, number++);
    store.synchronize();
    times.push_back(microseconds(std::chrono::steady_clock::now() - begin));
  }
  std::sort(times.begin(), times.end());
  state.counters["median_us"] = times[times.size() / 2];
  state.counters["p99.9_us"] = times[times.size() - 1 - times.size() / 1000];
  state.counters["max_us"] = times.back();
}
BENCHMARK(recordAndSynchronize)
    ->Arg(10)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Iterations(kEventsMeasured)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

void trimTenFromTheFront(benchmark::State& state) {
  const Folder folder;
  ErrorLog log;
  host::SqliteStore store({.place = {.folder = folder.path()}}, log);
  const auto depth = static_cast<int>(state.range(0));
  fill(store, depth);
  store.flushAndWait();
  int number = depth;
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < 10; ++i)
      append(store, number++);
    store.synchronize();
    int index = 0;
    kit::MutableArray queue(store.get(kQueue));
    queue.retainIf([&index](const kit::Value&) { return index++ >= 10; });
    store.set(kQueue, kit::Value(std::move(queue)));
    state.ResumeTiming();
    store.synchronize();
  }
}
BENCHMARK(trimTenFromTheFront)
    ->Arg(20)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

/// Records removed in one iteration, whatever the list's length, so that times compare like those of single removals.
constexpr int kRemovals = 5000;
/// Removals after which the log is written back, outside of the measured time: otherwise the background would do it.
constexpr int kRemovalsOfALog = 500;
constexpr int kRepetitions = 15;

/// Removes half of the records of a list, one at a time, each stored and synchronized, and continues with the next list
/// of that length. `place` selects the record, given the size. With random removal, the remaining rows are in most
/// pieces after half.
template <class Place>
void removeOneByOne(benchmark::State& state, Place place) {
  const Folder folder;
  ErrorLog log;
  host::SqliteStore store({.place = {.folder = folder.path()}}, log);
  const auto length = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (int removed = 0; removed < kRemovals; ++removed) {
      if (removed % kRemovalsOfALog == 0) {
        state.PauseTiming();
        if (removed % (length / 2) == 0) {
          store.set(kQueue, kit::Value());
          fill(store, length);
        }
        store.flushAndWait();
        state.ResumeTiming();
      }
      kit::MutableArray queue(store.get(kQueue));
      queue.removeAt(place(queue.size()));
      store.set(kQueue, kit::Value(std::move(queue)));
      store.synchronize();
    }
  }
  state.SetItemsProcessed(state.iterations() * kRemovals);
}

void removeFromTheFront(benchmark::State& state) {
  removeOneByOne(state, [](size_t) { return size_t{0}; });
}

void removeAtRandom(benchmark::State& state) {
  std::mt19937 random(1);
  removeOneByOne(state, [&random](size_t size) { return random() % size; });
}

void listLengths(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(1000)->Arg(10000)->Iterations(1)->Unit(benchmark::kMicrosecond);
  benchmark->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
}

BENCHMARK(removeFromTheFront)->Apply(listLengths);
BENCHMARK(removeAtRandom)->Apply(listLengths);

void nothingToSynchronize(benchmark::State& state) {
  const Folder folder;
  ErrorLog log;
  host::SqliteStore store({.place = {.folder = folder.path()}}, log);
  fill(store, 10);
  for (auto _ : state)
    store.synchronize();
}
BENCHMARK(nothingToSynchronize);

void openAndLoad(benchmark::State& state) {
  const Folder folder;
  ErrorLog log;
  {
    host::SqliteStore store({.place = {.folder = folder.path()}}, log);
    fill(store, static_cast<int>(state.range(0)));
  }
  for (auto _ : state) {
    auto store = std::make_unique<host::SqliteStore>(host::SqliteStoreOptions{.place = {.folder = folder.path()}}, log);
    state.PauseTiming();
    store.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(openAndLoad)->Arg(0)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace morvik

int main(int argc, char** argv) {
  // The cost of a removal hardly depends on the list's length: writing it costs more than finding what to write.
  return morvik::bench::runWithRatios(
      argc, argv,
      {{"remove one of 10,000 from the front / one of 1,000", "removeFromTheFront/10000", "removeFromTheFront/1000",
        1.5},
       {"remove one of 10,000 at random / one of 1,000", "removeAtRandom/10000", "removeAtRandom/1000", 1.5}});
}

// What a batch costs, against bounds measured in the same run: its JSON text against a hand-fed SAX writer, the sealed
// envelope against the same bytes formatted by hand and put through the same deflate and cipher.

#include <benchmark/benchmark.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <memory>

#include "MorvikCoreLib/MorvikCoreLib.h"
#include "bench/support/batch_ports.h"
#include "bench/support/ratios.h"

namespace morvik::bench {
namespace {

constexpr int kRepetitions = 5;

/// The core on a store with this many events; its services object stops at the measured step.
void runCore(benchmark::State& state, BatchPorts::Step step) {
  BatchPorts ports(static_cast<size_t>(state.range(0)), step);
  const auto core = MorvikCoreLib::make(ports.ports());
  for (auto unused : state) {
    core->set_isTrackingCalled(false);
    benchmark::DoNotOptimize(core->makeTrackingParameter(EndActivities::kSend));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["bytes"] = static_cast<double>(ports.outputBytes());
}

void jsonByCore(benchmark::State& state) {
  runCore(state, BatchPorts::Step::kJsonText);
}
void envelopeByCore(benchmark::State& state) {
  runCore(state, BatchPorts::Step::kEnvelope);
}

template <class Writer>
void writeText(Writer& writer, const std::string& text) {
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void jsonBySax(benchmark::State& state) {
  const PlainBatch batch(static_cast<size_t>(state.range(0)));
  for (auto unused : state) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    for (const auto& [key, value] : batch.common) {
      writer.Key(key.c_str());
      writeText(writer, value);
    }
    writer.Key("activity_info");
    writer.StartArray();
    const PlainEvent* previous = nullptr;
    for (const PlainEvent& event : batch.events) {
      writer.StartObject();
      writer.Key("group");
      writeText(writer, event.group);
      writer.Key("activity");
      writeText(writer, event.name);
      writer.Key("param");
      writeText(writer, event.param);
      writer.Key("prev_group");
      writeText(writer, previous == nullptr ? std::string() : previous->group);
      writer.Key("prev_activity");
      writeText(writer, previous == nullptr ? std::string() : previous->name);
      writer.Key("created_at");
      writeText(writer, event.created_at);
      writer.Key("event_id");
      writeText(writer, event.id);
      writer.EndObject();
      previous = &event;
    }
    writer.EndArray();
    writer.Key("impression_info");
    writer.StartArray();
    writer.EndArray();
    writer.EndObject();
    benchmark::DoNotOptimize(buffer.GetString());
    state.counters["bytes"] = static_cast<double>(buffer.GetSize());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void envelopeByHand(benchmark::State& state) {
  const PlainBatch batch(static_cast<size_t>(state.range(0)));
  const Sealer sealer;
  for (auto unused : state) {
    std::string text;
    batch.appendJson(text);
    benchmark::DoNotOptimize(sealer.sealByHand(text));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(10)->Arg(1000)->Arg(100'000)->Unit(benchmark::kMicrosecond);
  benchmark->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
}

BENCHMARK(jsonByCore)->Apply(sizes);
BENCHMARK(jsonBySax)->Apply(sizes);
BENCHMARK(envelopeByCore)->Apply(sizes);
BENCHMARK(envelopeByHand)->Apply(sizes);

}  // namespace
}  // namespace morvik::bench

int main(int argc, char** argv) {
  using morvik::bench::Ratio;
  std::vector<Ratio> ratios;
  for (const std::string size : {"10", "1000", "100000"}) {
    ratios.push_back(
        {"JSON text of " + size + " events, core / SAX writer", "jsonByCore/" + size, "jsonBySax/" + size, 2});
    ratios.push_back({"sealed envelope of " + size + " events, core / by hand", "envelopeByCore/" + size,
                      "envelopeByHand/" + size, 1.5});
  }
  // A hundred times the events may take a hundred times the time, plus half for cache misses.
  ratios.push_back({"JSON text, 100,000 events / 1,000 events", "jsonByCore/100000", "jsonByCore/1000", 150});
  ratios.push_back(
      {"sealed envelope, 100,000 events / 1,000 events", "envelopeByCore/100000", "envelopeByCore/1000", 150});
  return morvik::bench::runWithRatios(argc, argv, ratios);
}

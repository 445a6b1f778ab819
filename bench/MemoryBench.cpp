// How much memory the module asks for, counted at the allocator: the most that one transfer call holds beyond what was
// there before it, and what a loaded registry and a parsed document take at their peak and when they are there.
// These rows have counters; their times say nothing, since counting costs.
#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <string>

#include "bench/support/CountingAllocator.h"
#include "bench/support/MemoryDirectory.h"
#include "bench/support/RegistrySample.h"
#include "bench/support/ServiceHost.h"
#include "markup/Markup.h"
#include "registry/Registry.h"
#include "registry/RegistryPaths.h"

namespace {

using qx::bench::Block;
using qx::bench::Must;

// What `work` holds at its most, and what of it is still held when it has returned.
struct Use {
  double peak;
  double kept;
};

template <typename Work>
Use Measure(Work work) {
  const std::size_t before = qx::bench::BytesHeld();
  qx::bench::ForgetMostBytesHeld();
  work();
  return {static_cast<double>(qx::bench::MostBytesHeld()) - static_cast<double>(before),
          static_cast<double>(qx::bench::BytesHeld()) - static_cast<double>(before)};
}

// A full chunk: the first call also makes the buffers that the module keeps, later ones find them.
void TransferCall(benchmark::State& state) {
  qx::bench::WriteReport("bench", qx::bench::kSlots);
  Block block;
  (void)qx::bench::TheModule();
  long records = 0;
  const Use first = Measure([&] { records = qx::bench::FetchChunk(block, "bench", 0); });
  Use later{};
  for (auto _ : state) later = Measure([&] { Must(qx::bench::FetchChunk(block, "bench", 0) == records, "transfer"); });
  const double per_record = 1.0 / static_cast<double>(records);
  state.counters["bytes_at_most_in_the_first_call"] = first.peak;
  state.counters["bytes_kept_between_calls"] = first.kept + later.kept;
  state.counters["bytes_at_most_in_a_later_call"] = later.peak;
  state.counters["bytes_a_record_of_the_chunk"] = (first.kept + later.peak) * per_record;
}

void LoadedRegistry(benchmark::State& state) {
  const qx::bench::MemoryDirectory directory;
  const std::string path =
      directory.FileWith("registry", qx::bench::RegistryText(qx::bench::kValues, qx::bench::kValuesPerKey));
  Use use{};
  for (auto _ : state) {
    CRegistryNode node;
    use = Measure([&] { Must(CRegistry::ReadTree(path.c_str(), node), "load the registry"); });
  }
  state.counters["bytes_a_value"] = use.kept / qx::bench::kValues;
  state.counters["bytes_a_value_at_most_while_loading"] = use.peak / qx::bench::kValues;
}

constexpr int kChildren = 10000;

std::string ChildrenDocument() {
  std::string document = "<List>";
  for (int i = 0; i < kChildren; ++i) document += "<Instance Index=\"" + std::to_string(i) + "\">some text</Instance>";
  return document + "</List>";
}

// The text is the document's own copy; what is counted per element comes on top.
void ParsedDocument(benchmark::State& state) {
  const std::string document = ChildrenDocument();
  Use use{};
  for (auto _ : state) {
    CMarkup markup;
    use = Measure([&] { Must(markup.SetDoc(document), "parse"); });
  }
  const auto text = static_cast<double>(document.size());
  state.counters["bytes_an_element_beside_the_text"] = (use.kept - text) / kChildren;
  state.counters["bytes_an_element_at_most_while_parsing"] = (use.peak - text) / kChildren;
}

constexpr int kTimes = 5;

BENCHMARK(TransferCall)->Name("memory_transfer_call/qx")->Iterations(kTimes);
BENCHMARK(LoadedRegistry)->Name("memory_registry/qx")->Iterations(kTimes);
BENCHMARK(ParsedDocument)->Name("memory_document/qx")->Iterations(kTimes);

}  // namespace

void PrepareBeforeThreads();
void PrepareBeforeThreads() { qx::bench::PrepareService(); }

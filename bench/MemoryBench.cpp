// Counts at the allocator how much memory the module allocates: the peak of one transfer call, and the peak and the
// final size of a loaded registry and of a parsed document. The results are the counters of these rows; their times
// include the cost of counting.
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

// The bytes that `work` allocates: the peak, and the bytes that are still allocated after `work` has returned.
struct Use {
  double peak;
  double kept;
};

template <typename Work>
Use Measure(Work work) {
  const std::size_t before = qx::bench::BytesHeld();
  qx::bench::ResetPeakBytesHeld();
  work();
  return {static_cast<double>(qx::bench::PeakBytesHeld()) - static_cast<double>(before),
          static_cast<double>(qx::bench::BytesHeld()) - static_cast<double>(before)};
}

// Transfers a full chunk. The first call also allocates the buffers that the module keeps; later calls reuse them.
void TransferCall(benchmark::State& state) {
  qx::bench::WriteReport("bench", qx::bench::kSlots);
  Block block;
  (void)qx::bench::TheModule();
  long records = 0;
  const Use first = Measure([&] { records = qx::bench::FetchChunk(block, "bench", 0); });
  Use later{};
  for (auto _ : state) later = Measure([&] { Must(qx::bench::FetchChunk(block, "bench", 0) == records, "transfer"); });
  const double per_record = 1.0 / static_cast<double>(records);
  state.counters["peak_bytes_of_the_first_call"] = first.peak;
  state.counters["bytes_kept_between_calls"] = first.kept + later.kept;
  state.counters["peak_bytes_of_a_later_call"] = later.peak;
  state.counters["bytes_per_record_of_the_chunk"] = (first.kept + later.peak) * per_record;
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
  state.counters["bytes_per_value"] = use.kept / qx::bench::kValues;
  state.counters["peak_bytes_per_value_while_loading"] = use.peak / qx::bench::kValues;
}

constexpr int kChildren = 10000;

std::string ChildrenDocument() {
  std::string document = "<List>";
  for (int i = 0; i < kChildren; ++i) document += "<Instance Index=\"" + std::to_string(i) + "\">some text</Instance>";
  return document + "</List>";
}

// The bytes per element do not include the document's copy of the text.
void ParsedDocument(benchmark::State& state) {
  const std::string document = ChildrenDocument();
  Use use{};
  for (auto _ : state) {
    CMarkup markup;
    use = Measure([&] { Must(markup.SetDoc(document), "parse"); });
  }
  const auto text = static_cast<double>(document.size());
  state.counters["bytes_per_element_without_the_text"] = (use.kept - text) / kChildren;
  state.counters["peak_bytes_per_element_while_parsing"] = (use.peak - text) / kChildren;
}

constexpr int kTimes = 5;

BENCHMARK(TransferCall)->Name("memory_transfer_call/qx")->Iterations(kTimes);
BENCHMARK(LoadedRegistry)->Name("memory_registry/qx")->Iterations(kTimes);
BENCHMARK(ParsedDocument)->Name("memory_document/qx")->Iterations(kTimes);

}  // namespace

void PrepareBeforeThreads();
void PrepareBeforeThreads() { qx::bench::PrepareService(); }

// Prepares what a benchmark needs to call the module like the service does: a private mount namespace with a small
// registry at the fixed path, full and wrapped rings in the report directory, the loaded module, and a request block.
//
// The registry exists because each request would try to open a dozen missing files without it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "provider/ModuleExports.h"
#include "provider/tools/BlockBuilder.h"

namespace qx::bench {

constexpr std::uint32_t kSlots = 100000;
constexpr std::size_t kRecordBytes = 100;  // without CR LF
constexpr std::size_t kChunkBytes = 1U << 20;

// The report directory, created by PrepareService and removed when the process ends.
const std::string& ReportDirectory();

// Enters a mount namespace whose registry names ReportDirectory. Call it before any thread starts; it ends the process
// on failure.
void PrepareService();

// Returns the record `number` of every report: kRecordBytes long, without line end.
std::string Record(std::uint32_t number);

// Creates a ring of `slots` slots and writes one and a half times as many records: the ring is full, and its oldest
// record is in the middle of the slots. An existing report is left as it is.
void WriteReport(const std::string& name, std::uint32_t slots);

// The loaded module. The first call of TheModule loads it; it stays loaded until the process ends.
class Module {
 public:
  Module();

  QxRequestFunction get_reports;
  QxRequestFunction what;
  QxFreeFunction free_reply;
  QxThreadEndFunction thread_end;

 private:
  void* handle_;
};
Module& TheModule();

// A block with the elements that a call needs: the thread's state and the thread id. Each thread has its own block; the
// destructor ends the thread's state in the module.
class Block {
 public:
  Block() { elements_.Pointer(kKrxProviderData, nullptr).Number(kKrxThreadId, 7); }
  ~Block() { TheModule().thread_end(elements_.Entry(0)->value); }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  wcs_gendata* get() { return elements_.Block(); }

 private:
  provider::BlockBuilder elements_;
};

// Fetches the chunk of report `name` that begins at record `first`. Returns the start index of the next chunk, or -1
// after the last.
long FetchChunk(Block& block, const std::string& name, long first);

// Does one whole transfer, chunk by chunk as a client requests it; returns the number of records received.
long TransferOnce(Block& block, const std::string& name);

}  // namespace qx::bench

// What a benchmark needs to call the module as the service does: a mount namespace of its own with a small registry at
// the fixed place, full wrapped rings in the report directory, the loaded module, a request block.
//
// The registry is there because a request pays for looking for it: an absent one costs a dozen failed opens a request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "provider/ModuleExports.h"

namespace qx::bench {

constexpr std::uint32_t kSlots = 100000;
constexpr std::size_t kRecordBytes = 100;  // of text; CR LF come on top
constexpr std::size_t kChunkBytes = 1U << 20;

// The report directory, created by PrepareService and removed when the process ends.
const std::string& ReportDirectory();

// Enters a mount namespace whose registry names ReportDirectory. Before any thread starts; ends the process on failure.
void PrepareService();

// Record `number` of every report here: kRecordBytes long, no line end.
std::string Record(std::uint32_t number);

// A ring of `slots` records after half as many more: full, the oldest record in the middle of the slots. A report that
// stands there already is left as it is.
void WriteReport(const std::string& name, std::uint32_t slots);

// The module, loaded by the first call and until the process ends.
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

// A block with the elements that a call needs: the thread's state and the thread id. One a thread; the thread's state
// is given back with the block.
class Block {
 public:
  Block() = default;
  ~Block() { TheModule().thread_end(elements_[0].value); }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;

  krx_gendata* get() { return &header_; }

 private:
  std::uint32_t thread_id_ = 7;
  krx_element elements_[2] = {{0, kKrxProviderData, 0, 0, 0, kKrxTypePointer, 0, nullptr},
                              {0, kKrxThreadId, 0, 0, 0, kKrxTypeUint32, 0, &thread_id_}};
  krx_element* pointers_[2] = {&elements_[0], &elements_[1]};
  krx_gendata header_ = {30400, sizeof(krx_gendata), {'K', 'R', 'X', 0}, 2, pointers_};
};

// The chunk of `name` that begins at record `first`: where the next one begins, or -1 behind the last.
long FetchChunk(Block& block, const std::string& name, long first);

// One whole transfer, chunk by chunk as a client asks for it; returns the number of records received.
long TransferOnce(Block& block, const std::string& name);

}  // namespace qx::bench

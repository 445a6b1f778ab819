#include "provider/ThreadData.h"

#include <cstddef>

#include "provider/Low32.h"

CThreadData::CThreadData() : thread_id(qx::provider::CurrentThreadLow32()) {}

CThreadData::~CThreadData() = default;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"  // conditionally supported, and both compilers support it
static_assert(offsetof(CThreadData, thread_id) == 0);
static_assert(offsetof(CThreadData, state_word) == 4);
static_assert(offsetof(CThreadData, data_file_size) == 8);
static_assert(offsetof(CThreadData, oldest_index) == 16);
static_assert(offsetof(CThreadData, highest_index) == 24);
static_assert(offsetof(CThreadData, report_file) == 32);
#pragma GCC diagnostic pop

#include "tools/qxctl/trial/LoadTest.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "tools/qxctl/trial/LoadScript.h"

namespace qx::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kWarmUpMin = 50;  // for each thread: pools, arenas and files are open then
constexpr std::size_t kFailuresListedMax = 10;
constexpr double kNanosecondsPerSecond = 1e9;
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

// A barrier: all workers wait until the measuring thread releases them.
class Gate {
 public:
  explicit Gate(unsigned workers) : workers_(workers) {}

  void WaitForRound() {
    std::unique_lock lock(mutex_);
    const unsigned round = round_;
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return round_ != round; });
  }

  // False if not all workers arrive in time.
  bool WaitForAll(std::chrono::milliseconds time) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, time, [&] { return waiting_ == workers_; });
  }

  void Open() {
    const std::scoped_lock lock(mutex_);
    waiting_ = 0;
    ++round_;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  const unsigned workers_;
  unsigned waiting_ = 0;
  unsigned round_ = 0;
};

struct Shared {
  const ModuleHost& module;
  const LoadPlan& plan;
  const ExpectedReplies& expected;
  Gate gate;
  std::atomic<bool> stop{false};
};

// A worker thread of the service: it warms up, waits, makes its calls, waits again, and ends.
class LoadWorker {
 public:
  LoadWorker(Shared& shared, unsigned number) : shared_(shared), number_(number) {}
  LoadWorker(const LoadWorker&) = delete;
  LoadWorker& operator=(const LoadWorker&) = delete;
  ~LoadWorker() {
    if (thread_.joinable()) thread_.join();
  }

  void Start() {
    thread_ = std::thread([this] { Run(); });
  }

  // The number of requests so far. The measuring thread reads it while this thread runs.
  std::uint64_t Requests() const { return requests_.load(std::memory_order_relaxed); }

  // To be called after the thread's last call.
  void AddTo(LoadResult& result) const {
    result.requests += latency_.Count();
    result.warm_up_requests += Requests() - latency_.Count();
    result.failures += failures_;
    result.latency.Add(latency_);
    for (const std::string& text : failure_texts_) {
      if (result.first_failures.size() < kFailuresListedMax) result.first_failures.push_back(text);
    }
  }

 private:
  void Run() {
    BlockValues values = shared_.plan.block;
    values.thread_id = number_ + 1;
    WorkerThread worker(shared_.module, values);
    LoadScript script(shared_.plan, shared_.expected, number_);
    const std::uint64_t share = Share();
    const double seconds = shared_.plan.seconds;
    RunPhase(worker, script, share == 0 ? 0 : std::max(kWarmUpMin, share / 10), seconds / 10, nullptr);
    shared_.gate.WaitForRound();
    RunPhase(worker, script, share, seconds, &latency_);
    shared_.gate.WaitForRound();
  }

  // The number of requests that this thread makes; 0 if the plan has only a time.
  std::uint64_t Share() const {
    const std::uint64_t all = shared_.plan.requests;
    const unsigned threads = shared_.plan.threads;
    return all / threads + (number_ < all % threads ? 1 : 0);
  }

  void RunPhase(WorkerThread& worker, LoadScript& script, std::uint64_t count, double seconds,
                LatencyHistogram* latency) {
    const bool is_timed = shared_.plan.requests == 0;
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    for (std::uint64_t i = 0; is_timed ? Clock::now() < deadline : i < count; ++i) {
      if (shared_.stop.load(std::memory_order_relaxed)) return;
      double call_seconds = 0;
      Note(script.Step(worker, call_seconds));
      if (latency != nullptr) latency->Add(static_cast<std::uint64_t>(call_seconds * kNanosecondsPerSecond));
      requests_.fetch_add(1, std::memory_order_relaxed);
    }
  }

  void Note(const std::string& failure) {
    if (failure.empty()) return;
    ++failures_;
    if (failure_texts_.size() >= kFailuresListedMax) return;
    failure_texts_.push_back("thread " + std::to_string(number_ + 1) + ": " + failure);
  }

  Shared& shared_;
  const unsigned number_;
  LatencyHistogram latency_;
  std::atomic<std::uint64_t> requests_{0};
  std::uint64_t failures_ = 0;
  std::vector<std::string> failure_texts_;
  std::thread thread_;
};

using Workers = std::vector<std::unique_ptr<LoadWorker>>;

void WaitForAll(Shared& shared, const Workers& workers, const LoadProgress& progress) {
  while (!shared.gate.WaitForAll(kProgressInterval)) {
    std::uint64_t requests = 0;
    for (const auto& worker : workers) requests += worker->Requests();
    if (!progress(requests)) shared.stop = true;
  }
}

}  // namespace

Status RunLoad(const ModuleHost& module, const LoadPlan& plan, const LoadProgress& progress, LoadResult& result) {
  ExpectedReplies expected;
  if (Status status = AskForExpected(module, plan, expected); !status.IsOk()) return status;
  Shared shared{module, plan, expected, Gate(plan.threads)};
  Workers workers;
  for (unsigned i = 0; i < plan.threads; ++i) workers.push_back(std::make_unique<LoadWorker>(shared, i));
  for (const auto& worker : workers) worker->Start();
  WaitForAll(shared, workers, progress);
  result.memory_start = ReadMemoryFigures();
  result.descriptors_start = OpenDescriptors();
  const auto start = Clock::now();
  shared.gate.Open();
  WaitForAll(shared, workers, progress);
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  result.memory_end = ReadMemoryFigures();
  result.descriptors_end = OpenDescriptors();
  for (const auto& worker : workers) worker->AddTo(result);
  shared.gate.Open();
  workers.clear();
  result.descriptors_idle = OpenDescriptors();
  return {};
}

}  // namespace qx::ctl

#include "provider/BufferPool.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using qx::provider::BufferPool;

constexpr std::size_t kMebibyte = std::size_t{1} << 20;

TEST(BufferPool, ReturnedBufferIsTakenAgain) {
  BufferPool pool;
  std::string buffer = pool.Take(kMebibyte);
  buffer.assign(kMebibyte, 'x');
  const char* const place = buffer.data();
  pool.Return(std::move(buffer));
  EXPECT_EQ(pool.KeptCount(), 1U);

  const std::string again = pool.Take(kMebibyte / 2);
  EXPECT_EQ(again.data(), place);
  EXPECT_EQ(again, "");
  EXPECT_EQ(pool.KeptCount(), 0U);
  EXPECT_EQ(pool.KeptBytes(), 0U);
}

TEST(BufferPool, BufferHasTheRequestedSpace) {
  BufferPool pool;
  for (const std::size_t bytes : {0UL, 1UL, 100UL, 65536UL, 1048576UL}) EXPECT_GE(pool.Take(bytes).capacity(), bytes);
}

TEST(BufferPool, SmallestBufferThatFitsIsTaken) {
  BufferPool pool;
  std::string large = pool.Take(2 * kMebibyte);
  std::string small = pool.Take(kMebibyte);
  const char* const small_place = small.data();
  const char* const large_place = large.data();
  pool.Return(std::move(large));
  pool.Return(std::move(small));
  const std::string first = pool.Take(kMebibyte);
  const std::string second = pool.Take(kMebibyte);
  EXPECT_EQ(first.data(), small_place);
  EXPECT_EQ(second.data(), large_place);
}

TEST(BufferPool, SmallBuffersAreNotPooled) {
  BufferPool pool;
  pool.Return(pool.Take(kMebibyte));
  EXPECT_LT(pool.Take(100).capacity(), BufferPool::kKeptBytesMin);
  pool.Return(std::string(100, 'x'));
  EXPECT_EQ(pool.KeptCount(), 1U);
}

TEST(BufferPool, BufferThatGrewTooLargeIsFreed) {
  BufferPool pool;
  std::string buffer = pool.Take(kMebibyte);
  buffer.reserve(BufferPool::kKeptBytesMax + 1);
  pool.Return(std::move(buffer));
  EXPECT_EQ(pool.KeptCount(), 0U);
}

TEST(BufferPool, NumberOfPooledBuffersIsCapped) {
  BufferPool pool;
  std::vector<std::string> taken;
  for (std::size_t i = 0; i < BufferPool::kKeptCountMax + 5; ++i) taken.push_back(pool.Take(BufferPool::kKeptBytesMin));
  for (std::string& buffer : taken) pool.Return(std::move(buffer));
  EXPECT_EQ(pool.KeptCount(), BufferPool::kKeptCountMax);
}

TEST(BufferPool, BytesOfPooledBuffersAreCapped) {
  BufferPool pool;
  std::vector<std::string> taken;
  for (std::size_t i = 0; i < BufferPool::kKeptCountMax; ++i)
    taken.push_back(pool.Take(BufferPool::kKeptBytesMax - 64));
  for (std::string& buffer : taken) pool.Return(std::move(buffer));
  EXPECT_GT(pool.KeptCount(), 0U);
  EXPECT_LT(pool.KeptCount(), BufferPool::kKeptCountMax);
  EXPECT_LE(pool.KeptBytes(), BufferPool::kKeptBytesTotalMax);
}

TEST(BufferPool, ExactlyTheBytesOfTheCapMayBeKept) {
  constexpr std::size_t kCount = BufferPool::kKeptBytesTotalMax / BufferPool::kKeptBytesMax;
  BufferPool pool;
  std::vector<std::string> taken;
  for (std::size_t i = 0; i < kCount + 1; ++i) taken.push_back(pool.Take(BufferPool::kKeptBytesMax));
  ASSERT_EQ(taken[0].capacity(), BufferPool::kKeptBytesMax);
  for (std::string& buffer : taken) pool.Return(std::move(buffer));
  EXPECT_EQ(pool.KeptCount(), kCount);
  EXPECT_EQ(pool.KeptBytes(), BufferPool::kKeptBytesTotalMax);
}

TEST(BufferPool, ClearFreesThePooledBuffers) {
  BufferPool pool;
  pool.Return(pool.Take(kMebibyte));
  pool.Clear();
  EXPECT_EQ(pool.KeptCount(), 0U);
  EXPECT_EQ(pool.KeptBytes(), 0U);
}

TEST(BufferPool, BufferThatWasNeverTakenMayBeReturned) {
  BufferPool pool;
  pool.Return(std::string(kMebibyte, 'x'));  // it has no memory yet
  EXPECT_LE(pool.KeptCount(), 1U);
}

TEST(BufferPool, PooledBufferIsReturnedAtTheEndOfItsScope) {
  qx::provider::transfer_buffers.Clear();
  { qx::provider::PooledBuffer(kMebibyte).text() = "text"; }
  EXPECT_EQ(qx::provider::transfer_buffers.KeptCount(), 1U);
  EXPECT_EQ(qx::provider::PooledBuffer(kMebibyte).text(), "");
  qx::provider::transfer_buffers.Clear();
}

TEST(BufferPoolThreads, NoBufferIsUsedTwiceAtOnce) {
  BufferPool pool;
  std::vector<std::thread> threads;
  for (char mark = 'a'; mark < 'a' + 8; ++mark) {
    threads.emplace_back([&pool, mark] {
      for (int round = 0; round < 200; ++round) {
        std::string buffer = pool.Take(BufferPool::kKeptBytesMin);
        buffer.assign(1000, mark);
        ASSERT_EQ(buffer, std::string(1000, mark));
        pool.Return(std::move(buffer));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(pool.KeptCount(), 8U);
}

}  // namespace

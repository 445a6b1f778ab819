#include "provider/ThreadData.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <cstring>
#include <thread>

namespace {

TEST(ThreadData, NewObjectBelongsToItsThreadAndHasNoReport) {
  CThreadData data;
  EXPECT_EQ(data.thread_id, static_cast<std::uint32_t>(pthread_self()));
  EXPECT_EQ(data.state_word, 0U);
  EXPECT_EQ(data.data_file_size, 0);
  EXPECT_EQ(data.oldest_index, -1);
  EXPECT_EQ(data.highest_index, -1);
  EXPECT_EQ(data.report_file.GetDataFileSize(), 0);
}

TEST(ThreadData, MembersAreInTheirOrder) {
  CThreadData data;
  data.thread_id = 0x01020304;
  data.state_word = 0x05060708;
  data.data_file_size = 0x1112131415161718;
  data.oldest_index = 0x2122232425262728;
  data.highest_index = 0x3132333435363738;
  unsigned char bytes[32];
  std::memcpy(bytes, static_cast<const void*>(&data), sizeof bytes);
  const unsigned char expected[32] = {0x04, 0x03, 0x02, 0x01, 0x08, 0x07, 0x06, 0x05, 0x18, 0x17, 0x16,
                                      0x15, 0x14, 0x13, 0x12, 0x11, 0x28, 0x27, 0x26, 0x25, 0x24, 0x23,
                                      0x22, 0x21, 0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31};
  EXPECT_EQ(std::memcmp(bytes, expected, sizeof bytes), 0);
  EXPECT_EQ(reinterpret_cast<const char*>(&data.report_file) - reinterpret_cast<const char*>(&data), 32);
}

TEST(ThreadDataThreads, IdentifierIsThatOfTheCreatingThread) {
  CThreadData here;
  std::uint32_t there = 0;
  std::thread([&] { there = CThreadData().thread_id; }).join();
  EXPECT_NE(here.thread_id, there);
}

}  // namespace

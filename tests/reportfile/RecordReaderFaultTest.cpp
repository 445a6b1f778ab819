// Tests records that change, or cannot be read, while many records are read.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "tests/reportfile/RecordReaderFixture.h"
#include "tests/support/FailingFileCalls.h"

namespace qx::test {
namespace {

class RecordReaderRace : public RecordReaderTest {};

// A writer replaces the first record while it is read: it stores the new text, then the slot, and later overwrites the
// old text. Whichever read this comes before, the result must be one of the two records, whole.
TEST_F(RecordReaderRace, RecordReplacedBeforeAnyReadIsWhole) {
  for (const std::size_t text_bytes : {1U, 100U, 5000U, 70000U}) {
    for (const char* const end : {"\r\n", "\nrest\r\n"}) {  // read in runs, and one by one
      const std::string first = std::string(text_bytes, 'a') + end;
      const std::string second = std::string(text_bytes, 'b') + end;
      const std::string third = std::string(text_bytes, 'c') + end;
      const auto offset = [&](std::size_t records) { return static_cast<std::uint32_t>(records * first.size()); };
      const auto text = [](const std::string& record) { return record.substr(0, record.find('\n') + 1); };
      bool is_over = false;
      for (int nth = 1; !is_over; ++nth) {
        Open({offset(0), offset(1)}, first + second + third);
        const auto replace = [&](int call) {
          if (call != nth) return;
          files_.WriteSlot(0, offset(2));
          files_.WriteData(0, std::string(text_bytes / 2 + 1, 'x'));
        };
        const BeforeEachRead hook(replace);
        const std::string all = TakeAll();
        is_over = hook.Reads() < nth;
        EXPECT_TRUE(all == text(first) + text(second) || all == text(third) + text(second))
            << text_bytes << " bytes, before read " << nth;
      }
    }
  }
}

TEST_F(RecordReaderRace, SlotsThatAreWrittenDuringTheReadAreUsed) {
  for (int nth = 1; nth <= 8; ++nth) {
    Open(StoreFiles::FullRing(3), {}, "a\r\nb\r\n");
    const BeforeEachRead hook([&](int call) {
      if (call != nth) return;
      for (const std::uint32_t slot : {0U, 1U, 2U}) files_.WriteSlot(slot, 3);
      files_.WriteData(0, "x");
    });
    const std::string all = TakeAll();
    EXPECT_TRUE(all == "b\r\nb\r\nb\r\n" || all == "a\r\na\r\na\r\n") << nth << ": " << all;
  }
}

// When a new window of slots is read, a text that was read before it is dropped, because the slots are newer.
TEST_F(RecordReaderRace, TextThatWasReadBeforeItsSlotIsReadAgain) {
  Open(std::vector<std::uint32_t>(300, 0), "a\r\na\r\n");
  std::string out;
  EXPECT_EQ(reader_.Take(0, {1, kNoLimit}, &out).count, 1U);
  files_.WriteData(3, "z");
  files_.WriteSlot(299, 3);
  EXPECT_EQ(reader_.Take(299, {1, kNoLimit}, &out).count, 1U);
  EXPECT_EQ(out, "a\r\nz\r\n");
}

// The slot changes during every read: slot, text and slot are read three times, and then the last text is returned.
TEST_F(RecordReaderRace, ThirdReadOfAChangingSlotIsUsed) {
  Open({0}, "a\r\nb\r\n");
  const BeforeEachRead hook([&](int call) { files_.WriteSlot(0, call % 2 == 0 ? 0 : 3); });
  std::string line;
  EXPECT_TRUE(store_.readLine(line, 0));
  EXPECT_TRUE(line == "a\r\n" || line == "b\r\n") << line;
  constexpr int kReadsATry = 3;  // the text up to the end of the file, and the slot
  EXPECT_EQ(hook.Reads(), 1 + 3 * kReadsATry);
}

TEST_F(RecordReaderRace, ReadLineReturnsAReplacedRecordWhole) {
  for (int nth = 1; nth <= 5; ++nth) {
    Open({0}, "aaaa\r\nbbbb\r\n");
    const BeforeEachRead hook([&](int call) {
      if (call != nth) return;
      files_.WriteSlot(0, 6);
      files_.WriteData(0, "xx");
    });
    std::string line;
    EXPECT_TRUE(store_.readLine(line, 0));
    EXPECT_TRUE(line == "aaaa\r\n" || line == "bbbb\r\n") << nth << ": " << line;
  }
}

TEST_F(RecordReaderRace, ChangedSlotDropsOnlyTheTextsOfItsBatch) {
  const std::string line(98, 'l');
  std::string data;
  std::vector<std::uint32_t> slots;
  for (std::uint32_t i = 0; i < 10000; ++i, data += line + "\r\n") slots.push_back(100 * i);
  Open(slots, data);
  const BeforeEachRead hook([&](int call) {
    if (call == 12) files_.WriteSlot(9000, 0);
  });
  EXPECT_TRUE(TakeAll() == data);
}

// First each read fails once; then each read and all later reads fail. The returned records must be whole, in order,
// and none may be returned twice.
class RecordReaderFault : public RecordReaderTest {
 protected:
  void ExpectPrefix(const TakenRecords& taken, const std::string& out, const std::vector<std::string>& records) {
    std::string_view left = out;
    for (std::uint32_t i = 0; i < taken.count; ++i) {
      ASSERT_TRUE(left.starts_with(records[i])) << "record " << i << " of " << taken.count;
      left.remove_prefix(records[i].size());
    }
    EXPECT_EQ(left.size(), 0U) << taken.count << " records";
    if (taken.end == TakeEnd::kCountReached) {
      EXPECT_EQ(taken.count, records.size());
      EXPECT_EQ(reader_.Error(), 0);
    } else {
      EXPECT_EQ(taken.end, TakeEnd::kReadFailed);
      EXPECT_EQ(reader_.Error(), EIO);
    }
  }

  // Overwrites the bytes of an earlier read and keeps the memory, so that they cannot pass as the result of the next
  // read.
  static void Empty(std::string& out) {
    out.assign(out.size(), '?');
    out.clear();
  }

  // Makes and opens records of `text_bytes`; `end` decides whether they can be read in runs.
  std::vector<std::string> OpenRecords(std::size_t count, std::size_t text_bytes, const std::string& end) {
    std::vector<std::string> records;
    std::vector<std::uint32_t> slots;
    std::string data;
    for (std::size_t i = 0; i < count; ++i) {
      slots.push_back(static_cast<std::uint32_t>(data.size()));
      const std::string text(text_bytes, static_cast<char>('a' + i % 26));
      data.append(text).append(end);
      records.push_back(text + end.substr(0, end.find('\n') + 1));
    }
    Open(slots, data);
    return records;
  }
};

TEST_F(RecordReaderFault, OneFailedReadLosesAndRepeatsNothing) {
  for (const std::size_t text_bytes : {10U, 3000U, 100000U}) {
    for (const char* const end : {"\r\n", "\nrest\r\n"}) {
      const std::vector<std::string> records = OpenRecords(60, text_bytes, end);
      std::string out;
      bool is_over = false;
      for (int nth = 1; !is_over; ++nth) {
        reader_.Drop();
        Empty(out);
        const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .error = EIO});
        const TakenRecords taken = reader_.Take(0, {60, kNoLimit}, &out);
        is_over = !fault.HasFailed();
        EXPECT_EQ(taken.end, TakeEnd::kCountReached) << text_bytes << " bytes, read " << nth;
        ExpectPrefix(taken, out, records);
      }
    }
  }
}

TEST_F(RecordReaderFault, ReadsThatKeepFailingEndTakeWithTheirError) {
  for (const std::size_t text_bytes : {10U, 3000U, 100000U}) {
    const std::vector<std::string> records = OpenRecords(60, text_bytes, "\r\n");
    std::string out;
    bool is_over = false;
    for (int nth = 1; !is_over; ++nth) {
      reader_.Drop();
      Empty(out);
      const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .times = kAlways, .error = EIO});
      const TakenRecords taken = reader_.Take(0, {60, kNoLimit}, &out);
      is_over = !fault.HasFailed();
      EXPECT_TRUE(is_over || taken.end == TakeEnd::kReadFailed) << text_bytes << " bytes, read " << nth;
      ExpectPrefix(taken, out, records);
    }
  }
}

TEST_F(RecordReaderFault, UnreadableRecordEndsTakeBeforeIt) {
  const std::vector<std::string> records = OpenRecords(3000, 98, "\r\n");
  const UnreadableByte bad(100 * 1777 + 50);
  std::string out;
  TakenRecords taken = reader_.Take(0, {3000, kNoLimit}, &out);
  EXPECT_EQ(taken, (TakenRecords{1777, TakeEnd::kReadFailed}));
  ExpectPrefix(taken, out, records);
  out.clear();
  EXPECT_EQ(reader_.Take(1778, {1222, kNoLimit}, &out), (TakenRecords{1222, TakeEnd::kCountReached}));
  EXPECT_EQ(reader_.Error(), 0);
  EXPECT_EQ(out.size(), 122200U);
  out = "kept";
  bool too_long = true;
  EXPECT_FALSE(reader_.Read(1777, kNoLimit, &out, &too_long));
  EXPECT_EQ(reader_.Error(), EIO);
  EXPECT_FALSE(too_long);
  EXPECT_EQ(out, "kept");
}

TEST_F(RecordReaderFault, UnreadableSlotEndsTakeBeforeIt) {
  const std::vector<std::string> records = OpenRecords(3000, 0, "\r\n");
  const UnreadableByte bad(report::SlotOffset(2500) + 2);  // beyond the end of the data file's 6000 bytes
  std::string out;
  const TakenRecords taken = reader_.Take(0, {3000, kNoLimit}, &out);
  EXPECT_EQ(taken, (TakenRecords{2500, TakeEnd::kReadFailed}));
  ExpectPrefix(taken, out, records);
}

TEST_F(RecordReaderFault, ReadLineFailsAndLeavesTheTextUnchanged) {
  (void)OpenRecords(12, 10000, "\r\n");
  for (int nth = 1; nth <= 5; ++nth) {  // slot, text, text, slot
    std::string line = "unchanged";
    const FailingCall fault({.call = FileCall::kReadAt, .nth = nth, .error = EIO});
    errno = 0;
    const bool was_read = store_.readLine(line, 0);
    const int error = errno;
    EXPECT_EQ(was_read, !fault.HasFailed()) << nth;
    EXPECT_EQ(was_read ? 0 : EIO, error);
    EXPECT_EQ(line == "unchanged", !was_read);
  }
}

TEST_F(RecordReaderFault, SlotNotInUseIsNotAnErrorOfTheSystem) {
  (void)OpenRecords(1, 10, "\r\n");
  const UnreadableByte bad(report::SlotOffset(0));
  std::string out;
  EXPECT_EQ(reader_.Take(0, {1, kNoLimit}, &out).end, TakeEnd::kReadFailed);
  EXPECT_EQ(reader_.Error(), EIO);
  EXPECT_EQ(reader_.Take(1, {1, kNoLimit}, &out).end, TakeEnd::kReadFailed);
  EXPECT_EQ(reader_.Error(), 0);
}

}  // namespace
}  // namespace qx::test

// Compares four ways to answer random requests about random stores: record by record, in runs, directly into the reply,
// and by a plain model over readLine. Replies and states must be the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/provider/TransferFixture.h"

namespace {

using qx::provider::TransferOptions;
using qx::test::NoMoreRecords;
using qx::test::NotReadable;
using qx::test::ReadFile;
using qx::test::Records;
using qx::test::Reply;

using Random = std::mt19937_64;

std::int64_t Pick(Random& random, std::int64_t low, std::int64_t high) {
  return std::uniform_int_distribution<std::int64_t>(low, high)(random);
}
bool OneIn(Random& random, int n) { return Pick(random, 1, n) == 1; }

// The content of a store's two files; both empty: no files.
struct StoreBytes {
  std::string index;
  std::string data;
};

struct RandomRequest {
  int start;
  int limit;  // -1: no limit
};

// The state of one transfer in the plain model.
struct Model {
  std::uint32_t calls = 0;
  std::int64_t oldest = -1;
  std::int64_t highest = -1;
  CReportFileBase store;
};

// Writes in place, so that an open descriptor sees the change. Some file systems write a file that is truncated and
// then written to the disk at once; thousands of rounds would take minutes.
void Overwrite(const std::string& path, const std::string& bytes) {
  if (qx::test::Exists(path) && ReadFile(path) == bytes) return;
  std::ofstream(path, std::ios::binary | std::ios::in | std::ios::out) << bytes;
  std::filesystem::resize_file(path, bytes.size());
}

std::string AsCdataText(std::string text) {
  for (std::size_t at = 0; (at = text.find("]]>", at)) != std::string::npos; at += 12) {
    text.replace(at, 3, "]]]]><![CDATA[>");
  }
  return text;
}

// One call of the plain model. It calls readLine for each record, in the steps of docs/documents.md.
Reply ModelCall(Model& model, const std::string& path, const RandomRequest& request,
                const std::function<void()>& meanwhile) {
  if (request.start == 0) {
    model.store.Close();
    model.calls = 0;
  }
  const bool is_first_call = model.calls++ == 0;
  if (is_first_call) {
    if (!model.store.OpenRead(path.c_str())) return NotReadable("r", 2);
    model.oldest = model.store.header().oldestIndex;
    model.highest = model.store.header().highestIndex;
  }

  std::string data;
  std::int64_t index = request.start;
  bool check = is_first_call;
  while (index < model.highest) {
    auto slot = static_cast<std::uint32_t>(index + model.oldest);
    if (slot >= static_cast<std::uint32_t>(model.highest)) slot -= static_cast<std::uint32_t>(model.highest);
    std::string line;
    const bool was_read = model.store.readLine(line, slot);
    if (check) {
      check = false;
      meanwhile();
      model.store.Close();
      if (model.store.OpenRead(path.c_str()) && model.store.header().oldestIndex != model.oldest) {
        model.oldest = model.store.header().oldestIndex;
        if (!was_read) break;
        continue;
      }
    }
    if (!was_read || data.size() + line.size() >= 0x100000) break;
    if (request.limit != -1 &&
        static_cast<std::uint64_t>(std::int64_t{request.limit}) <= static_cast<std::uint64_t>(index - request.start)) {
      break;
    }
    data += line;
    ++index;
  }
  if (data.empty()) return NoMoreRecords();
  return Records("r", request.start, static_cast<int>(index), AsCdataText(data));
}

class ReportTransferRandom : public qx::test::TransferFixture {
 protected:
  std::string Path() const { return BasePath("r"); }

  StoreBytes Saved() const {
    if (!qx::test::Exists(Path() + ".ind")) return {};
    return {ReadFile(Path() + ".ind"), ReadFile(Path() + ".dat")};
  }
  void Restore(const StoreBytes& bytes) const {
    Overwrite(Path() + ".ind", bytes.index);
    Overwrite(Path() + ".dat", bytes.data);
  }
  // Removes the files of the store, so that the next store need not empty one.
  void RemoveStore() const {
    std::filesystem::remove(Path() + ".ind");
    std::filesystem::remove(Path() + ".dat");
  }

  Reply RealCall(CThreadData& data, const RandomRequest& request, TransferOptions::Path path,
                 const std::function<void()>& meanwhile) {
    CMarkup in;
    (void)in.SetDoc(("<ReportData Name=\"r\" StartIndex=\"" + std::to_string(request.start) + "\" NrRecords=\"" +
                     (request.limit == -1 ? "" : std::to_string(request.limit)) + "\"/>")
                        .c_str());
    (void)in.FindElem("ReportData");
    CMarkup out;
    CFileTransferProvider provider;
    const TransferOptions options{path, [](void* context) { (*static_cast<const std::function<void()>*>(context))(); },
                                  const_cast<std::function<void()>*>(&meanwhile)};
    const int result = qx::provider::ReportTransfer(provider, data, out, options).Run(in);
    ++data.state_word;
    return {result, out.GetDoc(), out.IsWellFormed()};
  }

  // A transfer of several calls. `change`, if it is set, changes the store between the calls and, often, after the
  // first read.
  void CompareTransfer(Random& random, const std::vector<RandomRequest>& requests,
                       const std::function<void(std::uint64_t)>& change);
};

std::string RandomRecord(Random& random) {
  static const std::vector<std::string> kPieces = {"a", "]]>", "]]", ">", "\n", "\xff", "&<x/>", "0123456789", " ", ""};
  std::string record;
  for (std::int64_t pieces = Pick(random, 0, 4); pieces > 0; --pieces) {
    record += OneIn(random, 3) ? kPieces[static_cast<std::size_t>(Pick(random, 0, 9))]
                               : std::string(static_cast<std::size_t>(Pick(random, 0, 40)), 'x');
  }
  return record;
}

void AppendRandomRecords(Random& random, const std::string& path, std::int64_t count) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(path.c_str(), static_cast<unsigned>(Pick(random, 1, 12))));
  for (; count > 0; --count) ASSERT_TRUE(store.writeLine(RandomRecord(random).c_str()));
}

// Damages the bytes: toggles a bit, cuts off the end, or inserts a NUL.
void Damage(Random& random, std::string& bytes) {
  if (bytes.empty()) return;
  auto at = static_cast<std::size_t>(Pick(random, 0, static_cast<std::int64_t>(bytes.size()) - 1));
  if (at > 16 && at < 20 && !OneIn(random, 20))
    at = 16;  // the plain forms would need seconds for millions of slots in use
  switch (Pick(random, 0, 3)) {
    case 0:
      bytes.resize(at);
      break;
    case 1:
      bytes[at] = '\0';
      break;
    default:
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << Pick(random, 0, 7)));
  }
}

std::vector<RandomRequest> RandomRequests(Random& random) {
  std::vector<RandomRequest> requests;
  for (std::int64_t calls = Pick(random, 1, 4); calls > 0; --calls) {
    const auto limit = static_cast<int>(OneIn(random, 2) ? -1 : Pick(random, -2, 6));
    requests.push_back({static_cast<int>(OneIn(random, 3) ? 0 : Pick(random, -6, 14)), limit});
  }
  return requests;
}

void ReportTransferRandom::CompareTransfer(Random& random, const std::vector<RandomRequest>& requests,
                                           const std::function<void(std::uint64_t)>& change) {
  struct Way {
    TransferOptions::Path path;
    CThreadData data;
  };
  Way ways[] = {{TransferOptions::Path::kSingly, {}},
                {TransferOptions::Path::kInRuns, {}},
                {TransferOptions::Path::kIntoReply, {}}};
  Model model;
  for (const RandomRequest& request : requests) {
    const StoreBytes before = change ? Saved() : StoreBytes();
    const std::uint64_t meanwhile_seed = change && OneIn(random, 2) ? random() : 0;
    const auto meanwhile = [&] {
      if (meanwhile_seed != 0) change(meanwhile_seed);
    };
    const Reply expected = ModelCall(model, Path(), request, meanwhile);
    for (Way& way : ways) {
      if (change) Restore(before);
      ASSERT_EQ(RealCall(way.data, request, way.path, meanwhile), expected);
      ASSERT_EQ(way.data.state_word, model.calls);
      ASSERT_EQ(way.data.oldest_index, model.oldest);
      ASSERT_EQ(way.data.highest_index, model.highest);
    }
    if (change && OneIn(random, 3)) change(random());
  }
}

TEST_F(ReportTransferRandom, AllWaysOfReadingAgreeOnGoodStores) {
  Random random(qx::test::Seed("ReportTransferRandom.Good"));
  for (int round = 0; round < 700; ++round) {
    RemoveStore();
    AppendRandomRecords(random, Path(), Pick(random, 0, 30));
    CompareTransfer(random, RandomRequests(random), [&](std::uint64_t seed) {
      Random writer(seed);
      AppendRandomRecords(writer, Path(), Pick(writer, 1, 4));
    });
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

TEST_F(ReportTransferRandom, AllWaysOfReadingAgreeOnDamagedStores) {
  Random random(qx::test::Seed("ReportTransferRandom.Damaged"));
  for (int round = 0; round < 700; ++round) {
    RemoveStore();
    AppendRandomRecords(random, Path(), Pick(random, 1, 20));
    const auto damage = [&](std::uint64_t seed) {
      Random writer(seed);
      StoreBytes bytes = Saved();
      Damage(writer, OneIn(writer, 2) ? bytes.index : bytes.data);
      Restore(bytes);
    };
    damage(random());
    CompareTransfer(random, RandomRequests(random), damage);
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

// Records around the size of a chunk, so that every way of reading reaches its end.
TEST_F(ReportTransferRandom, AllWaysOfReadingAgreeAroundTheSizeOfAChunk) {
  Random random(qx::test::Seed("ReportTransferRandom.Chunk"));
  for (int round = 0; round < 8; ++round) {
    RemoveStore();
    const std::int64_t parts = Pick(random, 1, 6);
    std::vector<std::string> records;
    for (std::int64_t count = Pick(random, parts, 9); count > 0; --count) {
      const std::int64_t size = 0x100000 / parts - 2 + Pick(random, -2, 1);
      records.push_back(std::string(static_cast<std::size_t>(size), 'c'));
      if (OneIn(random, 4)) records.push_back(RandomRecord(random));
    }
    Append("r", 10, records);
    const auto start = static_cast<int>(Pick(random, 0, 3));
    const auto limit = static_cast<int>(OneIn(random, 2) ? -1 : Pick(random, 1, 6));
    CompareTransfer(random, {{start, limit}, {start + 1, -1}}, nullptr);
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

// Many small records, so that runs are cut by the chunk, the ring's end and the limit.
TEST_F(ReportTransferRandom, AllWaysOfReadingAgreeOnLongRuns) {
  Random random(qx::test::Seed("ReportTransferRandom.Runs"));
  for (int round = 0; round < 3; ++round) {
    RemoveStore();
    std::vector<std::string> records;
    for (std::int64_t i = Pick(random, 20000, 40000); i > 0; --i)
      records.push_back(std::to_string(i) + RandomRecord(random));
    Append("r", static_cast<unsigned>(Pick(random, 15000, 40000)), records);
    const auto limit = static_cast<int>(OneIn(random, 2) ? -1 : Pick(random, 1, 20000));
    CompareTransfer(random, {{0, limit}, {static_cast<int>(Pick(random, 1, 20000)), -1}}, nullptr);
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

}  // namespace

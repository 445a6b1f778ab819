// Tests the order in which a thread does short and long tasks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <new>
#include <string>
#include <vector>

#include "tools/qxview/tasks/Worker.h"

namespace qx::view {

namespace {

using testing::ElementsAre;

class ViewWorker : public testing::Test {
 protected:
  // A long task of some steps. Each step adds its name to done_.
  Worker::Steps Long(const std::string& name, int steps) {
    return [this, name, steps, done = 0](bool is_last_of_turn) mutable {
      done_.push_back(name + std::to_string(++done) + (is_last_of_turn ? "." : ""));
      return done == steps;
    };
  }
  // Lets the thread do what `begin` posts. The thread has all these tasks before it does the first one.
  void Run(const std::function<void()>& begin) {
    std::promise<void> is_begun;
    std::promise<void> is_posted;
    ASSERT_TRUE(worker_.Post([&] {
      is_begun.set_value();
      is_posted.get_future().wait();
    }));
    is_begun.get_future().wait();
    begin();
    is_posted.set_value();
    is_done_.get_future().wait();
  }
  // The last long task. It ends after the others, because they have fewer steps.
  Worker::Steps End() {
    return [this, done = 0](bool) mutable {
      if (++done <= 3 * Worker::kTurnSteps) return false;
      is_done_.set_value();
      return true;
    };
  }

  std::vector<std::string> done_;
  std::promise<void> is_done_;
  Worker worker_;
};

}  // namespace

TEST_F(ViewWorker, NewTaskComesBeforeTheNextStepOfALongOne) {
  Run([this] {
    EXPECT_TRUE(worker_.PostSteps([this, done = 0](bool) mutable {
      done_.push_back("long" + std::to_string(++done));
      if (done == 2) {
        EXPECT_TRUE(worker_.Post([this] { done_.emplace_back("short"); }));
        EXPECT_TRUE(worker_.PostSteps(Long("new", 1)));
      }
      return done == 4;
    }));
    EXPECT_TRUE(worker_.PostSteps(End()));
  });
  EXPECT_THAT(done_, ElementsAre("long1", "long2", "short", "new1.", "long3", "long4"));
}

TEST_F(ViewWorker, LongTasksTakeTurns) {
  constexpr int kSteps = Worker::kTurnSteps + 2;
  Run([this] {
    EXPECT_TRUE(worker_.PostSteps(Long("a", kSteps)));
    EXPECT_TRUE(worker_.PostSteps(Long("b", kSteps)));
    EXPECT_TRUE(worker_.PostSteps(End()));
  });
  const auto index_of = [this](const std::string& step) {
    return std::find(done_.begin(), done_.end(), step) - done_.begin();
  };
  const std::string last_of_turn = "a" + std::to_string(Worker::kTurnSteps + 1) + ".";
  EXPECT_EQ(done_[1], "b1.") << "another task has the turn";
  EXPECT_LT(index_of(last_of_turn), index_of("b2"));
  EXPECT_LT(index_of("b2"), index_of("a" + std::to_string(kSteps)));
  EXPECT_EQ(done_.size(), 2 * kSteps);
}

TEST_F(ViewWorker, LongTaskThatIsAloneKeepsItsTurn) {
  Run([this] {
    EXPECT_TRUE(worker_.PostSteps([this, done = 0](bool is_last_of_turn) mutable {
      EXPECT_FALSE(is_last_of_turn);
      if (++done == 2 * Worker::kTurnSteps) is_done_.set_value();
      return done == 2 * Worker::kTurnSteps;
    }));
  });
}

TEST_F(ViewWorker, LongTaskWithoutMemoryEndsAndOthersGoOn) {
  Run([this] {
    EXPECT_TRUE(worker_.PostSteps([](bool) -> bool { throw std::bad_alloc(); }));
    EXPECT_TRUE(worker_.PostSteps(Long("a", 2)));
    EXPECT_TRUE(worker_.PostSteps(End()));
  });
  EXPECT_THAT(done_, ElementsAre("a1", "a2"));
}

TEST_F(ViewWorker, LongTasksCountAsWaiting) {
  Run([this] {
    for (std::size_t i = 1; i < Worker::kTasksMax; ++i) EXPECT_TRUE(worker_.PostSteps(Long("a", 1)));
    EXPECT_TRUE(worker_.PostSteps(End()));
    EXPECT_FALSE(worker_.PostSteps(Long("b", 1)));
    EXPECT_FALSE(worker_.Post([] {}));
  });
  EXPECT_EQ(done_.size(), Worker::kTasksMax - 1);
}

}  // namespace qx::view

// The main function of every test program, and its own Debug object, which stays uninitialised unless a test captures
// traces.
#include <gtest/gtest.h>

#include "debug/Debug.h"

__attribute__((init_priority(101))) CDebug Debug;

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

#include <gtest/gtest.h>

#include "support/ChildMode.h"

int main(int argc, char** argv) {
  bool ran = false;
  int status = kd::test::runChildModeIfAsked(argc, argv, &ran);
  if (ran) return status;
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

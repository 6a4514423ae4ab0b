// Unit tests of the run-control helpers: the memory estimate with its
// intended 32-bit wrap, and the dataset stem.
#include <gtest/gtest.h>

#include "run/control_file.h"

TEST(MemoryEstimate, ThirtyTwoBitProductsWrapAsIntended) {
  // Expected values by hand: every sum and product reduced modulo 2^32 and
  // read back as a signed 32-bit value, then widened for the total. On the
  // larger meshes (M + 8) * N passes 2^31 and must wrap, not trap.
  const struct { int N, E, M, P, L, D0, D, W; bool inverse; long long bytes; } cases[] = {
      {15, 8, 43, 0, 4, 10, 8, 5, false, 5155},  // a 5 x 3 grid: nothing wraps
      {123457, 123456, 864199, 41152, 96, 123457, 61728, 13, false, -2611806379LL},
      {123457, 123456, 864199, 41152, 96, 123457, 61728, 13, true, -16638176939LL},
      {200000, 199999, 1400000, 66666, 96, 200000, 100000, 13, false, 3501703031LL},
      {200000, 199999, 1400000, 66666, 96, 200000, 100000, 13, true, -11866307169LL},
      {2000000, 1999999, 14000000, 666666, 96, 2000000, 1000000, 13, true, 14120008991LL},
  };
  for (const auto& c : cases)
    EXPECT_EQ(memory_estimate_bytes(c.N, c.E, c.M, c.P, c.L, c.D0, c.D, c.W, c.inverse), c.bytes) << c.N;
}

TEST(DatasetStem, DigitsRenderedOneByOneWithoutRangeCheck) {
  char stem[DATASET_NAME_SIZE];
  const std::pair<int, const char*> cases[] = {
      {1, "f001"}, {37, "f037"}, {999, "f999"}, {1000, "f:00"}, {1011, "f:11"}};
  for (const auto& c : cases) {
    dataset_file_name(c.first, 0, "", stem);
    EXPECT_STREQ(stem, c.second);
  }
}

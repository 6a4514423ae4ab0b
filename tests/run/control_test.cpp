// Unit tests of the run-control helpers: the memory estimate with its
// intended 32-bit wrap, and the dataset stem.
#include <gtest/gtest.h>

#include "run/control_file.h"

namespace {

// The estimate written out the slow way: every sum and product reduced
// modulo 2^32 by hand and read back as a signed 32-bit value.
long long wrap32(long long v) {
  long long m = ((v % 4294967296LL) + 4294967296LL) % 4294967296LL;
  return m >= 2147483648LL ? m - 4294967296LL : m;
}

long long reference_estimate(long long N, long long E, long long M, long long P, long long L,
                             long long D0, long long D, long long W, bool inverse_job) {
  long long R = wrap32(M + E + wrap32((L + 4) * N) + D + wrap32(4 * D0));
  long long I = wrap32(wrap32((M + 8) * N) + wrap32(8 * D0));
  long long Q = inverse_job ? wrap32(P * W) : 0;
  if (inverse_job) R = wrap32(R + E + 10 * P + wrap32((P + 6) * D));
  I = wrap32(wrap32(I + Q) + Q);  // the stencil counts twice
  return (E + N) + 8 * R + 4 * I;
}

}  // namespace

TEST(MemoryEstimate, ThirtyTwoBitProductsWrapAsIntended) {
  // 5 x 3 grid by hand: nothing wraps.
  EXPECT_EQ(memory_estimate_bytes(15, 8, 43, 0, 4, 10, 8, 5, false),
            23 + 8 * (43 + 8 + 8 * 15 + 8 + 40) + 4 * (51 * 15 + 80));
  // (M + 8) * N passes 2^31 on the larger meshes and must wrap, not trap.
  EXPECT_GT((1400000LL + 8) * 200000, 2147483647LL);
  for (int n : {1, 1000, 65536, 123457, 200000, 2000000})
    for (bool inverse : {false, true})
      EXPECT_EQ(memory_estimate_bytes(n, n - 1, 7 * n, n / 3, 96, n, n / 2, 13, inverse),
                reference_estimate(n, n - 1, 7LL * n, n / 3, 96, n, n / 2, 13, inverse))
          << n;
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

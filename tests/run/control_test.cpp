// Unit tests of the run-control helpers: the memory estimate with its
// intended 32-bit wrap, and the dataset stem.
#include <gtest/gtest.h>

#include <cstdint>

#include "run/control_file.h"

namespace {

// The estimate written out the slow way: every sum and product reduced
// modulo 2^32 by hand and read back as a signed 32-bit value.
long long wrap32(long long v) {
  long long m = ((v % 4294967296LL) + 4294967296LL) % 4294967296LL;
  return m >= 2147483648LL ? m - 4294967296LL : m;
}

long long reference_estimate(long long N, long long E, long long M, long long P,
                             long long L, long long D0, long long D, long long W,
                             bool inverse_job) {
  long long R = wrap32(M + E + wrap32((L + 4) * N) + D + wrap32(4 * D0));
  long long I = wrap32(wrap32((M + 8) * N) + wrap32(8 * D0));
  long long Q = 0;
  if (inverse_job) {
    R = wrap32(R + E + 10 * P + wrap32((P + 6) * D));
    Q = wrap32(P * W);
    I = wrap32(I + Q);
  }
  I = wrap32(I + Q);
  return (E + N) + 8 * R + 4 * I;
}

}  // namespace

TEST(MemoryEstimate, SmallCasesAddUpWithoutWrap) {
  // 5 x 3 grid: N 15, E 8, M 43, 4 electrodes, 10 readings of which 8 kept.
  long long forward = memory_estimate_bytes(15, 8, 43, 0, 4, 10, 8, 5, false);
  long long R = 43 + 8 + (4 + 4) * 15 + 8 + 4 * 10;
  long long I = (43 + 8) * 15 + 8 * 10;
  EXPECT_EQ(forward, (8 + 15) + 8 * R + 4 * I);
  // An inverse job counts the regularisation stencil twice.
  long long inverse = memory_estimate_bytes(15, 8, 43, 8, 4, 10, 8, 13, true);
  long long Ri = R + 8 + 10 * 8 + (8 + 6) * 8;
  long long Ii = I + 2 * 8 * 13;
  EXPECT_EQ(inverse, (8 + 15) + 8 * Ri + 4 * Ii);
}

TEST(MemoryEstimate, LargeMeshWrapsThe32BitProduct) {
  // (M + 8) * N exceeds 2^31 here and must wrap, not saturate or trap.
  const int N = 200000, E = 199000, M = 1400000, P = 5000, L = 96;
  const int D0 = 5000, D = 4900;
  long long got = memory_estimate_bytes(N, E, M, P, L, D0, D, 5, true);
  EXPECT_EQ(got, reference_estimate(N, E, M, P, L, D0, D, 5, true));
  long long unwrapped = (long long)(M + 8) * N;
  EXPECT_GT(unwrapped, 2147483647LL);
  EXPECT_NE(got, (E + N) + 4 * unwrapped);  // the wrap really happened
  for (int n : {1, 1000, 65536, 123457, 2000000})
    EXPECT_EQ(memory_estimate_bytes(n, n, 7 * n, n / 3, 48, n, n / 2, 13, n % 2),
              reference_estimate(n, n, 7LL * n, n / 3, 48, n, n / 2, 13, n % 2))
        << n;
}

TEST(DatasetStem, DigitsRenderedOneByOneWithoutRangeCheck) {
  char stem[8];
  dataset_stem(1, stem);
  EXPECT_STREQ(stem, "f001");
  dataset_stem(37, stem);
  EXPECT_STREQ(stem, "f037");
  dataset_stem(999, stem);
  EXPECT_STREQ(stem, "f999");
  dataset_stem(1000, stem);
  EXPECT_STREQ(stem, "f:00");
  dataset_stem(1011, stem);
  EXPECT_STREQ(stem, "f:11");
}

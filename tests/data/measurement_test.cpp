// Unit tests of the geometric factor and the electrode look-up.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "data/measurement_set.h"
#include "support/support.h"

namespace {

// Four nodes at x = spacing * (k - 1), all at y = depth; electrode k on node k.
MeshModel line(double spacing, double depth) { return grid_mesh({0, spacing, 2 * spacing, 3 * spacing}, {depth}, 4); }

}  // namespace

TEST(GeometricFactor, WennerAndBuriedElectrodes) {
  const ElectrodeTable t{4, {1, 2, 3, 4}, {10, 20, 30, 40}};
  for (double a : {0.5, 1.0, 37.5}) {
    const MeshModel m = line(a, 0.0);
    // P+ at a, P- at 2a, C+ at 0, C- at 3a: 2 pi a, with the ten-digit 4 pi.
    double k = geometric_factor(m, t, 2, 3, 1, 4, 3.0);
    EXPECT_NEAR(k, 2.0 * M_PI * a, 2.0 * M_PI * a * 2e-10);
    EXPECT_NEAR(geometric_factor(m, t, 3, 2, 1, 4, 3.0), -k, k * 1e-15);
    EXPECT_EQ(geometric_factor(m, t, 2, 3, 1, 4, 2.0), 1.0);  // two-dimensional flow
  }
  // 3 m below y = 0, 2 m apart: the image terms use y_A + y_B = 6.
  const MeshModel m = line(2.0, 3.0);
  auto r = [](double dx, double dy) { return std::sqrt(dx * dx + dy * dy); };
  double g = 2 * (1 / r(2, 0) + 1 / r(2, 6)) - 2 * (1 / r(4, 0) + 1 / r(4, 6));
  EXPECT_NEAR(geometric_factor(m, t, 2, 3, 1, 4, 3.0), 12.566370616 / g, 1e-13 / g);
}

TEST(FindElectrode, LastRowWithTheNumberWinsAndMissingIsZero) {
  ElectrodeTable t{5, {1, 2, 3, 4, 5}, {7, 3, 7, 11, 2}};
  EXPECT_EQ(find_electrode(t, 7), 3);
  EXPECT_EQ(find_electrode(t, 3), 2);
  EXPECT_EQ(find_electrode(t, 4), 0);
  t.num_electrodes = 0;
  EXPECT_EQ(find_electrode(t, 7), 0);
}

TEST(Misfit, TrueAndLogDataWithTheirIgnoreRules) {
  // sqrt of (W e)^2 summed and divided by the count of those not ignored; e is
  // d - c for true data, ln(c / d) for log data.
  constexpr unsigned X = MEASUREMENT_IGNORED;
  const struct {
    std::vector<double> c, d, W;
    std::vector<unsigned> flags, flags_after;
    bool log;
    int ignored, ignored_after;
    double want;
  } cases[] = {
      // True data: nothing is ever ignored.
      {{1, 2, -3}, {1.5, 1, -2}, {2, 0.5, 1}, {0, 0, 0}, {0, 0, 0}, false, 0, 0, std::sqrt((4 * 0.25 + 0.25 + 1) / 3)},
      // Log data: a negative ratio is flagged and leaves the divisor; a
      // flagged measurement stays out; a zero weight stays in the divisor.
      {{2, -1, 3, 5}, {1, 1, 3, 1}, {1, 1, 0, 1}, {0, 0, 0, X}, {0, X, 0, X}, true, 1, 2, std::log(2.0) / std::sqrt(2.0)},
      // A ratio of exactly 0 passes: ln 0 makes the misfit infinite.
      {{0}, {1}, {1}, {0}, {0}, true, 0, 0, INFINITY},
  };
  for (auto c : cases) {
    int ignored = c.ignored;
    EXPECT_DOUBLE_EQ(rms(c.c.data(), c.d.data(), c.W.data(), c.flags.data(), static_cast<int>(c.c.size()), &ignored, c.log),
                     c.want);
    EXPECT_EQ(ignored, c.ignored_after);
    EXPECT_EQ(c.flags, c.flags_after);
  }
}

// Tests of the regularisation matrix: the Marquardt identity, edge neighbours
// on triangle meshes, and the linear, blocked and quadratic grid filters,
// each against rows written out by hand or built by a plain loop here.
#include <cmath>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/mesh_builders.h"
#include "inversion/inversion.h"
#include "mesh/mesh_model.h"
#include "run/run_context.h"

namespace {

// A row as expected: the diagonal, then (index, value) in slot order; every
// later slot must be empty. Values agree to a few single-precision units.
struct Row {
  float diag;
  std::vector<std::pair<int, float>> off;
};

void expect_row(const RegularisationMatrix& C, int i, const Row& r) {
  auto at = [&](int k) { return static_cast<std::size_t>(k - 1) * C.num_parameters + (i - 1); };
  EXPECT_EQ(C.index[at(1)], i) << "row " << i;
  EXPECT_FLOAT_EQ(C.values[at(1)], r.diag) << "row " << i;
  for (int k = 2; k <= C.width; ++k) {
    const bool used = k - 2 < static_cast<int>(r.off.size());
    EXPECT_EQ(C.index[at(k)], used ? r.off[k - 2].first : 0) << "row " << i << " slot " << k;
    EXPECT_FLOAT_EQ(C.values[at(k)], used ? r.off[k - 2].second : 0.0f) << "row " << i << " slot " << k;
  }
}

void expect_rows(const RegularisationMatrix& C, int width, const std::vector<Row>& rows) {
  ASSERT_EQ(C.num_parameters, static_cast<int>(rows.size()));
  ASSERT_EQ(C.width, width);
  ASSERT_EQ(C.values.size(), rows.size() * width);
  ASSERT_EQ(C.index.size(), rows.size() * width);
  for (std::size_t i = 0; i < rows.size(); ++i) expect_row(C, static_cast<int>(i) + 1, rows[i]);
}

RunContext settings(bool regularised, bool quadratic, double alpha, int npx = 1, int npy = 1) {
  RunContext ctx{};
  ctx.regularised = regularised;
  ctx.quadratic_filter = quadratic;
  ctx.alpha_aniso = alpha;
  ctx.num_patch_x = npx;
  ctx.num_patch_y = npy;
  ctx.block_weights.assign(static_cast<std::size_t>(npx) * npy, 1.0);
  return ctx;
}

using builders::grid;
using builders::strip;
using builders::triangles;

TEST(Regularisation, MarquardtIsTheIdentity) {
  RunContext ctx = settings(false, false, 3.0);
  MeshModel m = strip({0, 1, 2}, {1, 2, 3, 4}, {1, 1, 1, 1});
  RegularisationMatrix C{};
  for (int npe : {3, 4}) {
    build_regularisation(ctx, m, npe, 4, &C);
    expect_rows(C, 5, {{1.0f, {}}, {1.0f, {}}, {1.0f, {}}, {1.0f, {}}});
  }
}

TEST(Regularisation, TriangleNeighbours) {
  RegularisationMatrix C{};
  // Uneven columns, alpha 2.5. Elements 2 and 3 share parameter 2; 4 lies in
  // zone 2; 5 has no parameter, and it is the first neighbour of 6, so 6
  // couples to nothing, not even to 7 (parameter 5).
  // The centroids of a pair lie dy = 1/3 apart and dx = h/3, h the width of
  // their column or the two widths summed: w = (h alpha + 1) / (h + 1).
  MeshModel m = strip({0, 1, 3, 4, 7}, {1, 2, 2, 3, 0, 4, 5, 5}, {1, 1, 1, 2, 1, 1, 1, 1});
  auto w = [](double h) { return static_cast<float>((h * 2.5 + 1.0) / (h + 1.0)); };
  build_regularisation(settings(true, false, 2.5), m, 3, 5, &C);
  expect_rows(C, 5, {{w(1), {{2, -w(1)}}},
                     {w(1) + w(3) + w(3), {{1, -w(1)}}},
                     {0.0f, {}},
                     {0.0f, {}},
                     {w(4) + w(3) + w(3), {{4, -w(4)}}}});

  // Five triangles on the common edge 1-2: each has four neighbours and
  // couples to the first three by element number. alpha 1 gives w = 1
  // whatever the shape.
  m = triangles({0, 2, 0.5, 1, 3, -1, 1}, {0, 0, 1, 2, 1, -1, -3},
                {1, 2, 3, 2, 1, 4, 1, 5, 2, 6, 1, 2, 2, 7, 1}, {1, 2, 3, 4, 5}, {7, 7, 7, 7, 7});
  build_regularisation(settings(true, false, 1.0), m, 3, 5, &C);
  expect_rows(C, 5, {{3.0f, {{2, -1.0f}, {3, -1.0f}, {4, -1.0f}}},
                     {3.0f, {{1, -1.0f}, {3, -1.0f}, {4, -1.0f}}},
                     {3.0f, {{1, -1.0f}, {2, -1.0f}, {4, -1.0f}}},
                     {3.0f, {{1, -1.0f}, {2, -1.0f}, {3, -1.0f}}},
                     {3.0f, {{1, -1.0f}, {2, -1.0f}, {3, -1.0f}}}});

  // Odd elements form parameter 1 with five distinct neighbour parameters:
  // the fifth (6, met last) loses its slot but keeps its share of the
  // diagonal. The quadratic flag widens the table; slots 6..13 stay empty.
  m = strip({0, 1, 2, 3, 4, 5}, {1, 2, 1, 3, 1, 4, 1, 5, 1, 6}, std::vector<int>(10, 0));
  build_regularisation(settings(true, true, 1.0), m, 3, 6, &C);
  Row pair{2.0f, {{1, -2.0f}}};
  expect_rows(C, 13, {{9.0f, {{2, -2.0f}, {3, -2.0f}, {4, -2.0f}, {5, -2.0f}}},
                      pair, pair, pair, pair, {1.0f, {{1, -1.0f}}}});
}

TEST(Regularisation, GridLinearByHand) {
  RegularisationMatrix C{};
  // One cell: no neighbour, a zero row.
  build_regularisation(settings(true, false, 1.0), grid({0, 2}, {0, 1}, {1}), 4, 1, &C);
  expect_rows(C, 5, {{0.0f, {}}});
  // A column of heights 1, 2, 3 and width 2: w = 2 * 2 * (Y_p + Y_q).
  build_regularisation(settings(true, false, 9.0, 1, 3), grid({0, 2}, {0, 1, 3, 6}, {1, 2, 3}), 4, 3, &C);
  expect_rows(C, 5, {{12.0f, {{2, -12.0f}}}, {32.0f, {{1, -12.0f}, {3, -20.0f}}}, {20.0f, {{2, -20.0f}}}});
  // A row of widths 1, 1, 2 and height 1, alpha 0.5: w = 1 * 1.0 * (X_p + X_q).
  build_regularisation(settings(true, false, 0.5, 3, 1), grid({0, 1, 2, 4}, {0, 1}, {1, 2, 3}), 4, 3, &C);
  expect_rows(C, 5, {{2.0f, {{2, -2.0f}}}, {5.0f, {{1, -2.0f}, {3, -3.0f}}}, {3.0f, {{2, -3.0f}}}});
  // Wholly below -10 the running maxima stay at -10: extents 20 by 30 and
  // 20 by 25 instead of 10 by 5, so w = 20 * 2 * 55.
  build_regularisation(settings(true, false, 1.0, 1, 2), grid({-30, -20}, {-40, -35, -30}, {1, 2}), 4, 2, &C);
  expect_rows(C, 5, {{2200.0f, {{2, -2200.0f}}}, {2200.0f, {{1, -2200.0f}}}});
  // Parameter 2 has no element: its extents are -10 - 1e11.
  const double none = -10.0 - 1e11;
  const float a = static_cast<float>(2.0 * 2.0 * (1.0 + none));
  const float b = static_cast<float>(none * 2.0 * (none + 1.0));
  build_regularisation(settings(true, false, 1.0, 1, 2), grid({0, 2}, {0, 1, 2}, {1, 0}), 4, 2, &C);
  expect_rows(C, 5, {{a, {{2, -a}}}, {b, {{1, -b}}}});
}

TEST(Regularisation, GridBlockedAgainstPlainLoop) {
  // 6 by 3 cells in blocks of 2 by 1: a 3 by 3 parameter grid of uneven
  // widths and heights, alpha 0.7.
  const std::vector<double> xs{0, 1, 3, 4, 7, 8, 10}, ys{0, 0.5, 2, 4};
  std::vector<int> param;
  for (int I = 0; I < 6; ++I)
    for (int J = 0; J < 3; ++J) param.push_back((I / 2) * 3 + J + 1);
  MeshModel m = grid(xs, ys, param);
  auto reference = [&](const std::vector<double>& label) {
    std::vector<Row> rows;
    for (int o = 0; o < 3; ++o)
      for (int c = 0; c < 3; ++c) {
        const int p = o * 3 + c + 1;
        auto X = [&](int q) { int oq = (q - 1) / 3; return xs[2 * oq + 2] - xs[2 * oq]; };
        auto Y = [&](int q) { int cq = (q - 1) % 3; return ys[cq + 1] - ys[cq]; };
        Row r{0.0f, {}};
        auto couple = [&](bool inside, int q, bool along_y) {
          if (!inside || label[q - 1] != label[p - 1]) return;
          double w = along_y ? X(p) * 2.0 * (Y(p) + Y(q)) : Y(p) * (2.0 * 0.7) * (X(p) + X(q));
          r.diag += static_cast<float>(w);
          r.off.push_back({q, -static_cast<float>(w)});
        };
        couple(c > 0, p - 1, true);
        couple(c < 2, p + 1, true);
        couple(o > 0, p - 3, false);
        couple(o < 2, p + 3, false);
        rows.push_back(r);
      }
    return rows;
  };
  RegularisationMatrix C{};
  RunContext ctx = settings(true, false, 0.7, 3, 3);
  build_regularisation(ctx, m, 4, 9, &C);
  expect_rows(C, 5, reference(ctx.block_weights));
  // Labels by column along y: parameter 6 differs from 5, 3 and 9, and 7
  // from everything. The centre keeps 4, 2 and 8, in that order.
  ctx.block_weights = {1, 1, 2, 1, 1, 2, 3, 1, 2};
  build_regularisation(ctx, m, 4, 9, &C);
  std::vector<Row> rows = reference(ctx.block_weights);
  ASSERT_EQ(rows[4].off.size(), 3u);
  EXPECT_EQ(rows[4].off[1].first, 2);
  expect_rows(C, 5, rows);
  // A label table shorter than the grid reads as 1.0 beyond its end.
  ctx.block_weights = {1, 1};
  build_regularisation(ctx, m, 4, 9, &C);
  expect_rows(C, 5, reference(std::vector<double>(9, 1.0)));
}

TEST(Regularisation, GridQuadraticStencil) {
  RegularisationMatrix C{};
  build_regularisation(settings(true, true, 5.0), grid({0, 1}, {0, 1}, {1}), 4, 1, &C);
  expect_rows(C, 13, {{0.0f, {}}});
  // A column of three: second neighbours along y only.
  build_regularisation(settings(true, true, 5.0, 1, 3), grid({0, 1}, {0, 1, 2, 3}, {1, 2, 3}), 4, 3, &C);
  expect_rows(C, 13, {{7.0f, {{2, -8.0f}, {3, 1.0f}}},
                      {16.0f, {{1, -8.0f}, {3, -8.0f}}},
                      {7.0f, {{2, -8.0f}, {1, 1.0f}}}});
  // 5 by 5: a corner, an edge cell (o 1, c 0) and the centre, term by term.
  std::vector<double> s{0, 1, 2, 3, 4, 5};
  std::vector<int> param(25);
  for (int e = 0; e < 25; ++e) param[e] = e + 1;
  build_regularisation(settings(true, true, 5.0, 5, 5), grid(s, s, param), 4, 25, &C);
  ASSERT_EQ(C.width, 13);
  expect_row(C, 1, {16.0f, {{2, -8.0f}, {6, -8.0f}, {3, 1.0f}, {11, 1.0f}, {7, -2.0f}}});
  expect_row(C, 6, {26.0f, {{7, -8.0f}, {1, -8.0f}, {11, -8.0f}, {8, 1.0f}, {16, 1.0f},
                            {12, -2.0f}, {2, -2.0f}}});
  expect_row(C, 13, {36.0f, {{12, -8.0f}, {14, -8.0f}, {8, -8.0f}, {18, -8.0f}, {11, 1.0f},
                             {15, 1.0f}, {3, 1.0f}, {23, 1.0f}, {17, -2.0f}, {19, -2.0f},
                             {9, -2.0f}, {7, -2.0f}}});
  // Every row sums to zero and the pattern with its values is symmetric.
  for (int p = 1; p <= 25; ++p) {
    float sum = C.values[p - 1];
    for (int k = 2; k <= 13; ++k) {
      const int q = C.index[(k - 1) * 25 + p - 1];
      const float v = C.values[(k - 1) * 25 + p - 1];
      sum += v;
      if (q == 0) continue;
      int mirrored = 0;
      for (int l = 2; l <= 13; ++l)
        if (C.index[(l - 1) * 25 + q - 1] == p && C.values[(l - 1) * 25 + q - 1] == v) ++mirrored;
      EXPECT_EQ(mirrored, 1) << p << " " << q;
    }
    EXPECT_EQ(sum, 0.0f) << "row " << p;
  }
}

}  // namespace

// Forward jobs end to end, one table: each run against its transcript
// (expected/forward_<case>.txt) and against physics: reciprocity of transfer
// resistances, the resistivity of a uniform ground.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "support/support.h"

namespace {

// A 9 x 5 grid with two resistivities and six surface electrodes.
std::string small_grid(const char* flux, const char* singular, const std::string& start) {
  return std::string("Forward small\n0 4 ") + flux + " " + singular + " 0\n" +
         "9 5\n-8 -3 0 1 2 3 4 7 12\n0 0 0 0 0 0 0 0 0\n0 0.5 1 2 4\n" + start +
         "0\n6\n11 3 1\n12 4 1\n13 5 1\n14 6 1\n15 7 1\n16 8 1\n";
}
const std::string kRegions = "2\n1 32 100.0\n13 20 10.0\n";

// 150 x 140 nodes of 50 ohm m, 48 electrodes, dipole-dipole n = 1..4.
Files large_grid() {
  std::vector<double> ys;
  for (int j = 0; j < 140; ++j) ys.push_back(0.25 * (std::pow(1.03, j) - 1.0) / 0.03);
  std::string control = "Large grid\n0 4 3.0 1 0\n" + grid_records(uniform_axis(-25.5, 49.0, 0.5), ys) +
                        "1\n1 20711 50.0\n0\n48\n", readings;
  for (int k = 1; k <= 48; ++k) control += std::to_string(k) + " " + std::to_string(50 + 2 * k) + " 1\n";
  int count = 0;
  for (int n = 1; n <= 4; ++n)
    for (int c = 1; c + n + 2 <= 48; c += 3)
      readings += std::to_string(++count) + " " + std::to_string(c + n + 1) + " " + std::to_string(c + n + 2) +
                  " " + std::to_string(c) + " " + std::to_string(c + 1) + "\n";
  return {{"Q5.in", control}, {"protocol.dat", std::to_string(count) + "\n" + readings}};
}

std::string start_with_zero() {  // element 5 at 0 ohm m
  std::string start;
  for (int e = 1; e <= 32; ++e) start += e == 5 ? "0 0 0.0\n" : "0 0 100\n";
  return start;
}

struct ForwardCase {
  const char* name;
  Files inputs;
  Lines whole;
  std::vector<std::pair<int, int>> reciprocal;  // readings (from 0) with the same transfer resistance
  double uniform_rho;                           // every apparent resistivity within 5 % of it, or 0
};

const ForwardCase kCases[] = {
    // Two-dimensional flow: one wavenumber, one solve per electrode; the
    // second block is ignored; readings 1 and 2 are reciprocal to 3 and 4.
    {"2d_flow",
     {{"Q5.in", small_grid("2.0", "0", kRegions)},
      {"protocol.dat", "4\n1 12 13 11 14\n2 13 15 12 16\n3 11 14 12 13\n4 12 16 13 15\n2\n1 11 12 13 14\n2 11 12 13 14\n"}},
     {"Q5_forward.dat"}, {{0, 2}, {1, 3}}, 0},
    // Point sources: distances of 1 and 2 m give the least rule, 6
    // wavenumbers, each solved for all six electrodes, used or not. The
    // plain solve is exactly reciprocal; the split into a half-space primary
    // and a secondary field is not, on a mesh this coarse.
    {"point_sources_singular0",
     {{"Q5.in", small_grid("3.0", "0", kRegions)}, {"protocol.dat", "2\n1 12 13 11 14\n2 11 14 12 13\n"}},
     {"Q5_forward.dat"}, {{0, 1}}, 0},
    {"point_sources_singular1",
     {{"Q5.in", small_grid("3.0", "1", kRegions)}, {"protocol.dat", "2\n1 12 13 11 14\n2 11 14 12 13\n"}},
     {"Q5_forward.dat"}, {}, 0},
    // PARDISO's factorisation under MKL's Intel OpenMP layer crashes on grid
    // matrices of this size here; the sequential layer must carry it.
    {"large_grid", large_grid(), {"Q5_forward.dat:4"}, {}, 50.0},
    // Two squares of two triangles each, records out of order, y as given
    // (negative down), scaled by 2; a start file; the polyline takes the left
    // square only. Three electrode numbers, one twice in the reading: a stop.
    {"triangles",
     {{"mesh.dat", "4 6\n4 2 5 6 2 0\n1 1 2 5 1 0\n2 1 5 4 1 0\n3 2 3 6 2 0\n1 0 0\n2 1 0\n3 2 0\n4 0 -1\n5 1 -1\n6 2 -1\n"},
      {"start.txt", "0 0 10\n0 0 20\n0 0 30\n0 0 40  extra columns\n"},
      {"Q5.in", "Triangles\n0 3 2.0 0 0\n2.0\n0\nstart.txt\n5\n-0.5 0.5\n2.5 0.5\n2.5 -2.5\n-0.5 -2.5\n-0.5 0.5\n"
                "3\n1 1\n2 2\n3 3\n"},
      {"protocol.dat", "1\n1 1 2 3 1\n"}},
     {"electrodes.dat", "forward_model.dat", "forward_model.vtk"}, {}, 0},
    // The start file is not checked: -ln(0) makes an infinite conductivity,
    // which PARDISO takes without an error; the results show what the text
    // layer makes of the non-numbers.
    {"zero_resistivity",
     {{"start.txt", start_with_zero()},
      {"Q5.in", small_grid("2.0", "0", "0\nstart.txt\n")},
      {"protocol.dat", "1\n1 12 13 11 14\n"}},
     {"Q5_forward.dat", "forward_model.dat:5"}, {}, 0},
};

class ForwardJob : public ::testing::TestWithParam<ForwardCase> {};

TEST_P(ForwardJob, TranscriptAndPhysics) {
  const ForwardCase& c = GetParam();
  const RunResult r = expect_run(std::string("e2e/expected/forward_") + c.name + ".txt", c.inputs, c.whole);
  const std::vector<double> R = forward_values(r.dir + "/Q5_forward.dat"),
                            rho = forward_values(r.dir + "/Q5_forward.dat", true);
  for (const auto& [a, b] : c.reciprocal) {
    ASSERT_LT(std::max(a, b), static_cast<int>(R.size()));
    EXPECT_NEAR(R[a], R[b], 1e-8 * std::fabs(R[a])) << a << " " << b;
  }
  if (c.uniform_rho == 0.0) return;
  EXPECT_FALSE(rho.empty());
  for (double x : rho) EXPECT_NEAR(x, c.uniform_rho, 0.05 * c.uniform_rho);
  // The timing report's shares of the total: together at most 100 %, and on
  // a mesh this size most of it goes to the element equations and solves.
  double shares[5] = {0}, sum = 0.0;
  int k = 0;
  for (const std::string& l : split_lines(read_file(r.dir + "/Q5.out")))
    if (l.rfind("     Percent time taken", 0) == 0 && k < 5) sum += shares[k++] = std::atof(l.c_str() + l.find(':') + 1);
  EXPECT_EQ(k, 5);
  EXPECT_LE(sum, 100.3);
  EXPECT_GT(shares[0] + shares[1], 50.0);
}

INSTANTIATE_TEST_SUITE_P(Cases, ForwardJob, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

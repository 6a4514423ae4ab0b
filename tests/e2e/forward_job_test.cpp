// End-to-end forward jobs against their transcripts (expected/forward_*.txt:
// Q5_forward.dat, the memory line, the timing counts) and against physics:
// reciprocity of the computed transfer resistances, K = 1 for
// two-dimensional flow and a uniform ground's resistivity on a large grid.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "support/support.h"

namespace {

// A 9 x 5 grid with two resistivities and six surface electrodes.
std::string small_control(const char* flux, const char* singular) {
  return std::string("Forward small\n0 4 ") + flux + " " + singular + " 0\n" +
         "9 5\n-8 -3 0 1 2 3 4 7 12\n0 0 0 0 0 0 0 0 0\n0 0.5 1 2 4\n2\n1 32 100.0\n13 20 10.0\n"
         "0\n6\n11 3 1\n12 4 1\n13 5 1\n14 6 1\n15 7 1\n16 8 1\n";
}

void expect_reciprocal(double a, double b) { EXPECT_NEAR(a, b, 1e-8 * std::fabs(a)); }

TEST(ForwardJob, TwoDimensionalFlowWritesResultsOfTheFirstBlockOnly) {
  // The second block is ignored; readings 1 and 2 are reciprocal to 3 and 4.
  const RunResult r = expect_run("e2e/expected/forward_2d_flow.txt",
                           {{"Q5.in", small_control("2.0", "0")},
                            {"protocol.dat", "4\n1 12 13 11 14\n2 13 15 12 16\n3 11 14 12 13\n4 12 16 13 15\n"
                                             "2\n1 11 12 13 14\n2 11 12 13 14\n"}},
                           {"Q5_forward.dat"});
  const std::vector<double> R = forward_values(r.dir + "/Q5_forward.dat"),
                            rho = forward_values(r.dir + "/Q5_forward.dat", true);
  ASSERT_EQ(R.size(), 4u);
  for (size_t i = 0; i < R.size(); ++i) EXPECT_NEAR(rho[i], R[i], 0.5e-5 + 1e-9 * std::fabs(R[i]));  // K = 1
  expect_reciprocal(R[0], R[2]);
  expect_reciprocal(R[1], R[3]);
}

TEST(ForwardJob, PointSourcesSolveEveryWavenumberForEveryElectrode) {
  // Current-to-potential distances of 1 and 2 m: ratio 2 gives the least
  // rule, 6 wavenumbers, each assembled once and solved for all six
  // electrodes of the table, used or not.
  for (const char* singular : {"0", "1"}) {
    const RunResult r = expect_run(std::string("e2e/expected/forward_point_sources_singular") + singular + ".txt",
                             {{"Q5.in", small_control("3.0", singular)},
                              {"protocol.dat", "2\n1 12 13 11 14\n2 11 14 12 13\n"}},
                             {"Q5_forward.dat"});
    // The plain solve is exactly reciprocal; the split into a half-space
    // primary and a secondary field is not, on a mesh this coarse.
    const std::vector<double> R = forward_values(r.dir + "/Q5_forward.dat");
    ASSERT_EQ(R.size(), 2u);
    if (singular[0] == '0') expect_reciprocal(R[0], R[1]);
  }
}

TEST(ForwardJob, TwentyThousandNodeGridRunsOnTheSequentialSolverLayer) {
  // PARDISO's factorisation under MKL's Intel OpenMP layer crashes on grid
  // matrices of this size here; the sequential layer must carry it.
  const int nx = 150, ny = 140;
  std::ostringstream s, p;
  s << "Large grid\n0 4 3.0 1 0\n" << nx << " " << ny << "\n";
  for (int i = 0; i < nx; ++i) s << (i - 51) * 0.5 << "\n";
  for (int i = 0; i < nx; ++i) s << "0\n";
  for (int j = 0; j < ny; ++j) s << 0.25 * (std::pow(1.03, j) - 1.0) / 0.03 << "\n";
  s << "1\n1 " << (nx - 1) * (ny - 1) << " 50.0\n0\n48\n";
  for (int k = 1; k <= 48; ++k) s << k << " " << 50 + 2 * k << " 1\n";
  int count = 0;  // dipole-dipole, n = 1..4
  for (int n = 1; n <= 4; ++n)
    for (int c = 1; c + n + 2 <= 48; c += 3)
      p << ++count << " " << c + n + 1 << " " << c + n + 2 << " " << c << " " << c + 1 << "\n";
  const RunResult r = expect_run("e2e/expected/forward_large_grid.txt",
                           {{"Q5.in", s.str()}, {"protocol.dat", std::to_string(count) + "\n" + p.str()}});
  const std::vector<double> rho = forward_values(r.dir + "/Q5_forward.dat", true);
  ASSERT_EQ(static_cast<int>(rho.size()), count);
  for (double x : rho) EXPECT_NEAR(x, 50.0, 2.5);  // uniform 50 ohm m
}

TEST(ForwardJob, TriangleMeshWithStartFileAndPolyline) {
  // Two squares of two triangles each, records out of order, y as given
  // (negative down), scaled by 2; the polyline takes the left square only.
  // Three electrode numbers, one twice in the reading: the job stops.
  expect_run("e2e/expected/forward_triangles.txt",
             {{"mesh.dat", "4 6\n4 2 5 6 2 0\n1 1 2 5 1 0\n2 1 5 4 1 0\n3 2 3 6 2 0\n"
                           "1 0 0\n2 1 0\n3 2 0\n4 0 -1\n5 1 -1\n6 2 -1\n"},
              {"start.txt", "0 0 10\n0 0 20\n0 0 30\n0 0 40  extra columns\n"},
              {"Q5.in", "Triangles\n0 3 2.0 0 0\n2.0\n0\nstart.txt\n"
                        "5\n-0.5 0.5\n2.5 0.5\n2.5 -2.5\n-0.5 -2.5\n-0.5 0.5\n3\n1 1\n2 2\n3 3\n"},
              {"protocol.dat", "1\n1 1 2 3 1\n"}},
             {"electrodes.dat", "forward_model.dat", "forward_model.vtk"});
}

TEST(ForwardJob, ZeroResistivityInStartFileGivesNumbersThatAreNot) {
  // The start file is not checked: -ln(0) makes an infinite conductivity.
  // PARDISO reports no error for such a matrix, so the job ends normally and
  // its results show what the text layer makes of the non-numbers.
  std::string control = small_control("2.0", "0"), start;
  control.replace(control.find("2\n1 32 100.0\n13 20 10.0\n"), 24, "0\nstart.txt\n");
  for (int e = 1; e <= 32; ++e) start += e == 5 ? "0 0 0.0\n" : "0 0 100\n";
  expect_run("e2e/expected/forward_zero_resistivity.txt",
             {{"start.txt", start}, {"Q5.in", control}, {"protocol.dat", "1\n1 12 13 11 14\n"}},
             {"Q5_forward.dat", "forward_model.dat:5"});
}

}  // namespace

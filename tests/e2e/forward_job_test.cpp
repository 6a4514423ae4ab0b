// End-to-end forward jobs: Q5_forward.dat, the memory line, the timing
// counts, reciprocity of the computed transfer resistances, and the
// failure road of a model the solver cannot take.
#include <gtest/gtest.h>

#include <cmath>

#include "e2e_util.h"

namespace {


// A 9 x 5 grid with two resistivities and six surface electrodes.
std::string small_forward_control(const char* flux, const char* singular) {
  std::ostringstream s;
  s << "Forward small\n0 4 " << flux << " " << singular << " 0\n"
    << "9 5\n-8 -3 0 1 2 3 4 7 12\n0 0 0 0 0 0 0 0 0\n0 0.5 1 2 4\n"
    << "2\n1 32 100.0\n13 20 10.0\n"
    << "0\n6\n"
    << "11 3 1\n12 4 1\n13 5 1\n14 6 1\n15 7 1\n16 8 1\n";
  return s.str();
}

struct ForwardLine {
  int place, pp, pm, cp, cm;
  double resistance, apparent;
};

std::vector<ForwardLine> parse_forward(const Lines& lines) {
  std::vector<ForwardLine> out;
  for (size_t i = 1; i < lines.size(); ++i) {
    ForwardLine f;
    if (std::sscanf(lines[i].c_str(), "%d %d %d %d %d %lf %lf", &f.place, &f.pp,
                    &f.pm, &f.cp, &f.cm, &f.resistance, &f.apparent) == 7)
      out.push_back(f);
  }
  return out;
}

}  // namespace

TEST(ForwardJob, TwoDimensionalFlowWritesResultsOfTheFirstBlockOnly) {
  std::string dir = make_run_dir();
  write_file(dir, "Q5.in", small_forward_control("2.0", "0"));
  // Second block is ignored; readings 1 and 2 are reciprocal to 3 and 4.
  write_file(dir, "protocol.dat",
             "4\n1 12 13 11 14\n2 13 15 12 16\n3 11 14 12 13\n4 12 16 13 15\n"
             "2\n1 11 12 13 14\n2 11 12 13 14\n");
  RunResult r = run_q5_in(dir);
  ASSERT_EQ(r.console.back(), "All ok");
  int at = find_line(r.console, " Measurements read:     4     Measurements rejected:     0");
  ASSERT_NE(at, -1);
  EXPECT_EQ(r.console[at + 1], "");
  EXPECT_EQ(r.console[at + 2].substr(0, 29), " >> Total Memory required is:");
  EXPECT_EQ(r.console[at + 2].size(), 29u + 15u + 3u);

  Lines out = read_lines(dir, "Q5_forward.dat");
  ASSERT_EQ(out.size(), 5u);
  EXPECT_EQ(out[0].substr(0, 12), "           4");
  std::vector<ForwardLine> f = parse_forward(out);
  ASSERT_EQ(f.size(), 4u);
  // Electrodes stand as protocol.dat gives them, in P+ P- C+ C- order.
  EXPECT_EQ(out[1].substr(0, 33), "    1     12     13     11     14");
  for (size_t i = 0; i < f.size(); ++i) {
    EXPECT_EQ(f[i].place, (int)i + 1);
    EXPECT_EQ(out[i + 1].size(), 5u + 28u + 20u + 15u);
    // K is 1 for two-dimensional flow: the columns repeat the value.
    EXPECT_NEAR(f[i].apparent, f[i].resistance, 0.5e-5 + 1e-9 * std::fabs(f[i].resistance));
  }
  // Reciprocity: exchanging the current and potential pairs leaves R.
  EXPECT_NEAR(f[0].resistance, f[2].resistance, 1e-8 * std::fabs(f[0].resistance));
  EXPECT_NEAR(f[1].resistance, f[3].resistance, 1e-8 * std::fabs(f[1].resistance));

  // One assembly for the single wavenumber, one solve per electrode.
  Lines log = read_lines(dir, "Q5.out");
  EXPECT_NE(find_line(log, "     Number of calls to form element equations:         1"), -1);
  EXPECT_NE(find_line(log, "     Number of calls to solve forward equations:        6"), -1);
  EXPECT_NE(find_line(log, "     Number of calls to form Jacobian:                  0"), -1);
}

TEST(ForwardJob, PointSourcesSolveEveryWavenumberForEveryElectrode) {
  const char* singular[2] = {"0", "1"};
  for (int s = 0; s < 2; ++s) {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", small_forward_control("3.0", singular[s]));
    write_file(dir, "protocol.dat", "2\n1 12 13 11 14\n2 11 14 12 13\n");
    RunResult r = run_q5_in(dir);
    ASSERT_EQ(r.console.back(), "All ok");
    std::vector<ForwardLine> f = parse_forward(read_lines(dir, "Q5_forward.dat"));
    ASSERT_EQ(f.size(), 2u);
    // The plain solve is exactly reciprocal; the split into a half-space
    // primary and a secondary field is not, on a mesh this coarse.
    if (s == 0) {
      EXPECT_NEAR(f[0].resistance, f[1].resistance, 1e-8 * std::fabs(f[0].resistance));
    }
    EXPECT_TRUE(std::isfinite(f[0].apparent));
    // Current-to-potential distances of 1 and 2 m: ratio 2 gives the least
    // rule, W = 6 wavenumbers, each assembled once and solved for all six
    // electrodes of the table, used or not.
    Lines log = read_lines(dir, "Q5.out");
    EXPECT_NE(find_line(log, "     Number of calls to form element equations:         6"), -1);
    EXPECT_NE(find_line(log, "     Number of calls to solve forward equations:       36"), -1);
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
  std::string dir = make_run_dir();
  write_file(dir, "Q5.in", s.str());
  write_file(dir, "protocol.dat", std::to_string(count) + "\n" + p.str());
  RunResult r = run_q5_in(dir);
  EXPECT_EQ(r.exit_status, 0) << r.errors;
  ASSERT_EQ(r.console.back(), "All ok");
  std::vector<ForwardLine> f = parse_forward(read_lines(dir, "Q5_forward.dat"));
  ASSERT_EQ((int)f.size(), count);
  for (const ForwardLine& x : f) EXPECT_NEAR(x.apparent, 50.0, 2.5) << x.place;  // uniform 50 ohm m
}

TEST(ForwardJob, TriangleMeshWithStartFileAndPolyline) {
  // Two squares of two triangles each, y as given (negative down), scaled by
  // 2; the polyline takes the left square only.
  std::string dir = make_run_dir();
  write_file(dir, "mesh.dat",
             "4 6\n4 2 5 6 2 0\n1 1 2 5 1 0\n2 1 5 4 1 0\n3 2 3 6 2 0\n"
             "1 0 0\n2 1 0\n3 2 0\n4 0 -1\n5 1 -1\n6 2 -1\n");
  write_file(dir, "start.txt", "0 0 10\n0 0 20\n0 0 30\n0 0 40  extra columns\n");
  write_file(dir, "Q5.in",
             "Triangles\n0 3 2.0 0 0\n2.0\n0\nstart.txt\n"
             "5\n-0.5 0.5\n2.5 0.5\n2.5 -2.5\n-0.5 -2.5\n-0.5 0.5\n"
             "3\n1 1\n2 2\n3 3\n");
  write_file(dir, "protocol.dat", "1\n1 1 2 3 1\n");
  RunResult r = run_q5_in(dir);
  // Three electrode numbers, one twice: a duplicate stops the job.
  EXPECT_EQ(r.console.back(), "FATAL error");
  EXPECT_NE(find_line(r.console, " >> Reading start resistivity from start.txt                     "), -1);
  EXPECT_EQ(read_lines(dir, "electrodes.dat"),
            Lines({"       0.000       0.000       0.000", "       2.000       0.000       0.000",
                   "       4.000       0.000       0.000"}));
  // Elements 1 and 2 lie inside the polyline; their centres and values.
  EXPECT_EQ(read_lines(dir, "forward_model.dat"),
            Lines({"    0.13333E+01   -0.66667E+00    0.10000E+02    0.10000E+01",
                   "    0.66667E+00   -0.13333E+01    0.20000E+02    0.13010E+01"}));
  Lines vtk = read_lines(dir, "forward_model.vtk");
  ASSERT_GE(vtk.size(), 13u);
  EXPECT_EQ(vtk[4], "POINTS          4 double");
  EXPECT_EQ(vtk[9], " CELLS          2         8");
  EXPECT_EQ(vtk[10], "         3         0         1         3");
}

TEST(ForwardJob, ZeroResistivityInStartFileGivesNumbersThatAreNot) {
  // The start file is not checked: -ln(0) makes an infinite conductivity.
  // PARDISO reports no error for such a matrix, so the job ends normally and
  // its results show what the text layer makes of the non-numbers.
  std::string dir = make_run_dir();
  std::string control = small_forward_control("2.0", "0");
  control.replace(control.find("2\n1 32 100.0\n13 20 10.0\n"), 24, "0\nstart.txt\n");
  std::string start;
  for (int e = 1; e <= 32; ++e) start += e == 5 ? "0 0 0.0\n" : "0 0 100\n";
  write_file(dir, "start.txt", start);
  write_file(dir, "Q5.in", control);
  write_file(dir, "protocol.dat", "1\n1 12 13 11 14\n");
  RunResult r = run_q5_in(dir);
  EXPECT_EQ(r.console.back(), "All ok");
  Lines out = read_lines(dir, "Q5_forward.dat");
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1], "    1     12     13     11     14                 NaN            NaN");
  EXPECT_EQ(read_lines(dir, "forward_model.dat")[4].substr(45), "      -Infinity");
}

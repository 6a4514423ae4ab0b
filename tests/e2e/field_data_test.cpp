// Real survey geometry and data: the electrode positions, levelled
// topography and measured resistances of the BGR slag-dump Wenner line
// (examples/slagdump, made from the published survey). A forward job
// (examples/slagdump/forward) over a uniform 1 ohm m ground, and the inverse
// job, checked against the range published for the line.
// Over the uniform ground each
// computed transfer resistance is 1/K for the real ground surface, so the
// measured resistances turn into topography-corrected apparent
// resistivities, which published work puts at roughly 6 to 33 ohm m.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "e2e_util.h"

namespace {

// The R column of the unified data format: after the sensor block and the
// data count, lines "a b m n R".
std::vector<double> measured_resistances(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::vector<std::string>> rows;
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line.substr(0, line.find('#')));
    std::vector<std::string> row;
    for (std::string f; fields >> f;) row.push_back(f);
    if (!row.empty()) rows.push_back(row);
  }
  std::vector<double> r;
  if (rows.empty()) return r;
  const size_t sensors = std::stoul(rows[0][0]);
  for (size_t i = sensors + 2; i < rows.size(); ++i) r.push_back(std::stod(rows[i][4]));
  return r;
}

}  // namespace

TEST(FieldData, SlagDumpTopographyCorrectsApparentResistivities) {
  const std::vector<double> measured =
      measured_resistances(std::string(Q5_FIELDDATA) + "/slagdump/slagdump.ohm");
  if (measured.empty()) GTEST_SKIP() << "field data not beside the repository";
  std::string dir = make_run_dir();
  for (const char* name : {"Q5.in", "protocol.dat"})
    write_file(dir, name, read_text(std::string(Q5_SOURCE_DIR) + "/examples/slagdump/forward", name));
  RunResult r = run_q5_in(dir);
  ASSERT_EQ(r.console.back(), "All ok");
  std::vector<std::string> out = read_lines(dir, "Q5_forward.dat");
  ASSERT_EQ(out.size(), measured.size() + 1);
  std::vector<double> rho;
  for (size_t i = 1; i < out.size(); ++i) {
    int place, e[4];
    double computed, apparent;
    ASSERT_EQ(std::sscanf(out[i].c_str(), "%d %d %d %d %d %lf %lf", &place, e, e + 1, e + 2, e + 3,
                          &computed, &apparent),
              7);
    ASSERT_GT(computed, 0.0) << out[i];  // Wenner over a uniform ground
    rho.push_back(measured[i - 1] / computed);
  }
  std::sort(rho.begin(), rho.end());
  std::printf("[field data] slag dump, corrected apparent resistivity: min %.2f median %.2f max "
              "%.2f ohm m\n", rho.front(), rho[rho.size() / 2], rho.back());
  EXPECT_GT(rho.front(), 5.0);
  EXPECT_LT(rho.back(), 40.0);
}

TEST(FieldData, SlagDumpInversionConvergesWithinThePublishedRange) {
  if (std::getenv("Q5_SKIP_SLOW")) GTEST_SKIP() << "slow under the sanitizers";
  std::string dir = make_run_dir();
  for (const char* name : {"Q5.in", "protocol.dat"})
    write_file(dir, name, read_text(std::string(Q5_SOURCE_DIR) + "/examples/slagdump", name));
  RunResult r = run_q5_in(dir);
  ASSERT_EQ(r.console.back(), "All ok");
  EXPECT_NE(find_line(r.console, " Solution converged - Outputing results to file"), -1);
  int iterations = 0;
  double rms = 0.0;
  for (const std::string& l : r.console) {
    if (l.rfind("   Iteration ", 0) == 0) ++iterations;
    if (l.rfind("     Final RMS Misfit:", 0) == 0) rms = std::atof(l.c_str() + 22);
  }
  EXPECT_LE(rms, 1.1);
  // Cells under the line, down to 12 m below the ground between electrodes.
  std::vector<double> ex, ez;
  for (const std::string& l : read_lines(dir, "electrodes.dat")) {
    double x, z;
    if (std::sscanf(l.c_str(), "%lf %lf", &x, &z) == 2) ex.push_back(x), ez.push_back(z);
  }
  ASSERT_EQ(ex.size(), 38u);
  int inside = 0, within = 0;
  for (const std::string& l : read_lines(dir, "f001_res.dat")) {
    double x, y, rho;
    if (std::sscanf(l.c_str(), "%lf %lf %lf", &x, &y, &rho) != 3 || x <= ex.front() || x >= ex.back())
      continue;
    size_t k = std::upper_bound(ex.begin(), ex.end(), x) - ex.begin();
    double surface = ez[k - 1] + (ez[k] - ez[k - 1]) * (x - ex[k - 1]) / (ex[k] - ex[k - 1]);
    if (y < surface - 12.0) continue;
    ++inside;
    within += rho >= 5.0 && rho <= 30.0;
  }
  ASSERT_GT(inside, 0);
  std::printf("[field data] slag dump inversion: %d iterations, RMS %.2f, %.0f %% of %d cells within "
              "5 to 30 ohm m\n", iterations, rms, 100.0 * within / inside, inside);
  EXPECT_GT(within, inside * 6 / 10);
}

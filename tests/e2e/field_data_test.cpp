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
#include <cstdio>
#include <sstream>

#include "support/support.h"

namespace {

// The R column of the unified data format: after the sensor block and the
// data count, lines "a b m n R".
std::vector<double> measured_resistances(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  for (const std::string& line : split_lines(read_file(path))) {
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

// Q5.in and protocol.dat of an example run directory of the source tree.
Files example_inputs(const std::string& example) {
  const std::string dir = std::string(Q5_SOURCE_DIR) + example;
  return {{"Q5.in", read_file(dir + "/Q5.in")}, {"protocol.dat", read_file(dir + "/protocol.dat")}};
}

}  // namespace

TEST(FieldData, SlagDumpTopographyCorrectsApparentResistivities) {
  const std::vector<double> measured =
      measured_resistances(std::string(Q5_FIELDDATA) + "/slagdump/slagdump.ohm");
  if (measured.empty()) GTEST_SKIP() << "field data not beside the repository";
  const RunResult r = run_q5(example_inputs("/examples/slagdump/forward"));
  ASSERT_EQ(r.lines.back(), "All ok");
  const std::vector<double> computed = forward_values(r.dir + "/Q5_forward.dat");
  ASSERT_EQ(computed.size(), measured.size());
  std::vector<double> rho;
  for (size_t i = 0; i < computed.size(); ++i) {
    ASSERT_GT(computed[i], 0.0) << i;  // Wenner over a uniform ground
    rho.push_back(measured[i] / computed[i]);
  }
  std::sort(rho.begin(), rho.end());
  std::printf("[field data] slag dump, corrected apparent resistivity: min %.2f median %.2f max "
              "%.2f ohm m\n", rho.front(), rho[rho.size() / 2], rho.back());
  EXPECT_GT(rho.front(), 5.0);
  EXPECT_LT(rho.back(), 40.0);
}

TEST(FieldData, SlagDumpInversionConvergesWithinThePublishedRange) {
  if (std::getenv("Q5_SKIP_SLOW")) GTEST_SKIP() << "slow under the sanitizers";
  const RunResult r = run_q5(example_inputs("/examples/slagdump"));
  ASSERT_EQ(r.lines.back(), "All ok");
  EXPECT_NE(find_line(r.lines, " Solution converged - Outputing results to file"), -1);
  int iterations = 0;
  const double rms = final_rms(r.lines, &iterations);
  EXPECT_LE(rms, 1.1);
  // Cells under the line, down to 12 m below the ground between electrodes.
  std::vector<double> ex, ez;
  for (const std::string& l : split_lines(read_file(r.dir + "/electrodes.dat"))) {
    double x, z;
    if (std::sscanf(l.c_str(), "%lf %lf", &x, &z) == 2) ex.push_back(x), ez.push_back(z);
  }
  ASSERT_EQ(ex.size(), 38u);
  int inside = 0, within = 0;
  for (const std::string& l : split_lines(read_file(r.dir + "/f001_res.dat"))) {
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

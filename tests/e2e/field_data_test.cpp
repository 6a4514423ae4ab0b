// Real survey geometry and data: the BGR slag-dump Wenner line with its
// levelled topography and measured resistances (examples/slagdump), forward
// and inverse, checked against the range published for the line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "support/support.h"

namespace {

// The R column of the unified data format: after the sensor count, the
// sensors and the data count, lines "a b m n R"; '#' starts a comment.
std::vector<double> measured_resistances(const std::string& path) {
  Lines rows;
  for (const std::string& l : split_lines(read_file(path)))
    if (l.find_first_not_of(" \t\r") < l.find('#')) rows.push_back(l.substr(0, l.find('#')));
  std::vector<double> r;
  double a, b, m, n, v;
  for (size_t i = rows.empty() ? 0 : std::stoul(rows[0]) + 2; i < rows.size(); ++i)
    if (std::sscanf(rows[i].c_str(), "%lf %lf %lf %lf %lf", &a, &b, &m, &n, &v) == 5) r.push_back(v);
  return r;
}

// Q5.in and protocol.dat of an example run directory of the source tree.
Files example_inputs(const std::string& example) {
  const std::string dir = std::string(Q5_SOURCE_DIR) + example;
  return {{"Q5.in", read_file(dir + "/Q5.in")}, {"protocol.dat", read_file(dir + "/protocol.dat")}};
}

}  // namespace

// Over a uniform 1 ohm m ground each computed transfer resistance is 1/K for
// the real ground surface, so the measured resistances turn into
// topography-corrected apparent resistivities, published at 6 to 33 ohm m.
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
  EXPECT_NE(r.console.find("\n Solution converged - Outputing results to file\n"), std::string::npos);
  int iterations = 0;
  const double rms = final_rms(r.lines, &iterations);
  EXPECT_LE(rms, 1.1);
  // Cells under the line, down to 12 m below the ground between electrodes.
  const std::vector<ModelRow> e = model_rows(r.dir + "/electrodes.dat");  // x, height, 0
  ASSERT_EQ(e.size(), 38u);
  int inside = 0, within = 0;
  for (const ModelRow& c : model_rows(r.dir + "/f001_res.dat")) {
    if (c.x <= e.front().x || c.x >= e.back().x) continue;
    size_t k = 1;
    while (e[k].x <= c.x) ++k;  // the electrodes on either side
    if (c.y < e[k - 1].y + (e[k].y - e[k - 1].y) * (c.x - e[k - 1].x) / (e[k].x - e[k - 1].x) - 12.0) continue;
    ++inside;
    within += c.rho >= 5.0 && c.rho <= 30.0;
  }
  ASSERT_GT(inside, 0);
  std::printf("[field data] slag dump inversion: %d iterations, RMS %.2f, %.0f %% of %d cells within "
              "5 to 30 ohm m\n", iterations, rms, 100.0 * within / inside, inside);
  EXPECT_GT(within, inside * 6 / 10);
}

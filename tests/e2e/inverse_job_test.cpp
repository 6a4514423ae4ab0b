// End-to-end inverse jobs on synthetic data made by q5's own forward job
// with seeded noise: recovery of known anomalies on both mesh kinds, the
// time-lapse difference inversion, and the ends of a dataset with their
// words, streams and files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "synthetic_survey.h"

namespace {

// Control file of an inverse job on the survey's grid with 2 x 2 patches.
std::string grid_inverse(const Survey& s, const std::string& settings, int res_calc = 0,
                         const char* flux = "3.0") {
  return grid_head(s, 1, flux, 0, res_calc) + "1\n1 " + std::to_string(grid_cells(s)) +
         " 100.0\n2 2\n" + settings + grid_electrodes(s);
}

// Inverse settings: type, target, data type, reg mode, tolerance, iterations,
// weight update, errors.
std::string settings(int type, double target, int data_type, int reg_mode, int iterations,
                     int weight_update, double b_wgt) {
  std::ostringstream o;
  o << type << " " << target << "\n" << data_type << " " << reg_mode << "\n1.0 " << iterations
    << " " << weight_update << " 1.0" << (reg_mode == 1 ? " 0.1" : "") << "\n0.0 " << b_wgt
    << " 1e-6 1e9\n";
  return o.str();
}

// Data of a conductive box in 100 ohm m, with 3 % noise.
std::vector<double> block_data(const std::string& dir, const Survey& s, double fraction) {
  std::string fwd = grid_head(s, 0, "3.0", 0, 0) + grid_regions(s, 100.0, {{6.0, 9.0, 1.0, 3.0, 10.0}}) +
                    grid_electrodes(s);
  return add_noise(forward_data(dir, fwd, forward_protocol(s)), fraction, 20261123u);
}

bool has_line(const Lines& v, const std::string& l) { return find_line(v, l) != -1; }

}  // namespace

TEST(InverseJob, ConductiveBlockOnAGridWithPatchesIsRecovered) {
  Survey s;
  build_survey(&s);
  std::string dir = make_run_dir();
  std::vector<double> d = block_data(dir, s, 0.03);
  write_file(dir, "Q5.in", grid_inverse(s, settings(1, 0.0, 1, 0, 8, 0, 0.03), 3));
  write_file(dir, "protocol.dat", inverse_block(s, d));
  RunResult r = run_q5_in(dir);
  ASSERT_EQ(r.console.back(), "All ok");
  int iterations = 0;
  double rms = final_rms(r.console, &iterations);
  EXPECT_TRUE(has_line(r.console, " Solution converged - Outputing results to file"));
  EXPECT_LE(iterations, 5);
  EXPECT_LE(rms, 1.1);
  // The box centre (7.5 m, 2 m deep) lies below 100 ohm m by at least half
  // the true contrast of one decade.
  double centre = value_at(model_rows(dir, "f001_res.dat"), 7.5, -2.0);
  EXPECT_LT(std::log10(centre), 2.0 - 0.5) << centre;
  std::printf("grid block: %d iterations, RMS %.2f, centre %.1f ohm m\n", iterations, rms, centre);

  // Console order of one iteration, and the iteration files of each step taken.
  int it = find_line(r.console, "   Iteration   1");
  ASSERT_NE(it, -1);
  EXPECT_EQ(r.console[it - 1], "");
  EXPECT_EQ(r.console[it + 1].substr(0, 24), "     Initial RMS Misfit:");
  EXPECT_EQ(r.console[it + 1].substr(37), "     Number of data ignored:     0");
  EXPECT_EQ(r.console[it + 2].substr(0, 12), "     Alpha: ");
  for (int k = 1; k < iterations; ++k)
    EXPECT_TRUE(file_exists(dir, "f001.00" + std::to_string(k) + "_res.vtk")) << k;
  EXPECT_FALSE(file_exists(dir, "f001.00" + std::to_string(iterations) + "_res.dat"));

  // The error table: header and one line per reading, weights unchanged.
  Lines err = read_lines(dir, "f001_err.dat");
  ASSERT_EQ(err.size(), s.quads.size() + 1);
  EXPECT_EQ(err[0], "    P+   P-        C+   C-  Normalised_Error  Observed_Rho  Calculated_Rho"
                    "  Original_Weight  Final_Weight    C");
  EXPECT_EQ(err[1].substr(0, 20), "    3    4         1");
  EXPECT_EQ(err[1].size(), 5u * 2 + 5 + 10 + 15 * 3 + 5 + 30 + 5);
  EXPECT_EQ(err[1].substr(err[1].size() - 1), "0");

  // Sensitivity appended to the model's VTK file, and the matrix dumps.
  std::string vtk = read_text(dir, "f001_res.vtk");
  EXPECT_NE(vtk.find("SCALARS Resistivity(log10) double 1\nLOOKUP_TABLE default\n"), std::string::npos);
  EXPECT_NE(vtk.find("\nSCALARS Sensitivity(log10) double 1\nLOOKUP_TABLE default\n"), std::string::npos);
  EXPECT_EQ(model_rows(dir, "f001_sen.dat").size(), (size_t)grid_cells(s));
  const int P = grid_cells(s) / 4;
  std::istringstream rindex(read_text(dir, "f001_Rindex.dat")), jdump(read_text(dir, "f001_J.dat"));
  int a = 0, b = 0;
  rindex >> a >> b;
  EXPECT_EQ(a, P);
  EXPECT_EQ(b, 5);
  jdump >> a >> b;
  EXPECT_EQ(a, (int)s.quads.size());
  EXPECT_EQ(b, P);
  int values = 0;
  for (double v; jdump >> v;) ++values;
  EXPECT_EQ(values, (int)s.quads.size() * P);

  // The Jacobian is counted once per iteration in the timing report.
  Lines log = read_lines(dir, "Q5.out");
  char jac[96];
  std::snprintf(jac, sizeof jac, "     Number of calls to form Jacobian:              %5d", iterations);
  EXPECT_TRUE(has_line(log, jac));
}

namespace {

// mesh.dat of the survey's grid with each cell cut into two anticlockwise
// triangles (height up), one parameter per triangle, one zone.
std::string triangle_mesh(const Survey& s) {
  const int nx = (int)s.xs.size(), ny = (int)s.ys.size();
  std::ostringstream o;
  o.precision(10);
  o << 2 * (nx - 1) * (ny - 1) << " " << nx * ny << "\n";
  int e = 0;
  for (int i = 0; i + 1 < nx; ++i)
    for (int j = 0; j + 1 < ny; ++j) {
      const int n = i * ny + j + 1;
      ++e;
      o << e << " " << n << " " << n + 1 << " " << n + ny + 1 << " " << e << " 1\n";
      ++e;
      o << e << " " << n << " " << n + ny + 1 << " " << n + ny << " " << e << " 1\n";
    }
  for (int i = 0; i < nx; ++i)
    for (int j = 0; j < ny; ++j) o << i * ny + j + 1 << " " << s.xs[i] << " " << -s.ys[j] << "\n";
  return o.str();
}

// Region records of a layer between two depths on the triangle mesh.
std::string triangle_regions(const Survey& s, double background, double d0, double d1, double rho) {
  const int ny = (int)s.ys.size();
  std::ostringstream recs;
  int count = 1;
  for (int j = 0; j + 1 < ny; ++j) {
    double dc = 0.5 * (s.ys[j] + s.ys[j + 1]);
    if (dc <= d0 || dc >= d1) continue;
    for (size_t i = 0; i + 1 < s.xs.size(); ++i) {
      int first = 2 * ((int)i * (ny - 1) + j) + 1;
      recs << first << " " << first + 1 << " " << rho << "\n";
      ++count;
    }
  }
  return std::to_string(count) + "\n1 " + std::to_string(2 * grid_cells(s)) + " " +
         std::to_string(background) + "\n" + recs.str();
}

std::string triangle_electrodes(const Survey& s) {
  std::ostringstream o;
  o << "0\n" << s.electrodes << "\n";
  const int ny = (int)s.ys.size();
  for (int k = 0; k < s.electrodes; ++k)
    o << k + 1 << " " << (s.first_column - 1 + k * s.cells_per_spacing) * ny + 1 << "\n";
  return o.str();
}

// Values of one VTK cell scalar, in element order.
std::vector<double> vtk_scalar(const std::string& text, const std::string& name) {
  std::vector<double> v;
  size_t at = text.find("SCALARS " + name + " double 1\nLOOKUP_TABLE default\n");
  if (at == std::string::npos) return v;
  at = text.find('\n', text.find("LOOKUP_TABLE", at)) + 1;
  std::istringstream line(text.substr(at, text.find('\n', at) - at));
  for (double x; line >> x;) v.push_back(x);
  return v;
}

}  // namespace

TEST(InverseJob, ResistiveLayerOnTrianglesWithOneParameterEachIsRecovered) {
  Survey s;
  s.electrodes = 20;
  build_survey(&s);
  std::string dir = make_run_dir();
  write_file(dir, "mesh.dat", triangle_mesh(s));
  std::string head = "Synthetic triangles\n";
  std::vector<double> d = add_noise(
      forward_data(dir, head + "0 3 3.0 0 0\n1.0\n" + triangle_regions(s, 100.0, 1.0, 3.0, 1000.0) +
                            triangle_electrodes(s),
                   forward_protocol(s)),
      0.03, 7u);
  write_file(dir, "Q5.in", head + "1 3 3.0 0 0\n1.0\n1\n1 " + std::to_string(2 * grid_cells(s)) +
                               " 100.0\n" + settings(1, 0.0, 1, 0, 8, 0, 0.03) +
                               triangle_electrodes(s));
  write_file(dir, "protocol.dat", inverse_block(s, d));
  RunResult r = run_q5_in(dir);
  ASSERT_EQ(r.console.back(), "All ok");
  int iterations = 0;
  double rms = final_rms(r.console, &iterations);
  EXPECT_TRUE(has_line(r.console, " Solution converged - Outputing results to file"));
  EXPECT_LE(iterations, 6);
  EXPECT_LE(rms, 1.1);
  double centre = value_at(model_rows(dir, "f001_res.dat"), 9.5, -2.0);
  EXPECT_GT(std::log10(centre), 2.0 + 0.5) << centre;
  std::printf("triangle layer: %d iterations, RMS %.2f, centre %.0f ohm m\n", iterations, rms, centre);
}

TEST(InverseJob, TimeLapseDifferenceShowsTheChangeWhereItWasMade) {
  Survey s;
  build_survey(&s);
  std::string dir = make_run_dir();
  const Box before{6.0, 9.0, 1.0, 3.0, 50.0}, after{6.0, 9.0, 1.0, 3.0, 40.0};
  auto data = [&](const Box& b, unsigned seed) {
    return add_noise(forward_data(dir, grid_head(s, 0, "3.0", 0, 0) + grid_regions(s, 100.0, {b}) +
                                           grid_electrodes(s),
                                  forward_protocol(s)),
                     0.001, seed);
  };
  std::vector<double> first = data(before, 1u), second = data(after, 2u);
  // The start model is the first survey's model; each block carries the
  // first survey as its reference column.
  write_file(dir, "Q5.in", grid_head(s, 1, "3.0", 0, 1) + grid_regions(s, 100.0, {before}) + "2 2\n" +
                               settings(1, 0.0, 0, 2, 8, 0, 0.003) + grid_electrodes(s));
  write_file(dir, "protocol.dat", inverse_block(s, first, &first) + inverse_block(s, second, &first));
  RunResult r = run_q5_in(dir);
  ASSERT_EQ(r.console.back(), "All ok");
  // No change at all in the first dataset: its start model fits.
  int at = find_line(r.console, "     FATAL:  Initial RMS shows solution !");
  ASSERT_NE(at, -1);
  EXPECT_EQ(r.console[at + 1], "         Your error estimates (a_wgt and b_wgt are too high)");
  EXPECT_EQ(read_text(dir, "f001_res.dat"), "");
  EXPECT_EQ(read_text(dir, "f001_err.dat"), "");
  EXPECT_TRUE(has_line(r.console, " Solution converged - Outputing results to file"));

  std::vector<ModelRow> rows = model_rows(dir, "f002_res.dat");
  std::vector<double> percent = vtk_scalar(read_text(dir, "f002_res.vtk"), "difference(percent)");
  ASSERT_EQ(percent.size(), rows.size());
  double inside = 0.0, n_inside = 0.0;
  std::vector<double> outside;
  for (size_t e = 0; e < rows.size(); ++e) {
    bool in = rows[e].x > 6.0 && rows[e].x < 9.0 && -rows[e].y > 1.0 && -rows[e].y < 3.0;
    bool far = rows[e].x < 4.0 || rows[e].x > 11.0 || -rows[e].y > 5.0;
    if (in) inside += percent[e], n_inside += 1.0;
    if (far) outside.push_back(std::fabs(percent[e]));
  }
  std::sort(outside.begin(), outside.end());
  double median_far = outside[outside.size() / 2];
  std::printf("time-lapse: mean change in the block %.1f %%, median far away %.2f %%\n",
              inside / n_inside, median_far);
  EXPECT_LT(inside / n_inside, -8.0);
  EXPECT_LT(median_far, 0.2 * std::fabs(inside / n_inside));
  // The difference table shares its channel with the iteration files: once
  // an iteration was written, it goes to the channel's default file.
  int iterations = 0;
  final_rms(slice(r.console, find_line(r.console, " Processing dataset   2"), r.console.size()), &iterations);
  std::string table = read_text(dir, "f002_diffres.dat");
  if (iterations > 1) {
    EXPECT_EQ(table, "");
    EXPECT_EQ(model_rows(dir, "fort.19").size(), rows.size());
  } else {
    EXPECT_EQ(model_rows(dir, "f002_diffres.dat").size(), rows.size());
  }
}

namespace {

// A 12-electrode survey with data of the conductive box.
struct SmallRun {
  Survey s;
  std::string dir;
  std::vector<double> d;
};

SmallRun small_run(double noise) {
  SmallRun r;
  r.s.electrodes = 12;
  build_survey(&r.s);
  r.dir = make_run_dir();
  r.d = block_data(r.dir, r.s, noise);
  return r;
}

RunResult run_inverse(SmallRun* r, const std::string& settings_text, const std::string& protocol,
                      int res_calc = 0) {
  write_file(r->dir, "Q5.in", grid_inverse(r->s, settings_text, res_calc));
  write_file(r->dir, "protocol.dat", protocol);
  return run_q5_in(r->dir);
}

}  // namespace

TEST(InverseJob, EndsOfADatasetWithTheirWordsAndFiles) {
  {  // Errors larger than the misfit of the start model: no model, the run goes on.
    SmallRun r = small_run(0.03);
    RunResult out = run_inverse(&r, settings(1, 0.0, 1, 0, 5, 0, 0.9),
                                inverse_block(r.s, r.d) + inverse_block(r.s, r.d), 2);
    ASSERT_EQ(out.console.back(), "All ok");
    Lines log = read_lines(r.dir, "Q5.out");
    for (const Lines* v : {&out.console, &log}) {
      int at = find_line(*v, "     FATAL:  Initial RMS shows solution !");
      ASSERT_NE(at, -1);
      EXPECT_EQ((*v)[at + 1], "         Your error estimates (a_wgt and b_wgt are too high)");
      EXPECT_NE(find_line(*v, "     FATAL:  Initial RMS shows solution !", at + 2), -1);
    }
    for (const char* f : {"f001_res.dat", "f001_err.dat", "f001_rad.dat", "f002_res.dat"})
      EXPECT_EQ(read_text(r.dir, f), "") << f;
  }
  {  // A target decrease that no trial reaches: the model of the last trial.
    SmallRun r = small_run(0.2);
    RunResult out = run_inverse(&r, settings(1, 0.99, 1, 0, 5, 0, 0.01), inverse_block(r.s, r.d));
    EXPECT_TRUE(has_line(out.console, " Solution failure - Outputing results to file"));
    EXPECT_EQ(model_rows(r.dir, "f001_res.dat").size(), (size_t)grid_cells(r.s));
    EXPECT_EQ(read_lines(r.dir, "f001_err.dat").size(), r.s.quads.size() + 1);
    EXPECT_FALSE(file_exists(r.dir, "f001.001_res.dat"));
  }
  {  // The iteration limit: warning on the log first, model and errors written.
    SmallRun r = small_run(0.05);
    RunResult out = run_inverse(&r, settings(1, 0.0, 1, 0, 1, 0, 0.01), inverse_block(r.s, r.d), 1);
    const std::string warning = "     WARNING: Solution not converged in   1 iterations";
    ASSERT_NE(find_line(out.console, warning), -1);
    EXPECT_EQ(out.console[find_line(out.console, warning) - 1], "");
    Lines log = read_lines(r.dir, "Q5.out");
    EXPECT_NE(find_line(log, warning), -1);
    EXPECT_EQ(read_lines(r.dir, "f001_err.dat").size(), r.s.quads.size() + 1);
    EXPECT_EQ(read_text(r.dir, "f001_sen.dat"), "");  // opened, no map without convergence
    EXPECT_FALSE(has_line(out.console, " Calculating sensitivity map"));
  }
  {  // L1 reweighting of a few outliers reaches the tolerance: converged.
    SmallRun r = small_run(0.02);
    for (size_t i = 0; i < r.d.size(); i += 9) r.d[i] *= 1.5;
    RunResult out = run_inverse(&r, settings(1, 0.0, 1, 0, 10, 2, 0.02), inverse_block(r.s, r.d));
    Lines log = read_lines(r.dir, "Q5.out");
    int at = find_line(log, "     Attempted to update data weights and caused overshoot");
    ASSERT_NE(at, -1);
    EXPECT_EQ(log[at + 1], "     treating as converged");
    EXPECT_EQ(log[at + 2], "");
    EXPECT_EQ(log[at + 3], " Solution converged - Outputing results to file");
    // The table shows the candidate weights: the outliers' weights fell.
    int changed = 0;
    for (const std::string& l : read_lines(r.dir, "f001_err.dat")) changed += l.back() == '1';
    EXPECT_GT(changed, 0);
  }
  {  // A reading that is not a number: no step improves, the step shrinks away.
    SmallRun r = small_run(0.03);
    std::string block = inverse_block(r.s, r.d);
    size_t line_end = block.find('\n', block.find('\n') + 1);
    size_t value_start = block.rfind(' ', line_end) + 1;
    block.replace(value_start, line_end - value_start, "NaN");
    RunResult out = run_inverse(&r, settings(1, 0.0, 1, 0, 5, 0, 0.03), block);
    int at = find_line(out.console, " Step length too small - Outputing results to file");
    ASSERT_NE(at, -1);
    // Every trial misfit is NaN: the first is taken, the halvings print nothing.
    EXPECT_EQ(out.console[at - 1], "     Alpha:      0.000   RMS Misfit:         NaN");
    EXPECT_FALSE(has_line(out.console, "     Final RMS Misfit:         NaN"));
    EXPECT_EQ(model_rows(r.dir, "f001_res.dat").size(), (size_t)grid_cells(r.s));
    // The model written is the one the iteration started from.
    for (const ModelRow& m : model_rows(r.dir, "f001_res.dat")) EXPECT_EQ(m.rho, 100.0);
  }
}

namespace {

// Runs q5_failing_solver, whose solver call number `call` fails with -4.
RunResult run_failing(const std::string& dir, int call) {
  std::string cmd = "cd '" + dir + "' && Q5_FAIL_SOLVER_CALL=" + std::to_string(call) + " '" +
                    Q5_FAILING_SOLVER_BINARY + "' > .console 2> .errors < /dev/null";
  int rc = std::system(cmd.c_str());
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : 128 + WTERMSIG(rc), read_lines(dir, ".console"),
          read_text(dir, ".errors")};
}

// A reading that is not a number makes every trial misfit NaN: the search
// takes its first trial and the step is then halved.
std::string block_with_nan(const Survey& s, const std::vector<double>& d) {
  std::string block = inverse_block(s, d);
  size_t line_end = block.find('\n', block.find('\n') + 1);
  size_t value_start = block.rfind(' ', line_end) + 1;
  return block.replace(value_start, line_end - value_start, "NaN");
}

}  // namespace

TEST(InverseJob, SolverFailuresEndTheDatasetOrTheRun) {
  // Two-dimensional flow with 12 electrodes: 15 solver calls per solution
  // (reordering, factorisation, 12 solves, release).
  SmallRun r = small_run(0.03);
  write_file(r.dir, "Q5.in", grid_inverse(r.s, settings(1, 0.0, 1, 0, 5, 0, 0.03), 0, "2.0"));
  write_file(r.dir, "protocol.dat", inverse_block(r.s, r.d) + inverse_block(r.s, r.d));
  // The first reordering of the first Jacobian fails; the second dataset runs.
  RunResult out = run_failing(r.dir, 1);
  ASSERT_EQ(out.console.back(), "All ok");
  int at = find_line(out.console, " Error in Pardiso call:  error flag =         -4");
  ASSERT_NE(at, -1);
  EXPECT_EQ(out.console[at + 2], "");
  EXPECT_EQ(out.console[at + 3], " Jacobian failure - Outputing results to file");
  Lines log = read_lines(r.dir, "Q5.out");
  at = find_line(log, " Reordering completed");
  ASSERT_NE(at, -1);
  EXPECT_EQ(log[at + 1], " The following error was detected         -4");
  EXPECT_NE(find_line(log, " Jacobian failure - Outputing results to file", at), -1);
  EXPECT_EQ(model_rows(r.dir, "f001_res.dat").size(), (size_t)grid_cells(r.s));
  EXPECT_EQ(read_text(r.dir, "f001_err.dat"), "");
  EXPECT_TRUE(has_line(out.console, " Processing dataset   2"));
  EXPECT_GT(read_lines(r.dir, "f002_err.dat").size(), 1u);

  // The first halving's solution fails: Jacobian and two trials make 45 calls.
  write_file(r.dir, "protocol.dat", block_with_nan(r.s, r.d));
  out = run_failing(r.dir, 46);
  ASSERT_EQ(out.console.back(), "All ok");
  EXPECT_TRUE(has_line(out.console, " Solution failure - Outputing results to file"));
  EXPECT_FALSE(has_line(out.console, " Step length too small - Outputing results to file"));
  // With K = 1 the negative dipole-dipole readings fall below rho_min; the
  // table has a line for each reading kept.
  int kept = 0;
  for (const std::string& l : out.console)
    if (l.rfind(" Measurements read:", 0) == 0) kept = std::atoi(l.c_str() + 20);
  EXPECT_GT(kept, 0);
  EXPECT_EQ(read_lines(r.dir, "f001_err.dat").size(), (size_t)kept + 1);

  // Difference inversion: the background solution fails, and so does the run.
  write_file(r.dir, "Q5.in", grid_inverse(r.s, settings(1, 0.0, 0, 2, 5, 0, 0.03), 0, "2.0"));
  write_file(r.dir, "protocol.dat", inverse_block(r.s, r.d, &r.d));
  out = run_failing(r.dir, 1);
  ASSERT_GE(out.console.size(), 3u);
  EXPECT_EQ(out.console[out.console.size() - 2], " Forward solution error using background data - exiting");
  EXPECT_EQ(out.console.back(), "FATAL error");
  EXPECT_EQ(out.exit_status, 0);
}

TEST(InverseJob, EveryInverseTypeRegularisationAndWeightUpdateRunsToAnEnd) {
  SmallRun r = small_run(0.03);
  const int npx = ((int)r.s.xs.size() - 1) / 2, npy = ((int)r.s.ys.size() - 1) / 2;
  std::string labels;  // two block labels: left and right halves uncoupled
  for (int k = 0; k < npy; ++k) {
    for (int o = 0; o < npx; ++o) labels += o < npx / 2 ? "1.0 " : "2.0 ";
    labels += "\n";
  }
  struct Case {
    const char* name;
    std::string settings;
    int res_calc;
  } cases[] = {
      {"Marquardt", settings(0, 0.0, 1, 0, 6, 0, 0.03), 0},
      {"quadratic filter", settings(2, 0.0, 1, 0, 6, 0, 0.03), 2},
      {"blocked filter", settings(4, 0.0, 1, 0, 6, 0, 0.03) + labels, 0},
      {"joint regularisation, true data", settings(1, 0.0, 0, 1, 6, 0, 0.03), 0},
      {"clipped weights", settings(1, 0.0, 1, 0, 6, 1, 0.02), 0},
      {"target decrease", settings(1, 0.5, 1, 0, 6, 0, 0.03), 1},
  };
  const std::vector<std::string> ends = {
      " Solution converged - Outputing results to file", " Solution failure - Outputing results to file",
      "     WARNING: Solution not converged in   6 iterations",
      " Step length too small - Outputing results to file"};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RunResult out = run_inverse(&r, c.settings, inverse_block(r.s, r.d), c.res_calc);
    ASSERT_EQ(out.console.back(), "All ok");
    int found = 0;
    for (const std::string& e : ends) found += has_line(out.console, e);
    EXPECT_EQ(found, 1);
    double rms = final_rms(out.console);
    std::printf("%s: final RMS %.2f\n", c.name, rms);
    EXPECT_LT(rms, 10.0);  // Marquardt damps towards 1 ohm m and fits least
    EXPECT_EQ(model_rows(r.dir, "f001_res.dat").size(), (size_t)grid_cells(r.s));
    if (c.res_calc == 2 && has_line(out.console, ends[0])) {
      EXPECT_EQ(model_rows(r.dir, "f001_rad.dat").size(), (size_t)grid_cells(r.s));
      EXPECT_TRUE(has_line(out.console, " Calculating resolution matrix"));
    }
  }

  // Qualitative: one pass, no misfit; the map's VTK text goes to fort.18.
  write_file(r.dir, "Q5.in", grid_head(r.s, 1, "3.0", 0, 0) + "1\n1 " +
                                 std::to_string(grid_cells(r.s)) + " 100.0\n2 2\n3 0.0\n0\n1e-6 1e9\n" +
                                 grid_electrodes(r.s));
  std::remove((r.dir + "/f001_err.dat").c_str());
  RunResult out = run_q5_in(r.dir);
  ASSERT_EQ(out.console.back(), "All ok");
  EXPECT_FALSE(has_line(out.console, "   Iteration   1"));
  EXPECT_FALSE(file_exists(r.dir, "f001_err.dat"));
  EXPECT_EQ(read_text(r.dir, "fort.18").rfind("# vtk DataFile Version 3.0\n", 0), 0u);
  EXPECT_EQ(model_rows(r.dir, "f001_res.dat").size(), (size_t)grid_cells(r.s));
}

// Inverse jobs end to end on data from q5's own forward job with seeded noise:
// recovery of known models (expected/recovery_<case>.txt) and the ends of a
// dataset, solver failures among them (expected/end_<case>.txt).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "support/support.h"

namespace {

// Record 8: type and target, data type and reg mode, tolerance 1, iterations,
// weight update, alpha_aniso 1 (joint weight 0.1), a_wgt 0 and b_wgt, and a
// range that passes every reading.
std::string settings(int type, double target, int data_type, int reg_mode, int iterations, int weight_update,
                     double b_wgt) {
  std::ostringstream o;
  o << type << " " << target << "\n" << data_type << " " << reg_mode << "\n1.0 " << iterations << " "
    << weight_update << " 1.0" << (reg_mode == 1 ? " 0.1" : "") << "\n0.0 " << b_wgt << " 1e-6 1e9\n";
  return o.str();
}

// Inverse control file of a survey: start model, 2 x 2 patches on a grid
// (one parameter per triangle on mesh.dat), the settings and the electrodes.
std::string inverse_control(const Survey& s, const std::string& start, const std::string& settings_text,
                            int res_calc, const char* flux = "3.0", bool triangles = false) {
  return survey_head(s, 1, flux, 0, res_calc, triangles) + start + (triangles ? "" : "2 2\n") + settings_text +
         survey_electrodes(s, triangles);
}

// Seeded noisy data of a box in 100 ohm m.
std::vector<double> box_data(const Survey& s, const Box& box, double noise, unsigned seed, bool triangles = false) {
  Files inputs = {{"Q5.in", survey_head(s, 0, "3.0", 0, 0, triangles) + survey_regions(s, 100.0, {box}, triangles) +
                                survey_electrodes(s, triangles)}};
  if (triangles) inputs.push_back({"mesh.dat", survey_mesh_dat(s)});
  return add_noise(forward_data(inputs, s), noise, seed);
}

// Values of one VTK cell scalar, in element order.
std::vector<double> vtk_scalar(const std::string& text, const std::string& name) {
  const size_t at = text.find("SCALARS " + name + " double 1\nLOOKUP_TABLE default\n");
  std::vector<double> v;
  if (at == std::string::npos) return v;
  std::istringstream line(split_lines(text.substr(at))[2]);
  for (double x; line >> x;) v.push_back(x);
  return v;
}

// ---- recovery of known models ------------------------------------------------

struct RecoveryCase {
  const char* name;
  int electrodes;
  bool triangles;
  Box before, after;  // the model of the data; a time-lapse pair when before.rho > 0
  double noise, b_wgt;
  unsigned seed;
  int res_calc, max_iterations;
  double x, depth, decades;  // the model at (x, depth) lies this far off 100 ohm m, towards `after`
  Lines whole;
};

const RecoveryCase kRecoveries[] = {
    // A 10 ohm m block on a grid, 2 x 2 cells per parameter, with the
    // sensitivity map and the matrix dumps.
    {"grid_block", 16, false, {}, {6.0, 9.0, 1.0, 3.0, 10.0}, 0.03, 0.03, 20261123u, 3, 5, 7.5, 2.0, 0.5,
     {"f001_err.dat:2", "f001_Rindex.dat:1", "f001_J.dat:1"}},
    // A 1000 ohm m layer on triangles, one parameter each.
    {"triangle_layer", 20, true, {}, {-1e9, 1e9, 1.0, 3.0, 1000.0}, 0.03, 0.03, 7u, 0, 6, 9.5, 2.0, 0.5, {}},
    // The block from 50 to 40 ohm m, inverted as a difference from the first
    // survey's model, which is the start; each block carries the first survey
    // as its reference column, so dataset 1 already fits.
    {"time_lapse", 16, false, {6.0, 9.0, 1.0, 3.0, 50.0}, {6.0, 9.0, 1.0, 3.0, 40.0}, 0.001, 0.003, 1u, 1, 8, 0, 0,
     0, {"f002_diffres.dat:3"}},
};

class Recovery : public ::testing::TestWithParam<RecoveryCase> {};

TEST_P(Recovery, AnomalyRecoveredWhereItWasMade) {
  const RecoveryCase& c = GetParam();
  const bool lapse = c.before.rho > 0.0;
  Survey s;
  s.electrodes = c.electrodes;
  build_survey(&s);
  const std::vector<Box> start = lapse ? std::vector<Box>{c.before} : std::vector<Box>{};
  Files inputs = {{"Q5.in", inverse_control(s, survey_regions(s, 100.0, start, c.triangles),
                                            settings(1, 0.0, !lapse, lapse ? 2 : 0, 8, 0, c.b_wgt), c.res_calc,
                                            "3.0", c.triangles)}};
  if (c.triangles) inputs.push_back({"mesh.dat", survey_mesh_dat(s)});
  if (lapse) {
    const std::vector<double> first = box_data(s, c.before, c.noise, c.seed), second = box_data(s, c.after, c.noise, c.seed + 1);
    inputs.push_back({"protocol.dat", survey_block(s, first, first) + survey_block(s, second, first)});
  } else {
    inputs.push_back({"protocol.dat", survey_block(s, box_data(s, c.after, c.noise, c.seed, c.triangles))});
  }
  const RunResult r = expect_run(std::string("e2e/expected/recovery_") + c.name + ".txt", inputs, c.whole);
  int iterations = 0;
  const double rms = final_rms(r.lines, &iterations);
  EXPECT_LE(iterations, c.max_iterations);
  EXPECT_LE(rms, 1.1);
  if (!lapse) {
    const double centre = value_at(model_rows(r.dir + "/f001_res.dat"), c.x, -c.depth);
    EXPECT_GT(std::log10(centre / 100.0) / std::log10(c.after.rho / 100.0), c.decades) << centre;
    std::printf("%s: %d iterations, RMS %.2f, centre %.1f ohm m\n", c.name, iterations, rms, centre);
    return;
  }
  // The change in percent: in the block, and far from it.
  const std::vector<ModelRow> rows = model_rows(r.dir + "/f002_res.dat");
  const std::vector<double> percent = vtk_scalar(read_file(r.dir + "/f002_res.vtk"), "difference(percent)");
  ASSERT_EQ(percent.size(), rows.size());
  double inside = 0.0, n_inside = 0.0;
  std::vector<double> outside;
  for (size_t e = 0; e < rows.size(); ++e) {
    const double x = rows[e].x, d = -rows[e].y;
    if (x > c.after.x0 && x < c.after.x1 && d > c.after.d0 && d < c.after.d1) inside += percent[e], n_inside += 1.0;
    if (x < 4.0 || x > 11.0 || d > 5.0) outside.push_back(std::fabs(percent[e]));
  }
  std::sort(outside.begin(), outside.end());
  const double mean = inside / n_inside, median_far = outside[outside.size() / 2];
  std::printf("time-lapse: mean change in the block %.1f %%, median far away %.2f %%\n", mean, median_far);
  EXPECT_LT(mean, -8.0);
  EXPECT_LT(median_far, 0.2 * std::fabs(mean));
}

INSTANTIATE_TEST_SUITE_P(InverseJob, Recovery, ::testing::ValuesIn(kRecoveries),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- ends of a dataset ---------------------------------------------------------

// How the block of a case is made from the data of the 12-electrode survey.
enum Block { ONE, TWICE, OUTLIERS, NAN_READING, WITH_REFERENCE };

struct EndCase {
  const char* name;
  double noise;
  std::string settings;
  int res_calc;
  Block block;
  const char* flux;
  int failing_call;  // the solver call that fails (q5_failing_solver), or 0
  Lines whole;
};

Survey small_survey() {
  Survey s;
  s.electrodes = 12;
  build_survey(&s);
  return s;
}

// Block labels of the blocked filter: the left and right halves uncoupled.
std::string block_labels(const Survey& s) {
  const int npx = (static_cast<int>(s.xs.size()) - 1) / 2, npy = (static_cast<int>(s.ys.size()) - 1) / 2;
  std::string labels;
  for (int k = 0; k < npy; ++k) {
    for (int o = 0; o < npx; ++o) labels += o < npx / 2 ? "1.0 " : "2.0 ";
    labels += "\n";
  }
  return labels;
}

std::vector<EndCase> end_cases() {
  const std::string plain = settings(1, 0.0, 1, 0, 5, 0, 0.03);
  return {
      // Errors larger than the misfit of the start model: no model, the run goes on.
      {"initial_rms_solution", 0.03, settings(1, 0.0, 1, 0, 5, 0, 0.9), 2, TWICE, "3.0", 0, {}},
      // A target decrease that no trial reaches: the model of the last trial.
      {"target_unreached", 0.2, settings(1, 0.99, 1, 0, 5, 0, 0.01), 0, ONE, "3.0", 0, {}},
      // The iteration limit: a warning, model and errors written, no map.
      {"iteration_limit", 0.05, settings(1, 0.0, 1, 0, 1, 0, 0.01), 1, ONE, "3.0", 0, {}},
      // L1 reweighting of a few outliers overshoots: taken as converged; the
      // table shows the candidate weights (reading 1 is an outlier).
      {"weights_overshoot", 0.02, settings(1, 0.0, 1, 0, 10, 2, 0.02), 0, OUTLIERS, "3.0", 0, {"f001_err.dat:2"}},
      // A reading that is not a number: every trial misfit is NaN, the first
      // is taken, the halvings print nothing, and the model written is the
      // one the iteration started from.
      {"step_too_small", 0.03, plain, 0, NAN_READING, "3.0", 0, {"f001_res.dat:3"}},
      // Every inverse type, regularisation and weight update runs to an end.
      {"marquardt", 0.03, settings(0, 0.0, 1, 0, 6, 0, 0.03), 0, ONE, "3.0", 0, {}},
      {"quadratic_filter", 0.03, settings(2, 0.0, 1, 0, 6, 0, 0.03), 2, ONE, "3.0", 0, {}},
      {"blocked_filter", 0.03, settings(4, 0.0, 1, 0, 6, 0, 0.03) + block_labels(small_survey()), 0, ONE, "3.0", 0, {}},
      {"joint_true_data", 0.03, settings(1, 0.0, 0, 1, 6, 0, 0.03), 0, ONE, "3.0", 0, {"f001_err.dat:2"}},
      {"clipped_weights", 0.03, settings(1, 0.0, 1, 0, 6, 1, 0.02), 0, ONE, "3.0", 0, {}},
      {"target_decrease", 0.03, settings(1, 0.5, 1, 0, 6, 0, 0.03), 1, ONE, "3.0", 0, {}},
      // Qualitative: one pass, no misfit; the map's VTK text goes to fort.18.
      {"qualitative", 0.03, "3 0.0\n0\n1e-6 1e9\n", 0, ONE, "3.0", 0, {"fort.18:1"}},
      // Two-dimensional flow with 12 electrodes: 15 solver calls per solution
      // (reordering, factorisation, 12 solves, release). The first
      // reordering of the first Jacobian fails; the second dataset runs.
      {"jacobian_failure", 0.03, plain, 0, TWICE, "2.0", 1, {}},
      // The first halving's solution fails: the Jacobian and two trials make 45 calls.
      {"halving_failure", 0.03, plain, 0, NAN_READING, "2.0", 46, {}},
      // Difference inversion: the background solution fails, and so does the run.
      {"background_failure", 0.03, settings(1, 0.0, 0, 2, 5, 0, 0.03), 0, WITH_REFERENCE, "2.0", 1, {}},
  };
}

class DatasetEnd : public ::testing::TestWithParam<EndCase> {};

TEST_P(DatasetEnd, WordsStreamsAndFilesAsExpected) {
  const EndCase& c = GetParam();
  const Survey s = small_survey();
  std::vector<double> d = box_data(s, {6.0, 9.0, 1.0, 3.0, 10.0}, c.noise, 20261123u);
  if (c.block == OUTLIERS)
    for (size_t i = 0; i < d.size(); i += 9) d[i] *= 1.5;
  std::string block = survey_block(s, d, c.block == WITH_REFERENCE ? d : std::vector<double>{});
  if (c.block == NAN_READING) {
    const size_t end = block.find('\n', block.find('\n') + 1), value = block.rfind(' ', end) + 1;
    block.replace(value, end - value, "NaN");
  }
  expect_run(std::string("e2e/expected/end_") + c.name + ".txt",
             {{"Q5.in", inverse_control(s, survey_regions(s, 100.0, {}), c.settings, c.res_calc, c.flux)},
              {"protocol.dat", c.block == TWICE ? block + block : block}},
             c.whole, c.failing_call);
}

INSTANTIATE_TEST_SUITE_P(InverseJob, DatasetEnd, ::testing::ValuesIn(end_cases()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

// ---- a failing solver on several threads -----------------------------------------

// Thread t of T solves the wavenumbers t, t + T, ..., and the failing build
// fails the same call number in every thread, so each thread fails in its
// own wavenumber of the same solution. The run must read as the one-thread
// run whose failure falls on the first of them in wavenumber order: with 12
// electrodes a wavenumber makes 15 calls (reordering, factorisation, 12
// solves, release), so call r + 1 of a thread's wavenumber q is call
// (T q) 15 + r + 1 of one thread. A failed run that reported a later
// wavenumber too, or the wrong one, or added the terms after the failure,
// reads differently.
struct ThreadFailure {
  const char* name;
  int threads, q, r;  // r: 0 reordering, 1 factorisation, 2..13 solves, 14 release
  bool forward;
};

class FailureOnThreads : public ::testing::TestWithParam<ThreadFailure> {};

TEST_P(FailureOnThreads, ReadsAsTheFirstFailureOnOneThread) {
  const ThreadFailure& c = GetParam();
  const Survey s = small_survey();
  const std::vector<double> d = box_data(s, {6.0, 9.0, 1.0, 3.0, 10.0}, 0.03, 20261123u);
  const std::string head = survey_head(s, c.forward ? 0 : 1, "3.0", 0, 0);
  const Files inputs =
      c.forward ? Files{{"Q5.in", head + survey_regions(s, 100.0, {{6.0, 9.0, 1.0, 3.0, 10.0}}) + survey_electrodes(s)},
                        {"protocol.dat", survey_block(s)}}
                : Files{{"Q5.in", inverse_control(s, survey_regions(s, 100.0, {}),
                                                  settings(1, 0.0, 1, 0, 5, 0, 0.03), 0, "3.0")},
                        {"protocol.dat", survey_block(s, d) + survey_block(s, d)}};
  const RunResult one = run_q5_on_threads(inputs, "1", c.threads * c.q * 15 + c.r + 1);
  const RunResult many = run_q5_on_threads(inputs, std::to_string(c.threads), c.q * 15 + c.r + 1);
  ASSERT_EQ(std::count(one.lines.begin(), one.lines.end(), " Error in Pardiso call:  error flag =         -4"), 1)
      << one.console;
  expect_same_runs(one, many, std::to_string(c.threads) + " threads");
}

const ThreadFailure kThreadFailures[] = {
    // The first Jacobian: all threads fail their first reordering; the
    // first wavenumber's failure alone is told.
    {"reordering_first_round", 2, 0, 0, false},
    {"factorisation_three_threads", 3, 0, 1, false},
    // Later rounds: the terms of the rounds before are in J and the data.
    {"solve_second_round", 2, 1, 5, false},
    {"factorisation_third_round", 2, 2, 1, false},
    {"release_first_round", 2, 0, 14, false},
    // The forward job: its one solution fails in the third wavenumber.
    {"forward_solve", 2, 1, 2, true},
};

INSTANTIATE_TEST_SUITE_P(InverseJob, FailureOnThreads, ::testing::ValuesIn(kThreadFailures),
                         [](const auto& info) { return std::string(info.param.name); });

// Tests of the PARDISO adapter and the forward loop: potentials against a
// dense solve, reciprocity, the solver's states and error words, the element
// store's bit-identity and a grid of over 20,000 nodes.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "core_test_util.h"
#include "data/measurement_set.h"
#include "forward/forward.h"
#include "mesh/mesh_model.h"
#include "run/timers.h"
#include "textio/textio.h"

namespace {

using core_test::ScratchDir;
const double eps = std::numeric_limits<double>::epsilon();
const std::string address = "q5-maintainers@q5-resistivity.org";

struct Problem {
  MeshModel mesh;
  int p;
  ConductanceMatrix cm;
  std::vector<double> lc;
};

// A grid of uneven spacing or a triangulated jittered lattice, random
// resistivities of 3 to 55 ohm m; pattern built, node 1 pinned.
void make_problem(std::mt19937& rng, bool quads, int nx, int ny, Problem* pr) {
  if (quads) {
    std::vector<double> xs(nx), ys(ny);
    for (int i = 0; i < nx; ++i) xs[i] = i * 1.5 + (i % 3) * 0.25;
    for (int j = 0; j < ny; ++j) ys[j] = j * (0.5 + 0.1 * j);
    pr->mesh = core_test::make_grid(xs, ys);
  } else {
    pr->mesh = core_test::make_random_mesh(rng, nx, ny, 0, false, false);
  }
  pr->p = quads ? 4 : 3;
  std::uniform_real_distribution<double> logc(-4.0, -1.0);
  pr->lc.resize(pr->mesh.num_elements);
  for (double& v : pr->lc) v = logc(rng);
  testing::internal::CaptureStdout();
  core_test::build_pattern(pr->mesh, pr->p, &pr->cm);
  testing::internal::GetCapturedStdout();
}

double max_abs(const std::vector<double>& v) {
  double m = 0.0;
  for (double x : v) m = std::max(m, std::fabs(x));
  return m;
}

// Secondary-potential right-hand side -(A(s) - A(sigma_0)) v_p, dense.
std::vector<double> dense_secondary_rhs(const Problem& pr, double k, double sigma_0,
                                        const std::vector<double>& vp) {
  const std::size_t n = pr.mesh.num_nodes;
  std::vector<double> uniform(pr.mesh.num_elements, std::log(sigma_0));
  const std::vector<double> a = core_test::dense_matrix(pr.mesh, pr.p, pr.lc, k, false);
  const std::vector<double> a0 = core_test::dense_matrix(pr.mesh, pr.p, uniform, k, false);
  std::vector<double> rhs(n, 0.0);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j) rhs[i] -= (a[i * n + j] - a0[i * n + j]) * vp[j];
  return rhs;
}

TEST(PardisoAdapter, PotentialsMatchDenseSolve) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  std::mt19937 rng(4242);
  for (int shape = 0; shape < 2; ++shape) {
    Problem pr;
    make_problem(rng, shape == 1, shape == 1 ? 9 : 8, 6, &pr);
    const int n = pr.mesh.num_nodes;
    const std::vector<int> sources = {n / 2, 3, n, 3};
    std::vector<double> rhs(n), vp(n), result(n);
    for (double k : {0.0, 0.45}) {
      const std::vector<double> a = core_test::dense_matrix(pr.mesh, pr.p, pr.lc, k, true);
      const double cond = core_test::scaled_condition(a, n);
      for (int singular = 0; singular <= 1; ++singular) {
        const double sigma_0 = 0.07;
        for (std::size_t c = 0; c < sources.size(); ++c) {
          const int s = sources[c];
          // A smooth stand-in for the primary potential, 0 at the source.
          for (int i = 0; i < n; ++i) {
            const double dx = pr.mesh.node_x[i] - pr.mesh.node_x[s - 1];
            const double dy = pr.mesh.node_y[i] - pr.mesh.node_y[s - 1];
            vp[i] = i == s - 1 ? 0.0 : 1.0 / std::sqrt(dx * dx + dy * dy + 0.3);
          }
          // The right-hand side is cleared by every call, also on reuse.
          for (double& v : rhs) v = 1e30;
          int error = 99;
          solve_wavenumber(pr.mesh, pr.p, pr.lc.data(), &pr.cm, rhs.data(), vp.data(),
                           result.data(), s, k, sigma_0, singular == 1, c > 0,
                           c + 1 == sources.size(), &error);
          ASSERT_EQ(error, 0);
          // The right-hand side stays as it was built: e_s, or the secondary
          // one summed element by element, ((ae * (s - sigma_0)) * vp) over j.
          std::vector<double> literal(n, 0.0);
          if (singular == 0) {
            literal[s - 1] = 1.0;
          } else {
            double ae[25];
            for (int e = 0; e < pr.mesh.num_elements; ++e) {
              const int* nodes = &pr.mesh.element_nodes[4 * e];
              element_matrix(ae, pr.mesh.node_x.data(), pr.mesh.node_y.data(), nodes, pr.p, k);
              const double cond_e = std::exp(pr.lc[e]);
              for (int i = 0; i < pr.p; ++i) {
                double sum = 0.0;
                for (int j = 0; j < pr.p; ++j) sum += ae[i + 5 * j] * (cond_e - sigma_0) * vp[nodes[j] - 1];
                literal[nodes[i] - 1] -= sum;
              }
            }
          }
          EXPECT_EQ(rhs, literal);
          std::vector<double> ref;
          if (singular == 0) {
            std::vector<double> b(n, 0.0);
            b[s - 1] = 1.0;
            ref = core_test::dense_solve(a, b);
          } else {
            ref = core_test::dense_solve(a, dense_secondary_rhs(pr, k, sigma_0, vp));
            for (int i = 0; i < n; ++i) ref[i] += vp[i];
          }
          // Backward-stable solves of the scaled system differ by a small
          // multiple of eps times its condition, relative to the largest value.
          const double scale = std::max(max_abs(ref), max_abs(vp));
          for (int i = 0; i < n; ++i) {
            EXPECT_NEAR(result[i], ref[i], 64.0 * eps * cond * scale)
                << "shape " << shape << " k " << k << " singular " << singular << " node " << i + 1;
          }
        }
      }
    }
  }
  // A good run writes no stage record or anything else to the log.
  tio_close(CH_LOG);
  EXPECT_EQ(core_test::read_file("Q5.out"), "");
}

// Runs pardiso_report with the console captured; returns the console text.
std::string report_console(int code) {
  testing::internal::CaptureStdout();
  pardiso_report(code);
  return testing::internal::GetCapturedStdout();
}

TEST(PardisoAdapter, ErrorWords) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  const std::string head = " Error in Pardiso call:  error flag = ";
  const std::string memory = head + "        -2\n Not enough memory for Pardiso call\n";
  const std::string ooc = head +
      "        -9\n Not enough out of core memory for Pardiso call - Increase out of core "
      "memory available by typing SET MKL_PARDISO_OOC_MAX_CORE_SIZE = N\n"
      "  at the command line, where N is memory available in Mb (default is 2000Mb)\n";
  const std::string open_files = head +
      "       -10\n Problems opening Pardiso out of core memory files - check disk space\n";
  const std::string rw = head +
      "       -11\n Read/write problems with Pardiso out of core memory files - check disk "
      "area for conflicts\n";
  const std::string other = head + "        -4\n Error in Pardiso call -report error flag to " + address + "\n";
  const std::string positive = head + "         5\n Error in Pardiso call -report error flag to " + address + "\n";
  EXPECT_EQ(report_console(-2), memory);
  EXPECT_EQ(report_console(-9), ooc);
  EXPECT_EQ(report_console(-10), open_files);
  EXPECT_EQ(report_console(-11), rw);
  EXPECT_EQ(report_console(-4), other);
  EXPECT_EQ(report_console(5), positive);
  tio_close(CH_LOG);
  EXPECT_EQ(core_test::read_file("Q5.out"), memory + ooc + open_files + rw + other + positive);

  // A system of no nodes is refused at the reordering (code -1): stage record
  // and code on the log only, the report on both; no release.
  std::remove("Q5.out");
  tio_open(CH_LOG, "Q5.out");
  MeshModel empty;
  empty.num_nodes = 0;
  empty.num_elements = 0;
  empty.element_nodes.assign(1, 1);
  ConductanceMatrix cm;
  cm.num_entries = 0;
  cm.matrix_row_start.assign(1, 1);
  cm.matrix_columns.assign(1, 0);
  cm.matrix_values.assign(1, 0.0);
  cm.matrix_permutation.assign(1, 0);
  cm.element_matrices_k = std::numeric_limits<double>::quiet_NaN();
  double rhs[1], vp[1], result[1];
  int error = 0;
  testing::internal::CaptureStdout();
  solve_wavenumber(empty, 3, nullptr, &cm, rhs, vp, result, 1, 0.0, 0.0, false, false, true,
                   &error);
  const std::string console = testing::internal::GetCapturedStdout();
  EXPECT_EQ(error, -1);
  const std::string report = head + "        -1\n Error in Pardiso call -report error flag to " + address + "\n";
  EXPECT_EQ(console, report);
  tio_close(CH_LOG);
  EXPECT_EQ(core_test::read_file("Q5.out"),
            " Reordering completed\n The following error was detected         -1\n" + report);

  // The forward loop stops at the first failure with the code and its sums
  // still at 0; the words come once.
  std::remove("Q5.out");
  tio_open(CH_LOG, "Q5.out");
  ElectrodeTable table;
  table.num_electrodes = 2;
  table.electrode_nodes = {1, 1};
  table.electrode_ids = {1, 2};
  MeasurementSet ms;
  ms.num_measurements = 2;
  ms.elec_a = {1, 2};
  ms.elec_b = {2, 1};
  ms.elec_m = {1, 2};
  ms.elec_n = {2, 1};
  ForwardWork work;
  work.right_hand_side.resize(1);
  work.primary_potential.resize(1);
  work.potentials.resize(2);
  const double ks[2] = {0.1, 0.2}, ws[2] = {1.0, 1.0};
  double tr[2] = {5.0, 5.0};
  int failed = 0;
  testing::internal::CaptureStdout();
  forward_solve(empty, 3, &cm, table, ms, nullptr, ks, ws, 2, 3.0, false, &work, tr, &failed);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), report);
  EXPECT_EQ(failed, -1);
  EXPECT_EQ(tr[0], 0.0);
  EXPECT_EQ(tr[1], 0.0);
  tio_close(CH_LOG);
  EXPECT_EQ(core_test::read_file("Q5.out"),
            " Reordering completed\n The following error was detected         -1\n" + report);

  // After a failure the next reordering starts from a zeroed handle.
  std::mt19937 rng(1);
  Problem pr;
  make_problem(rng, true, 5, 4, &pr);
  std::vector<double> r(pr.mesh.num_nodes), v(pr.mesh.num_nodes), x(pr.mesh.num_nodes);
  solve_wavenumber(pr.mesh, 4, pr.lc.data(), &pr.cm, r.data(), v.data(), x.data(), 7, 0.0, 0.0,
                   false, false, true, &error);
  EXPECT_EQ(error, 0);
  EXPECT_GT(x[6], 0.0);
}

// Solves in a child process whose address space is capped `cap_mb` above
// what it uses; returns the child's PARDISO code (or 1000 if it died).
int solve_with_memory_cap(Problem* pr, int cap_mb) {
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    std::ifstream status("/proc/self/status");
    std::string line;
    long vm_kb = 0;
    while (std::getline(status, line))
      if (line.rfind("VmSize:", 0) == 0) vm_kb = std::stol(line.substr(7));
    const int n = pr->mesh.num_nodes;
    std::vector<double> rhs(n), vp(n), x(n);
    std::freopen("console.txt", "w", stdout);
    rlimit rl;
    getrlimit(RLIMIT_AS, &rl);
    rl.rlim_cur = (vm_kb + cap_mb * 1024L) * 1024L;
    setrlimit(RLIMIT_AS, &rl);
    int error = 0;
    solve_wavenumber(pr->mesh, 4, pr->lc.data(), &pr->cm, rhs.data(), vp.data(), x.data(), 5,
                     0.2, 0.0, false, false, true, &error);
    std::fflush(stdout);
    std::_Exit(error == 0 ? 0 : (error == -2 ? 2 : 3));
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status)) return 1000;
  const int code = WEXITSTATUS(status);
  return code == 0 ? 0 : (code == 2 ? -2 : 1000 + code);
}

// Memory exhaustion: with the address space capped the reordering, or with
// a little more room the factorisation, fails with -2. Each stage gives its
// own record; a cap with room enough succeeds and writes nothing.
TEST(PardisoAdapter, OutOfMemoryIsReported) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer maps address space of its own: a cap on it says nothing";
#endif
  ScratchDir dir;
  std::mt19937 rng(2);
  Problem pr;
  make_problem(rng, true, 160, 150, &pr);
  // A first small solve loads the solver's libraries before any cap.
  {
    Problem small;
    make_problem(rng, true, 4, 4, &small);
    std::vector<double> r(16), v(16), x(16);
    int error = 0;
    solve_wavenumber(small.mesh, 4, small.lc.data(), &small.cm, r.data(), v.data(), x.data(), 2,
                     0.0, 0.0, false, false, true, &error);
    ASSERT_EQ(error, 0);
  }
  const std::string report = " Error in Pardiso call:  error flag =         -2\n"
                             " Not enough memory for Pardiso call\n";
  const std::string code = " The following error was detected         -2\n";
  int stage_seen[3] = {0, 0, 0};  // reordering, factorisation, success
  int last_stage = 0;
  for (int cap = 2; cap <= 200 && stage_seen[2] == 0; cap += 2) {
    std::remove("Q5.out");
    tio_open(CH_LOG, "Q5.out");
    const int error = solve_with_memory_cap(&pr, cap);
    tio_close(CH_LOG);
    const std::string log = core_test::read_file("Q5.out");
    const std::string console = core_test::read_file("console.txt");
    int stage;
    if (error == 0) {
      stage = 2;
      EXPECT_EQ(log, "");
      EXPECT_EQ(console, "");
    } else {
      ASSERT_EQ(error, -2) << "cap " << cap << " MB";
      stage = log.rfind(" Reordering completed\n", 0) == 0 ? 0 : 1;
      EXPECT_EQ(log, (stage == 0 ? " Reordering completed\n" : " Factorisation completed\n") + code + report);
      EXPECT_EQ(console, report);
    }
    EXPECT_GE(stage, last_stage) << "cap " << cap << " MB";  // more room, later stage
    last_stage = stage;
    ++stage_seen[stage];
  }
  EXPECT_GT(stage_seen[0], 0);
  EXPECT_GT(stage_seen[1], 0);
  EXPECT_GT(stage_seen[2], 0);
}

// Electrodes along the top row of a grid and a set of measurements with
// their reciprocals (current and potential pairs swapped).
struct Survey {
  ElectrodeTable table;
  MeasurementSet ms;
};

void make_survey(int ny, int electrodes, int step, Survey* sv) {
  sv->table.num_electrodes = electrodes;
  sv->table.electrode_nodes.clear();
  sv->table.electrode_ids.clear();
  for (int e = 0; e < electrodes; ++e) {
    sv->table.electrode_nodes.push_back(1 + (2 + e * step) * ny);  // top of column 3 + e*step
    sv->table.electrode_ids.push_back(10 + e);
  }
  MeasurementSet& ms = sv->ms;
  ms.elec_a.clear();
  ms.elec_b.clear();
  ms.elec_m.clear();
  ms.elec_n.clear();
  for (int a = 1; a + 3 <= electrodes; ++a) {
    for (int sep = 1; a + 1 + sep + 1 <= electrodes && sep <= 3; ++sep) {
      const int b = a + 1, m = b + sep, n = m + 1;
      ms.elec_a.push_back(a); ms.elec_b.push_back(b); ms.elec_m.push_back(m); ms.elec_n.push_back(n);
      ms.elec_a.push_back(m); ms.elec_b.push_back(n); ms.elec_m.push_back(a); ms.elec_n.push_back(b);
    }
  }
  // Two electrodes of one measurement on the same node (m = a).
  ms.elec_a.push_back(1); ms.elec_b.push_back(electrodes);
  ms.elec_m.push_back(1); ms.elec_n.push_back(2);
  ms.num_measurements = static_cast<int>(ms.elec_a.size());
}

void size_work(int n, int electrodes, ForwardWork* w) {
  w->right_hand_side.resize(n);
  w->primary_potential.resize(n);
  w->potentials.resize(static_cast<std::size_t>(n) * electrodes);
}

TEST(ForwardLoop, MatchesDenseSumAndIsReciprocal) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  std::mt19937 rng(77);
  const int nx = 14, ny = 6;
  Problem pr;
  make_problem(rng, true, nx, ny, &pr);
  const int n = pr.mesh.num_nodes;
  Survey sv;
  make_survey(ny, 8, 1, &sv);
  ForwardWork work;
  size_work(n, 8, &work);
  const double ks[3] = {0.02, 0.3, 1.1}, ws[3] = {0.4, 0.25, 0.1};
  for (double flux : {2.0, 3.0}) {
    const int nk = flux <= 2.0 ? 1 : 3;
    std::vector<double> tr(sv.ms.num_measurements, 7.0);
    int failed = 5;
    // With flux 2.0 the table does not matter: NaN would show through.
    const double nan_k[1] = {std::numeric_limits<double>::quiet_NaN()};
    forward_solve(pr.mesh, 4, &pr.cm, sv.table, sv.ms, pr.lc.data(), flux <= 2.0 ? nan_k : ks,
                  flux <= 2.0 ? nan_k : ws, nk, flux, false, &work, tr.data(), &failed);
    ASSERT_EQ(failed, 0);
    std::vector<double> ref(sv.ms.num_measurements, 0.0);
    double bound = 0.0;
    for (int j = 0; j < nk; ++j) {
      const double k = flux <= 2.0 ? 0.0 : ks[j], w = flux <= 2.0 ? 1.0 : ws[j];
      const std::vector<double> a = core_test::dense_matrix(pr.mesh, 4, pr.lc, k, true);
      const double cond = core_test::scaled_condition(a, n);
      std::vector<std::vector<double>> v(8);
      double vmax = 0.0;
      for (int c = 0; c < 8; ++c) {
        std::vector<double> b(n, 0.0);
        b[sv.table.electrode_nodes[c] - 1] = 1.0;
        v[c] = core_test::dense_solve(a, b);
        vmax = std::max(vmax, max_abs(v[c]));
      }
      for (int i = 0; i < sv.ms.num_measurements; ++i) {
        const int pm = sv.table.electrode_nodes[sv.ms.elec_m[i] - 1] - 1;
        const int pn = sv.table.electrode_nodes[sv.ms.elec_n[i] - 1] - 1;
        const std::vector<double>& va = v[sv.ms.elec_a[i] - 1];
        const std::vector<double>& vb = v[sv.ms.elec_b[i] - 1];
        ref[i] += w * (((va[pm] - vb[pm]) - va[pn]) + vb[pn]);
      }
      // Four potentials, each within 64 eps cond of the largest.
      bound += std::fabs(w) * 4.0 * 64.0 * eps * cond * vmax;
    }
    for (int i = 0; i < sv.ms.num_measurements; ++i) {
      EXPECT_NEAR(tr[i], ref[i], bound) << "flux " << flux << " measurement " << i;
      EXPECT_GT(std::fabs(tr[i]), 1000.0 * bound);
    }
    for (int i = 0; i + 1 < sv.ms.num_measurements; i += 2)
      EXPECT_NEAR(tr[i], tr[i + 1], 2.0 * bound) << "reciprocal pair " << i;
    // One wavenumber: each sum is the bracket of the potential columns, in
    // its order, times the weight.
    if (nk == 1) {
      for (int i = 0; i < sv.ms.num_measurements; ++i) {
        const int pm = sv.table.electrode_nodes[sv.ms.elec_m[i] - 1] - 1;
        const int pn = sv.table.electrode_nodes[sv.ms.elec_n[i] - 1] - 1;
        const double* va = &work.potentials[(sv.ms.elec_a[i] - 1) * static_cast<std::size_t>(n)];
        const double* vb = &work.potentials[(sv.ms.elec_b[i] - 1) * static_cast<std::size_t>(n)];
        EXPECT_EQ(tr[i], 1.0 * (((va[pm] - vb[pm]) - va[pn]) + vb[pn]));
      }
      const double one_k[1] = {0.4}, one_w[1] = {0.3};
      std::vector<double> tr3(sv.ms.num_measurements);
      forward_solve(pr.mesh, 4, &pr.cm, sv.table, sv.ms, pr.lc.data(), one_k, one_w, 1, 3.0,
                    false, &work, tr3.data(), &failed);
      ASSERT_EQ(failed, 0);
      for (int i = 0; i < sv.ms.num_measurements; ++i) {
        const int pm = sv.table.electrode_nodes[sv.ms.elec_m[i] - 1] - 1;
        const int pn = sv.table.electrode_nodes[sv.ms.elec_n[i] - 1] - 1;
        const double* va = &work.potentials[(sv.ms.elec_a[i] - 1) * static_cast<std::size_t>(n)];
        const double* vb = &work.potentials[(sv.ms.elec_b[i] - 1) * static_cast<std::size_t>(n)];
        EXPECT_EQ(tr3[i], 0.3 * (((va[pm] - vb[pm]) - va[pn]) + vb[pn]));
      }
    }
    // The last column is the last electrode's potential at this wavenumber.
    const int last_node = sv.table.electrode_nodes[7];
    EXPECT_GT(work.potentials[7 * static_cast<std::size_t>(n) + last_node - 1], 0.0);
  }

  // One electrode: the single call assembles, solves and releases; a second
  // call starts afresh.
  Survey single;
  single.table.num_electrodes = 1;
  single.table.electrode_nodes = {sv.table.electrode_nodes[2]};
  single.table.electrode_ids = {1};
  single.ms.num_measurements = 1;
  single.ms.elec_a = {1};
  single.ms.elec_b = {1};
  single.ms.elec_m = {1};
  single.ms.elec_n = {1};
  for (int round = 0; round < 2; ++round) {
    double tr = 3.0;
    int failed = 1;
    forward_solve(pr.mesh, 4, &pr.cm, single.table, single.ms, pr.lc.data(), ks, ws, 3, 3.0,
                  false, &work, &tr, &failed);
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(tr, 0.0);  // a - b and m - n on the same electrode cancel exactly
    const std::vector<double> a = core_test::dense_matrix(pr.mesh, 4, pr.lc, ks[2], true);
    std::vector<double> b(n, 0.0);
    b[single.table.electrode_nodes[0] - 1] = 1.0;
    const std::vector<double> ref = core_test::dense_solve(a, b);
    const double cond = core_test::scaled_condition(a, n);
    for (int i = 0; i < n; ++i)
      EXPECT_NEAR(work.potentials[i], ref[i], 64.0 * eps * cond * max_abs(ref));
  }
  tio_close(CH_LOG);
  EXPECT_EQ(core_test::read_file("Q5.out"), "");
}

// One assembly per wavenumber, one solve per electrode, seen through the
// phase counts of the timing report.
TEST(ForwardLoop, PhaseCounts) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  std::mt19937 rng(9);
  Problem pr;
  make_problem(rng, true, 12, 5, &pr);
  Survey sv;
  make_survey(5, 5, 2, &sv);
  ForwardWork work;
  size_work(pr.mesh.num_nodes, 5, &work);
  const double ks[3] = {0.1, 0.5, 1.0}, ws[3] = {0.3, 0.2, 0.1};
  std::vector<double> tr(sv.ms.num_measurements);
  int failed = 1;
  timer("init");
  forward_solve(pr.mesh, 4, &pr.cm, sv.table, sv.ms, pr.lc.data(), ks, ws, 3, 3.0, true, &work,
                tr.data(), &failed);
  timer("stop");
  ASSERT_EQ(failed, 0);
  timer_report();
  tio_close(CH_LOG);
  const std::string log = core_test::read_file("Q5.out");
  EXPECT_NE(log.find("     Number of calls to form element equations:         3\n"), std::string::npos) << log;
  EXPECT_NE(log.find("     Number of calls to solve forward equations:       15\n"), std::string::npos) << log;
}

// The element store and the position map against per-element recomputation
// and the column search: the same additions in the same order, so the same
// bits.
TEST(ForwardLoop, ElementStoreIsBitIdentical) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  std::mt19937 rng(123);
  for (int shape = 0; shape < 2; ++shape) {
    const bool quads = shape == 1;
    const int nx = 12, ny = 7;
    Problem pr;
    make_problem(rng, quads, nx, ny, &pr);
    const int n = pr.mesh.num_nodes;
    Survey sv;
    make_survey(ny, 5, 2, &sv);
    if (!quads) {
      // Electrodes on lattice nodes of the shuffled mesh: any distinct nodes.
      for (int e = 0; e < 5; ++e) sv.table.electrode_nodes[e] = 1 + (e * 13) % n;
    }
    ConductanceMatrix plain = pr.cm;
    plain.element_matrices.clear();
    plain.element_positions.clear();
    ForwardWork w1, w2;
    size_work(n, 5, &w1);
    size_work(n, 5, &w2);
    const double ks[4] = {0.05, 0.05, 0.8, 0.0}, ws[4] = {0.3, 0.2, 0.1, 0.05};
    for (int model = 0; model < 2; ++model) {
      for (int singular = 0; singular <= 1; ++singular) {
        std::vector<double> t1(sv.ms.num_measurements), t2(sv.ms.num_measurements);
        int f1 = 1, f2 = 1;
        forward_solve(pr.mesh, pr.p, &pr.cm, sv.table, sv.ms, pr.lc.data(), ks, ws, 4, 3.0,
                      singular == 1, &w1, t1.data(), &f1);
        forward_solve(pr.mesh, pr.p, &plain, sv.table, sv.ms, pr.lc.data(), ks, ws, 4, 3.0,
                      singular == 1, &w2, t2.data(), &f2);
        ASSERT_EQ(f1, 0);
        ASSERT_EQ(f2, 0);
        EXPECT_EQ(t1, t2) << "shape " << shape << " singular " << singular;
        EXPECT_EQ(w1.potentials, w2.potentials);
        EXPECT_EQ(pr.cm.matrix_values, plain.matrix_values);
        for (double v : t1) EXPECT_TRUE(std::isfinite(v));
      }
      for (double& v : pr.lc) v += 0.5;  // a new model, the same geometry
    }
  }
  tio_close(CH_LOG);
  EXPECT_EQ(core_test::read_file("Q5.out"), "");
}

// Over 20,000 nodes with wavenumbers of three-dimensional flow: the solver
// must run (sequential library layer) and give finite, reciprocal results.
TEST(ForwardLoop, LargeGrid) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  const int nx = 150, ny = 140;
  std::vector<double> xs(nx), ys(ny);
  for (int i = 0; i < nx; ++i) xs[i] = i * 0.5;
  for (int j = 0; j < ny; ++j) ys[j] = j * 0.25 + 0.002 * j * j;
  Problem pr;
  pr.mesh = core_test::make_grid(xs, ys);
  pr.p = 4;
  pr.lc.resize(pr.mesh.num_elements);
  for (int e = 0; e < pr.mesh.num_elements; ++e) {
    const int col = e / (ny - 1), row = e % (ny - 1);
    const bool block = col > 60 && col < 90 && row > 10 && row < 40;
    pr.lc[e] = block ? -std::log(5.0) : (row < 20 ? -std::log(100.0) : -std::log(30.0));
  }
  const auto t0 = std::chrono::steady_clock::now();
  testing::internal::CaptureStdout();
  core_test::build_pattern(pr.mesh, 4, &pr.cm);
  testing::internal::GetCapturedStdout();
  const auto t1 = std::chrono::steady_clock::now();
  const int n = pr.mesh.num_nodes;
  ASSERT_GE(n, 20000);
  Survey sv;
  make_survey(ny, 24, 5, &sv);
  ForwardWork work;
  size_work(n, 24, &work);
  const double ks[6] = {0.0031, 0.012, 0.047, 0.18, 0.62, 2.1};
  const double ws[6] = {0.0095, 0.021, 0.048, 0.11, 0.25, 0.55};
  std::vector<double> tr(sv.ms.num_measurements);
  int failed = 1;
  forward_solve(pr.mesh, 4, &pr.cm, sv.table, sv.ms, pr.lc.data(), ks, ws, 6, 3.0, false, &work,
                tr.data(), &failed);
  const auto t2 = std::chrono::steady_clock::now();
  ASSERT_EQ(failed, 0);
  double largest = 0.0;
  for (double v : tr) {
    EXPECT_TRUE(std::isfinite(v));
    largest = std::max(largest, std::fabs(v));
  }
  EXPECT_GT(largest, 0.0);
  // Reciprocal pairs agree to the solver's accuracy on the scaled system:
  // its condition grows with the square of the nodes along a side times the
  // conductivity contrast (20), far below 1e-6 / eps.
  const double tol = 64.0 * eps * double(nx) * nx * 20.0 * largest;
  for (int i = 0; i + 1 < sv.ms.num_measurements; i += 2)
    EXPECT_NEAR(tr[i], tr[i + 1], tol) << "pair " << i;
  std::printf("[ timing ] %d nodes: pattern %.3f s, forward_solve (6 wavenumbers, 24 electrodes) %.3f s\n",
              n, std::chrono::duration<double>(t1 - t0).count(),
              std::chrono::duration<double>(t2 - t1).count());
  tio_close(CH_LOG);
}

}  // namespace

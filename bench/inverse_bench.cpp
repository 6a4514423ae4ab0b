// Inverse-job benchmark: the Jacobian's solves and its accumulation on a
// large grid (at least 2,000 readings and 10,000 parameters), the inner
// solver on that Jacobian, the peak memory against the size of J, and the
// conjugate gradient's read rate. Not part of the tests.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "bench.h"
#include "data/measurement_set.h"
#include "forward/forward.h"
#include "inversion/inversion.h"
#include "mesh/mesh_model.h"
#include "run/run_context.h"
#include "run/threads.h"
#include "textio/textio.h"

namespace {

// Grid of nx by ny nodes: 0.5 m columns under 96 electrodes 1 m apart,
// padding growing by 1.3, rows from 0.25 m growing by 1.06; every cell a
// parameter.
void large_grid(MeshModel* m, ElectrodeTable* t, int* nx_out, int* ny_out) {
  std::vector<double> xs, ys;
  double h = 0.5, x = 0.0;
  std::vector<double> left;
  for (int k = 0; k < 12; ++k) left.push_back(x -= (h *= 1.3));
  xs.assign(left.rbegin(), left.rend());
  const int first = (int)xs.size() + 1;
  for (int i = 0; i <= 190; ++i) xs.push_back(0.5 * i);
  h = 0.5;
  x = 95.0;
  for (int k = 0; k < 12; ++k) xs.push_back(x += (h *= 1.3));
  ys = {0.0};
  h = 0.25;
  while (ys.size() < 52) ys.push_back(ys.back() + (h *= 1.06));
  const int nx = (int)xs.size(), ny = (int)ys.size();
  m->num_nodes = nx * ny;
  m->num_elements = (nx - 1) * (ny - 1);
  m->node_x.resize(m->num_nodes);
  m->node_y.resize(m->num_nodes);
  for (int i = 0; i < nx; ++i)
    for (int j = 0; j < ny; ++j) {
      m->node_x[i * ny + j] = xs[i] + 20.0;  // every column at x >= 0
      m->node_y[i * ny + j] = ys[j];
    }
  m->element_nodes.clear();
  m->element_parameter.clear();
  for (int i = 0; i + 1 < nx; ++i)
    for (int j = 0; j + 1 < ny; ++j) {
      const int n = i * ny + j + 1;
      m->element_nodes.insert(m->element_nodes.end(), {n, n + ny, n + ny + 1, n + 1});
      m->element_parameter.push_back(i * (ny - 1) + j + 1);
    }
  m->element_nodes.push_back(1);
  t->num_electrodes = 96;
  t->electrode_ids.clear();
  t->electrode_nodes.clear();
  for (int k = 0; k < 96; ++k) {
    t->electrode_ids.push_back(k + 1);
    t->electrode_nodes.push_back((first - 1 + 2 * k) * ny + 1);
  }
  *nx_out = nx;
  *ny_out = ny;
}

// Dipole-dipole n = 1..10 and Wenner a = 1..30.
void readings(MeasurementSet* ms) {
  std::vector<int> q;
  for (int n = 1; n <= 10; ++n)
    for (int a = 1; a + n + 2 <= 96; ++a) q.insert(q.end(), {a + n + 1, a + n + 2, a, a + 1});
  for (int s = 1; s <= 30; ++s)
    for (int a = 1; a + 3 * s <= 96; ++a) q.insert(q.end(), {a + s, a + 2 * s, a, a + 3 * s});
  allocate_measurements((int)q.size() / 4, ms);
  for (int i = 0; i < ms->num_measurements; ++i) {
    ms->elec_m[i] = q[4 * i];
    ms->elec_n[i] = q[4 * i + 1];
    ms->elec_a[i] = q[4 * i + 2];
    ms->elec_b[i] = q[4 * i + 3];
  }
}

}  // namespace

void run_inverse_bench() {
  static MeshModel mesh;
  static ElectrodeTable table;
  static MatrixPattern pattern;
  static ForwardTeam team;
  static MeasurementSet ms;
  int nx = 0, ny = 0;
  large_grid(&mesh, &table, &nx, &ny);
  readings(&ms);
  tio_open(CH_LOG, "Q5.out");
  team.work.resize(1);
  build_matrix_pattern(mesh, 4, &pattern, &team.work[0]);
  choose_pinned_node(4, table, &mesh);
  allocate_forward_vectors(mesh.num_nodes, table.num_electrodes, &team.work[0]);
  allocate_forward_team(thread_count(), mesh, &team);
  const ForwardMesh fm{&mesh, 4, &pattern, &table};
  const int n = ms.num_measurements, P = mesh.num_elements;
  std::vector<double> lc(P, -std::log(100.0)), v(P, -std::log(100.0));
  std::vector<double> c(n), J((size_t)n * P);
  // One wavenumber (two-dimensional flow) isolates one accumulation pass.
  const Quadrature q{nullptr, nullptr, 1, 2.0, false, 0.0};

  double t0 = bench_seconds();
  forward_solve(fm, ms, lc.data(), q, &team, c.data());
  const double t_forward = bench_seconds() - t0;
  t0 = bench_seconds();
  compute_jacobian(fm, ms, ParameterModel{lc.data(), v.data(), P}, q, false,
                   &team, J.data(), c.data());
  const double t_jacobian = bench_seconds() - t0;
  const double t_accumulate = t_jacobian - t_forward;
  const double updates = (double)P * 16.0 * n;
  std::printf("\n== inverse, large: %d nodes, %d readings, %d parameters, J %.0f MB\n",
              mesh.num_nodes, n, P, 8.0 * n * P / 1e6);
  std::printf("Jacobian: solves (as one forward solution) %.2f s, accumulation %.2f s: "
              "%.2e updates per second\n", t_forward, t_accumulate, updates / t_accumulate);

  // The inner solver on this J with the linear filter of the grid, and the
  // conjugate gradient's read rate against a streaming read.
  static RunContext ctx;
  ctx.regularised = true;
  ctx.alpha_aniso = 1.0;
  ctx.num_patch_x = nx - 1;
  ctx.num_patch_y = ny - 1;
  ctx.block_weights.assign(P, 1.0);
  RegularisationMatrix C;
  build_regularisation(ctx, mesh, 4, P, &C);
  SolverWork sw;
  allocate_solver_work(P, n, &sw);
  std::vector<double> e(n), W(n, 30.0), scale(P, 1.0), dm(P), m0 = v;
  std::mt19937 rng(3);
  std::normal_distribution<double> g(0.0, 0.03);
  for (double& x : e) x = g(rng);
  for (double alpha : {1e3}) {
    double result = 0.0;
    int not_converged = 0;
    const NormalEquations eq{J.data(), W.data(), e.data(), v.data(), m0.data(), scale.data(),
                             &C, alpha, 0.0, false, false, n, P};
    t0 = bench_seconds();
    inner_solve(eq, &sw, dm.data(), &result, &not_converged);
    const double t = bench_seconds() - t0;
    if (not_converged)
      std::printf("inner solve, alpha %g: step limit reached, ratio %.3g, %.2f s\n", alpha, result, t);
    else
      std::printf("inner solve, alpha %g: %.0f steps, %.2f s, %.1f ms per step\n", alpha, result, t,
                  1e3 * t / result);
  }
  std::printf("peak resident memory: %.0f MB, of which J %.0f MB\n", peak_rss_kb() / 1024.0,
              8.0 * n * P / 1e6);
  tio_close_all();
  bench_cg_rate(n, P);
  std::fflush(stdout);
}

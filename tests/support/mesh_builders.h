// Meshes for the forward, Jacobian and regularisation tests (grids, cut
// cells, jitter, triangle lists), a small survey ready for the forward
// solver, and the dense solve the fast solvers are checked against.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "run/threads.h"
#include "mesh/mesh_model.h"
#include "support/support.h"

namespace builders {

// Grid of four-node cells numbered as grid_mesh numbers them, with the
// parameter of each cell from `param` (one per cell, or none).
inline MeshModel grid(const std::vector<double>& xs, const std::vector<double>& ys,
                      const std::vector<int>& param) {
  MeshModel m = grid_mesh(xs, ys, 4);
  m.element_parameter = param;
  return m;
}

// Equally spaced positions 0, h, 2h, ... (n of them).
inline std::vector<double> spaced(int n, double h) { return uniform_axis(0.0, (n - 1) * h, h); }

// Every cell of a grid cut into two triangles along the diagonal from its
// first corner, or along a random one when rng is given; both keep the
// cell's parameter, and slot four takes `zone`, or a random number with rng.
inline void cut_cells(MeshModel* m, std::mt19937* rng = nullptr, int zone = 1) {
  std::vector<int> en, param;
  for (int e = 0; e < m->num_elements; ++e) {
    const int* c = &m->element_nodes[4 * static_cast<std::size_t>(e)];
    const int z = rng ? 1 + static_cast<int>((*rng)() % 7) : zone;
    if (rng && (*rng)() % 2)
      en.insert(en.end(), {c[0], c[1], c[3], z, c[1], c[2], c[3], z});
    else
      en.insert(en.end(), {c[0], c[1], c[2], z, c[0], c[2], c[3], z});
    const int p = m->element_parameter.empty() ? 0 : m->element_parameter[e];
    param.insert(param.end(), {p, p});
  }
  en.push_back(1);
  m->element_nodes = en;
  m->element_parameter = param;
  m->num_elements *= 2;
}

// Moves every node below the first row (node_y above ys[0]) by up to
// `amount` in x and y.
inline void jitter(MeshModel* m, std::mt19937& rng, double amount) {
  std::uniform_real_distribution<double> d(-amount, amount);
  const double top = *std::min_element(m->node_y.begin(), m->node_y.end());
  for (int n = 0; n < m->num_nodes; ++n)
    if (m->node_y[n] > top) m->node_x[n] += d(rng), m->node_y[n] += d(rng);
}

// Triangles from corner lists (3 nodes each); slot four takes the zone.
inline MeshModel triangles(const std::vector<double>& x, const std::vector<double>& y,
                           const std::vector<int>& corners, const std::vector<int>& param,
                           const std::vector<int>& zone) {
  const int n = static_cast<int>(x.size()), E = static_cast<int>(param.size());
  MeshModel m{n, E, x, y, {}, param, std::vector<int>(n, 0)};
  for (int e = 0; e < E; ++e) {
    m.element_nodes.insert(m.element_nodes.end(), &corners[3 * e], &corners[3 * e + 3]);
    m.element_nodes.push_back(zone[e]);
  }
  m.element_nodes.push_back(1);
  return m;
}

// A strip over bottom nodes 1..n at y = 0 and top nodes n+1..2n at y = 1:
// column i holds (b_i, b_i+1, t_i), then (b_i+1, t_i+1, t_i), so element k
// shares an edge with k - 1 and k + 1 and a single node with k +- 2.
inline MeshModel strip(const std::vector<double>& xs, const std::vector<int>& param,
                       const std::vector<int>& zone) {
  const int n = static_cast<int>(xs.size());
  std::vector<double> x(xs), y(n, 0.0);
  x.insert(x.end(), xs.begin(), xs.end());
  y.insert(y.end(), n, 1.0);
  std::vector<int> corners;
  for (int i = 1; i < n; ++i) corners.insert(corners.end(), {i, i + 1, n + i, i + 1, n + i + 1, n + i});
  return triangles(x, y, corners, param, zone);
}

// Triangles about node 1 with `rim` higher neighbours, or, reversed, about
// node rim + 1 with all of them lower; node rim + 2 is unused.
inline MeshModel fan(int rim, bool reversed) {
  MeshModel m{rim + 2, rim - 1, std::vector<double>(rim + 2), std::vector<double>(rim + 2), {}, {}, {}};
  for (int t = 2 - reversed; t < rim + 1 - reversed; ++t)
    m.element_nodes.insert(m.element_nodes.end(), {reversed ? rim + 1 : 1, t, t + 1, 1});
  m.element_nodes.push_back(1);
  return m;
}

// A survey: a 9 by 5 grid of 1 m columns and 0.7 m rows jittered by up to
// 0.1 m below the surface, of four-node cells or (npe 3) of cells cut along
// random diagonals; 10 to 100 ohm m at random; six electrodes on the surface
// nodes of columns 2 to 7 with eight dipole-dipole and Wenner readings; node
// 1 pinned; the pattern and one thread's work sized. param: one per cell, or
// empty.
struct Survey {
  MeshModel mesh;
  int npe;
  std::vector<double> lc;  // ln conductivity per element
  MatrixPattern pattern;
  ForwardTeam team{std::vector<ForwardWork>(1)};
  ElectrodeTable table{6, {}, {1, 2, 3, 4, 5, 6}};
  MeasurementSet ms;
  ForwardMesh fm() const { return {&mesh, npe, &pattern, &table}; }
};

inline void make_survey(Survey* s, int npe, unsigned seed, const std::vector<int>& param = {}) {
  const int nx = 9, ny = 5;
  std::mt19937 rng(seed);
  s->npe = npe;
  s->mesh = grid(spaced(nx, 1.0), spaced(ny, 0.7), param);
  jitter(&s->mesh, rng, 0.1);
  if (npe == 3) cut_cells(&s->mesh, &rng);
  std::uniform_real_distribution<double> rho(10.0, 100.0);
  for (int e = 0; e < s->mesh.num_elements; ++e) s->lc.push_back(-std::log(rho(rng)));
  for (int c = 1; c <= 6; ++c) s->table.electrode_nodes.push_back(c * ny + 1);
  const int quads[8][4] = {{3, 4, 1, 2}, {4, 5, 2, 3}, {5, 6, 3, 4}, {4, 5, 1, 2},
                           {5, 6, 1, 2}, {2, 3, 1, 4}, {3, 4, 2, 5}, {4, 5, 3, 6}};
  allocate_measurements(8, &s->ms);
  for (int i = 0; i < 8; ++i) {
    s->ms.elec_m[i] = quads[i][0];
    s->ms.elec_n[i] = quads[i][1];
    s->ms.elec_a[i] = quads[i][2];
    s->ms.elec_b[i] = quads[i][3];
  }
  testing::internal::CaptureStdout();  // progress lines of the pattern
  build_matrix_pattern(s->mesh, npe, &s->pattern, &s->team.work[0]);
  testing::internal::GetCapturedStdout();
  s->mesh.pin_flags[0] = 1;
  allocate_forward_vectors(s->mesh.num_nodes, 6, &s->team.work[0]);
}

// Gives the survey's solutions T threads: the team and one work for each.
inline void use_threads(Survey* s, int T) {
  set_thread_count(T);
  s->team.work.resize(1);
  allocate_forward_team(T, s->mesh, &s->team);
}

// Solves A X = B (A n by n, B n by m, both row-major) by Gaussian
// elimination with partial pivoting; returns X.
inline std::vector<double> dense_solve(std::vector<double> A, std::vector<double> B, int n, int m = 1) {
  for (int k = 0; k < n; ++k) {
    int piv = k;
    for (int i = k + 1; i < n; ++i)
      if (std::fabs(A[i * n + k]) > std::fabs(A[piv * n + k])) piv = i;
    std::swap_ranges(A.begin() + k * n, A.begin() + (k + 1) * n, A.begin() + piv * n);
    std::swap_ranges(B.begin() + k * m, B.begin() + (k + 1) * m, B.begin() + piv * m);
    for (int i = k + 1; i < n; ++i) {
      const double f = A[i * n + k] / A[k * n + k];
      for (int j = k; j < n; ++j) A[i * n + j] -= f * A[k * n + j];
      for (int j = 0; j < m; ++j) B[i * m + j] -= f * B[k * m + j];
    }
  }
  for (int k = n - 1; k >= 0; --k)
    for (int j = 0; j < m; ++j) {
      for (int i = k + 1; i < n; ++i) B[k * m + j] -= A[k * n + i] * B[i * m + j];
      B[k * m + j] /= A[k * n + k];
    }
  return B;
}

}  // namespace builders

// Helpers of the forward-core tests: a scratch working directory per test,
// small meshes (grids and randomly numbered triangulations) and the pattern.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "forward/forward.h"
#include "mesh/mesh_model.h"
#include "textio/textio.h"

namespace core_test {

// Runs a test in a fresh directory and goes back (removing it) at the end.
struct ScratchDir {
  std::string previous;
  std::string path;
  ScratchDir() {
    char old[4096];
    previous = getcwd(old, sizeof old) ? old : "/tmp";
    char name[] = "/tmp/q5_fwd_core_XXXXXX";
    path = mkdtemp(name);
    EXPECT_EQ(chdir(path.c_str()), 0);
  }
  ~ScratchDir() {
    tio_close_all();
    EXPECT_EQ(chdir(previous.c_str()), 0);
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
};

inline std::string read_file(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Grid of nx by ny nodes numbered down the columns, four-node elements going
// round each cell, y positive downward.
inline MeshModel make_grid(const std::vector<double>& xs,
                           const std::vector<double>& ys) {
  const int nx = static_cast<int>(xs.size());
  const int ny = static_cast<int>(ys.size());
  MeshModel m;
  m.num_nodes = nx * ny;
  m.num_elements = (nx - 1) * (ny - 1);
  m.node_x.resize(m.num_nodes);
  m.node_y.resize(m.num_nodes);
  for (int i = 0; i < nx; ++i) {
    for (int j = 0; j < ny; ++j) {
      m.node_x[i * ny + j] = xs[i];
      m.node_y[i * ny + j] = ys[j];
    }
  }
  m.element_nodes.assign(4 * m.num_elements + 1, 0);
  for (int i = 1; i < nx; ++i) {
    for (int j = 1; j < ny; ++j) {
      const int e = (i - 1) * (ny - 1) + j;
      const int n = (i - 1) * ny + j;
      int* en = &m.element_nodes[4 * (e - 1)];
      en[0] = n;
      en[1] = n + ny;
      en[2] = n + ny + 1;
      en[3] = n + 1;
    }
  }
  m.element_nodes[4 * m.num_elements] = 1;
  m.element_parameter.assign(m.num_elements, 0);
  m.pin_flags.assign(m.num_nodes, 0);
  m.pin_flags[0] = 1;
  return m;
}

inline std::vector<double> spaced(int n, double step) {
  std::vector<double> v(n);
  for (int i = 0; i < n; ++i) v[i] = i * step;
  return v;
}

// Jittered nx by ny point lattice cut into triangles (random diagonal), with node numbers shuffled over nx * ny + unused
// numbers, elements in random order, and a random zone value in slot four.
// With quads set, the cells stay four-node elements (anticlockwise); with
// flip set, about half the triangles are listed clockwise.
inline MeshModel make_random_mesh(std::mt19937& rng, int nx, int ny, int unused,
                                  bool quads, bool flip) {
  std::uniform_real_distribution<double> jitter(-0.2, 0.2);
  std::uniform_int_distribution<int> coin(0, 1);
  const int lattice = nx * ny;
  MeshModel m;
  m.num_nodes = lattice + unused;
  std::vector<int> number(m.num_nodes);
  for (int t = 0; t < m.num_nodes; ++t) number[t] = t + 1;
  std::shuffle(number.begin(), number.end(), rng);
  m.node_x.assign(m.num_nodes, 0.0);
  m.node_y.assign(m.num_nodes, 0.0);
  for (int i = 0; i < nx; ++i) {
    for (int j = 0; j < ny; ++j) {
      const int n = number[i * ny + j];
      m.node_x[n - 1] = i + jitter(rng);
      m.node_y[n - 1] = j + jitter(rng);
    }
  }
  for (int t = lattice; t < m.num_nodes; ++t) {
    m.node_x[number[t] - 1] = 100.0 + t;
    m.node_y[number[t] - 1] = -3.0;
  }
  std::vector<std::vector<int>> elements;
  for (int i = 0; i + 1 < nx; ++i) {
    for (int j = 0; j + 1 < ny; ++j) {
      const int a = number[i * ny + j], b = number[(i + 1) * ny + j];
      const int c = number[(i + 1) * ny + j + 1], d = number[i * ny + j + 1];
      if (quads) {
        elements.push_back({a, b, c, d});
      } else if (coin(rng)) {
        elements.push_back({a, b, c});
        elements.push_back({a, c, d});
      } else {
        elements.push_back({a, b, d});
        elements.push_back({b, c, d});
      }
    }
  }
  std::shuffle(elements.begin(), elements.end(), rng);
  m.num_elements = static_cast<int>(elements.size());
  m.element_nodes.assign(4 * m.num_elements + 1, 0);
  std::uniform_int_distribution<int> zone(1, m.num_nodes);
  for (int e = 0; e < m.num_elements; ++e) {
    std::vector<int>& el = elements[e];
    if (!quads && flip && coin(rng)) std::swap(el[1], el[2]);
    for (std::size_t s = 0; s < el.size(); ++s) m.element_nodes[4 * e + s] = el[s];
    if (!quads) m.element_nodes[4 * e + 3] = zone(rng);
  }
  m.element_nodes[4 * m.num_elements] = 1;
  m.element_parameter.assign(m.num_elements, 0);
  m.pin_flags.assign(m.num_nodes, 0);
  m.pin_flags[0] = 1;
  return m;
}

// The pattern as the driver builds it, with the value arrays sized.
inline void build_pattern(const MeshModel& mesh, int p, ConductanceMatrix* cm) {
  cm->num_entries = count_storage(mesh, p);
  cm->matrix_row_start.assign(mesh.num_nodes + 1, 0);
  cm->matrix_columns.assign(cm->num_entries, 0);
  generate_index(mesh, p, cm);
  cm->matrix_values.assign(cm->num_entries, 0.0);
  cm->matrix_permutation.assign(mesh.num_nodes, 0);
}

// Dense assembly of the full symmetric matrix (every local pair added where
// it falls), the pinned diagonal times 1e10 when pin is set; row-major N by N.
inline std::vector<double> dense_matrix(const MeshModel& mesh, int p,
                                        const std::vector<double>& lc, double k,
                                        bool pin) {
  const std::size_t n = mesh.num_nodes;
  std::vector<double> a(n * n, 0.0);
  double ae[25];
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int* nodes = &mesh.element_nodes[4 * e];
    element_matrix(ae, mesh.node_x.data(), mesh.node_y.data(), nodes, p, k);
    const double s = std::exp(lc[e]);
    for (int i = 0; i < p; ++i)
      for (int j = 0; j < p; ++j)
        a[(nodes[i] - 1) * n + nodes[j] - 1] += s * ae[i + 5 * j];
  }
  if (pin)
    for (std::size_t i = 0; i < n; ++i)
      if (mesh.pin_flags[i] == 1) a[i * n + i] *= 1e10;
  return a;
}

// Solves the dense row-major system a x = b by Gaussian elimination with
// partial pivoting; a and b are overwritten, x returned.
inline std::vector<double> dense_solve(std::vector<double> a, std::vector<double> b) {
  const std::size_t n = b.size();
  for (std::size_t c = 0; c < n; ++c) {
    std::size_t piv = c;
    for (std::size_t r = c + 1; r < n; ++r)
      if (std::fabs(a[r * n + c]) > std::fabs(a[piv * n + c])) piv = r;
    if (piv != c) {
      for (std::size_t t = 0; t < n; ++t) std::swap(a[c * n + t], a[piv * n + t]);
      std::swap(b[c], b[piv]);
    }
    for (std::size_t r = c + 1; r < n; ++r) {
      const double f = a[r * n + c] / a[c * n + c];
      if (f == 0.0) continue;
      for (std::size_t t = c; t < n; ++t) a[r * n + t] -= f * a[c * n + t];
      b[r] -= f * b[c];
    }
  }
  std::vector<double> x(n);
  for (std::size_t c = n; c-- > 0;) {
    double s = b[c];
    for (std::size_t t = c + 1; t < n; ++t) s -= a[c * n + t] * x[t];
    x[c] = s / a[c * n + c];
  }
  return x;
}

// 1-norm condition number of the symmetrically diagonal-scaled matrix
// D^-1/2 a D^-1/2 (D the diagonal): the pinned diagonal's penalty scales
// out, leaving the conditioning that limits any backward-stable solver.
inline double scaled_condition(const std::vector<double>& a, std::size_t n) {
  std::vector<double> s(n * n), inv(n * n, 0.0);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = 0; j < n; ++j)
      s[i * n + j] = a[i * n + j] / std::sqrt(std::fabs(a[i * n + i]) * std::fabs(a[j * n + j]));
  double norm = 0.0;
  for (std::size_t j = 0; j < n; ++j) {
    double col = 0.0;
    for (std::size_t i = 0; i < n; ++i) col += std::fabs(s[i * n + j]);
    norm = std::max(norm, col);
  }
  double inv_norm = 0.0;
  for (std::size_t j = 0; j < n; ++j) {
    std::vector<double> e(n, 0.0);
    e[j] = 1.0;
    const std::vector<double> col = dense_solve(s, e);
    double sum = 0.0;
    for (double v : col) sum += std::fabs(v);
    inv_norm = std::max(inv_norm, sum);
  }
  return norm * inv_norm;
}

}  // namespace core_test

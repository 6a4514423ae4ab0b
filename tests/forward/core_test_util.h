// Helpers of the forward-solver tests: a scratch directory, small random
// meshes, the pattern as the driver builds it, and dense reference algebra.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <ranges>
#include <string>
#include <vector>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "mesh/mesh_model.h"
#include "textio/textio.h"

const double eps = 0x1p-52;  // machine epsilon of double

// A stop of the run (status 0) in a plain test would pass unseen: fail it. The
// test registry is made first, so that it outlives the handler.
inline const int stop_guard = (testing::UnitTest::GetInstance(), std::atexit([] {
  if (testing::UnitTest::GetInstance()->current_test_info() && !testing::internal::InDeathTestChild()) _exit(1);
}));

// Runs a test in a fresh directory, removed at the end.
struct ScratchDir {
  std::filesystem::path previous = std::filesystem::current_path(), path = "/tmp/q5_fwd_" + std::to_string(getpid());
  ScratchDir() { std::filesystem::create_directory(path), std::filesystem::current_path(path); }
  ~ScratchDir() { tio_close_all(), std::filesystem::current_path(previous), std::filesystem::remove_all(path); }
};

inline std::string read_file(const char* name) {
  return {std::istreambuf_iterator<char>(std::ifstream(name).rdbuf()), {}};
}

inline double max_abs(const std::vector<double>& v) {
  return std::ranges::max(v | std::views::transform([](double x) { return std::fabs(x); }));
}

// Mesh from coordinates and element slot lists (3 or 4 slots); node 1 pinned.
inline MeshModel make_mesh(const std::vector<double>& x, const std::vector<double>& y,
                           const std::vector<std::vector<int>>& els) {
  const int n = static_cast<int>(x.size()), ne = static_cast<int>(els.size());
  MeshModel m{n, ne, x, y, std::vector<int>(4 * ne + 1, 1), std::vector<int>(ne, 0), std::vector<int>(n, 0)};
  for (int e = 0; e < ne; ++e) std::copy(els[e].begin(), els[e].end(), &m.element_nodes[4 * e]);
  if (n > 0) m.pin_flags[0] = 1;
  return m;
}

// Jittered nx by ny lattice, node numbers shuffled, elements in random order:
// anticlockwise cells (p = 4) or cells cut by a random diagonal (p = 3) with a
// random zone number in slot four.
inline MeshModel random_mesh(std::mt19937& rng, int nx, int ny, int p) {
  std::uniform_real_distribution<double> jitter(-0.2, 0.2);
  std::vector<int> num(nx * ny);
  std::vector<double> x(nx * ny), y(nx * ny);
  for (int t = 0; t < nx * ny; ++t) num[t] = t + 1;
  std::shuffle(num.begin(), num.end(), rng);
  for (int t = 0; t < nx * ny; ++t) x[num[t] - 1] = t / ny + jitter(rng), y[num[t] - 1] = t % ny + jitter(rng);
  std::vector<std::vector<int>> els;
  for (int t = 0; t < nx * ny - ny; ++t) {
    if (t % ny == ny - 1) continue;
    const int a = num[t], b = num[t + ny], c = num[t + ny + 1], d = num[t + 1], z = 1 + rng() % (nx * ny);
    if (p == 4) els.push_back({a, b, c, d});
    else if (rng() % 2) els.insert(els.end(), {{a, b, c, z}, {a, c, d, z}});
    else els.insert(els.end(), {{a, b, d, z}, {b, c, d, z}});
  }
  std::shuffle(els.begin(), els.end(), rng);
  return make_mesh(x, y, els);
}

// The pattern as the driver builds it, value arrays sized; returns the console.
inline std::string build_pattern(const MeshModel& mesh, int p, ConductanceMatrix* cm) {
  testing::internal::CaptureStdout();
  cm->matrix_columns.assign(cm->num_entries = count_storage(mesh, p), 0);
  cm->matrix_row_start.assign(mesh.num_nodes + 1, 0);
  generate_index(mesh, p, cm);
  cm->matrix_values.assign(cm->num_entries, 0.0);
  cm->matrix_permutation.assign(mesh.num_nodes, 0);
  return testing::internal::GetCapturedStdout();
}

// A random mesh of 3 to 55 ohm m, its pattern built.
inline MeshModel problem(std::mt19937& rng, int p, int nx, int ny, ConductanceMatrix* cm, std::vector<double>* lc) {
  const MeshModel mesh = random_mesh(rng, nx, ny, p);
  for (int e = 0; e < mesh.num_elements; ++e) lc->push_back(std::uniform_real_distribution<double>(-4, -1)(rng));
  build_pattern(mesh, p, cm);
  return mesh;
}

// Full symmetric matrix, row-major N by N, every local pair added where it
// falls; the pinned diagonal times 1e10 when `pin` is set.
inline std::vector<double> dense_matrix(const MeshModel& mesh, int p, const std::vector<double>& lc, double k,
                                        bool pin) {
  const std::size_t n = mesh.num_nodes;
  std::vector<double> a(n * n, 0.0);
  double ae[25];
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int* nd = &mesh.element_nodes[4 * e];
    element_matrix(ae, mesh.node_x.data(), mesh.node_y.data(), nd, p, k);
    for (int t = 0; t < p * p; ++t)
      a[(nd[t / p] - 1) * n + nd[t % p] - 1] += std::exp(lc[e]) * ae[t / p + 5 * (t % p)];
  }
  for (std::size_t i = 0; i < n; ++i) a[i * n + i] *= pin && mesh.pin_flags[i] == 1 ? 1e10 : 1.0;
  return a;
}

// Gaussian elimination without pivoting (a row-major), backward stable on the
// symmetric positive definite systems of the tests.
inline std::vector<double> dense_solve(std::vector<double> a, std::vector<double> b) {
  const std::size_t n = b.size();
  for (std::size_t c = 0; c < n; ++c)
    for (std::size_t r = c + 1; r < n; ++r) {
      const double f = a[r * n + c] / a[c * n + c];
      for (std::size_t t = c; t < n; ++t) a[r * n + t] -= f * a[c * n + t];
      b[r] -= f * b[c];
    }
  for (std::size_t c = n; c-- > 0; b[c] /= a[c * n + c])
    for (std::size_t t = c + 1; t < n; ++t) b[c] -= a[c * n + t] * b[t];
  return b;
}

// Accuracy bench of the forward job: run directories whose apparent
// resistivities have closed forms (half-space, two-layer earth, vertical
// contact), run through the real q5 binary, errors printed per case.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

using Model = std::function<double(double x, double depth)>;  // resistivity at a cell centre, ohm m
using Quad = std::array<int, 4>;  // electrode ids P+, P-, C+, C-; id k sits at x = k - 1

// Cells of 0.25 m on [lo, hi], then growing by 1.3 to 300 m beyond hi (and lo if `both`).
std::vector<double> axis(double lo, double hi, bool both) {
  std::vector<double> v;
  for (int i = 0; lo + i * 0.25 <= hi; ++i) v.push_back(lo + i * 0.25);
  for (double step = 0.25; v.back() < hi + 300.0;) v.push_back(v.back() + (step *= 1.3));
  for (double step = 0.25; both && v.front() > lo - 300.0;) v.insert(v.begin(), v.front() - (step *= 1.3));
  return v;
}

// Grid for electrodes at x = 0, 1, ..., last on the surface, fine to 3 m deep.
struct Grid {
  int last;
  std::vector<double> xs = axis(-2.0, last + 2.0, true), ys = axis(0.0, 3.0, false);  // ys: depths
  int col(double x) const { return static_cast<int>(std::find(xs.begin(), xs.end(), x) - xs.begin()) + 1; }
};

// Q5.in of a forward job on the grid (mesh type 4, a region record per run of
// equal resistivity down the elements) or on triangle_mesh (3, uniform).
std::string control(const Grid& g, int mesh_type, int singular, const Model& model) {
  const size_t nx = g.xs.size(), ny = g.ys.size(), cells = (nx - 1) * (ny - 1);
  std::ostringstream s, regions;
  s << std::fixed << "Accuracy bench\n0 " << mesh_type << " 3.0 " << singular << " 0\n";
  if (mesh_type == 3) s << "1.0    mesh_scale\n1\n1 " << 2 * cells << " " << model(0, 0) << "\n";
  if (mesh_type == 4) {
    s << nx << " " << ny << "\n";
    for (const std::vector<double>& v : {g.xs, std::vector<double>(nx, 0.0), g.ys})  // x, surface offsets, depths
      for (size_t i = 0; i < v.size(); ++i) s << v[i] << (i % 8 == 7 || i + 1 == v.size() ? "\n" : " ");
    std::vector<double> rho;
    for (size_t i = 0; i + 1 < nx; ++i)
      for (size_t j = 0; j + 1 < ny; ++j)
        rho.push_back(model((g.xs[i] + g.xs[i + 1]) / 2, (g.ys[j] + g.ys[j + 1]) / 2));
    int count = 0;
    for (size_t e = 1, start = 0; e <= cells; ++e) {
      if (e < cells && rho[e] == rho[start]) continue;
      regions << start + 1 << " " << e << " " << rho[start] << "\n";
      ++count, start = e;
    }
    s << count << "\n" << regions.str();
  }
  s << "0    polyline\n" << g.last + 1 << "\n";
  for (int e = 0; e <= g.last; ++e)
    s << e + 1 << " " << (mesh_type == 3 ? (g.col(e) - 1) * ny + 1 : g.col(e)) << (mesh_type == 4 ? " 1\n" : "\n");
  return s.str();
}

// mesh.dat of the grid: two anticlockwise triangles per cell, alternate diagonals.
std::string triangle_mesh(const Grid& g) {
  const int nx = static_cast<int>(g.xs.size()), ny = static_cast<int>(g.ys.size());
  std::ostringstream s;
  s << std::fixed << 2 * (nx - 1) * (ny - 1) << " " << nx * ny << "\n";
  for (int i = 0, e = 0; i + 1 < nx; ++i)
    for (int j = 0; j + 1 < ny; ++j) {
      const int a = i * ny + j + 1, b = a + ny, c = b + 1, d = a + 1, odd = (i + j) % 2;
      s << ++e << " " << a << " " << d << " " << (odd ? b : c) << " 1 1\n";
      s << ++e << " " << (odd ? b : a) << " " << (odd ? d : c) << " " << (odd ? c : b) << " 1 1\n";
    }
  for (int n = 0; n < nx * ny; ++n) s << n + 1 << " " << g.xs[n / ny] << " " << -g.ys[n % ny] << "\n";
  return s.str();
}

// Wenner arrays of spacings n, or dipole-dipole of dipole a, n = 1..max_n.
std::vector<Quad> arrays(int last, bool wenner, int a, int max_n, std::vector<Quad> q = {}) {
  for (int n = 1; n <= max_n; ++n)
    for (int x = 1; x + (wenner ? 3 * n : (n + 2) * a) <= last + 1; x += wenner ? 1 : 3)
      q.push_back(wenner ? Quad{x + n, x + 2 * n, x, x + 3 * n} : Quad{x + (n + 1) * a, x + (n + 2) * a, x + a, x});
  return q;
}

// Apparent resistivity beside a vertical contact at x = 10.5 (100 ohm m left, 20
// right; source and image): the array's voltage over that of 1 ohm m.
double contact_apparent(const Quad& q) {
  auto v = [](double xp, double xc) {
    const bool left = xc < 10.5;
    const double rho = left ? 100.0 : 20.0, k = (left ? -80.0 : 80.0) / 120.0, r = std::fabs(xp - xc);
    if ((xp < 10.5) != left) return rho * (1 + k) / (2 * M_PI * r);
    return rho / (2 * M_PI) * (1 / r + k / std::fabs(xp - (21.0 - xc)));
  };
  auto dv = [&q](auto u) {
    return u(q[0] - 1, q[2] - 1) - u(q[0] - 1, q[3] - 1) - u(q[1] - 1, q[2] - 1) + u(q[1] - 1, q[3] - 1);
  };
  return dv(v) / dv([](double xp, double xc) { return 1 / (2 * M_PI * std::fabs(xp - xc)); });
}

// Wenner apparent resistivity of spacing a over 2 m of 100 ohm m on rho2.
double two_layer_wenner(double a, double rho2) {
  const double k = (rho2 - 100.0) / (rho2 + 100.0);
  double sum = 0.0;
  for (int n = 1; n <= 400; ++n)
    sum += std::pow(k, n) * (1 / std::hypot(1, 4 * n / a) - 1 / std::hypot(2, 4 * n / a));
  return 100.0 * (1 + 4 * sum);
}

// Runs q5 (unless Q5_SKIP_SLOW is set); its apparent resistivities must lie
// within `limit` percent of expected(array), 3 percent without singularity
// removal. Prints the worst and median error.
void run_case(std::string name, int singular, const std::string& control, const std::string& mesh,
              const std::vector<Quad>& quads, const std::function<double(const Quad&)>& expected, double limit) {
  if (std::getenv("Q5_SKIP_SLOW")) GTEST_SKIP() << "Q5_SKIP_SLOW is set";
  name += ", Singular_type " + std::to_string(singular);
  const std::string dir = make_run_dir();
  std::ostringstream protocol(std::to_string(quads.size()) + "\n", std::ios::ate);
  for (size_t i = 0; i < quads.size(); ++i)
    protocol << i + 1 << " " << quads[i][0] << " " << quads[i][1] << " " << quads[i][2] << " " << quads[i][3] << "\n";
  write_file(dir, "Q5.in", control);
  write_file(dir, "protocol.dat", protocol.str());
  if (!mesh.empty()) write_file(dir, "mesh.dat", mesh);
  const RunResult run = run_q5_in(dir);
  EXPECT_TRUE(run.exit_status == 0 && !run.console.empty() && run.console.back() == "All ok") << name;
  const std::vector<std::string> lines = read_lines(dir, "Q5_forward.dat");
  ASSERT_EQ(lines.size(), quads.size() + 1) << name << " in " << dir;
  std::vector<double> errors;
  size_t worst = 0;
  for (size_t i = 0; i < quads.size(); ++i) {
    std::istringstream in(lines[i + 1]);
    double f[7] = {};  // place, P+, P-, C+, C-, transfer resistance, apparent resistivity
    for (double& v : f) in >> v;
    EXPECT_TRUE(in && f[1] == quads[i][0] && f[4] == quads[i][3]) << lines[i + 1];
    errors.push_back(100.0 * std::fabs(f[6] / expected(quads[i]) - 1.0));
    worst = errors.back() > errors[worst] ? i : worst;
  }
  const Quad& w = quads[worst];
  std::sort(errors.begin(), errors.end());
  std::printf("[accuracy] %-46s %4zu readings  worst %6.3f %% (P+ P- C+ C- at x = %d %d %d %d m)  median %6.3f %%\n",
              name.c_str(), errors.size(), errors.back(), w[0] - 1, w[1] - 1, w[2] - 1, w[3] - 1,
              errors[errors.size() / 2]);
  EXPECT_LT(errors.back(), singular ? limit : 3.0) << name;
  if (!::testing::Test::HasFailure()) std::filesystem::remove_all(dir);
}

TEST(Accuracy, HomogeneousHalfSpace) {
  const Grid g{20};
  const std::vector<Quad> q = arrays(20, false, 2, 6, arrays(20, false, 1, 6, arrays(20, true, 0, 6)));
  for (int s : {1, 0})
    for (int type : {4, 3})
      run_case(type == 4 ? "half-space, grid" : "half-space, triangles", s,
               control(g, type, s, [](double, double) { return 100.0; }), type == 3 ? triangle_mesh(g) : "", q,
               [](const Quad&) { return 100.0; }, 0.3);
}

TEST(Accuracy, TwoLayerWennerSounding) {
  std::vector<Quad> q;
  for (int a = 1; a <= 8; ++a) q.push_back({a + 1, 2 * a + 1, 1, 3 * a + 1});
  for (int s : {1, 0})
    for (int rho2 : {10, 1000})
      run_case("two layers 100/" + std::to_string(rho2) + " over 2 m", s,
               control(Grid{24}, 4, s, [rho2](double, double y) { return y < 2.0 ? 100.0 : rho2; }), "", q,
               [rho2](const Quad& w) { return two_layer_wenner(w[0] - w[2], rho2); }, 0.3);
}

TEST(Accuracy, VerticalContact) {
  const std::vector<Quad> q = arrays(20, false, 1, 5, arrays(20, true, 0, 3));
  const Model model = [](double x, double) { return x < 10.5 ? 100.0 : 20.0; };
  for (int s : {1, 0})
    run_case("vertical contact 100/20", s, control(Grid{20}, 4, s, model), "", q, contact_apparent, 1.0);
}

}  // namespace

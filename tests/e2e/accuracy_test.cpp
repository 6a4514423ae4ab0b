// Accuracy bench of the forward job: run directories whose apparent
// resistivities have closed forms (half-space, two-layer earth, vertical
// contact), run through the real q5 binary, errors printed per case.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

// ---- meshes ------------------------------------------------------------------

// One coordinate axis: fine cells of size h on [fine_lo, fine_hi], then cells
// growing by `growth` outward until `reach` metres beyond the fine part, on
// the sides asked for.
std::vector<double> graded_axis(double fine_lo, double fine_hi, double h,
                                double growth, double reach, bool below,
                                bool above) {
  std::vector<double> v;
  const int cells = static_cast<int>(std::lround((fine_hi - fine_lo) / h));
  for (int i = 0; i <= cells; ++i) v.push_back(fine_lo + i * h);
  if (above) {
    double step = h, x = fine_hi;
    while (x < fine_hi + reach) {
      step *= growth;
      x += step;
      v.push_back(x);
    }
  }
  if (below) {
    std::vector<double> left;
    double step = h, x = fine_lo;
    while (x > fine_lo - reach) {
      step *= growth;
      x -= step;
      left.push_back(x);
    }
    std::reverse(left.begin(), left.end());
    left.insert(left.end(), v.begin(), v.end());
    v = left;
  }
  return v;
}

// A grid for electrodes at x = 0, 1, ..., last (metres) on the surface: four
// cells per metre from 2 m outside the line and down to fine_depth, then
// growth by 1.3 to some 300 m at the sides and the bottom.
struct Grid {
  std::vector<double> xs;  // column positions
  std::vector<double> ys;  // row depths, positive down, first 0
};

Grid make_grid(int last, double fine_depth) {
  Grid g;
  g.xs = graded_axis(-2.0, last + 2.0, 0.25, 1.3, 300.0, true, true);
  g.ys = graded_axis(0.0, fine_depth, 0.25, 1.3, 300.0, false, true);
  return g;
}

int column_of(const Grid& g, double x) {
  for (size_t i = 0; i < g.xs.size(); ++i)
    if (std::fabs(g.xs[i] - x) < 1e-9) return static_cast<int>(i) + 1;
  return 0;
}

int row_of(const Grid& g, double y) {
  for (size_t j = 0; j < g.ys.size(); ++j)
    if (std::fabs(g.ys[j] - y) < 1e-9) return static_cast<int>(j) + 1;
  return 0;
}

std::string list_text(const std::vector<double>& v) {
  std::string s;
  char buf[40];
  for (size_t i = 0; i < v.size(); ++i) {
    std::snprintf(buf, sizeof buf, "%.6f%s", v[i], (i % 8 == 7 || i + 1 == v.size()) ? "\n" : " ");
    s += buf;
  }
  return s;
}

// Resistivity of one grid cell from its centre (x, depth).
using CellModel = double (*)(double x, double depth);

// Region records of a grid model: one record per run of equal resistivity
// down the element numbering (columns of cells, top to bottom).
std::string grid_regions(const Grid& g, CellModel model) {
  const int ny = static_cast<int>(g.ys.size());
  std::vector<double> rho;
  for (size_t i = 0; i + 1 < g.xs.size(); ++i)
    for (int j = 0; j + 1 < ny; ++j)
      rho.push_back(model(0.5 * (g.xs[i] + g.xs[i + 1]), 0.5 * (g.ys[j] + g.ys[j + 1])));
  std::string records;
  int count = 0;
  size_t start = 0;
  char buf[80];
  for (size_t e = 1; e <= rho.size(); ++e) {
    if (e == rho.size() || rho[e] != rho[start]) {
      std::snprintf(buf, sizeof buf, "%zu %zu %.6f\n", start + 1, e, rho[start]);
      records += buf;
      ++count;
      start = e;
    }
  }
  return std::to_string(count) + "\n" + records;
}

// Q5.in of a forward job on the grid, electrodes 1..last+1 at x = 0..last.
std::string grid_control(const Grid& g, int last, int singular, CellModel model) {
  std::ostringstream s;
  s << "Accuracy bench, grid\n";
  s << "0 4 3.0 " << singular << " 0    job, mesh, flux, Singular_type, res_calc\n";
  s << g.xs.size() << " " << g.ys.size() << "\n";
  s << list_text(g.xs);
  s << list_text(std::vector<double>(g.xs.size(), 0.0));
  s << list_text(g.ys);
  s << grid_regions(g, model);
  s << "0    polyline\n";
  s << last + 1 << "\n";
  for (int e = 0; e <= last; ++e) s << e + 1 << " " << column_of(g, e) << " 1\n";
  return s.str();
}

// mesh.dat of the same grid, each cell split into two triangles along
// alternating diagonals; y is height (0 at the surface, negative below), and
// every triangle is anticlockwise in (x, y), as the element matrix wants a
// positive area. Nodes are numbered down the columns as on the grid.
std::string triangle_mesh(const Grid& g, int* bad_orientation) {
  const int nx = static_cast<int>(g.xs.size()), ny = static_cast<int>(g.ys.size());
  auto node = [ny](int i, int j) { return i * ny + j + 1; };
  auto px = [&](int n) { return g.xs[(n - 1) / ny]; };
  auto py = [&](int n) { return -g.ys[(n - 1) % ny]; };
  std::ostringstream els;
  int e = 0;
  *bad_orientation = 0;
  for (int i = 0; i + 1 < nx; ++i)
    for (int j = 0; j + 1 < ny; ++j) {
      const int a = node(i, j), b = node(i + 1, j), c = node(i + 1, j + 1), d = node(i, j + 1);
      int tri[2][3];
      if ((i + j) % 2 == 0) {
        tri[0][0] = a; tri[0][1] = d; tri[0][2] = c;
        tri[1][0] = a; tri[1][1] = c; tri[1][2] = b;
      } else {
        tri[0][0] = a; tri[0][1] = d; tri[0][2] = b;
        tri[1][0] = b; tri[1][1] = d; tri[1][2] = c;
      }
      for (auto& t : tri) {
        const double area = (px(t[1]) - px(t[0])) * (py(t[2]) - py(t[0])) -
                            (py(t[1]) - py(t[0])) * (px(t[2]) - px(t[0]));
        if (area <= 0.0) ++*bad_orientation;
        els << ++e << " " << t[0] << " " << t[1] << " " << t[2] << " 1 1\n";
      }
    }
  std::ostringstream s;
  s << e << " " << nx * ny << "\n" << els.str();
  char buf[80];
  for (int n = 1; n <= nx * ny; ++n) {
    std::snprintf(buf, sizeof buf, "%d %.6f %.6f\n", n, px(n), py(n));
    s << buf;
  }
  return s.str();
}

std::string triangle_control(const Grid& g, int last, int singular, double rho) {
  const int ny = static_cast<int>(g.ys.size());
  const int num_elements = 2 * (static_cast<int>(g.xs.size()) - 1) * (ny - 1);
  std::ostringstream s;
  s << "Accuracy bench, triangles\n";
  s << "0 3 3.0 " << singular << " 0\n";
  s << "1.0    mesh_scale\n";
  s << "1\n1 " << num_elements << " " << rho << "\n";
  s << "0\n";
  s << last + 1 << "\n";
  for (int e = 0; e <= last; ++e) s << e + 1 << " " << (column_of(g, e) - 1) * ny + 1 << "\n";
  return s.str();
}

// ---- measurements and closed forms ------------------------------------------

struct Quad {
  int m, n, a, b;  // electrode ids P+, P-, C+, C-; electrode id k sits at x = k - 1
};

std::vector<Quad> wenner(int last, int max_a) {
  std::vector<Quad> q;
  for (int a = 1; a <= max_a; ++a)
    for (int x0 = 0; x0 + 3 * a <= last; ++x0)
      q.push_back({x0 + a + 1, x0 + 2 * a + 1, x0 + 1, x0 + 3 * a + 1});
  return q;
}

std::vector<Quad> dipole_dipole(int last, int a, int max_n) {
  std::vector<Quad> q;
  for (int n = 1; n <= max_n; ++n)
    for (int x0 = 0; x0 + (n + 2) * a <= last; x0 += 3)
      q.push_back({x0 + (n + 1) * a + 1, x0 + (n + 2) * a + 1, x0 + a + 1, x0 + 1});
  return q;
}

std::string protocol_text(const std::vector<Quad>& q) {
  std::ostringstream s;
  s << q.size() << "\n";
  for (size_t i = 0; i < q.size(); ++i)
    s << i + 1 << " " << q[i].m << " " << q[i].n << " " << q[i].a << " " << q[i].b << "\n";
  return s.str();
}

double position(int id) { return id - 1.0; }

// Apparent resistivity of a surface array over a potential field V(p, c)
// (potential at x_p of a unit source at x_c, in ohm), with the flat
// half-space geometric factor.
template <typename Potential>
double apparent(const Quad& q, Potential v) {
  const double xm = position(q.m), xn = position(q.n), xa = position(q.a), xb = position(q.b);
  const double dv = v(xm, xa) - v(xm, xb) - v(xn, xa) + v(xn, xb);
  const double g = 1.0 / std::fabs(xm - xa) - 1.0 / std::fabs(xm - xb) -
                   1.0 / std::fabs(xn - xa) + 1.0 / std::fabs(xn - xb);
  return 2.0 * M_PI / g * dv;
}

// Wenner apparent resistivity over two layers, top rho1 of thickness h.
double two_layer_wenner(double a, double rho1, double rho2, double h) {
  const double k = (rho2 - rho1) / (rho2 + rho1);
  double sum = 0.0, kn = 1.0;
  for (int n = 1; n <= 2000; ++n) {
    kn *= k;
    const double u = 2.0 * n * h / a;
    sum += kn * (1.0 / std::sqrt(1.0 + u * u) - 1.0 / std::sqrt(4.0 + u * u));
    if (std::fabs(kn) < 1e-15) break;
  }
  return rho1 * (1.0 + 4.0 * sum);
}

// Surface potential of a unit source at xc next to a vertical contact at
// x = contact, rho_left on the left and rho_right on the right: the source
// and its image in the contact.
double contact_potential(double xp, double xc, double contact, double rho_left, double rho_right) {
  const bool source_left = xc < contact;
  const double rho_s = source_left ? rho_left : rho_right;
  const double rho_o = source_left ? rho_right : rho_left;
  const double k = (rho_o - rho_s) / (rho_o + rho_s);
  const double r = std::fabs(xp - xc);
  if ((xp < contact) == source_left) {
    const double ri = std::fabs(xp - (2.0 * contact - xc));
    return rho_s / (2.0 * M_PI) * (1.0 / r + k / ri);
  }
  return rho_s * (1.0 + k) / (2.0 * M_PI * r);
}

// ---- running and judging ----------------------------------------------------

struct Errors {
  double worst = 0.0, median = 0.0;
  size_t count = 0;
};

// Runs q5 on the files and compares the last column of Q5_forward.dat with
// the expected apparent resistivities; percent errors.
Errors run_case(const char* name, const std::string& control, const std::string& mesh,
                const std::vector<Quad>& quads, const std::vector<double>& expected) {
  Errors out;
  const std::string dir = make_run_dir();
  EXPECT_FALSE(dir.empty());
  write_file(dir, "Q5.in", control);
  if (!mesh.empty()) write_file(dir, "mesh.dat", mesh);
  write_file(dir, "protocol.dat", protocol_text(quads));
  const RunResult run = run_q5_in(dir);
  EXPECT_EQ(run.exit_status, 0) << name;
  EXPECT_FALSE(run.console.empty()) << name;
  if (!run.console.empty()) {
    EXPECT_EQ(run.console.back(), "All ok") << name << " in " << dir;
  }
  const std::vector<std::string> lines = read_lines(dir, "Q5_forward.dat");
  EXPECT_EQ(lines.size(), quads.size() + 1) << name << " in " << dir;
  if (lines.size() != quads.size() + 1) return out;
  EXPECT_EQ(std::atoi(lines[0].c_str()), static_cast<int>(quads.size()));
  std::vector<double> errors;
  size_t worst_at = 0;
  for (size_t i = 0; i < quads.size(); ++i) {
    std::istringstream in(lines[i + 1]);
    int index, m, n, a, b;
    double r, rho;
    in >> index >> m >> n >> a >> b >> r >> rho;
    EXPECT_TRUE(static_cast<bool>(in)) << lines[i + 1];
    EXPECT_EQ(m, quads[i].m);
    EXPECT_EQ(b, quads[i].b);
    errors.push_back(100.0 * std::fabs(rho / expected[i] - 1.0));
    if (errors.back() > errors[worst_at]) worst_at = i;
  }
  const Quad& w = quads[worst_at];
  out.count = errors.size();
  std::sort(errors.begin(), errors.end());
  out.worst = errors.back();
  out.median = errors[errors.size() / 2];
  std::printf("[accuracy] %-46s %4zu readings  worst %6.3f %% (P+ P- C+ C- at x = %g %g %g %g m)"
              "  median %6.3f %%\n", name, out.count, out.worst, position(w.m), position(w.n),
              position(w.a), position(w.b), out.median);
  std::fflush(stdout);
  if (!::testing::Test::HasFailure()) std::filesystem::remove_all(dir);
  return out;
}

// The closed forms agree with each other where they must, and the meshes are
// what the cases assume (cheap: runs in every tree).
TEST(Accuracy, ClosedFormsAndMeshes) {
  for (double a = 1.0; a <= 8.0; a += 1.0) {
    EXPECT_NEAR(two_layer_wenner(a, 100.0, 100.0, 2.0), 100.0, 1e-12);
    EXPECT_NEAR(two_layer_wenner(a, 100.0, 10.0, 1e6), 100.0, 1e-6);
    // Deep below a thin top layer the lower layer shows.
    EXPECT_NEAR(two_layer_wenner(a, 100.0, 10.0, 1e-4), 10.0, 0.01);
  }
  // Far from the contact the resistivity of each side, on it a value between.
  const Quad far_left{2, 3, 1, 4}, far_right{2, 3, 1, 4};
  EXPECT_NEAR(apparent(far_left, [](double xp, double xc) {
                return contact_potential(xp, xc, 1e4, 100.0, 20.0);
              }), 100.0, 1e-6);
  EXPECT_NEAR(apparent(far_right, [](double xp, double xc) {
                return contact_potential(xp, xc, -1e4, 100.0, 20.0);
              }), 20.0, 1e-6);
  const double across = apparent(Quad{2, 3, 1, 4}, [](double xp, double xc) {
    return contact_potential(xp, xc, 1.5, 100.0, 20.0);
  });
  EXPECT_GT(across, 20.0);
  EXPECT_LT(across, 100.0);
  // Potential continuous across the contact.
  EXPECT_NEAR(contact_potential(1.4999999, 0.0, 1.5, 100.0, 20.0),
              contact_potential(1.5000001, 0.0, 1.5, 100.0, 20.0), 1e-5);
  EXPECT_NEAR(contact_potential(1.4999999, 3.0, 1.5, 100.0, 20.0),
              contact_potential(1.5000001, 3.0, 1.5, 100.0, 20.0), 1e-5);

  const Grid g = make_grid(20, 3.0);
  EXPECT_EQ(column_of(g, 0.0) + 80, column_of(g, 20.0));
  EXPECT_GT(g.xs.back(), 300.0);
  EXPECT_LT(g.xs.front(), -300.0);
  EXPECT_GT(g.ys.back(), 300.0);
  for (size_t i = 1; i < g.xs.size(); ++i) EXPECT_LE(g.xs[i] - g.xs[i - 1], 0.25 * std::pow(1.3, 30));
  int bad = -1;
  const std::string mesh = triangle_mesh(g, &bad);
  EXPECT_EQ(bad, 0);
  EXPECT_EQ(mesh.substr(0, mesh.find('\n')),
            std::to_string(2 * (g.xs.size() - 1) * (g.ys.size() - 1)) + " " +
                std::to_string(g.xs.size() * g.ys.size()));
}

bool skip_slow() { return std::getenv("Q5_SKIP_SLOW") != nullptr; }

double uniform_100(double, double) { return 100.0; }

std::vector<Quad> half_space_quads(int last) {
  std::vector<Quad> q = wenner(last, 6);
  for (int a : {1, 2}) {
    std::vector<Quad> d = dipole_dipole(last, a, 6);
    q.insert(q.end(), d.begin(), d.end());
  }
  return q;
}

TEST(Accuracy, HomogeneousHalfSpace) {
  if (skip_slow()) GTEST_SKIP() << "Q5_SKIP_SLOW is set";
  const int last = 20;
  const Grid g = make_grid(last, 3.0);
  const std::vector<Quad> q = half_space_quads(last);
  const std::vector<double> expected(q.size(), 100.0);
  int bad = 0;
  const std::string mesh = triangle_mesh(g, &bad);
  ASSERT_EQ(bad, 0);

  Errors e = run_case("half-space, grid, Singular_type 1", grid_control(g, last, 1, uniform_100), "", q, expected);
  EXPECT_LT(e.worst, 0.3);
  e = run_case("half-space, grid, Singular_type 0", grid_control(g, last, 0, uniform_100), "", q, expected);
  EXPECT_LT(e.worst, 3.0);
  e = run_case("half-space, triangles, Singular_type 1", triangle_control(g, last, 1, 100.0), mesh, q, expected);
  EXPECT_LT(e.worst, 0.3);
  e = run_case("half-space, triangles, Singular_type 0", triangle_control(g, last, 0, 100.0), mesh, q, expected);
  EXPECT_LT(e.worst, 3.0);
}

double layer_conductive(double, double depth) { return depth < 2.0 ? 100.0 : 10.0; }
double layer_resistive(double, double depth) { return depth < 2.0 ? 100.0 : 1000.0; }

TEST(Accuracy, TwoLayerWennerSounding) {
  if (skip_slow()) GTEST_SKIP() << "Q5_SKIP_SLOW is set";
  const int last = 24;
  const Grid g = make_grid(last, 3.0);
  ASSERT_GT(row_of(g, 2.0), 0);
  std::vector<Quad> q;
  for (int a = 1; a <= 8; ++a) q.push_back({a + 1, 2 * a + 1, 1, 3 * a + 1});
  struct Layered {
    const char* name;
    CellModel model;
    double rho2;
  };
  const Layered cases[4] = {
      {"two layers 100/10 over 2 m, Singular_type 1", layer_conductive, 10.0},
      {"two layers 100/1000 over 2 m, Singular_type 1", layer_resistive, 1000.0},
      {"two layers 100/10 over 2 m, Singular_type 0", layer_conductive, 10.0},
      {"two layers 100/1000 over 2 m, Singular_type 0", layer_resistive, 1000.0}};
  for (int c = 0; c < 4; ++c) {
    std::vector<double> expected;
    for (const Quad& w : q) expected.push_back(two_layer_wenner(position(w.m) - position(w.a), 100.0, cases[c].rho2, 2.0));
    const int singular = c < 2 ? 1 : 0;
    const Errors e = run_case(cases[c].name, grid_control(g, last, singular, cases[c].model), "", q, expected);
    EXPECT_LT(e.worst, singular ? 0.3 : 3.0) << cases[c].name;
  }
}

double contact_model(double x, double) { return x < 10.5 ? 100.0 : 20.0; }

TEST(Accuracy, VerticalContact) {
  if (skip_slow()) GTEST_SKIP() << "Q5_SKIP_SLOW is set";
  const int last = 20;
  const Grid g = make_grid(last, 3.0);
  ASSERT_GT(column_of(g, 10.5), 0);
  std::vector<Quad> q = wenner(last, 3);
  std::vector<Quad> d = dipole_dipole(last, 1, 5);
  q.insert(q.end(), d.begin(), d.end());
  std::vector<double> expected;
  for (const Quad& w : q)
    expected.push_back(apparent(w, [](double xp, double xc) {
      return contact_potential(xp, xc, 10.5, 100.0, 20.0);
    }));
  Errors e = run_case("vertical contact 100/20, Singular_type 1", grid_control(g, last, 1, contact_model), "", q, expected);
  EXPECT_LT(e.worst, 1.0);
  e = run_case("vertical contact 100/20, Singular_type 0", grid_control(g, last, 0, contact_model), "", q, expected);
  EXPECT_LT(e.worst, 3.0);
}

}  // namespace

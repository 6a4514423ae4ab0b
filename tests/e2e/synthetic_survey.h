// Synthetic surveys for the end-to-end inverse tests: a grid or triangle
// mesh with surface electrodes, a model made of boxes, data made by q5's own
// forward job with seeded Gaussian noise added here, and the inverse control
// file that goes with them.
#pragma once

#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "e2e_util.h"

// A resistivity box in (x, depth) metres.
struct Box {
  double x0, x1, d0, d1, rho;
};

struct Survey {
  int electrodes = 16;            // 1 m apart from x = 0
  int cells_per_spacing = 2;
  int padding = 5;                // cells growing by 1.6 on each side and below
  std::vector<double> xs, ys;     // grid columns and depths
  int first_column = 0;           // 1-based column of electrode 1
  std::vector<std::string> quads; // "P+ P- C+ C-" per reading
  std::string control_tail;       // polyline and electrodes
};

inline void build_survey(Survey* s) {
  const double h0 = 1.0 / s->cells_per_spacing;
  std::vector<double> left;
  double h = h0, x = 0.0;
  for (int k = 0; k < s->padding; ++k) left.push_back(x -= (h *= 1.6));
  s->xs.assign(left.rbegin(), left.rend());
  s->first_column = (int)s->xs.size() + 1;
  for (int i = 0; i <= (s->electrodes - 1) * s->cells_per_spacing; ++i) s->xs.push_back(i * h0);
  h = h0;
  x = s->electrodes - 1;
  for (int k = 0; k < s->padding; ++k) s->xs.push_back(x += (h *= 1.6));
  s->ys = {0.0};
  h = 0.5 * h0;
  // An even number of rows, so that blocks of 2 x 2 cells tile the grid.
  while (s->ys.back() < 0.4 * s->electrodes || s->ys.size() % 2 == 0)
    s->ys.push_back(s->ys.back() + (h *= 1.15));
  // Dipole-dipole n = 1..5 and Wenner a = 1..4.
  const int L = s->electrodes;
  for (int n = 1; n <= 5; ++n)
    for (int a = 1; a + n + 2 <= L; ++a)
      s->quads.push_back(std::to_string(a + n + 1) + " " + std::to_string(a + n + 2) + " " +
                         std::to_string(a) + " " + std::to_string(a + 1));
  for (int sp = 1; sp <= 4; ++sp)
    for (int a = 1; a + 3 * sp <= L; ++a)
      s->quads.push_back(std::to_string(a + sp) + " " + std::to_string(a + 2 * sp) + " " +
                         std::to_string(a) + " " + std::to_string(a + 3 * sp));
}

inline int grid_cells(const Survey& s) { return ((int)s.xs.size() - 1) * ((int)s.ys.size() - 1); }

// Region records: background, then each box over the cells whose centre lies in it.
inline std::string grid_regions(const Survey& s, double background, const std::vector<Box>& boxes) {
  std::ostringstream o;
  int count = 1;
  std::ostringstream recs;
  const int ny = (int)s.ys.size();
  for (const Box& b : boxes)
    for (size_t i = 0; i + 1 < s.xs.size(); ++i)
      for (int j = 0; j + 1 < ny; ++j) {
        double xc = 0.5 * (s.xs[i] + s.xs[i + 1]), dc = 0.5 * (s.ys[j] + s.ys[j + 1]);
        if (xc > b.x0 && xc < b.x1 && dc > b.d0 && dc < b.d1) {
          int e = (int)i * (ny - 1) + j + 1;
          recs << e << " " << e << " " << b.rho << "\n";
          ++count;
        }
      }
  o << count << "\n1 " << grid_cells(s) << " " << background << "\n" << recs.str();
  return o.str();
}

// Record 2 and the grid records of a grid survey.
inline std::string grid_head(const Survey& s, int job, const char* flux, int singular, int res_calc) {
  std::ostringstream o;
  o.precision(10);
  o << "Synthetic grid survey\n" << job << " 4 " << flux << " " << singular << " " << res_calc << "\n"
    << s.xs.size() << " " << s.ys.size() << "\n";
  for (double x : s.xs) o << x << " ";
  o << "\n";
  for (size_t i = 0; i < s.xs.size(); ++i) o << "0 ";
  o << "\n";
  for (double y : s.ys) o << y << " ";
  o << "\n";
  return o.str();
}

inline std::string grid_electrodes(const Survey& s) {
  std::ostringstream o;
  o << "0\n" << s.electrodes << "\n";
  for (int k = 0; k < s.electrodes; ++k)
    o << k + 1 << " " << s.first_column + k * s.cells_per_spacing << " 1\n";
  return o.str();
}

// protocol.dat of a forward job: the readings alone.
inline std::string forward_protocol(const Survey& s) {
  std::ostringstream o;
  o << s.quads.size() << "\n";
  for (size_t i = 0; i < s.quads.size(); ++i) o << i + 1 << " " << s.quads[i] << "\n";
  return o.str();
}

// Runs the forward job in `dir` and returns the transfer resistances.
inline std::vector<double> forward_data(const std::string& dir, const std::string& control,
                                        const std::string& protocol) {
  write_file(dir, "Q5.in", control);
  write_file(dir, "protocol.dat", protocol);
  run_q5_in(dir);
  std::vector<double> r;
  Lines out = read_lines(dir, "Q5_forward.dat");
  for (size_t i = 1; i < out.size(); ++i) {
    int a[5];
    double v, rho;
    if (std::sscanf(out[i].c_str(), "%d %d %d %d %d %lf %lf", &a[0], &a[1], &a[2], &a[3], &a[4], &v, &rho) == 7)
      r.push_back(v);
  }
  return r;
}

// Relative Gaussian noise of `fraction`, from a fixed seed.
inline std::vector<double> add_noise(std::vector<double> r, double fraction, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g(0.0, 1.0);
  for (double& v : r) v *= 1.0 + fraction * g(rng);
  return r;
}

// One inverse block: readings with their value (and reference).
inline std::string inverse_block(const Survey& s, const std::vector<double>& value,
                                 const std::vector<double>* reference = nullptr) {
  std::ostringstream o;
  o.precision(12);
  o << s.quads.size() << "\n";
  for (size_t i = 0; i < s.quads.size(); ++i) {
    o << i + 1 << " " << s.quads[i] << " " << value[i];
    if (reference) o << " " << (*reference)[i];
    o << "\n";
  }
  return o.str();
}

// Rows of a model table (x, height, rho, log10 rho).
struct ModelRow {
  double x, y, rho;
};
inline std::vector<ModelRow> model_rows(const std::string& dir, const std::string& name) {
  std::vector<ModelRow> rows;
  for (const std::string& l : read_lines(dir, name)) {
    ModelRow r;
    if (std::sscanf(l.c_str(), "%lf %lf %lf", &r.x, &r.y, &r.rho) == 3) rows.push_back(r);
  }
  return rows;
}

// Resistivity of the row nearest to (x, y).
inline double value_at(const std::vector<ModelRow>& rows, double x, double y) {
  double best = 1e300, v = NAN;
  for (const ModelRow& r : rows) {
    double d = (r.x - x) * (r.x - x) + (r.y - y) * (r.y - y);
    if (d < best) best = d, v = r.rho;
  }
  return v;
}

// Final RMS of the last "Final RMS Misfit:" line of a console or log, and
// the number of "Iteration" lines.
inline double final_rms(const Lines& lines, int* iterations = nullptr) {
  double rms = NAN;
  int its = 0;
  for (const std::string& l : lines) {
    if (l.rfind("     Final RMS Misfit:", 0) == 0) rms = std::atof(l.c_str() + 22);
    if (l.rfind("   Iteration ", 0) == 0) ++its;
  }
  if (iterations) *iterations = its;
  return rms;
}

// Builders of test inputs: graded axes, grid and triangle meshes, mesh.dat
// text, and the synthetic surface survey with its control-file pieces, data
// and the readers of the tables q5 writes.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sstream>

#include "support/support.h"

std::vector<double> uniform_axis(double lo, double hi, double step) {
  std::vector<double> v;
  for (int i = 0; lo + i * step <= hi; ++i) v.push_back(lo + i * step);
  return v;
}

double pad_axis(std::vector<double>* axis, bool at_end, double step, double growth, int cells,
                double reach) {
  const double start = at_end ? axis->back() : axis->front();
  for (int n = 0; n < cells || (at_end ? axis->back() < start + reach : axis->front() > start - reach); ++n) {
    step *= growth;
    if (at_end) axis->push_back(axis->back() + step);
    else axis->insert(axis->begin(), axis->front() - step);
  }
  return step;
}

MeshModel grid_mesh(const std::vector<double>& xs, const std::vector<double>& ys, int nodes_per_element,
                    int zone) {
  const int nx = static_cast<int>(xs.size()), ny = static_cast<int>(ys.size());
  MeshModel m{nx * ny, 0, {}, {}, {}, {}, std::vector<int>(nx * ny, 0)};
  for (int i = 0; i < nx; ++i)
    for (int j = 0; j < ny; ++j) {
      m.node_x.push_back(xs[i]);
      m.node_y.push_back(ys[j]);
    }
  std::vector<int>& en = m.element_nodes;
  for (int i = 0; i + 1 < nx; ++i)
    for (int j = 0; j + 1 < ny; ++j) {
      const int a = i * ny + j + 1, b = a + ny, c = b + 1, d = a + 1;
      // Anticlockwise when b lies to the right of a and c beyond b turning left.
      const bool abc_anticlockwise = (xs[i + 1] - xs[i]) * (ys[j + 1] - ys[j]) > 0.0;
      if (nodes_per_element == 4) en.insert(en.end(), {a, b, c, d});
      else if (abc_anticlockwise) en.insert(en.end(), {a, c, d, zone, a, b, c, zone});
      else en.insert(en.end(), {a, d, c, zone, a, c, b, zone});
    }
  m.num_elements = static_cast<int>(en.size()) / 4;
  en.push_back(1);  // the entry behind the last element holds node 1
  for (int e = 1; e <= m.num_elements; ++e) m.element_parameter.push_back(e);
  return m;
}

std::string mesh_dat_text(const MeshModel& m) {
  std::ostringstream o;
  o.precision(10);
  o << m.num_elements << " " << m.num_nodes << "\n";
  for (int e = 0; e < m.num_elements; ++e) {
    const int* n = &m.element_nodes[4 * e];
    o << e + 1 << " " << n[0] << " " << n[1] << " " << n[2] << " " << m.element_parameter[e] << " " << n[3]
      << "\n";
  }
  for (int n = 0; n < m.num_nodes; ++n) o << n + 1 << " " << m.node_x[n] << " " << m.node_y[n] << "\n";
  return o.str();
}

void build_survey(Survey* s) {
  const double h0 = 1.0 / s->cells_per_spacing;
  s->xs = uniform_axis(0.0, s->electrodes - 1, h0);
  pad_axis(&s->xs, false, h0, 1.6, s->padding);
  pad_axis(&s->xs, true, h0, 1.6, s->padding);
  s->first_column = s->padding + 1;
  s->ys = {0.0};
  const double last = pad_axis(&s->ys, true, 0.5 * h0, 1.15, 0, 0.4 * s->electrodes);
  if (s->ys.size() % 2 == 0) pad_axis(&s->ys, true, last, 1.15, 1);
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

int grid_cells(const Survey& s) { return (static_cast<int>(s.xs.size()) - 1) * (static_cast<int>(s.ys.size()) - 1); }

std::string grid_records(const std::vector<double>& xs, const std::vector<double>& ys) {
  std::ostringstream o;
  o.precision(10);
  o << xs.size() << " " << ys.size() << "\n";
  for (double x : xs) o << x << " ";
  o << "\n";
  for (size_t i = 0; i < xs.size(); ++i) o << "0 ";
  o << "\n";
  for (double y : ys) o << y << " ";
  o << "\n";
  return o.str();
}

std::string survey_head(const Survey& s, int job, const char* flux, int singular, int res_calc, bool triangles) {
  return std::string(triangles ? "Synthetic triangles\n" : "Synthetic grid survey\n") + std::to_string(job) +
         (triangles ? " 3 " : " 4 ") + flux + " " + std::to_string(singular) + " " + std::to_string(res_calc) + "\n" +
         (triangles ? "1.0\n" : grid_records(s.xs, s.ys));
}

std::string survey_regions(const Survey& s, double background, const std::vector<Box>& boxes,
                           bool triangles) {
  std::ostringstream records;
  int count = 1;
  const int ny = static_cast<int>(s.ys.size());
  for (const Box& b : boxes)
    for (size_t i = 0; i + 1 < s.xs.size(); ++i)
      for (int j = 0; j + 1 < ny; ++j) {
        const double xc = 0.5 * (s.xs[i] + s.xs[i + 1]), dc = 0.5 * (s.ys[j] + s.ys[j + 1]);
        if (xc > b.x0 && xc < b.x1 && dc > b.d0 && dc < b.d1) {
          const int cell = static_cast<int>(i) * (ny - 1) + j + 1;
          if (triangles) records << 2 * cell - 1 << " " << 2 * cell << " " << b.rho << "\n";
          else records << cell << " " << cell << " " << b.rho << "\n";
          ++count;
        }
      }
  std::ostringstream o;
  o << count << "\n1 " << (triangles ? 2 : 1) * grid_cells(s) << " " << background << "\n" << records.str();
  return o.str();
}

std::string survey_mesh_dat(const Survey& s) {
  std::vector<double> heights;
  for (double d : s.ys) heights.push_back(-d);
  return mesh_dat_text(grid_mesh(s.xs, heights, 3));
}

std::string survey_electrodes(const Survey& s, bool triangles) {
  std::ostringstream o;
  o << "0\n" << s.electrodes << "\n";
  const int ny = static_cast<int>(s.ys.size());
  for (int k = 0; k < s.electrodes; ++k) {
    const int column = s.first_column + k * s.cells_per_spacing;
    if (triangles) o << k + 1 << " " << (column - 1) * ny + 1 << "\n";
    else o << k + 1 << " " << column << " 1\n";
  }
  return o.str();
}

std::string survey_block(const Survey& s, const std::vector<double>& values, const std::vector<double>& reference) {
  std::ostringstream o;
  o.precision(12);
  o << s.quads.size() << "\n";
  for (size_t i = 0; i < s.quads.size(); ++i) {
    o << i + 1 << " " << s.quads[i];
    if (!values.empty()) o << " " << values[i];
    if (!reference.empty()) o << " " << reference[i];
    o << "\n";
  }
  return o.str();
}

std::vector<double> forward_values(const std::string& path, bool apparent) {
  std::vector<double> values;
  for (const std::string& line : split_lines(read_file(path))) {
    double r, rho;  // place, P+, P-, C+, C-, then these two
    if (std::sscanf(line.c_str(), "%*d %*d %*d %*d %*d %lf %lf", &r, &rho) == 2)
      values.push_back(apparent ? rho : r);
  }
  return values;
}

std::vector<double> forward_data(const Files& inputs, const Survey& s) {
  Files all = inputs;
  all.push_back({"protocol.dat", survey_block(s)});
  return forward_values(run_q5(all).dir + "/Q5_forward.dat");
}

std::vector<double> add_noise(std::vector<double> values, double fraction, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> g(0.0, 1.0);
  for (double& v : values) v *= 1.0 + fraction * g(rng);
  return values;
}

std::vector<ModelRow> model_rows(const std::string& path) {
  std::vector<ModelRow> rows;
  for (const std::string& l : split_lines(read_file(path))) {
    ModelRow r;
    if (std::sscanf(l.c_str(), "%lf %lf %lf", &r.x, &r.y, &r.rho) == 3) rows.push_back(r);
  }
  return rows;
}

double value_at(const std::vector<ModelRow>& rows, double x, double y) {
  double best = 1e300, v = NAN;
  for (const ModelRow& r : rows) {
    const double d = (r.x - x) * (r.x - x) + (r.y - y) * (r.y - y);
    if (d < best) best = d, v = r.rho;
  }
  return v;
}

double final_rms(const Lines& lines, int* iterations) {
  double rms = NAN;
  int its = 0;
  for (const std::string& l : lines) {
    if (l.rfind("     Final RMS Misfit:", 0) == 0) rms = std::atof(l.c_str() + 22);
    if (l.rfind("   Iteration ", 0) == 0) ++its;
  }
  if (iterations) *iterations = its;
  return rms;
}

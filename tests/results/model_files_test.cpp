// Tests of the model file writers: tables and VTK files of triangle and
// quadrilateral meshes, with and without an output mask, raw values, the
// appended scalars and the difference map. Expected files are built here by
// a slow, obvious rendering of the same rules.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "mesh/mesh_model.h"
#include "results/model_files.h"
#include "textio/textio.h"

namespace {

// A stop ends the process with status 0, which a test runner would count as
// a pass: a stop inside a test fails the program instead.
bool g_in_test = false;
const bool g_exit_guard = [] {
  std::atexit([] {
    if (g_in_test) {
      std::fputs("unexpected stop of the run inside a test\n", stderr);
      std::fflush(stderr);
      _exit(1);
    }
  });
  return true;
}();

class ModelFilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(getcwd(old_dir_, sizeof old_dir_), nullptr);
    char tmpl[] = "/tmp/q5_results_test_XXXXXX";
    char* dir = mkdtemp(tmpl);
    ASSERT_NE(dir, nullptr);
    dir_ = dir;
    ASSERT_EQ(chdir(dir), 0);
    g_in_test = true;
  }
  void TearDown() override {
    g_in_test = false;
    tio_close_all();
    ASSERT_EQ(chdir(old_dir_), 0);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

 private:
  char old_dir_[4096];
  std::string dir_;
};

std::string read_file(const char* name) {
  std::ifstream in(name, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream ss(text);
  std::string line;
  while (std::getline(ss, line)) lines.push_back(line);
  return lines;
}

std::string fmt(const char* descriptor, double v) {
  char buf[64];
  int n = tio_render(descriptor, wv_real(v), buf, sizeof buf);
  return std::string(buf, n);
}

std::string fmt_int(int width, long long v) {
  std::string s = std::to_string(v);
  return std::string(width > static_cast<int>(s.size()) ? width - s.size() : 0, ' ') + s;
}

// Centre as the user sees it: triangles as given, quadrilaterals in height.
void ref_centre(const MeshModel& m, int npe, int e, double* cx, double* cy) {
  const int* n = &m.element_nodes[4 * (e - 1)];
  if (npe == 3) {
    *cx = (m.node_x[n[0] - 1] + m.node_x[n[1] - 1] + m.node_x[n[2] - 1]) / 3.0;
    *cy = (m.node_y[n[0] - 1] + m.node_y[n[1] - 1] + m.node_y[n[2] - 1]) / 3.0;
  } else {
    *cx = (m.node_x[n[0] - 1] + m.node_x[n[1] - 1] + m.node_x[n[2] - 1] +
           m.node_x[n[3] - 1]) * 0.25;
    *cy = -((m.node_y[n[0] - 1] + m.node_y[n[1] - 1] + m.node_y[n[2] - 1] +
             m.node_y[n[3] - 1]) * 0.25);
  }
}

// The VTK id of a written node: its place among the written nodes.
int ref_id(const OutputMask& mask, int node) {
  int id = 0;
  for (int n = 1; n < node; ++n)
    if (mask.node_mask[n - 1]) ++id;
  return id;
}

// Expected table of a log conductivity model.
std::string ref_table(const MeshModel& m, const OutputMask& mask, int npe,
                      const std::vector<double>& v) {
  std::string out;
  for (int e = 1; e <= m.num_elements; ++e) {
    if (!mask.element_mask[e - 1]) continue;
    double cx, cy;
    ref_centre(m, npe, e, &cx, &cy);
    double rho = std::exp(-v[e - 1]);
    out += fmt("E15.5", cx) + fmt("E15.5", cy) + fmt("E15.5", rho) +
           fmt("E15.5", std::log10(rho)) + "\n";
  }
  return out;
}

// Expected VTK mesh block up to the line of cell types (not ended).
std::string ref_vtk_mesh(const MeshModel& m, const OutputMask& mask, int npe,
                         bool ids_from_mask) {
  int np = 0, ne = 0;
  for (unsigned char b : mask.node_mask) np += b;
  for (unsigned char b : mask.element_mask) ne += b;
  std::string out =
      "# vtk DataFile Version 3.0\nOutput from Q5\nASCII\n"
      "DATASET UNSTRUCTURED_GRID\nPOINTS " + fmt_int(10, np) + " double\n";
  for (int n = 1; n <= m.num_nodes; ++n) {
    if (!mask.node_mask[n - 1]) continue;
    double y = npe == 3 ? m.node_y[n - 1] : -m.node_y[n - 1];
    out += fmt("F12.5", m.node_x[n - 1]) + fmt("F12.5", y) + fmt("F5.0", 0.0) + "\n";
  }
  int corners = npe == 3 ? 3 : 4;
  out += " CELLS " + fmt_int(10, ne) + fmt_int(10, ne * (corners + 1)) + "\n";
  for (int e = 1; e <= m.num_elements; ++e) {
    if (!mask.element_mask[e - 1]) continue;
    out += fmt_int(10, corners);
    for (int s = 0; s < corners; ++s) {
      int node = m.element_nodes[4 * (e - 1) + s];
      out += fmt_int(10, ids_from_mask ? ref_id(mask, node) : node - 1);
    }
    out += "\n";
  }
  out += "CELL_TYPES" + fmt_int(10, ne) + "\n";
  for (int e = 0; e < ne; ++e) out += fmt_int(3, npe == 3 ? 5 : 9);
  out += "\nPOINT_DATA" + fmt_int(10, np) + "\nCELL_DATA" + fmt_int(10, ne) +
         "\nSCALARS Resistivity(Ohm-m) double 1\nLOOKUP_TABLE default\n";
  return out;
}

std::string ref_values(const OutputMask& mask, const std::vector<double>& v) {
  std::string out;
  for (size_t e = 0; e < v.size(); ++e)
    if (mask.element_mask[e]) out += fmt("F20.5", v[e]);
  return out;
}

// Three triangles on five nodes.
MeshModel triangles() {
  MeshModel m{};
  m.num_nodes = 5;
  m.num_elements = 3;
  m.node_x = {0.0, 10.0, 5.0, 15.0, 1.0 / 3.0};
  m.node_y = {0.0, 0.0, -7.25, -3.5, 2.0};
  m.element_nodes = {1, 2, 3, 4, 2, 4, 3, 4, 1, 3, 5, 9, 1};
  return m;
}

// A grid of nx by ny nodes of quadrilaterals, depth positive down.
MeshModel quads(int nx, int ny) {
  MeshModel m{};
  m.num_nodes = nx * ny;
  m.num_elements = (nx - 1) * (ny - 1);
  for (int i = 0; i < nx; ++i)
    for (int j = 0; j < ny; ++j) {
      m.node_x.push_back(1.5 * i - 2.0);
      m.node_y.push_back(j == 1 ? 3.0 : 0.75 * j * j);
    }
  for (int i = 1; i < nx; ++i)
    for (int j = 1; j < ny; ++j) {
      int n = (i - 1) * ny + j;
      m.element_nodes.insert(m.element_nodes.end(), {n, n + ny, n + ny + 1, n + 1});
    }
  m.element_nodes.push_back(1);
  return m;
}

OutputMask all_of(const MeshModel& m) {
  OutputMask mask{};
  mask.element_mask.assign(m.num_elements, 1);
  mask.node_mask.assign(m.num_nodes, 1);
  return mask;
}

OutputMask from_elements(const MeshModel& m, int npe,
                         const std::vector<unsigned char>& elements) {
  OutputMask mask{};
  mask.element_mask = elements;
  mask.node_mask.assign(m.num_nodes, 0);
  for (int e = 1; e <= m.num_elements; ++e)
    if (elements[e - 1])
      for (int s = 0; s < npe; ++s) mask.node_mask[m.element_nodes[4 * (e - 1) + s] - 1] = 1;
  return mask;
}

std::vector<double> log_of(const std::vector<double>& v) {
  std::vector<double> out;
  for (double x : v) out.push_back(std::log10(x));
  return out;
}

std::vector<double> rho_of(const std::vector<double>& v) {
  std::vector<double> out;
  for (double x : v) out.push_back(std::exp(-x));
  return out;
}

// Writes a log conductivity model on channels 14 and 18 and returns both.
void write_and_read(const std::vector<double>& v, const MeshModel& m,
                    const OutputMask& mask, int npe, std::string* table,
                    std::string* vtk) {
  tio_open(CH_MODEL, "model.dat");
  tio_open(CH_MODEL_VTK, "model.vtk");
  write_model(v.data(), m, mask, npe, false, CH_MODEL, CH_MODEL_VTK, 0);
  tio_close(CH_MODEL);
  tio_close(CH_MODEL_VTK);
  *table = read_file("model.dat");
  *vtk = read_file("model.vtk");
}

std::string resistivity_scalars(const OutputMask& mask, const std::vector<double>& v) {
  return ref_values(mask, rho_of(v)) +
         "\nSCALARS Resistivity(log10) double 1\nLOOKUP_TABLE default\n" +
         ref_values(mask, log_of(rho_of(v))) + "\n";
}

TEST_F(ModelFilesTest, TriangleModelWithAndWithoutMask) {
  MeshModel m = triangles();
  std::vector<double> v = {-std::log(100.0), 0.0, 2.302585092994046};
  OutputMask mask = all_of(m);
  std::string table, vtk;
  write_and_read(v, m, mask, 3, &table, &vtk);
  EXPECT_EQ(table, ref_table(m, mask, 3, v));
  for (const std::string& line : split_lines(table)) EXPECT_EQ(line.size(), 60u);
  EXPECT_EQ(vtk, ref_vtk_mesh(m, mask, 3, false) + resistivity_scalars(mask, v));
  // Triangles keep node_y as given.
  EXPECT_NE(vtk.find("     5.00000    -7.25000"), std::string::npos);
  EXPECT_NE(vtk.find("\n  5  5  5\n"), std::string::npos);

  // The second element left out: node 4 is no longer written, and the ids
  // of node 5 drop by one.
  mask = from_elements(m, 3, {1, 0, 1});
  ASSERT_EQ(mask.node_mask, (std::vector<unsigned char>{1, 1, 1, 0, 1}));
  write_and_read(v, m, mask, 3, &table, &vtk);
  EXPECT_EQ(table, ref_table(m, mask, 3, v));
  EXPECT_EQ(split_lines(table).size(), 2u);
  EXPECT_EQ(vtk, ref_vtk_mesh(m, mask, 3, true) + resistivity_scalars(mask, v));
  EXPECT_NE(vtk.find("\n         3         0         2         3\n"),
            std::string::npos);

  // All elements written but a node outside them left out: the ids stay
  // node - 1.
  m.num_nodes = 6;
  m.node_x.push_back(99.0);
  m.node_y.push_back(99.0);
  m.element_nodes = {1, 2, 3, 5, 2, 5, 3, 4, 1, 3, 6, 9, 1};
  mask = from_elements(m, 3, {1, 1, 1});
  ASSERT_EQ(mask.node_mask[3], 0);
  write_and_read(v, m, mask, 3, &table, &vtk);
  EXPECT_EQ(vtk, ref_vtk_mesh(m, mask, 3, false) + resistivity_scalars(mask, v));
  EXPECT_NE(vtk.find("         3         0         2         5\n"),
            std::string::npos);
}

TEST_F(ModelFilesTest, QuadrilateralModelShowsHeight) {
  MeshModel m = quads(5, 4);  // 12 elements
  std::vector<double> v(m.num_elements);
  for (int e = 0; e < m.num_elements; ++e) v[e] = 0.37 * e - 2.0;
  OutputMask mask = all_of(m);
  std::string table, vtk;
  write_and_read(v, m, mask, 4, &table, &vtk);
  EXPECT_EQ(table, ref_table(m, mask, 4, v));
  EXPECT_EQ(vtk, ref_vtk_mesh(m, mask, 4, false) + resistivity_scalars(mask, v));
  // node_y of 3.0 at node 2 goes out as -3.00000; the first centre is
  // negative.
  std::vector<std::string> lines = split_lines(vtk);
  EXPECT_EQ(lines[6], "    -2.00000    -3.00000   0.");
  EXPECT_EQ(lines[0].size(), 26u);
  std::vector<std::string> rows = split_lines(table);
  EXPECT_EQ(rows[0].substr(15, 15), fmt("E15.5", -(0.0 + 0.0 + 3.0 + 3.0) * 0.25));
  // The types stand on one line of 3 * ne columns, each value line has
  // 20 * ne columns.
  int types = 0;
  for (size_t i = 0; i < lines.size(); ++i)
    if (lines[i].rfind("CELL_TYPES", 0) == 0) types = static_cast<int>(i) + 1;
  ASSERT_GT(types, 0);
  EXPECT_EQ(lines[types].size(), 36u);
  EXPECT_EQ(lines[types + 5].size(), 240u);
  EXPECT_EQ(lines.back().size(), 240u);

  // Every other column of cells left out; ids against the slow count.
  std::vector<unsigned char> keep(m.num_elements, 0);
  for (int e = 1; e <= m.num_elements; ++e) keep[e - 1] = ((e - 1) / 3) % 2 == 1 || e == 1;
  mask = from_elements(m, 4, keep);
  write_and_read(v, m, mask, 4, &table, &vtk);
  EXPECT_EQ(table, ref_table(m, mask, 4, v));
  EXPECT_EQ(vtk, ref_vtk_mesh(m, mask, 4, true) + resistivity_scalars(mask, v));
}

TEST_F(ModelFilesTest, LargeMaskedMeshIdsAndLongLines) {
  // 61 by 41 nodes: 2400 elements, a value line of 48,000 columns.
  MeshModel m = quads(61, 41);
  std::vector<unsigned char> keep(m.num_elements, 0);
  for (int e = 0; e < m.num_elements; ++e) keep[e] = (e * 7919) % 5 != 0;
  OutputMask mask = from_elements(m, 4, keep);
  std::vector<double> v(m.num_elements);
  for (int e = 0; e < m.num_elements; ++e) v[e] = std::sin(0.01 * e) * 3.0;
  std::string table, vtk;
  write_and_read(v, m, mask, 4, &table, &vtk);
  EXPECT_EQ(vtk, ref_vtk_mesh(m, mask, 4, true) + resistivity_scalars(mask, v));
  int ne = 0;
  for (unsigned char b : keep) ne += b;
  EXPECT_EQ(split_lines(vtk).back().size(), 20u * ne);
}

TEST_F(ModelFilesTest, RawValuesAndAppendedScalars) {
  MeshModel m = triangles();
  OutputMask mask = all_of(m);
  std::vector<double> raw = {4.0, -2.5, 0.001};
  tio_open(CH_MODEL, "model.dat");
  tio_open(CH_MODEL_VTK, "model.vtk");
  tio_open(CH_MAP, "model_sen.dat");
  write_model(raw.data(), m, mask, 3, true, CH_MODEL, CH_MODEL_VTK, 1);
  std::vector<double> sens = {1.0e-3, 0.0, 25.0};
  write_model(sens.data(), m, mask, 3, true, CH_MAP, CH_MODEL_VTK,
              CONTENT_SENSITIVITY);
  tio_close_all();

  // A value of -2.5 has no logarithm: three fields; the next line has four.
  std::vector<std::string> rows = split_lines(read_file("model.dat"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].size(), 60u);
  EXPECT_EQ(rows[1].size(), 45u);
  EXPECT_EQ(rows[2].size(), 60u);
  double cx, cy;
  ref_centre(m, 3, 2, &cx, &cy);
  EXPECT_EQ(rows[1], fmt("E15.5", cx) + fmt("E15.5", cy) + fmt("E15.5", -2.5));
  ref_centre(m, 3, 1, &cx, &cy);
  EXPECT_EQ(rows[0], fmt("E15.5", cx) + fmt("E15.5", cy) + fmt("E15.5", 4.0) +
                         fmt("E15.5", std::log10(4.0)));
  std::vector<std::string> sen = split_lines(read_file("model_sen.dat"));
  ASSERT_EQ(sen.size(), 3u);
  EXPECT_EQ(sen[1].size(), 45u);

  // Raw values stand under the resistivity heading with no log10 scalar;
  // the sensitivity follows, and log10 of 0 is not finite.
  std::string vtk = read_file("model.vtk");
  std::string expect = ref_vtk_mesh(m, mask, 3, false) + ref_values(mask, raw) +
                       "\nSCALARS Sensitivity(log10) double 1\nLOOKUP_TABLE default\n" +
                       ref_values(mask, log_of(sens)) + "\n";
  EXPECT_EQ(vtk, expect);
  EXPECT_EQ(vtk.find("Resistivity(log10)"), std::string::npos);
  EXPECT_NE(vtk.find("           -Infinity"), std::string::npos);

  // Resolution: only the scalar is written to the VTK channel.
  tio_open(CH_MAP, "model_rad.dat");
  tio_open(CH_MODEL_VTK, "fresh.vtk");
  std::vector<double> res = {0.5, 1.0, 2.0};
  write_model(res.data(), m, mask, 3, true, CH_MAP, CH_MODEL_VTK,
              CONTENT_RESOLUTION);
  tio_close_all();
  EXPECT_EQ(read_file("fresh.vtk"),
            "\nSCALARS Resolution(log10) double 1\nLOOKUP_TABLE default\n" +
                ref_values(mask, log_of(res)) + "\n");
  EXPECT_EQ(split_lines(read_file("model_rad.dat")).size(), 3u);
}

TEST_F(ModelFilesTest, DifferenceMapGoesToChannels19And18) {
  MeshModel m = quads(3, 3);
  OutputMask mask = from_elements(m, 4, {1, 0, 1, 1});
  std::vector<double> v(4, 0.0);
  std::vector<double> pct = {12.5, -99.0, -3.25, 0.0};
  tio_open(CH_MODEL, "f001_res.dat");
  tio_open(CH_MODEL_VTK, "f001_res.vtk");
  tio_open(CH_ITER_VTK, "f001_diffres.dat");
  write_model(v.data(), m, mask, 4, false, CH_MODEL, CH_MODEL_VTK, 1);
  write_difference(pct.data(), m, mask, 4);
  tio_close_all();
  std::string table;
  for (int e = 1; e <= 4; ++e) {
    if (!mask.element_mask[e - 1]) continue;
    double cx, cy;
    ref_centre(m, 4, e, &cx, &cy);
    table += fmt("E15.5", cx) + fmt("E15.5", cy) + fmt("E15.5", pct[e - 1]) + "\n";
  }
  EXPECT_EQ(read_file("f001_diffres.dat"), table);
  std::string vtk = ref_vtk_mesh(m, mask, 4, true) + ref_values(mask, rho_of(v)) +
                    "\nSCALARS Resistivity(log10) double 1\nLOOKUP_TABLE default\n" +
                    ref_values(mask, log_of(rho_of(v))) +
                    "\nSCALARS difference(percent) double 1\nLOOKUP_TABLE default\n" +
                    ref_values(mask, pct) + "\n";
  EXPECT_EQ(read_file("f001_res.vtk"), vtk);
}

}  // namespace

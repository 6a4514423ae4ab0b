// Tests of the model file writers: table and VTK file of triangle and four-node
// meshes, masks and raw values, against a slow rendering of the rules.
#include <algorithm>
#include <cmath>

#include "mesh/mesh_test_util.h"
#include "results/model_files.h"

namespace {

using ModelFilesTest = ScratchDirTest;

// One value in one edit descriptor of the text layer; "I" takes an integer.
std::string f(const char* form, double v) {
  char b[64];
  WriteValue w = form[0] == 'I' ? wv_int(std::llround(v)) : wv_real(v);
  return std::string(b, tio_render(form, w, b, 64));
}

// Writes `v`, log conductivity or raw values, and compares both files with the
// rules: centres and points in height for four-node elements; VTK ids count
// the written nodes before a node, unless every element is written.
void expect_model_files(const MeshModel& m, const std::vector<unsigned char>& keep, int npe,
                        const std::vector<double>& v, bool raw) {
  OutputMask mask{keep, std::vector<unsigned char>(m.num_nodes, 0)};
  for (int e = 0; e < m.num_elements; ++e)
    for (int s = 0; s < npe && keep[e]; ++s) mask.node_mask[m.element_nodes[4 * e + s] - 1] = 1;
  tio_open(CH_MODEL, "m.dat");
  tio_open(CH_MODEL_VTK, "m.vtk");
  write_model(v.data(), m, mask, npe, raw, CH_MODEL, CH_MODEL_VTK, 0);
  tio_close_all();
  bool quad = npe == 4;
  int np = std::count(mask.node_mask.begin(), mask.node_mask.end(), 1);
  int ne = std::count(keep.begin(), keep.end(), 1);
  std::string table, pts, cells, types, rho, lg;
  for (int n = 0; n < m.num_nodes; ++n)
    if (mask.node_mask[n])
      pts += f("F12.5", m.node_x[n]) + f("F12.5", quad ? -m.node_y[n] : m.node_y[n]) +
             f("F5.0", 0) + "\n";
  for (int e = 1; e <= m.num_elements; ++e) {
    if (!keep[e - 1]) continue;
    double cx = 0.0, cy = 0.0, r = raw ? v[e - 1] : std::exp(-v[e - 1]);
    cells += f("I10", npe);
    for (int s = 0, id = 0; s < npe; ++s, id = 0) {
      int node = m.element_nodes[4 * (e - 1) + s];
      cx += m.node_x[node - 1];
      cy += m.node_y[node - 1];
      for (int k = 1; k < node; ++k) id += mask.node_mask[k - 1];
      cells += f("I10", ne == m.num_elements ? node - 1 : id);
    }
    table += f("E15.5", quad ? cx * 0.25 : cx / 3.0) + f("E15.5", quad ? -(cy * 0.25) : cy / 3.0) +
             f("E15.5", r) + (raw && r <= 0 ? "" : f("E15.5", std::log10(r))) + "\n";
    cells += "\n";
    types += quad ? "  9" : "  5";
    rho += f("F20.5", r);
    lg += f("F20.5", std::log10(r));
  }
  EXPECT_EQ(read_file("m.dat"), table);
  EXPECT_EQ(read_file("m.vtk"),
            "# vtk DataFile Version 3.0\nOutput from Q5\nASCII\nDATASET UNSTRUCTURED_GRID\n"
            "POINTS " + f("I10", np) + " double\n" + pts + " CELLS " + f("I10", ne) +
                f("I10", ne * (npe + 1)) + "\n" + cells + "CELL_TYPES" + f("I10", ne) + "\n" +
                types + "\nPOINT_DATA" + f("I10", np) + "\nCELL_DATA" + f("I10", ne) +
                "\nSCALARS Resistivity(Ohm-m) double 1\nLOOKUP_TABLE default\n" + rho +
                (raw ? "" : "\nSCALARS Resistivity(log10) double 1\nLOOKUP_TABLE default\n" + lg) +
                "\n");
}

// Three triangles on six nodes; node 5 belongs to none, node 4 to the second.
const MeshModel kTriangles{6, 3, {0, 10, 5, 15, 99, 1.0 / 3}, {0, 0, -7.25, -3.5, 99, 2},
                          {1, 2, 3, 0, 2, 4, 3, 0, 1, 3, 6, 9, 1}, {}, {}};

TEST_F(ModelFilesTest, TrianglesQuadrilateralsMasksAndRawValues) {
  const std::vector<double> tv = {-std::log(100.0), 0.0, 2.302585092994046};
  expect_model_files(kTriangles, {1, 1, 1}, 3, tv, false);  // node 5 out, ids stay node - 1
  expect_model_files(kTriangles, {1, 0, 1}, 3, tv, false);  // node 6 has id 3
  // 31 by 21 nodes, 600 elements; depth 3.0 in row 2 shows as -3.00000.
  MeshModel q{31 * 21, 600, {}, {}, {}, {}, {}};
  std::vector<double> qv(600);
  std::vector<unsigned char> keep(600);
  for (int n = 1; n <= 31 * 21; ++n) {
    int i = (n - 1) / 21, j = (n - 1) % 21;
    q.node_x.push_back(1.5 * i - 2.0);
    q.node_y.push_back(j == 1 ? 3.0 : 0.75 * j * j);
    if (i < 30 && j < 20) q.element_nodes.insert(q.element_nodes.end(), {n, n + 21, n + 22, n + 1});
  }
  q.element_nodes.push_back(1);
  for (int e = 0; e < 600; ++e) {
    qv[e] = 3.0 * std::sin(0.01 * e);
    keep[e] = (e * 7919) % 5 != 0;
  }
  expect_model_files(q, keep, 4, qv, false);
  EXPECT_NE(read_file("m.vtk").find("    -2.00000    -3.00000"), std::string::npos);
  // Raw values: under the resistivity heading and with no log10 scalar; -2.5 has no
  // logarithm: a table line of three fields, then four again.
  expect_model_files(kTriangles, {1, 1, 1}, 3, {4.0, -2.5, 0.001}, true);
  EXPECT_EQ(read_file("m.dat").find('\n', 61), 61u + 45);
}

TEST_F(ModelFilesTest, DifferenceSensitivityAndResolutionAppendToTheVtkFile) {
  OutputMask mask{{1, 0, 1}, {1, 1, 1, 0, 0, 1}};
  const std::vector<double> v = {0.0, 0.0, 0.0}, d = {12.5, 99.0, -3.25}, w = {100.0, 7.0, 0.01};
  tio_open(CH_MODEL_VTK, "m.vtk");
  write_model(v.data(), kTriangles, mask, 3, false, CH_MODEL, CH_MODEL_VTK, 1);
  tio_open(CH_ITER_VTK, "d.dat");
  write_difference(d.data(), kTriangles, mask, 3);
  tio_open(CH_MAP, "s.dat");
  write_model(w.data(), kTriangles, mask, 3, true, CH_MAP, CH_MODEL_VTK, CONTENT_SENSITIVITY);
  write_model(w.data(), kTriangles, mask, 3, true, CH_MAP, CH_MODEL_VTK, CONTENT_RESOLUTION);
  tio_close_all();
  // The mesh block is not repeated: only headings and value lines follow
  // the log10 resistivity line (rho 1: log10 0).
  std::string logs = f("F20.5", 2.0) + f("F20.5", -2.0) + "\n", vtk = read_file("m.vtk");
  size_t at = vtk.find("\nSCALARS Resistivity(log10)");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(vtk.substr(at + 58),
            f("F20.5", 0.0) + f("F20.5", 0.0) + "\nSCALARS difference(percent) double 1\nLOOKUP_TABLE default\n" +
                f("F20.5", 12.5) + f("F20.5", -3.25) +
                "\nSCALARS Sensitivity(log10) double 1\nLOOKUP_TABLE default\n" + logs.substr(0, 40) +
                "\nSCALARS Resolution(log10) double 1\nLOOKUP_TABLE default\n" + logs);
  EXPECT_EQ(read_file("d.dat"), f("E15.5", 5.0) + f("E15.5", -7.25 / 3.0) + f("E15.5", 12.5) + "\n" +
                                    f("E15.5", 1.0 / 3.0 * (0 + 5 + 1.0 / 3)) +
                                    f("E15.5", (0 - 7.25 + 2) / 3.0) + f("E15.5", -3.25) + "\n");
  EXPECT_EQ(read_file("s.dat").substr(0, 61), f("E15.5", 5.0) + f("E15.5", -7.25 / 3.0) +
                                                  f("E15.5", 100.0) + f("E15.5", 2.0) + "\n");
}

}  // namespace

// The model file writers against a slow rendering of the rules: tables and VTK files.
#include <algorithm>
#include <cmath>

#include "mesh/mesh_test_util.h"
#include "results/model_files.h"

using ModelFilesTest = ScratchDirTest;

// Values in one edit descriptor of the text layer; "I" takes integers.
static std::string f(const char* form, const std::vector<double>& values) {
  std::string s;
  char b[64];
  for (double v : values)
    s.append(b, tio_render(form, form[0] == 'I' ? wv_int(std::llround(v)) : wv_real(v), b, 64));
  return s;
}

// A VTK cell scalar: its heading, then the line of all values.
static std::string scalar(const char* name, const std::string& values) {
  return "\nSCALARS " + std::string(name) + " double 1\nLOOKUP_TABLE default\n" + values;
}

// Writes `v` (log conductivity, or raw values) on channels 14 and 18 with no file
// (fort.14, fort.18) and compares with the rules: height for four-node elements;
// VTK ids count the written nodes before a node unless every element is written.
// Log conductivity adds its rho as difference (table: fort.19), sensitivity and resolution maps.
static void expect_model_files(const MeshModel& m, const OutputMask& mask, int npe,
                               const std::vector<double>& v, bool raw) {
  std::vector<double> rho_all;
  for (double x : v) rho_all.push_back(raw ? x : std::exp(-x));
  write_model(v.data(), m, mask, npe, raw, CH_MODEL, CH_MODEL_VTK, 0);
  if (!raw) {
    write_difference(rho_all.data(), m, mask, npe);
    write_model(rho_all.data(), m, mask, npe, true, CH_MAP, CH_MODEL_VTK, CONTENT_SENSITIVITY);
    write_model(rho_all.data(), m, mask, npe, true, CH_MAP, CH_MODEL_VTK, CONTENT_RESOLUTION);
  }
  tio_close_all();
  const double up = npe == 4 ? -1.0 : 1.0;  // four-node meshes count depth downward
  const double np = std::count(mask.node_mask.begin(), mask.node_mask.end(), 1);
  const double ne = std::count(mask.element_mask.begin(), mask.element_mask.end(), 1);
  std::string table, diff, pts, cells, types, rho, lg;
  for (int n = 0; n < m.num_nodes; ++n)
    if (mask.node_mask[n]) pts += f("F12.5", {m.node_x[n], up * m.node_y[n]}) + f("F5.0", {0.0}) + "\n";
  for (int e = 1; e <= m.num_elements; ++e) {
    if (!mask.element_mask[e - 1]) continue;
    double cx = 0.0, cy = 0.0, r = rho_all[e - 1];
    std::vector<double> ids = {double(npe)};
    for (int s = 0; s < npe; ++s) {
      const int node = m.element_nodes[4 * (e - 1) + s];
      cx += m.node_x[node - 1];
      cy += m.node_y[node - 1];
      ids.push_back(ne == m.num_elements ? node - 1
                                         : std::count(&mask.node_mask[0], &mask.node_mask[node - 1], 1));
    }
    std::string centre = npe == 4 ? f("E15.5", {cx * 0.25, -(cy * 0.25)}) : f("E15.5", {cx / 3.0, cy / 3.0});
    table += centre + f("E15.5", {r}) + (raw && r <= 0 ? "" : f("E15.5", {std::log10(r)})) + "\n";
    diff += centre + f("E15.5", {r}) + "\n";
    cells += f("I10", ids) + "\n";
    types += npe == 4 ? "  9" : "  5";
    rho += f("F20.5", {r});
    lg += f("F20.5", {std::log10(r)});
  }
  EXPECT_EQ(read_file("fort.14"), table);
  EXPECT_EQ(read_file("fort.18"),
            "# vtk DataFile Version 3.0\nOutput from Q5\nASCII\nDATASET UNSTRUCTURED_GRID\nPOINTS " +
                f("I10", {np}) + " double\n" + pts + " CELLS " + f("I10", {ne, ne * (npe + 1)}) + "\n" +
                cells + "CELL_TYPES" + f("I10", {ne}) + "\n" + types + "\nPOINT_DATA" + f("I10", {np}) +
                "\nCELL_DATA" + f("I10", {ne}) + scalar("Resistivity(Ohm-m)", rho) +
                (raw ? "" : scalar("Resistivity(log10)", lg) + scalar("difference(percent)", rho) +
                                scalar("Sensitivity(log10)", lg) + scalar("Resolution(log10)", lg)) + "\n");
  EXPECT_EQ(read_file("fort.19"), raw ? "" : diff);
}

// Three triangles on six nodes: node 5 belongs to none, node 4 to the second.
const MeshModel kTriangles{6, 3, {0, 10, 5, 15, 99, 1.0 / 3}, {0, 0, -7.25, -3.5, 99, 2},
                          {1, 2, 3, 0, 2, 4, 3, 0, 1, 3, 6, 9, 1}, {}, {}};
// Two four-node elements in a row.
const MeshModel kQuads{6, 2, {0, 0, 10, 10, 20, 20}, {0, 2, 0, 3, 0, 4}, {1, 3, 4, 2, 3, 5, 6, 4, 1}, {}, {}};

TEST_F(ModelFilesTest, TrianglesQuadrilateralsMasksRawValuesAndAppendedMaps) {
  // Raw values with every element written: ids stay node - 1 though node 5 is
  // out; no log10 scalar; -2.5 has no logarithm: a table line of three fields.
  expect_model_files(kTriangles, {{1, 1, 1}, {1, 1, 1, 1, 0, 1}}, 3, {4.0, -2.5, 0.001}, true);
  EXPECT_EQ(read_file("fort.14").find('\n', 61), 61u + 45);
  const std::vector<double> tv = {-std::log(100.0), 0.0, 2.302585092994046};
  expect_model_files(kTriangles, {{1, 0, 1}, {1, 1, 1, 0, 0, 1}}, 3, tv, false);  // node 6 has id 3
  expect_model_files(kQuads, {{0, 1}, {0, 0, 1, 1, 1, 1}}, 4, {0.5, -1.5}, false);  // node 3 has id 0
  EXPECT_NE(read_file("fort.18").find("    10.00000    -3.00000"), std::string::npos);
}

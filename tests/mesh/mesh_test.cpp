// Tests of the mesh and model readers: grid numbering, mesh.dat, mesh_scale,
// start model regions, electrode files, patching and the polyline mask.
#include <cmath>

#include "mesh_test_util.h"

namespace {

using MeshTest = ScratchDirTest;

bool same_mesh(const MeshModel& a, const MeshModel& b) {
  return a.node_x == b.node_x && a.node_y == b.node_y &&
         a.element_nodes == b.element_nodes && a.element_parameter == b.element_parameter;
}

TEST_F(MeshTest, GridNodesRunDownColumnsAndElementsGoRoundCells) {
  RunContext ctx{};
  MeshModel m = load_mesh(&ctx, 4, "2 2\n0 1\n0 0\n0 2\n");
  EXPECT_EQ(m.element_nodes, (std::vector<int>{1, 3, 4, 2, 1}));  // then node 1
  // 3 by 4 with offsets: element 4 is column 2, row 1; y is depth - offset.
  m = load_mesh(&ctx, 4, "3 4\n0 1.5 4\n0 1 -1\n0 1 3 7\n");
  EXPECT_EQ(std::vector<int>(m.element_nodes.begin() + 12, m.element_nodes.begin() + 16),
            (std::vector<int>{5, 9, 10, 6}));
  const double offset[3] = {0, 1, -1}, depth[4] = {0, 1, 3, 7};
  for (int n = 1; n <= 12; ++n)
    EXPECT_EQ(m.node_y[n - 1], depth[(n - 1) % 4] - offset[(n - 1) / 4]) << n;
  // Type 5 reads a list per column: here the rows shifted by those offsets.
  EXPECT_TRUE(same_mesh(m, load_mesh(&ctx, 5, "3 4\n0 1.5 4\n0 1 3 7\n-1 0 2 6\n1 2 4 8\n")));
  // Zero offsets give the mesh of type 5 with equal lists, one read each.
  MeshModel a = load_mesh(&ctx, 4, "3 3\n0 1 2\n0 0 0\n0 0.5 2\n");
  MeshModel b = load_mesh(&ctx, 5, "3 3\n0 1 2\n0 0.5 2\n0 0.5\n2\n0 0.5 2\n");
  EXPECT_EQ(ctx.mesh_type, 4);
  EXPECT_TRUE(same_mesh(a, b));
}

TEST_F(MeshTest, MeshFileIsPlacedByRecordNumbersAndScaled) {
  RunContext ctx{};
  write_file("mesh.dat", "3 5\n1 1 2 3 1 7\n2 2 4 3 2 7\n3 3 4 5 2 8\n"
                         "1 0 0\n2 1 0\n3 0.5 -1\n4 2 -0.5\n5 1.5 -2.25\n");
  MeshModel a = load_mesh(&ctx, 3, "");
  EXPECT_EQ(a.element_nodes, (std::vector<int>{1, 2, 3, 7, 2, 4, 3, 7, 3, 4, 5, 8, 1}));
  EXPECT_EQ(a.element_parameter, (std::vector<int>{1, 2, 2}));
  EXPECT_EQ(a.node_y, (std::vector<double>{0, 0, -1, -0.5, -2.25}));
  EXPECT_EQ(ctx.num_y, 5);
  write_file("mesh.dat", "3 5\n3 3 4 5 2 8\n2 2 4 3 2 7\n1 1 2 3 1 7\n"
                         "5 1.5 -2.25\n4 2 -0.5\n3 0.5 -1\n2 1 0\n1 0 0\n");
  MeshModel b = load_mesh(&ctx, 3, "2.5\n");
  EXPECT_TRUE(same_mesh(a, b));
  read_mesh_scale(&ctx, &b);
  for (int n = 0; n < 5; ++n) {
    EXPECT_EQ(b.node_x[n], a.node_x[n] * 2.5);
    EXPECT_EQ(b.node_y[n], a.node_y[n] * 2.5);
  }
  // Node 4 of a 3-node mesh would index outside the node arrays; the sixth
  // value is a zone number, not a node, and is not checked.
  write_file("mesh.dat", "2 3\n1 1 2 3 1 99\n2 1 3 4 1 -5\n");
  expect_stop("", [&] { read_mesh(&ctx, &b); },
              " FATAL: node number out of range in mesh.dat:          4");
}

TEST_F(MeshTest, StartModelRegions) {
  RunContext ctx{};
  MeshModel m{0, 12, {}, {}, {}, {}, {}};
  std::vector<double> v;
  open_control("1\n1 12 100.0\n");
  read_start_model(&ctx, m, &v);
  ASSERT_EQ(v.size(), 12u);
  for (double x : v) EXPECT_NEAR(x, -4.605170186, 1e-9);
  // Later records overwrite earlier ones; elem1 above elem2 sets nothing.
  open_control("3\n1 10 100.0\n5 6 10.0\n7 3 50.0\n");
  read_start_model(&ctx, m, &v);
  for (int e = 1; e <= 10; ++e)
    EXPECT_DOUBLE_EQ(v[e - 1], -std::log(e == 5 || e == 6 ? 10.0 : 100.0)) << e;
  // elem1 of 0 stops even with a valid elem2; with both out elem1 is named.
  const std::string range = " must be in range 1:number of elements ";
  const std::pair<const char*, std::string> bad[] = {
      {"1\n0 3 10.0\n", " FATAL: defining regions - elem1" + range},
      {"1\n0 13 10.0\n", " FATAL: defining regions - elem1" + range},
      {"1\n1 13 10.0\n", " FATAL: defining regions - elem2" + range},
      {"1\n2 1 0.0\n", " FATAL: defining regions - resistivity must be > 0"}};
  for (const auto& [records, msg] : bad)
    expect_stop(records, [&] { read_start_model(&ctx, m, &v); }, msg);
}

TEST_F(MeshTest, ElectrodeFiles) {
  // Type 5 grid of 3 by 4 with the depth 2.5 at column 2, row 3 (node 7): the
  // files show height, -2.500.
  RunContext ctx{};
  MeshModel m = load_mesh(&ctx, 5, "3 4\n0 1 2\n0.5 1 2 4\n0.5 1 2.5 4\n0.5 1 2 4.125\n"
                                   "3\n5 1 1\n17 2 3\n-4 3 4\n");
  tio_open(CH_ELECTRODES, "electrodes.dat");
  tio_open(CH_ELECTRODES_VTK, "electrodes.vtk");
  ElectrodeTable t{};
  read_electrodes(ctx, m, &t);
  EXPECT_EQ(t.electrode_nodes, (std::vector<int>{1, 7, 12}));
  const std::string lines = "       0.000      -0.500       0.000\n"
                            "       1.000      -2.500       0.000\n"
                            "       2.000      -4.125       0.000\n";
  EXPECT_EQ(read_file("electrodes.dat"), lines);
  EXPECT_EQ(read_file("electrodes.vtk"), "# vtk DataFile Version 3.0\nOutput from Q5\nASCII\n"
                                         "DATASET POLYDATA\nPOINTS       3 double\n" + lines);
  // Column num_x passes; one more stops before the row, also out, is seen.
  // The message gives the table position (3), not the id (17). Log only.
  const std::string grid = "3 4\n0 1 2\n0 0 0\n0 1 2 3\n";
  const std::pair<const char*, const char*> bad[] = {
      {"2\n1 3 4\n2 4 5\n", " FATAL:  column number too large for electrode    2"},
      {"3\n1 1 1\n2 1 2\n17 2 5\n", " FATAL:  row number too large for electrode    3"}};
  for (const auto& [records, msg] : bad)
    expect_stop(grid + records, [&] {
      ctx.mesh_type = 4;
      read_mesh(&ctx, &m);
      read_electrodes(ctx, m, &t);
    }, msg, true);
}

TEST_F(MeshTest, PatchingOfAGrid) {
  RunContext ctx{};
  ctx.mesh_type = 4;
  MeshModel m{};
  ParameterMap map{};
  std::vector<double> v(50);
  for (int e = 0; e < 50; ++e) v[e] = e + 1.0;  // shows which element set a start
  auto build = [&](int nx, int ny, const char* records) {
    ctx.num_x = nx;
    ctx.num_y = ny;
    m.num_elements = (nx - 1) * (ny - 1);
    m.element_parameter.assign(m.num_elements, -7);
    open_control(records);
    build_parameter_map(&ctx, &m, v, &map);
  };
  // 11 by 6 nodes, sizes 2 and 1: 5 by 5 blocks. Cell (3, 4), element 20,
  // has parameter 10 with element 15: the last in element order sets it.
  build(11, 6, "2 1\n");
  EXPECT_EQ(map.num_parameters, 25);
  EXPECT_EQ(m.element_parameter[3 * 5 + 4], 10);
  EXPECT_EQ(m.element_parameter[2 * 5 + 4], 10);
  EXPECT_EQ(map.start_parameters[9], 20.0);
  build(7, 5, "2 2\n");  // 3 by 2 blocks: cell (4, 3) has (4 / 2) * 2 + 3 / 2 + 1
  EXPECT_EQ(m.element_parameter[4 * 4 + 3], 6);
  // Block lists from cell column and row 2 of 7 by 4 cells: cells outside
  // all blocks get 0, and a block of no rows is a parameter with no cell.
  build(8, 5, "5 0\n2 3\n2 1 2\n2 1 0 1\n");
  EXPECT_EQ(map.num_parameters, 6);
  EXPECT_EQ(m.element_parameter, (std::vector<int>{0, 0, 0, 0, 0, 1, 3, 0, 0, 4, 6, 0, 0, 4,
                                                   6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  // 9 cells along x do not split into blocks of 2.
  expect_stop("2 1\n", [&] { build(10, 6, "2 1\n"); },
              " Error: Patch size of     2 not valid in X");
}

TEST_F(MeshTest, PolylineMaskOfAGrid) {
  // Grid x 0..4, depth 0..4: cell centres at x 0.5..3.5, heights -0.5..-3.5.
  // The square from x 0.5 to 2.5 and height -2.5 to -0.5, given in height,
  // runs through centres: on the lower edge no edge counts (outside); on the
  // upper edge each side counts once, as on the sides, where t is 0 on the
  // right side, which is not below 0: elements 1, 2, 5 and 6 are written.
  const std::string grid = "5 5\n0 1 2 3 4\n0 0 0 0 0\n0 1 2 3 4\n";
  RunContext ctx{};
  OutputMask mask{};
  MeshModel m = load_mesh(&ctx, 4, grid + "5\n0.5 -2.5\n2.5 -2.5\n2.5 -0.5\n0.5 -0.5\n0.5 -2.5\n");
  std::vector<double> depth = m.node_y;
  read_polyline_mask(ctx, &m, &mask);
  EXPECT_EQ(m.node_y, depth);  // the sign is changed back
  std::vector<unsigned char> elements(16, 0), nodes(25, 0);
  for (int e : {1, 2, 5, 6}) elements[e - 1] = 1;
  for (int n : {1, 2, 3, 6, 7, 8, 11, 12, 13}) nodes[n - 1] = 1;
  EXPECT_EQ(mask.element_mask, elements);
  EXPECT_EQ(mask.node_mask, nodes);
  // A single point has no edges: nothing is written.
  m = load_mesh(&ctx, 4, grid + "1\n1 -1\n");
  read_polyline_mask(ctx, &m, &mask);
  EXPECT_EQ(mask.element_mask, std::vector<unsigned char>(16, 0));
  EXPECT_EQ(mask.node_mask, std::vector<unsigned char>(25, 0));
}

}  // namespace

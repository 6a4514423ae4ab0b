// Tests of the mesh and model readers: grid numbering, mesh.dat, mesh_scale,
// start model regions, patching, the polyline mask and the electrode table.
// Their fatal stops are checked end to end (tests/e2e, the run spine's table).
#include <cmath>

#include "mesh/mesh_model.h"
#include "run/run_context.h"
#include "support/support.h"
#include "textio/textio.h"

namespace {

using MeshTest = ScratchTest;

// Writes Q5.in, connects it and the log afresh as the run does, and reads a
// mesh of `type` from the control text (type 3: from mesh.dat).
MeshModel load_mesh(RunContext* ctx, int type, const std::string& control) {
  tio_close_all();
  write_file("Q5.in", control);
  tio_open(CH_CONTROL, "Q5.in");
  tio_open(CH_LOG, "Q5.out");
  ctx->mesh_type = type;
  MeshModel mesh{};
  read_mesh(ctx, &mesh);
  return mesh;
}

TEST_F(MeshTest, GridNumberingAndMeshFile) {
  RunContext ctx{};
  MeshModel m = load_mesh(&ctx, 4, "2 2\n0 1\n0 0\n0 2\n");
  EXPECT_EQ(m.element_nodes, (std::vector<int>{1, 3, 4, 2, 1}));  // then node 1
  EXPECT_EQ(load_mesh(&ctx, 5, "2 2\n0 1\n0 2\n0\n2\n").node_y, m.node_y);  // one read a column
  // 3 by 4 with offsets: element 4 is column 2, row 1; y is depth - offset, as type 5
  // gives it with the depths of each column shifted by its offset.
  m = load_mesh(&ctx, 4, "3 4\n0 1.5 4\n0 1 -1\n0 1 3 7\n");
  EXPECT_EQ(std::vector<int>(&m.element_nodes[12], &m.element_nodes[16]), (std::vector<int>{5, 9, 10, 6}));
  EXPECT_EQ(m.node_y, (std::vector<double>{0, 1, 3, 7, -1, 0, 2, 6, 1, 2, 4, 8}));
  EXPECT_EQ(load_mesh(&ctx, 5, "3 4\n0 1.5 4\n0 1 3 7\n-1 0 2 6\n1 2 4 8\n").node_y, m.node_y);
  EXPECT_EQ(ctx.mesh_type, 4);
  // mesh.dat records in reverse order, placed by their numbers; the sixth value takes slot 4.
  write_file("mesh.dat", "3 5\n3 3 4 5 2 8\n2 2 4 3 2 7\n1 1 2 3 1 7\n"
                         "5 1.5 -2.25\n4 2 -0.5\n3 0.5 -1\n2 1 0\n1 0 0\n");
  m = load_mesh(&ctx, 3, "2.5\n");
  EXPECT_EQ(m.element_nodes, (std::vector<int>{1, 2, 3, 7, 2, 4, 3, 7, 3, 4, 5, 8, 1}));
  EXPECT_EQ(m.element_parameter, (std::vector<int>{1, 2, 2}));
  read_mesh_scale(&ctx, &m);  // x and y alike
  EXPECT_EQ(m.node_x, (std::vector<double>{0, 2.5, 1.25, 5, 3.75}));
  EXPECT_EQ(m.node_y, (std::vector<double>{0, 0, -2.5, -1.25, -5.625}));
}

TEST_F(MeshTest, ControlRecordsOfAGrid) {
  // 11 by 6 nodes; later regions overwrite earlier ones, elem1 above elem2 sets nothing.
  RunContext ctx{};
  MeshModel m = load_mesh(&ctx, 4, "11 6\n0 1 2 3 4 5 6 7 8 9 10\n0 0 0 0 0 0 0 0 0 0 0\n0 1 2 3 4 5\n"
                                   "3\n1 50 100.0\n20 21 10.0\n30 3 50.0\n2 1\n"
                                   "5\n0.5 -2.5\n2.5 -2.5\n2.5 -0.5\n0.5 -0.5\n0.5 -2.5\n1\n17 2 3\n");
  std::vector<double> v;
  read_start_model(&ctx, m, &v);
  ASSERT_EQ(v.size(), 50u);
  for (int e = 1; e <= 50; ++e)
    EXPECT_DOUBLE_EQ(v[e - 1], -std::log(e == 20 || e == 21 ? 10.0 : 100.0)) << e;
  // Sizes 2 and 1: 5 by 5 blocks. Cell (3, 4), element 20, has parameter 10
  // with element 15: the last in element order sets its start.
  ParameterMap map{};
  build_parameter_map(&ctx, &m, v, &map);
  EXPECT_EQ(map.num_parameters, 25);
  EXPECT_EQ(m.element_parameter[3 * 5 + 4], 10);
  EXPECT_DOUBLE_EQ(map.start_parameters[9], -std::log(10.0));
  // The square x 0.5..2.5, height -2.5..-0.5 runs through cell centres: those on its lower
  // edge or right side (t of 0 is not below 0) are outside, on the others inside.
  OutputMask mask{};
  read_polyline_mask(ctx, &m, &mask);
  std::vector<unsigned char> inside(50, 0);
  inside[0] = inside[1] = inside[5] = inside[6] = 1;
  EXPECT_EQ(mask.element_mask, inside);
  // Electrode 17 at column 2, row 3 (node 9, depth 2) shows as a height: y is turned back.
  ElectrodeTable t{};
  tio_open(CH_ELECTRODES, "electrodes.dat");
  tio_open(CH_ELECTRODES_VTK, "electrodes.vtk");
  read_electrodes(ctx, m, &t);
  EXPECT_EQ(read_file("electrodes.dat"), "       1.000      -2.000       0.000\n");

  // Block lists from cell column and row 2 of 7 by 4 cells: cells outside
  // all blocks get 0, and a block of no rows is a parameter with no cell.
  const std::string grid = "8 5\n0 1 2 3 4 5 6 7\n0 0 0 0 0 0 0 0\n0 1 2 3 4\n";
  m = load_mesh(&ctx, 4, grid + "5 0\n2 3\n2 1 2\n2 1 0 1\n1\n1 -1\n1 2\n");
  build_parameter_map(&ctx, &m, v, &map);
  EXPECT_EQ(map.num_parameters, 6);
  EXPECT_EQ(m.element_parameter, (std::vector<int>{0, 0, 0, 0, 0, 1, 3, 0, 0, 4, 6, 0, 0, 4,
                                                   6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  read_polyline_mask(ctx, &m, &mask);  // a single point has no edges: nothing is written
  EXPECT_EQ(mask.element_mask, std::vector<unsigned char>(28, 0));
  // Sizes 1 and 2, the record behind: 7 by 2 blocks; cell (3, 3) has 3 * 2 + 3 / 2 + 1.
  build_parameter_map(&ctx, &m, v, &map);
  EXPECT_EQ(m.element_parameter[3 * 4 + 3], 8);
}

}  // namespace

// Tests of the mesh readers: grid numbering of mesh_type 4 and 5, mesh.dat
// placed by record numbers, mesh_scale, and the stops on bad numbers.
#include "mesh_test_util.h"

namespace {

using MeshTest = ScratchDirTest;

void expect_same_mesh(const MeshModel& a, const MeshModel& b) {
  EXPECT_EQ(a.num_nodes, b.num_nodes);
  EXPECT_EQ(a.num_elements, b.num_elements);
  EXPECT_EQ(a.node_x, b.node_x);
  EXPECT_EQ(a.node_y, b.node_y);
  EXPECT_EQ(a.element_nodes, b.element_nodes);
  EXPECT_EQ(a.element_parameter, b.element_parameter);
  EXPECT_EQ(a.pin_flags, b.pin_flags);
}

TEST_F(MeshTest, GridNumberingGoesDownColumnsAndRoundCells) {
  // 2 by 2 grid: four nodes, one element (1, 3, 4, 2).
  open_control("2 2\n0.0 1.0\n0.0 0.0\n0.0 2.0\n");
  RunContext ctx = make_context(0, 4);
  MeshModel mesh{};
  read_mesh(&ctx, &mesh);
  EXPECT_EQ(ctx.mesh_type, 4);
  EXPECT_EQ(ctx.num_x, 2);
  EXPECT_EQ(ctx.num_y, 2);
  ASSERT_EQ(mesh.num_nodes, 4);
  ASSERT_EQ(mesh.num_elements, 1);
  ASSERT_EQ(mesh.element_nodes.size(), 5u);
  EXPECT_EQ(slot(mesh, 1, 1), 1);
  EXPECT_EQ(slot(mesh, 1, 2), 3);
  EXPECT_EQ(slot(mesh, 1, 3), 4);
  EXPECT_EQ(slot(mesh, 1, 4), 2);
  EXPECT_EQ(mesh.element_nodes[4], 1);  // the extra entry holds node 1
  tio_close_all();

  // 3 by 4 grid with offsets, x list spread over lines and comments behind
  // the last item of each record.
  open_control(
      "3 4   grid size\n"
      "0.0\n1.5\n4.0  x list\n"
      "0.0 0.25 -1.0  offsets\n"
      "0.0, 1.0, 3.0, 7.0  rows\n");
  ctx = make_context(1, 4);
  read_mesh(&ctx, &mesh);
  ASSERT_EQ(mesh.num_nodes, 12);
  ASSERT_EQ(mesh.num_elements, 6);
  ASSERT_EQ(mesh.element_nodes.size(), 25u);
  EXPECT_EQ(mesh.element_nodes[24], 1);
  // Element 4 is column 2, row 1: nodes 5, 9, 10, 6.
  EXPECT_EQ(slot(mesh, 4, 1), 5);
  EXPECT_EQ(slot(mesh, 4, 2), 9);
  EXPECT_EQ(slot(mesh, 4, 3), 10);
  EXPECT_EQ(slot(mesh, 4, 4), 6);
  const double xs[3] = {0.0, 1.5, 4.0};
  const double t[3] = {0.0, 0.25, -1.0};
  const double ys[4] = {0.0, 1.0, 3.0, 7.0};
  for (int i = 1; i <= 3; ++i) {
    for (int j = 1; j <= 4; ++j) {
      int n = (i - 1) * 4 + j;
      EXPECT_EQ(mesh.node_x[n - 1], xs[i - 1]) << n;
      EXPECT_EQ(mesh.node_y[n - 1], ys[j - 1] - t[i - 1]) << n;
    }
  }
  for (int i = 1; i <= 2; ++i) {
    for (int j = 1; j <= 3; ++j) {
      int e = (i - 1) * 3 + j;
      int n = (i - 1) * 4 + j;
      EXPECT_EQ(slot(mesh, e, 1), n);
      EXPECT_EQ(slot(mesh, e, 2), n + 4);
      EXPECT_EQ(slot(mesh, e, 3), n + 5);
      EXPECT_EQ(slot(mesh, e, 4), n + 1);
    }
  }
  EXPECT_EQ(mesh.element_parameter, std::vector<int>(6, 0));
  EXPECT_EQ(mesh.pin_flags, std::vector<int>(12, 0));
}

TEST_F(MeshTest, ZeroOffsetsEqualDepthListsAndDepthListsPerColumn) {
  open_control("3 3\n0 1 2\n0 0 0\n0.0 0.5 2.0\n");
  RunContext ctx4 = make_context(0, 4);
  MeshModel mesh4{};
  read_mesh(&ctx4, &mesh4);
  tio_close_all();

  // Each depth list starts on a new line and skips the rest of its last line.
  open_control(
      "3 3\n0 1 2\n"
      "0.0 0.5 2.0  column 1\n"
      "0.0 0.5\n 2.0  column 2\n"
      "0.0 0.5 2.0  column 3\n");
  RunContext ctx5 = make_context(0, 5);
  MeshModel mesh5{};
  read_mesh(&ctx5, &mesh5);
  EXPECT_EQ(ctx5.mesh_type, 4);
  expect_same_mesh(mesh4, mesh5);
  tio_close_all();

  // Different lists per column land in their own column.
  open_control("2 3\n0 1\n0 1 2\n0 3 9\n");
  RunContext ctx = make_context(0, 5);
  MeshModel mesh{};
  read_mesh(&ctx, &mesh);
  const double expect_y[6] = {0, 1, 2, 0, 3, 9};
  for (int n = 0; n < 6; ++n) EXPECT_EQ(mesh.node_y[n], expect_y[n]);
  tio_close_all();

  // One column of nodes: no elements, and that is legal.
  open_control("1 3\n5.0\n0.5\n0 1 2\n");
  ctx = make_context(0, 4);
  read_mesh(&ctx, &mesh);
  EXPECT_EQ(mesh.num_nodes, 3);
  EXPECT_EQ(mesh.num_elements, 0);
  ASSERT_EQ(mesh.element_nodes.size(), 1u);
  EXPECT_EQ(mesh.element_nodes[0], 1);
  EXPECT_EQ(mesh.node_y[2], 1.5);
}

const char* kMeshForward =
    "3 5\n"
    "1 1 2 3 1 7\n"
    "2 2 4 3 2 7\n"
    "3 3 4 5 2 8\n"
    "1 0.0 0.0\n"
    "2 1.0 0.0\n"
    "3 0.5 -1.0\n"
    "4 2.0 -0.5\n"
    "5 1.5, -2.25\n";

const char* kMeshReverse =
    "3 5\n"
    "3 3 4 5 2 8\n"
    "2 2 4 3 2 7\n"
    "1 1 2 3 1 7\n"
    "5 1.5 -2.25\n"
    "4 2.0 -0.5\n"
    "3 0.5 -1.0\n"
    "2 1.0 0.0\n"
    "1 0.0 0.0\n";

TEST_F(MeshTest, MeshFileRecordsArePlacedByTheirNumbers) {
  write_file("mesh.dat", kMeshForward);
  open_control("");
  RunContext ctx = make_context(0, 3);
  ctx.num_x = -5;
  MeshModel forward{};
  read_mesh(&ctx, &forward);
  tio_close_all();
  EXPECT_EQ(ctx.mesh_type, 3);
  EXPECT_EQ(ctx.num_x, 1);
  EXPECT_EQ(ctx.num_y, 5);
  ASSERT_EQ(forward.num_elements, 3);
  ASSERT_EQ(forward.num_nodes, 5);
  const std::vector<int> nodes = {1, 2, 3, 7, 2, 4, 3, 7, 3, 4, 5, 8, 1};
  EXPECT_EQ(forward.element_nodes, nodes);
  EXPECT_EQ(forward.element_parameter, (std::vector<int>{1, 2, 2}));
  EXPECT_EQ(forward.node_x, (std::vector<double>{0.0, 1.0, 0.5, 2.0, 1.5}));
  EXPECT_EQ(forward.node_y, (std::vector<double>{0.0, 0.0, -1.0, -0.5, -2.25}));
  EXPECT_EQ(forward.pin_flags, std::vector<int>(5, 0));

  write_file("mesh.dat", kMeshReverse);
  ctx = make_context(0, 3);
  MeshModel reverse{};
  read_mesh(&ctx, &reverse);
  expect_same_mesh(forward, reverse);
}

TEST_F(MeshTest, MeshScaleMultipliesBothCoordinates) {
  write_file("mesh.dat", kMeshForward);
  open_control("2.5   scale\n1.0\n");
  RunContext ctx = make_context(0, 3);
  MeshModel mesh{};
  read_mesh(&ctx, &mesh);
  MeshModel original = mesh;
  read_mesh_scale(&ctx, &mesh);
  EXPECT_EQ(ctx.mesh_scale, 2.5);
  for (int n = 0; n < 5; ++n) {
    EXPECT_EQ(mesh.node_x[n], original.node_x[n] * 2.5);
    EXPECT_EQ(mesh.node_y[n], original.node_y[n] * 2.5);
  }
  read_mesh_scale(&ctx, &mesh);  // a scale of 1 leaves them as they are
  EXPECT_EQ(ctx.mesh_scale, 1.0);
  EXPECT_EQ(mesh.node_x[4], 3.75);
  EXPECT_EQ(mesh.node_y[4], -5.625);
  EXPECT_EQ(mesh.element_nodes, original.element_nodes);
}

TEST_F(MeshTest, OutOfRangeNumbersInMeshFileStop) {
  RunContext ctx = make_context(0, 3);
  MeshModel mesh{};

  write_file("mesh.dat", "2 3\n1 1 2 3 1 0\n3 1 2 3 1 0\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: element number out of range in mesh.dat:          3");

  write_file("mesh.dat", "2 3\n0 1 2 3 1 0\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: element number out of range in mesh.dat:          0");

  // The third node of the second element is outside 1..3; the sixth value
  // is a zone number and may be anything.
  write_file("mesh.dat", "2 3\n1 1 2 3 1 99\n2 1 3 4 1 -5\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: node number out of range in mesh.dat:          4");

  write_file("mesh.dat", "1 3\n1 1 -2 3 1 0\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: node number out of range in mesh.dat:         -2");

  write_file("mesh.dat", "1 3\n1 1 2 3 1 0\n1 0 0\n4 1 1\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: node number out of range in mesh.dat:          4");

  write_file("mesh.dat", "-1 3\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: mesh.dat must give at least zero elements and nodes");

  write_file("mesh.dat", "1 -3\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: mesh.dat must give at least zero elements and nodes");

  // A repeated element number leaves element 1 without nodes.
  write_file("mesh.dat", "2 3\n2 1 2 3 1 0\n2 1 2 3 1 0\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: element number missing in mesh.dat:          1");
}

TEST_F(MeshTest, BadGridSizesAndMeshTypesStop) {
  RunContext ctx = make_context(0, 4);
  MeshModel mesh{};

  write_file("Q5.in", "0 3\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: grid must have at least one column and one row");

  write_file("Q5.in", "3 -1\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: grid must have at least one column and one row");

  // 65536 * 32768 is 2^31, one above the largest 32-bit node number.
  write_file("Q5.in", "65536 32768\n");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_BOTH_STREAMS(" FATAL: grid has too many nodes for 32-bit node numbers");

  ctx.mesh_type = 6;
  write_file("Q5.in", "");
  EXPECT_STOPS(read_mesh(&ctx, &mesh));
  EXPECT_LOG_ONLY(" FATAL: Incorrect mesh type specified - must be 3/4/5");
}

}  // namespace

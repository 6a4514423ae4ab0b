// Tests of the electrode table and the two electrode position files.
#include "mesh_test_util.h"

namespace {

using ElectrodesTest = ScratchDirTest;

const char* kHead =
    "# vtk DataFile Version 3.0\n"
    "Output from Q5\n"
    "ASCII\n"
    "DATASET POLYDATA\n";

void open_electrode_files() {
  tio_open(CH_ELECTRODES, "electrodes.dat");
  tio_open(CH_ELECTRODES_VTK, "electrodes.vtk");
}

TEST_F(ElectrodesTest, GridElectrodesShowHeight) {
  // 3 by 4 grid of type 5; column 2 has the depth 2.5 at row 3 (node 7).
  open_control(
      "3 4\n0 1 2\n"
      "0.5 1 2 4\n"
      "0.5 1 2.5 4\n"
      "0.5 1 2 4.125\n"
      "4\n"
      "5 1 1\n"
      "9 3 4\n"
      "17 2 3  third record\n"
      "-4 3 1\n");
  open_electrode_files();
  RunContext ctx = make_context(0, 5);
  MeshModel mesh{};
  read_mesh(&ctx, &mesh);
  ElectrodeTable table{};
  read_electrodes(ctx, mesh, &table);
  EXPECT_EQ(table.num_electrodes, 4);
  EXPECT_EQ(table.electrode_ids, (std::vector<int>{5, 9, 17, -4}));
  EXPECT_EQ(table.electrode_nodes, (std::vector<int>{1, 12, 7, 9}));
  // Both files are closed: their contents are complete without a close here.
  const std::string lines =
      "       0.000      -0.500       0.000\n"
      "       2.000      -4.125       0.000\n"
      "       1.000      -2.500       0.000\n"
      "       2.000      -0.500       0.000\n";
  EXPECT_EQ(read_file("electrodes.dat"), lines);
  EXPECT_EQ(read_file("electrodes.vtk"),
            std::string(kHead) + "POINTS       4 double\n" + lines);
}

TEST_F(ElectrodesTest, MeshFileElectrodesAndEmptyTables) {
  MeshModel mesh{};
  mesh.num_nodes = 3;
  mesh.node_x = {1.0, -12.25, 1234.5};
  mesh.node_y = {2.5, -0.07, 10.0};
  RunContext ctx = make_context(0, 3);
  open_control("2\n3 2\n1 1\n");
  open_electrode_files();
  ElectrodeTable table{};
  read_electrodes(ctx, mesh, &table);
  EXPECT_EQ(table.electrode_ids, (std::vector<int>{3, 1}));
  EXPECT_EQ(table.electrode_nodes, (std::vector<int>{2, 1}));
  const std::string lines =
      "     -12.250      -0.070       0.000\n"
      "       1.000       2.500       0.000\n";
  EXPECT_EQ(read_file("electrodes.dat"), lines);
  EXPECT_EQ(read_file("electrodes.vtk"),
            std::string(kHead) + "POINTS       2 double\n" + lines);
  tio_close_all();

  // No electrodes: an empty table file and the five head lines.
  for (const char* count : {"0\n", "-3\n"}) {
    std::remove("electrodes.dat");
    std::remove("electrodes.vtk");
    open_control(count);
    open_electrode_files();
    read_electrodes(ctx, mesh, &table);
    EXPECT_EQ(table.num_electrodes, 0);
    EXPECT_TRUE(table.electrode_nodes.empty());
    EXPECT_EQ(read_file("electrodes.dat"), "");
    EXPECT_EQ(read_file("electrodes.vtk"),
              std::string(kHead) + "POINTS       0 double\n");
    tio_close_all();
  }
}

TEST_F(ElectrodesTest, BadColumnsRowsAndNodesStop) {
  const std::string grid = "3 4\n0 1 2\n0 0 0\n0 1 2 3\n";
  RunContext ctx = make_context(0, 4);
  MeshModel mesh{};
  ElectrodeTable table{};
  auto run = [&]() {
    open_electrode_files();
    read_mesh(&ctx, &mesh);
    read_electrodes(ctx, mesh, &table);
  };

  // Column num_x is accepted; one more is fatal, and reported before the
  // row, which is also out of range. Log only.
  write_file("Q5.in", grid + "2\n1 3 4\n2 4 5\n");
  EXPECT_STOPS(run());
  EXPECT_LOG_ONLY(" FATAL:  column number too large for electrode    2");
  EXPECT_EQ(read_file("electrodes.dat"), "");

  // Electrode id 17 as the third record: the message names position 3.
  write_file("Q5.in", grid + "3\n1 1 1\n2 1 2\n17 2 5\n");
  EXPECT_STOPS(run());
  EXPECT_LOG_ONLY(" FATAL:  row number too large for electrode    3");

  write_file("Q5.in", grid + "1\n1 0 9\n");
  EXPECT_STOPS(run());
  EXPECT_BOTH_STREAMS(" FATAL:  column number too small for electrode    1");

  write_file("Q5.in", grid + "1\n1 4 0\n");
  EXPECT_STOPS(run());
  EXPECT_LOG_ONLY(" FATAL:  column number too large for electrode    1");

  write_file("Q5.in", grid + "2\n1 1 1\n1 -2 1\n");
  EXPECT_STOPS(run());
  EXPECT_BOTH_STREAMS(" FATAL:  column number too small for electrode    2");

  write_file("Q5.in", grid + "1\n1 2 0\n");
  EXPECT_STOPS(run());
  EXPECT_BOTH_STREAMS(" FATAL:  row number too small for electrode    1");

  MeshModel tri{};
  tri.num_nodes = 3;
  tri.node_x = {0, 1, 2};
  tri.node_y = {0, 1, 2};
  RunContext ctx3 = make_context(0, 3);
  write_file("Q5.in", "2\n1 3\n2 4\n");
  EXPECT_STOPS(read_electrodes(ctx3, tri, &table));
  EXPECT_BOTH_STREAMS(" FATAL:  node number out of range for electrode    2");

  write_file("Q5.in", "1\n1 0\n");
  EXPECT_STOPS(read_electrodes(ctx3, tri, &table));
  EXPECT_BOTH_STREAMS(" FATAL:  node number out of range for electrode    1");
}

}  // namespace

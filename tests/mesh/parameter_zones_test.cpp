// Tests of the parameter map: uniform blocks, block lists, mesh.dat
// parameters, the start parameter vector and the stops on bad patching.
#include "mesh_test_util.h"

namespace {

using ParameterZonesTest = ScratchDirTest;

// A grid mesh of nx by ny nodes as far as the map needs it.
MeshModel grid_cells(int nx, int ny) {
  MeshModel mesh{};
  mesh.num_nodes = nx * ny;
  mesh.num_elements = (nx - 1) * (ny - 1);
  mesh.element_parameter.assign(mesh.num_elements, -7);
  return mesh;
}

RunContext grid_context(int nx, int ny) {
  RunContext ctx = make_context(1, 4);
  ctx.num_x = nx;
  ctx.num_y = ny;
  return ctx;
}

// Distinct start values, so that it shows which element set a parameter.
std::vector<double> numbered(int n) {
  std::vector<double> v(n);
  for (int e = 0; e < n; ++e) v[e] = 0.5 * (e + 1);
  return v;
}

// The start parameters by their definition: the last element of each
// parameter, in element order, gives its value; empty parameters stay 0.
void expect_start_parameters(const MeshModel& mesh, const std::vector<double>& v,
                             const ParameterMap& map) {
  std::vector<double> expect(map.num_parameters, 0.0);
  for (int e = 1; e <= mesh.num_elements; ++e) {
    int p = mesh.element_parameter[e - 1];
    if (p != 0) expect[p - 1] = v[e - 1];
  }
  EXPECT_EQ(map.start_parameters, expect);
}

int cell_parameter(const MeshModel& mesh, int ny, int i, int j) {
  return mesh.element_parameter[i * (ny - 1) + j];
}

TEST_F(ParameterZonesTest, UniformBlocks) {
  // 11 by 6 nodes, sizes 2 and 1: 5 by 5 blocks of two cells each.
  open_control("2 1   patch sizes\n99\n");
  RunContext ctx = grid_context(11, 6);
  MeshModel mesh = grid_cells(11, 6);
  std::vector<double> v = numbered(mesh.num_elements);
  ParameterMap map{};
  build_parameter_map(&ctx, &mesh, v, &map);
  EXPECT_EQ(ctx.patch_size_x, 2);
  EXPECT_EQ(ctx.patch_size_y, 1);
  EXPECT_EQ(ctx.num_patch_x, 5);
  EXPECT_EQ(ctx.num_patch_y, 5);
  EXPECT_EQ(map.num_parameters, 25);
  EXPECT_EQ(cell_parameter(mesh, 6, 3, 4), 10);
  EXPECT_EQ(mesh.element_parameter[3 * 5 + 4], 10);
  EXPECT_EQ(cell_parameter(mesh, 6, 0, 0), 1);
  EXPECT_EQ(cell_parameter(mesh, 6, 1, 0), 1);
  EXPECT_EQ(cell_parameter(mesh, 6, 2, 0), 6);
  EXPECT_EQ(cell_parameter(mesh, 6, 0, 4), 5);
  EXPECT_EQ(cell_parameter(mesh, 6, 9, 4), 25);
  // Every parameter holds two cells, side by side along x.
  for (int p = 1; p <= 25; ++p) {
    std::vector<int> cells;
    for (int e = 0; e < mesh.num_elements; ++e)
      if (mesh.element_parameter[e] == p) cells.push_back(e);
    ASSERT_EQ(cells.size(), 2u) << p;
    EXPECT_EQ(cells[1] - cells[0], 5) << p;
  }
  expect_start_parameters(mesh, v, map);
  EXPECT_EQ(map.start_parameters[9], v[3 * 5 + 4]);
  int next = 0;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&next)});
  EXPECT_EQ(next, 99);
}

TEST_F(ParameterZonesTest, BlockLists) {
  // 8 by 5 nodes: 7 by 4 cells. Blocks from cell column and row 1 that
  // reach exactly the last cells cover the whole grid.
  open_control("0 0\n3 2\n1 2 3 2\n1 1 3\n");
  RunContext ctx = grid_context(8, 5);
  MeshModel mesh = grid_cells(8, 5);
  std::vector<double> v = numbered(mesh.num_elements);
  ParameterMap map{};
  build_parameter_map(&ctx, &mesh, v, &map);
  EXPECT_EQ(ctx.num_patch_x, 3);
  EXPECT_EQ(ctx.num_patch_y, 2);
  EXPECT_EQ(map.num_parameters, 6);
  const int block_of_column[7] = {1, 1, 2, 2, 2, 3, 3};
  const int block_of_row[4] = {1, 2, 2, 2};
  for (int i = 0; i < 7; ++i)
    for (int j = 0; j < 4; ++j)
      EXPECT_EQ(cell_parameter(mesh, 5, i, j),
                (block_of_column[i] - 1) * 2 + block_of_row[j])
          << i << " " << j;
  expect_start_parameters(mesh, v, map);
  tio_close_all();

  // A size of 0 along y alone selects lists. Blocks from cell column 2 and
  // row 2; a block of no rows gives parameters that no element has.
  open_control("5 0\n2 3\n2 1 2\n2 1 0 1\n");
  ctx = grid_context(8, 5);
  mesh = grid_cells(8, 5);
  build_parameter_map(&ctx, &mesh, v, &map);
  EXPECT_EQ(map.num_parameters, 6);
  for (int i = 0; i < 7; ++i) {
    for (int j = 0; j < 4; ++j) {
      int expect = 0;
      int a = i == 1 ? 1 : (i == 2 || i == 3) ? 2 : 0;
      int b = j == 1 ? 1 : j == 2 ? 3 : 0;
      if (a > 0 && b > 0) expect = (a - 1) * 3 + b;
      EXPECT_EQ(cell_parameter(mesh, 5, i, j), expect) << i << " " << j;
    }
  }
  expect_start_parameters(mesh, v, map);
  EXPECT_EQ(map.start_parameters[1], 0.0);
  EXPECT_EQ(map.start_parameters[4], 0.0);
}

TEST_F(ParameterZonesTest, MeshFileParametersReadNoPatching) {
  open_control("17\n");
  RunContext ctx = make_context(1, 3);
  MeshModel mesh{};
  mesh.num_elements = 5;
  mesh.element_parameter = {2, 0, 4, 2, 1};
  std::vector<double> v = numbered(5);
  ParameterMap map{};
  build_parameter_map(&ctx, &mesh, v, &map);
  EXPECT_EQ(map.num_parameters, 4);
  EXPECT_EQ(ctx.num_patch_x, 1);
  EXPECT_EQ(ctx.num_patch_y, 1);
  EXPECT_EQ(map.start_parameters, (std::vector<double>{2.5, 2.0, 0.0, 1.5}));
  int next = 0;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&next)});
  EXPECT_EQ(next, 17);

  mesh.element_parameter = {0, 0, 0, 0, 0};
  build_parameter_map(&ctx, &mesh, v, &map);
  EXPECT_EQ(map.num_parameters, 0);
  EXPECT_TRUE(map.start_parameters.empty());

  mesh.num_elements = 0;
  mesh.element_parameter.clear();
  build_parameter_map(&ctx, &mesh, {}, &map);
  EXPECT_EQ(map.num_parameters, 0);

  mesh.num_elements = 2;
  mesh.element_parameter = {1, -3};
  write_file("Q5.in", "");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(" FATAL: parameter number out of range in mesh.dat:         -3");
}

TEST_F(ParameterZonesTest, BadPatchingStops) {
  MeshModel mesh = grid_cells(8, 5);
  std::vector<double> v = numbered(mesh.num_elements);
  ParameterMap map{};
  RunContext ctx = grid_context(10, 6);
  MeshModel mesh10 = grid_cells(10, 6);
  std::vector<double> v10 = numbered(mesh10.num_elements);

  // 9 cells are not a multiple of 2.
  write_file("Q5.in", "2 1\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh10, v10, &map));
  EXPECT_BOTH_STREAMS(" Error: Patch size of     2 not valid in X");

  write_file("Q5.in", "3 2\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh10, v10, &map));
  EXPECT_BOTH_STREAMS(" Error: Patch size of     2 not valid in Y");

  ctx = grid_context(8, 5);
  const char* negative =
      " FATAL: defining patching of parameters - patch sizes and counts must "
      "not be negative";
  write_file("Q5.in", "-7 1\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(negative);

  write_file("Q5.in", "0 -1\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(negative);

  write_file("Q5.in", "0 0\n1 -1\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(negative);

  // A negative width is found before npxstart of 0.
  write_file("Q5.in", "0 0\n2 1\n0 3 -1\n1 4\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(negative);

  write_file("Q5.in", "0 0\n1 1\n1 3\n1 -4\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(negative);

  const char* start_low =
      " FATAL: defining patching of parameters - npxstart and npystart must be > 0";
  write_file("Q5.in", "0 0\n1 1\n0 3\n1 2\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(start_low);

  write_file("Q5.in", "0 0\n1 1\n1 3\n0 2\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(start_low);

  // npxstart of num_x - 1 is too large although that column of cells exists.
  const char* start_high =
      " FATAL: defining patching of parameters - npxstart and/or npystart are "
      "too large";
  write_file("Q5.in", "0 0\n1 1\n7 0\n1 1\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(start_high);

  write_file("Q5.in", "0 0\n1 1\n6 1\n4 0\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(start_high);

  write_file("Q5.in", "0 0\n2 1\n1 4 4\n1 4\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(
      " FATAL: defining patching of parameters - incorrect patching in x direction");

  write_file("Q5.in", "0 0\n1 1\n1 7\n1 5\n");
  EXPECT_STOPS(build_parameter_map(&ctx, &mesh, v, &map));
  EXPECT_BOTH_STREAMS(
      " FATAL: defining patching of parameters - incorrect patching in y direction");
}

}  // namespace

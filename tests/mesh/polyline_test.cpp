// Tests of the output mask: the crossing rule of the polyline, heights on a
// grid, and the node mask that follows the written elements.
#include "mesh_test_util.h"

namespace {

using PolylineTest = ScratchDirTest;

// Node mask by its definition: the nodes of the written elements.
std::vector<unsigned char> nodes_of(const MeshModel& mesh, int npe,
                                    const std::vector<unsigned char>& elems) {
  std::vector<unsigned char> nodes(mesh.num_nodes, 0);
  for (int e = 1; e <= mesh.num_elements; ++e)
    if (elems[e - 1])
      for (int s = 1; s <= npe; ++s) nodes[slot(mesh, e, s) - 1] = 1;
  return nodes;
}

// Quadrilaterals of 0.5 by 0.5 over x in [-1, 5], y in [-1, 4], in height,
// numbered like a grid; the centres sit on odd multiples of 0.25.
MeshModel half_unit_quads() {
  const int nx = 13;
  const int ny = 11;
  MeshModel mesh{};
  mesh.num_nodes = nx * ny;
  mesh.num_elements = (nx - 1) * (ny - 1);
  for (int i = 0; i < nx; ++i)
    for (int j = 0; j < ny; ++j) {
      mesh.node_x.push_back(-1.0 + 0.5 * i);
      mesh.node_y.push_back(-1.0 + 0.5 * j);
    }
  for (int i = 1; i < nx; ++i)
    for (int j = 1; j < ny; ++j) {
      int n = (i - 1) * ny + j;
      mesh.element_nodes.insert(mesh.element_nodes.end(),
                                {n, n + ny, n + ny + 1, n + 1});
    }
  mesh.element_nodes.push_back(1);
  return mesh;
}

TEST_F(PolylineTest, LShapeSelectsTheCellsInside) {
  MeshModel mesh = half_unit_quads();
  // An L-shaped outline, once each way round.
  const double px[7] = {0, 4, 4, 1, 1, 0, 0};
  const double py[7] = {0, 0, 1, 1, 3, 3, 0};
  double rx[7];
  double ry[7];
  for (int k = 0; k < 7; ++k) {
    rx[k] = px[6 - k];
    ry[k] = py[6 - k];
  }
  for (int way = 0; way < 2; ++way) {
    OutputMask mask{};
    polyline_mask(mesh, 4, 7, way == 0 ? px : rx, way == 0 ? py : ry, &mask);
    ASSERT_EQ(mask.element_mask.size(), static_cast<size_t>(mesh.num_elements));
    int count = 0;
    for (int e = 1; e <= mesh.num_elements; ++e) {
      double cx = 0.0;
      double cy = 0.0;
      for (int s = 1; s <= 4; ++s) {
        cx += mesh.node_x[slot(mesh, e, s) - 1] / 4;
        cy += mesh.node_y[slot(mesh, e, s) - 1] / 4;
      }
      bool inside = (cx > 0 && cx < 4 && cy > 0 && cy < 1) ||
                    (cx > 0 && cx < 1 && cy > 0 && cy < 3);
      EXPECT_EQ(mask.element_mask[e - 1] != 0, inside) << cx << " " << cy;
      count += inside ? 1 : 0;
    }
    EXPECT_EQ(count, 8 * 2 + 2 * 4);
    EXPECT_EQ(mask.node_mask, nodes_of(mesh, 4, mask.element_mask));
  }
}

TEST_F(PolylineTest, CentreOnHorizontalEdgeAndDegeneratePolylines) {
  // Four triangles with centres (5, 0), (5, 10), (5, 5), (15, 5), and one
  // node (13) that belongs to none.
  MeshModel mesh{};
  mesh.num_nodes = 13;
  mesh.num_elements = 4;
  mesh.node_x = {4, 6, 5, 4, 6, 5, 4, 6, 5, 14, 16, 15, 100};
  mesh.node_y = {-1, -1, 2, 9, 9, 12, 4, 4, 7, 4, 4, 7, 100};
  mesh.element_nodes = {1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9, 0, 10, 11, 12, 0, 1};
  const double px[5] = {0, 10, 10, 0, 0};
  const double py[5] = {0, 0, 10, 10, 0};
  OutputMask mask{};
  // The lower edge at the height of the first centre does not count, and
  // the vertical edges count only one of their ends: outside. On the upper
  // edge the right-hand side counts once: inside.
  polyline_mask(mesh, 3, 5, px, py, &mask);
  EXPECT_EQ(mask.element_mask, (std::vector<unsigned char>{0, 1, 1, 0}));
  EXPECT_EQ(mask.node_mask, (std::vector<unsigned char>{0, 0, 0, 1, 1, 1, 1, 1,
                                                        1, 0, 0, 0, 0}));

  // One point: no edges, nothing inside.
  polyline_mask(mesh, 3, 1, px, py, &mask);
  EXPECT_EQ(mask.element_mask, std::vector<unsigned char>(4, 0));
  EXPECT_EQ(mask.node_mask, std::vector<unsigned char>(13, 0));

  // No polyline: everything written, but not the node outside all elements.
  polyline_mask(mesh, 3, 0, px, py, &mask);
  EXPECT_EQ(mask.element_mask, std::vector<unsigned char>(4, 1));
  std::vector<unsigned char> all(13, 1);
  all[12] = 0;
  EXPECT_EQ(mask.node_mask, all);
}

TEST_F(PolylineTest, CentresOnVerticesAndVerticalEdges) {
  // Triangles with centres (5, 5), (10, 5), (0, 5).
  MeshModel mesh{};
  mesh.num_nodes = 9;
  mesh.num_elements = 3;
  mesh.node_x = {4, 6, 5, 9, 11, 10, -1, 1, 0};
  mesh.node_y = {4, 4, 7, 4, 4, 7, 4, 4, 7};
  mesh.element_nodes = {1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9, 0, 1};
  OutputMask mask{};

  // A crossing counts only strictly right of the centre (t below 0): a
  // centre on the right edge is outside, one on the left edge inside.
  const double sx[5] = {0, 10, 10, 0, 0};
  const double sy[5] = {0, 0, 10, 10, 0};
  polyline_mask(mesh, 3, 5, sx, sy, &mask);
  EXPECT_EQ(mask.element_mask, (std::vector<unsigned char>{1, 0, 1}));

  // A diamond whose side vertices lie at the height of the centres. The
  // edge from (5, 10) that ends at the height of the centre in (10, 5) does
  // not count; the edge that starts there does: one crossing for (5, 5).
  const double dx[5] = {0, 5, 10, 5, 0};
  const double dy[5] = {5, 10, 5, 0, 5};
  polyline_mask(mesh, 3, 5, dx, dy, &mask);
  EXPECT_EQ(mask.element_mask, (std::vector<unsigned char>{1, 0, 1}));
  EXPECT_EQ(mask.node_mask, nodes_of(mesh, 3, mask.element_mask));
}

TEST_F(PolylineTest, GridPolylineIsGivenInHeight) {
  // 5 by 5 grid, x 0..4, depths 0..4 downward.
  const std::string grid = "5 5\n0 1 2 3 4\n0 0 0 0 0\n0 1 2 3 4\n";
  open_control(grid +
               "5\n0.9 -0.1\n2.9 -0.1\n2.9, -2.1\n0.9 -2.1\n0.9 -0.1\n8\n");
  RunContext ctx = make_context(0, 4);
  MeshModel mesh{};
  read_mesh(&ctx, &mesh);
  std::vector<double> depth = mesh.node_y;
  OutputMask mask{};
  read_polyline_mask(ctx, &mesh, &mask);
  EXPECT_EQ(mesh.node_y, depth);  // the sign is changed back
  std::vector<unsigned char> expect(16, 0);
  for (int e : {5, 6, 9, 10}) expect[e - 1] = 1;
  EXPECT_EQ(mask.element_mask, expect);
  std::vector<unsigned char> nodes(25, 0);
  for (int n : {6, 7, 8, 11, 12, 13, 16, 17, 18}) nodes[n - 1] = 1;
  EXPECT_EQ(mask.node_mask, nodes);
  int next = 0;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&next)});
  EXPECT_EQ(next, 8);
  tio_close_all();

  // The same outline in depth selects nothing.
  open_control(grid + "5\n0.9 0.1\n2.9 0.1\n2.9 2.1\n0.9 2.1\n0.9 0.1\n");
  read_mesh(&ctx, &mesh);
  read_polyline_mask(ctx, &mesh, &mask);
  EXPECT_EQ(mask.element_mask, std::vector<unsigned char>(16, 0));
  EXPECT_EQ(mask.node_mask, std::vector<unsigned char>(25, 0));
  EXPECT_EQ(mesh.node_y, depth);
  tio_close_all();

  // A count of 0 or below: no polyline.
  open_control(grid + "-2\n");
  read_mesh(&ctx, &mesh);
  read_polyline_mask(ctx, &mesh, &mask);
  EXPECT_EQ(mask.element_mask, std::vector<unsigned char>(16, 1));
  EXPECT_EQ(mask.node_mask, std::vector<unsigned char>(25, 1));
  tio_close_all();

  // mesh.dat coordinates are taken as they are.
  write_file("mesh.dat", "1 3\n1 1 2 3 0 0\n1 0 0\n2 2 0\n3 0 2\n");
  open_control("4\n0 0\n3 0\n0 3\n0 0\n");
  ctx = make_context(0, 3);
  read_mesh(&ctx, &mesh);
  read_polyline_mask(ctx, &mesh, &mask);
  EXPECT_EQ(mask.element_mask, std::vector<unsigned char>(1, 1));
  tio_close_all();
  open_control("4\n0 0\n3 0\n0 -3\n0 0\n");
  read_polyline_mask(ctx, &mesh, &mask);
  EXPECT_EQ(mask.element_mask, std::vector<unsigned char>(1, 0));
}

TEST_F(PolylineTest, OpenPolylineStops) {
  const char* msg =
      " FATAL:  Error in polyline - the first and last pair must be identical";
  MeshModel mesh = half_unit_quads();
  RunContext ctx = make_context(0, 3);
  OutputMask mask{};
  write_file("Q5.in", "3\n0 0\n1 0\n0 1e-12\n");
  EXPECT_STOPS(read_polyline_mask(ctx, &mesh, &mask));
  EXPECT_BOTH_STREAMS(msg);
  write_file("Q5.in", "3\n0 0\n1 0\n1e-12 0\n");
  EXPECT_STOPS(read_polyline_mask(ctx, &mesh, &mask));
  EXPECT_BOTH_STREAMS(msg);
}

}  // namespace

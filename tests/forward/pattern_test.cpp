// Tests of the matrix pattern: the arrays of the literal two-pass scan over
// all elements, the connected-node limit and its message.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "core_test_util.h"
#include "forward/forward.h"
#include "mesh/mesh_model.h"
#include "textio/textio.h"

namespace {

using core_test::ScratchDir;

struct Pattern {
  bool overflow = false;
  int m = 0;
  std::vector<int> row_start, columns;
};

// The higher neighbours of node i by the literal scan of every element;
// returns false when the 101st would be listed.
bool literal_list(const MeshModel& mesh, int p, int i, int* list, int* c) {
  *c = 0;
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int* en = &mesh.element_nodes[4 * e];
    bool named = false;
    for (int s = 0; s < p; ++s) named = named || en[s] == i;
    if (!named) continue;
    for (int s = 0; s < p; ++s) {
      const int q = en[s];
      if (q <= i) continue;
      bool listed = false;
      for (int t = 0; t < *c; ++t) listed = listed || list[t] == q;
      if (listed) continue;
      ++*c;
      if (*c > 100) return false;
      list[*c - 1] = q;
    }
  }
  return true;
}

// Count, then generate with the exchange sort, as in the O(N * E) scan.
Pattern literal_pattern(const MeshModel& mesh, int p) {
  Pattern r;
  int list[100];
  int c;
  for (int i = 1; i <= mesh.num_nodes; ++i) {
    if (!literal_list(mesh, p, i, list, &c)) {
      r.overflow = true;
      return r;
    }
    r.m += c + 1;
  }
  r.row_start.assign(mesh.num_nodes + 1, 0);
  r.columns.assign(r.m, 0);
  int pos = 1;
  for (int i = 1; i <= mesh.num_nodes; ++i) {
    r.row_start[i - 1] = pos;
    r.columns[pos - 1] = i;
    ++pos;
    literal_list(mesh, p, i, list, &c);
    for (int t = 1; t <= c - 1; ++t) {
      for (int u = 1; u <= c - t; ++u) {
        if (list[u - 1] > list[u]) std::swap(list[u - 1], list[u]);
      }
    }
    for (int t = 0; t < c; ++t) r.columns[pos - 1 + t] = list[t];
    pos += c;
  }
  r.row_start[mesh.num_nodes] = r.m + 1;
  return r;
}

void expect_same_as_literal(const MeshModel& mesh, int p) {
  const Pattern ref = literal_pattern(mesh, p);
  ASSERT_FALSE(ref.overflow);
  ConductanceMatrix cm;
  core_test::build_pattern(mesh, p, &cm);
  EXPECT_EQ(cm.num_entries, ref.m);
  EXPECT_EQ(cm.matrix_row_start, ref.row_start);
  EXPECT_EQ(cm.matrix_columns, ref.columns);
}

MeshModel triangle_mesh(int num_nodes, const std::vector<std::vector<int>>& tris) {
  MeshModel m;
  m.num_nodes = num_nodes;
  m.num_elements = static_cast<int>(tris.size());
  m.node_x.assign(num_nodes, 0.0);
  m.node_y.assign(num_nodes, 0.0);
  m.element_nodes.assign(4 * m.num_elements + 1, 0);
  for (int e = 0; e < m.num_elements; ++e) {
    for (int s = 0; s < 4; ++s) m.element_nodes[4 * e + s] = tris[e][s];
  }
  m.element_nodes[4 * m.num_elements] = 1;
  m.pin_flags.assign(num_nodes, 0);
  return m;
}

// A fan of triangles (1, t, t + 1) around node 1 with `rim` higher neighbours.
MeshModel fan(int rim) {
  std::vector<std::vector<int>> tris;
  for (int t = 2; t <= rim; ++t) tris.push_back({1, t, t + 1, 7});
  return triangle_mesh(rim + 1, tris);
}

TEST(MatrixPattern, SmallCasesAndConsoleLines) {
  ScratchDir dir;
  tio_open(CH_LOG, "Q5.out");
  ConductanceMatrix cm;
  testing::internal::CaptureStdout();
  core_test::build_pattern(triangle_mesh(3, {{1, 2, 3, 0}}), 3, &cm);
  const std::string console = testing::internal::GetCapturedStdout();
  EXPECT_EQ(console,
            " >> Determining storage needed for finite element conductance matrix\n"
            " >> Generating index array for finite element conductance matrix\n");
  EXPECT_EQ(cm.num_entries, 6);
  EXPECT_EQ(cm.matrix_row_start, (std::vector<int>{1, 4, 6, 7}));
  EXPECT_EQ(cm.matrix_columns, (std::vector<int>{1, 2, 3, 2, 3, 3}));
  tio_close(CH_LOG);
  EXPECT_EQ(core_test::read_file("Q5.out"), "");  // console only

  // 2 by 2 grid: one element (1, 3, 4, 2), the diagonal pairs connected.
  const MeshModel grid = core_test::make_grid({0.0, 1.0}, {0.0, 1.0});
  testing::internal::CaptureStdout();
  core_test::build_pattern(grid, 4, &cm);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(cm.num_entries, 10);
  EXPECT_EQ(cm.matrix_row_start, (std::vector<int>{1, 5, 8, 10, 11}));
  EXPECT_EQ(cm.matrix_columns, (std::vector<int>{1, 2, 3, 4, 2, 3, 4, 3, 4, 4}));

  // Nodes 2 and 5 named by no element: a row of the diagonal alone. The
  // sixth value of a mesh.dat element (slot four) names node 2 and is no node.
  testing::internal::CaptureStdout();
  core_test::build_pattern(triangle_mesh(5, {{4, 1, 3, 2}}), 3, &cm);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(cm.num_entries, 8);
  EXPECT_EQ(cm.matrix_row_start, (std::vector<int>{1, 4, 5, 7, 8, 9}));
  EXPECT_EQ(cm.matrix_columns, (std::vector<int>{1, 3, 4, 2, 3, 4, 4, 5}));
}

TEST(MatrixPattern, RandomMeshesMatchTheLiteralScan) {
  ScratchDir dir;
  std::mt19937 rng(20240611);
  testing::internal::CaptureStdout();
  for (int round = 0; round < 6; ++round) {
    const int nx = 3 + round, ny = 2 + (round * 5) % 7;
    MeshModel tri = core_test::make_random_mesh(rng, nx, ny, round, false, true);
    expect_same_as_literal(tri, 3);
    // The zone value in slot four does not enter: clear it, same arrays.
    ConductanceMatrix with_zone, without_zone;
    core_test::build_pattern(tri, 3, &with_zone);
    for (int e = 0; e < tri.num_elements; ++e) tri.element_nodes[4 * e + 3] = 0;
    core_test::build_pattern(tri, 3, &without_zone);
    EXPECT_EQ(with_zone.matrix_columns, without_zone.matrix_columns);
    EXPECT_EQ(with_zone.matrix_row_start, without_zone.matrix_row_start);

    expect_same_as_literal(core_test::make_random_mesh(rng, nx, ny, round, true, false), 4);
  }
  // A degenerate element naming a node twice, and repeated elements.
  expect_same_as_literal(
      triangle_mesh(6, {{2, 2, 5, 1}, {5, 3, 1, 0}, {5, 3, 1, 0}, {6, 1, 4, 3}}), 3);
  testing::internal::GetCapturedStdout();
}

// Positions that the assembly adds each local pair into.
TEST(MatrixPattern, ElementPositionsPointAtTheirEntries) {
  ScratchDir dir;
  std::mt19937 rng(77);
  testing::internal::CaptureStdout();
  for (int p = 3; p <= 4; ++p) {
    const MeshModel mesh = core_test::make_random_mesh(rng, 5, 4, 2, p == 4, true);
    ConductanceMatrix cm;
    core_test::build_pattern(mesh, p, &cm);
    ASSERT_EQ(cm.element_positions.size(), static_cast<std::size_t>(mesh.num_elements * p * p));
    EXPECT_EQ(cm.element_matrices.size(), cm.element_positions.size());
    EXPECT_TRUE(std::isnan(cm.element_matrices_k));
    for (int e = 0; e < mesh.num_elements; ++e) {
      for (int i = 0; i < p; ++i) {
        for (int j = 0; j < p; ++j) {
          const int gi = mesh.element_nodes[4 * e + i], gj = mesh.element_nodes[4 * e + j];
          const int pos = cm.element_positions[e * p * p + i * p + j];
          if (i == j) {
            EXPECT_EQ(pos, cm.matrix_row_start[gi - 1]);
          } else if (gi < gj) {
            ASSERT_GT(pos, cm.matrix_row_start[gi - 1]);
            ASSERT_LT(pos, cm.matrix_row_start[gi]);
            EXPECT_EQ(cm.matrix_columns[pos - 1], gj);
          } else {
            EXPECT_EQ(pos, 0);
          }
        }
      }
    }
  }
  testing::internal::GetCapturedStdout();
}

// The count pass as a child process, its console redirected to a file.
void count_with_console_file(const MeshModel& mesh) {
  std::fflush(stdout);
  const int fd = open("console.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(fd, 1);
  tio_open(CH_LOG, "Q5.out");
  count_storage(mesh, 3);
  std::printf("passed\n");
  std::fflush(stdout);
  std::exit(3);
}

void generate_with_console_file(const MeshModel& mesh) {
  std::fflush(stdout);
  const int fd = open("console.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644);
  dup2(fd, 1);
  tio_open(CH_LOG, "Q5.out");
  ConductanceMatrix cm;
  cm.matrix_row_start.assign(mesh.num_nodes + 1, 0);
  cm.matrix_columns.assign(10000, 0);
  generate_index(mesh, 3, &cm);
  std::exit(3);
}

TEST(MatrixPattern, ConnectedNodeLimit) {
  GTEST_FLAG_SET(death_test_style, "fast");
  ScratchDir dir;
  const std::string fatal_line =
      " FATAL:  Too many connected nodes -  reduce size of mesh or contact "
      "q5-maintainers@q5-resistivity.org\n";

  // 100 higher neighbours of node 1: passes, and agrees with the literal scan.
  EXPECT_EXIT(count_with_console_file(fan(100)), testing::ExitedWithCode(3), "");
  EXPECT_EQ(core_test::read_file("console.txt"),
            " >> Determining storage needed for finite element conductance matrix\npassed\n");
  EXPECT_EQ(core_test::read_file("Q5.out"), "");
  testing::internal::CaptureStdout();
  expect_same_as_literal(fan(100), 3);
  testing::internal::GetCapturedStdout();

  // 101: the run stops; the message on the log only.
  ASSERT_TRUE(literal_pattern(fan(101), 3).overflow);
  EXPECT_EXIT(count_with_console_file(fan(101)), testing::ExitedWithCode(0), "");
  const std::string console = core_test::read_file("console.txt");
  EXPECT_EQ(console.find(" >> Determining storage needed for finite element conductance matrix\n"), 0u);
  EXPECT_NE(console.find("FATAL error"), std::string::npos);
  EXPECT_EQ(console.find("Too many"), std::string::npos);
  EXPECT_EQ(console.find("passed"), std::string::npos);
  EXPECT_EQ(core_test::read_file("Q5.out"), fatal_line);

  // The limit counts higher neighbours only: node 102 of a fan numbered the
  // other way has 101 lower neighbours and passes.
  std::vector<std::vector<int>> reversed;
  for (int t = 1; t <= 100; ++t) reversed.push_back({102, t, t + 1, 0});
  testing::internal::CaptureStdout();
  expect_same_as_literal(triangle_mesh(102, reversed), 3);
  testing::internal::GetCapturedStdout();

  // The second pass stops the same way.
  std::remove("Q5.out");
  EXPECT_EXIT(generate_with_console_file(fan(101)), testing::ExitedWithCode(0), "");
  EXPECT_EQ(core_test::read_file("Q5.out"), fatal_line);
  EXPECT_NE(core_test::read_file("console.txt").find("FATAL error"), std::string::npos);
}

}  // namespace

// Matrix pattern against a literal transcription of the two-pass scan over
// all elements, and the connected-node limit with its message.
#include <fcntl.h>

#include "core_test_util.h"

// Higher neighbours of node i, every element scanned; false once a 101st comes.
static bool literal_list(const MeshModel& mesh, int p, int i, int* list, int* c) {
  *c = 0;
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int* en = &mesh.element_nodes[4 * e];
    for (int s = 0; s < p && std::find(en, en + p, i) != en + p; ++s) {
      if (en[s] <= i || std::find(list, list + *c, en[s]) != list + *c) continue;
      if (++*c > 100) return false;
      list[*c - 1] = en[s];
    }
  }
  return true;
}

// Count pass, generate pass with its exchange sort, compared; false on overflow.
static bool matches_literal(const MeshModel& mesh, int p) {
  std::vector<int> row_start, columns;
  int list[100], c, m = 0;
  for (int i = 1; i <= mesh.num_nodes; m += c + 1, ++i)
    if (!literal_list(mesh, p, i, list, &c)) return false;
  for (int i = 1; i <= mesh.num_nodes; ++i) {
    row_start.push_back(static_cast<int>(columns.size()) + 1);
    columns.push_back(i);
    literal_list(mesh, p, i, list, &c);
    for (int t = 1; t <= c - 1; ++t)
      for (int u = 1; u <= c - t; ++u)
        if (list[u - 1] > list[u]) std::swap(list[u - 1], list[u]);
    columns.insert(columns.end(), list, list + c);
  }
  row_start.push_back(m + 1);
  ConductanceMatrix cm;
  build_pattern(mesh, p, &cm);
  EXPECT_EQ(cm.num_entries, m);
  EXPECT_EQ(cm.matrix_row_start, row_start);
  EXPECT_EQ(cm.matrix_columns, columns);
  return true;
}

// Triangles about node 1 with `rim` higher neighbours (reversed: rim + 1, lower).
static MeshModel fan(int rim, bool reversed) {
  std::vector<std::vector<int>> tris;
  for (int t = 2; t <= rim; ++t) tris.push_back({reversed ? rim + 1 : 1, t - reversed, t + 1 - reversed});
  return make_mesh(std::vector<double>(rim + 1), std::vector<double>(rim + 1), tris);
}

TEST(MatrixPattern, SmallCasesAndRandomMeshesMatchTheLiteralScan) {
  ConductanceMatrix cm;
  const std::vector<double> z(5);
  EXPECT_EQ(build_pattern(make_mesh({0, 1, 0}, {0, 0, 1}, {{1, 2, 3}}), 3, &cm),
            " >> Determining storage needed for finite element conductance matrix\n"
            " >> Generating index array for finite element conductance matrix\n");
  EXPECT_EQ(cm.matrix_columns, (std::vector<int>{1, 2, 3, 2, 3, 3}));
  build_pattern(make_mesh(z, z, {{4, 1, 3, 2}}), 3, &cm);  // slot four is no node
  EXPECT_EQ(cm.matrix_row_start, (std::vector<int>{1, 4, 5, 7, 8, 9}));
  EXPECT_EQ(cm.matrix_columns, (std::vector<int>{1, 3, 4, 2, 3, 4, 4, 5}));

  std::mt19937 rng(20240611);
  for (int round = 0; round < 6; ++round) {
    EXPECT_TRUE(matches_literal(random_mesh(rng, 3 + round, 2 + (round * 5) % 7, 3), 3));
    EXPECT_TRUE(matches_literal(random_mesh(rng, 3 + round, 2 + (round * 3) % 5, 4), 4));
  }
  // A node named twice by one element, a repeated element, and the limit.
  EXPECT_TRUE(matches_literal(make_mesh(z, z, {{2, 2, 5, 1}, {5, 3, 1}, {5, 3, 1}, {3, 1, 4, 3}}), 3));
  EXPECT_TRUE(matches_literal(fan(101, true), 3));
  EXPECT_FALSE(matches_literal(fan(101, false), 3));
}

// A pass over a fan of `rim` in a child whose console goes to console.txt;
// exits 3 if the pass returns (a stop in a plain test would end it unseen).
static void pass_to_file(int rim, bool generate) {
  fflush(stdout);
  dup2(open("console.txt", O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
  tio_open(CH_LOG, "Q5.out");
  ConductanceMatrix cm{0, std::vector<int>(rim + 2), std::vector<int>(10000), {}, {}, {}, {}, 0.0};
  generate ? generate_index(fan(rim, false), 3, &cm) : (void)count_storage(fan(rim, false), 3);
  std::exit(3);
}

TEST(MatrixPattern, HundredHigherNeighboursPassAHundredAndOneStopTheRun) {
  GTEST_FLAG_SET(death_test_style, "fast");
  ScratchDir dir;
  for (int rim : {100, 101})
    for (bool generate : {false, true}) {
      EXPECT_EXIT(pass_to_file(rim, generate), testing::ExitedWithCode(rim == 100 ? 3 : 0), "");
      EXPECT_EQ(read_file("Q5.out"), rim == 100 ? "" : " FATAL:  Too many connected nodes -  reduce size of mesh or "
                                                       "contact q5-maintainers@q5-resistivity.org\n");
      const std::string console = read_file("console.txt");  // the pass's line (console only), the stop word
      EXPECT_EQ(console.find(generate ? " >> Generating index" : " >> Determining storage"), 0u);
      EXPECT_EQ(console.find("FATAL error") == std::string::npos, rim == 100);
      EXPECT_EQ(console.find("Too many"), std::string::npos);
    }
}

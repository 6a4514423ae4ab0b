// Tests of the start model: region records, the start model file and the
// stops on bad regions.
#include <sys/wait.h>

#include <cmath>

#include "mesh_test_util.h"

namespace {

using StartModelTest = ScratchDirTest;

MeshModel grid_mesh(int num_elements) {
  MeshModel mesh{};
  mesh.num_elements = num_elements;
  mesh.num_nodes = 0;
  return mesh;
}

TEST_F(StartModelTest, RegionsSetMinusLogResistivity) {
  MeshModel mesh = grid_mesh(12);
  std::vector<double> v(3, 99.0);
  RunContext ctx = make_context(0, 4);

  // One record over all elements.
  open_control("1\n1 12 100.0  background\n");
  read_start_model(&ctx, mesh, &v);
  EXPECT_EQ(ctx.num_regions, 1);
  ASSERT_EQ(v.size(), 12u);
  for (double x : v) {
    EXPECT_EQ(x, -std::log(100.0));
    EXPECT_NEAR(x, -4.605170, 1e-6);
  }
  tio_close_all();

  // Later records overwrite earlier ones; elem1 above elem2 sets nothing;
  // a resistivity of 1 gives 0; elements no record reaches start at 0.
  open_control(
      "4\n"
      "1 10 100.0\n"
      "5 6 10.0\n"
      "7 3 50.0\n"
      "12 12 1.0\n");
  read_start_model(&ctx, mesh, &v);
  for (int e = 1; e <= 12; ++e) {
    double expect = -std::log(100.0);
    if (e == 5 || e == 6) expect = -std::log(10.0);
    if (e == 11 || e == 12) expect = 0.0;
    EXPECT_EQ(v[e - 1], expect) << e;
  }
  tio_close_all();

  // A negative count reads nothing further: the next record is still there.
  open_control("-1\n42\n");
  read_start_model(&ctx, mesh, &v);
  EXPECT_EQ(v, std::vector<double>(12, 0.0));
  int next = 0;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&next)});
  EXPECT_EQ(next, 42);
}

TEST_F(StartModelTest, BadRegionsStop) {
  MeshModel mesh = grid_mesh(6);
  std::vector<double> v;
  RunContext ctx = make_context(0, 4);
  const char* elem1 =
      " FATAL: defining regions - elem1 must be in range 1:number of elements ";
  const char* elem2 =
      " FATAL: defining regions - elem2 must be in range 1:number of elements ";

  // elem1 of 0 with a valid elem2, after a good record.
  write_file("Q5.in", "2\n1 6 10.0\n0 3 10.0\n");
  EXPECT_STOPS(read_start_model(&ctx, mesh, &v));
  EXPECT_BOTH_STREAMS(elem1);

  write_file("Q5.in", "1\n7 6 10.0\n");
  EXPECT_STOPS(read_start_model(&ctx, mesh, &v));
  EXPECT_BOTH_STREAMS(elem1);

  // Both out of range: elem1 is named.
  write_file("Q5.in", "1\n0 9 10.0\n");
  EXPECT_STOPS(read_start_model(&ctx, mesh, &v));
  EXPECT_BOTH_STREAMS(elem1);

  write_file("Q5.in", "1\n1 7 10.0\n");
  EXPECT_STOPS(read_start_model(&ctx, mesh, &v));
  EXPECT_BOTH_STREAMS(elem2);

  write_file("Q5.in", "1\n2 1 0.0\n");
  EXPECT_STOPS(read_start_model(&ctx, mesh, &v));
  EXPECT_BOTH_STREAMS(" FATAL: defining regions - resistivity must be > 0");

  write_file("Q5.in", "1\n2 1 -3.0\n");
  EXPECT_STOPS(read_start_model(&ctx, mesh, &v));
  EXPECT_BOTH_STREAMS(" FATAL: defining regions - resistivity must be > 0");
}

TEST_F(StartModelTest, StartFileGivesOneValuePerElementInLineOrder) {
  MeshModel mesh = grid_mesh(3);
  std::vector<double> v;
  RunContext ctx = make_context(1, 4);

  // A _res.dat table serves: the fourth column is skipped. The name line has
  // 34 characters; the first 30 name the file.
  const char* long_name = "start_model_with_a_long_name_ab";  // 31 characters
  std::string name30 = std::string(long_name).substr(0, 30);
  write_file(name30.c_str(),
             "  0.5 -0.5 100.0 2.0\n"
             "  1.5 -0.5 2.5E+01 1.39\n"
             "  9.9 9.9 1 0\n");
  open_control(std::string("0\n") + long_name + "XYZ\n7\n");
  std::fflush(stdout);
  int saved = dup(1);
  console_to_file();
  read_start_model(&ctx, mesh, &v);
  tio_close(CH_LOG);
  tio_close_all();  // flushes the console
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);

  std::string line = " >> Reading start resistivity from " + name30;
  EXPECT_EQ(read_file("Q5.out"), line + "\n");
  EXPECT_EQ(read_file("console.txt"), line + "\n");
  EXPECT_EQ(ctx.num_regions, 0);
  EXPECT_EQ(std::string(ctx.start_file), name30);
  ASSERT_EQ(v.size(), 3u);
  EXPECT_EQ(v[0], -std::log(100.0));
  EXPECT_EQ(v[1], -std::log(25.0));
  EXPECT_EQ(v[2], 0.0);

  // A short name is padded to 30 characters in the message and opened
  // without its blanks; a zero resistivity is not checked.
  write_file("s.dat", "0 0 0.0\n0 0 4.0\n0 0 -1.0\n");
  open_control("0\ns.dat\n");
  read_start_model(&ctx, mesh, &v);
  tio_close(CH_LOG);
  EXPECT_EQ(read_file("Q5.out"),
            " >> Reading start resistivity from s.dat" + std::string(25, ' ') +
                "\n");
  EXPECT_TRUE(std::isinf(v[0]) && v[0] > 0.0);
  EXPECT_EQ(v[1], -std::log(4.0));
  EXPECT_TRUE(std::isnan(v[2]));
}

TEST_F(StartModelTest, ShortStartFileIsAFailureOfTheTextLayer) {
  MeshModel mesh = grid_mesh(3);
  std::vector<double> v;
  RunContext ctx = make_context(1, 4);
  write_file("s.dat", "0 0 1.0\n0 0 4.0\n");
  write_file("Q5.in", "0\ns.dat\n");
  EXPECT_EXIT(
      {
        g_stop_expected = true;
        console_to_file();
        tio_open(CH_CONTROL, "Q5.in");
        tio_open(CH_LOG, "Q5.out");
        read_start_model(&ctx, mesh, &v);
      },
      [](int status) { return WIFEXITED(status) && WEXITSTATUS(status) != 0; },
      "");
  EXPECT_EQ(read_file("console.txt").find("FATAL error"), std::string::npos);
}

}  // namespace

// Channels: default disposition, the cut at the first write, default file
// names, reconnection, and the failure of a write.
#include "textio_fixture.h"

TEST_F(TextioTest, DispositionDefaultFilesAndReconnection) {
  // An absent file is created empty; one opened and read keeps its text; the
  // first write replaces the old text.
  write_file("keep.dat", "12 13\n");
  write_file("old.dat", "old line 1\nold line 2\n");
  tio_open(40, "new.dat");
  tio_open(41, "keep.dat");
  tio_open(42, "old.dat");
  int a = 0;
  ASSERT_EQ(tio_read(41, READ_PLAIN, {rd_int(&a)}), READ_OK);
  tio_write(42, "'new'");
  tio_close_all();
  EXPECT_TRUE(std::filesystem::exists("new.dat") && read_file("new.dat").empty());
  EXPECT_EQ(read_file("keep.dat"), "12 13\n");
  EXPECT_EQ(read_file("old.dat"), "new\n");
  // A further open closes the earlier file; once closed, the channel writes
  // to fort.19.
  tio_open(19, "run_diffres.dat");
  tio_open(19, "run.001_res.vtk");
  tio_write(19, "'vtk'");
  tio_open(19, "run.002_res.vtk");
  tio_close(19);
  tio_write(19, "' table'");
  tio_close(19);
  EXPECT_EQ(read_file("run_diffres.dat"), "");
  EXPECT_EQ(read_file("run.001_res.vtk"), "vtk\n");
  EXPECT_EQ(read_file("fort.19"), " table\n");
}

TEST_F(TextioDeathTest, WriteFailureEndsTheRun) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  ASSERT_EQ(symlink("/dev/full", "full.dat"), 0);
  EXPECT_EQ(console_of_run(false, [] {
              tio_open(CH_MODEL, "full.dat");
              tio_write(CH_MODEL, "2E15.5", {wv_real(1.0), wv_real(2.0)});
              tio_close(CH_MODEL);
            }), "error during write, unit 14, file " + dir_ + "/full.dat\n");
}

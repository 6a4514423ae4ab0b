// Channels: default disposition, default file names, reconnection, the cut
// at the first write, and the failure of a write.
#include <sys/stat.h>

#include "textio_fixture.h"

namespace {

using ChannelTest = TextioTest;
using ChannelDeathTest = TextioTest;

TEST_F(ChannelTest, OpenCreatesAnEmptyFileOrKeepsAnExistingOne) {
  tio_open(40, "new.dat");
  EXPECT_TRUE(std::filesystem::exists("new.dat"));
  EXPECT_EQ(std::filesystem::file_size("new.dat"), 0u);
  tio_close(40);
  EXPECT_EQ(std::filesystem::file_size("new.dat"), 0u);

  // Opened and never written: the content stays, also after a read.
  write_file("keep.dat", "12 13\nsecond line\n");
  tio_open(41, "keep.dat");
  tio_close(41);
  EXPECT_EQ(read_file("keep.dat"), "12 13\nsecond line\n");
  tio_open(41, "keep.dat");
  int a = 0;
  ASSERT_EQ(tio_read(41, READ_PLAIN, {rd_int(&a)}), READ_OK);
  EXPECT_EQ(a, 12);
  tio_close(41);
  EXPECT_EQ(read_file("keep.dat"), "12 13\nsecond line\n");

  // A name padded with blanks is used without them.
  tio_open(42, "padded.dat                    ");
  tio_write(42, "'x'");
  tio_close(42);
  EXPECT_EQ(read_file("padded.dat"), "x\n");
}

TEST_F(ChannelTest, FirstWriteCutsTheFileAtThePresentPosition) {
  write_file("old.dat", "old line 1\nold line 2\nold line 3\n");
  tio_open(40, "old.dat");
  tio_write(40, "'new'");
  tio_write(40, "I3", {wv_int(5)});
  tio_close(40);
  EXPECT_EQ(read_file("old.dat"), "new\n  5\n");

  write_file("old.dat", "old line 1\nold line 2\nold line 3\n");
  tio_open(40, "old.dat");
  char line[11];
  tio_read_line(40, line, 10);
  EXPECT_STREQ(line, "old line 1");
  tio_write(40, "'new'");
  tio_close(40);
  EXPECT_EQ(read_file("old.dat"), "old line 1\nnew\n");
}

TEST_F(ChannelTest, UnconnectedChannelsWriteToFortFiles) {
  tio_write(19, "3E15.5", {wv_real(1.0), wv_real(2.0), wv_real(-0.5)});
  tio_write(19, "' ' 'second'");
  EXPECT_TRUE(std::filesystem::exists("fort.19"));
  tio_close(19);
  EXPECT_EQ(read_file("fort.19"), "    0.10000E+01    0.20000E+01   -0.50000E+00\n second\n");

  // It stays connected until closed; after the close a new write starts the
  // file again.
  tio_write_free(18, {wv_int(1)});
  tio_close(18);
  tio_write_free(18, {wv_int(2)});
  tio_close(18);
  EXPECT_EQ(read_file("fort.18"), "           2\n");

  // An old fort file is replaced by the first write, as any file is.
  write_file("fort.21", "stale\nstale\n");
  tio_write(21, "'fresh'");
  tio_close(21);
  EXPECT_EQ(read_file("fort.21"), "fresh\n");
}

TEST_F(ChannelTest, OpeningAConnectedChannelClosesTheEarlierFile) {
  tio_open(19, "f001_diffres.dat");
  tio_open(19, "f001.001_res.vtk");  // the earlier file stays empty
  tio_write(19, "'vtk'");
  tio_write(19, "F20.5$", {wv_real(1.0)});
  tio_open(19, "second.vtk");  // ends the open line of the earlier file
  tio_write(19, "'two'");
  tio_close(19);
  EXPECT_EQ(read_file("f001_diffres.dat"), "");
  EXPECT_EQ(read_file("f001.001_res.vtk"), "vtk\n             1.00000\n");
  EXPECT_EQ(read_file("second.vtk"), "two\n");

  // The table now goes to fort.19.
  tio_write(19, "3E15.5", {wv_real(0.0), wv_real(0.0), wv_real(0.0)});
  tio_close(19);
  EXPECT_EQ(read_file("fort.19"), "    0.00000E+00    0.00000E+00    0.00000E+00\n");

  // Opening the file a channel holds leaves it connected where it stands.
  tio_open(16, "same.dat");
  tio_write(16, "'a'");
  tio_open(16, "same.dat");
  tio_write(16, "'b'");
  tio_close(16);
  EXPECT_EQ(read_file("same.dat"), "a\nb\n");

  // Closing an unconnected channel does nothing; closing twice is harmless.
  tio_close(50);
  tio_close(16);
  EXPECT_FALSE(std::filesystem::exists("fort.50"));
}

TEST_F(ChannelDeathTest, WriteFailureEndsTheRun) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  ASSERT_EQ(symlink("/dev/full", "full.dat"), 0);
  const std::string msg = "error during write, unit 14, file " + path("full.dat");
  EXPECT_EXIT(
      {
        std::freopen("console.txt", "w", stdout);
        tio_open(CH_MODEL, "full.dat");
        tio_write(CH_MODEL, "4E15.5", {wv_real(1.0), wv_real(2.0), wv_real(3.0), wv_real(4.0)});
        tio_close(CH_MODEL);
      },
      ::testing::ExitedWithCode(2), "^" + regex_quote(msg) + "\n$");
  EXPECT_EQ(read_file("console.txt"), msg + "\n");

  // Filling the buffer also shows the failure, without a close.
  EXPECT_EXIT(
      {
        tio_open(CH_MODEL, "/dev/full");
        for (int k = 0; k < 1000000; ++k) tio_write(CH_MODEL, "F20.5$", {wv_real(1.0)});
        std::exit(0);
      },
      ::testing::ExitedWithCode(2), regex_quote("error during write, unit 14, file /dev/full"));

  // The console itself on a full device: the word still reaches stderr.
  EXPECT_EXIT(
      {
        std::freopen("/dev/full", "w", stdout);
        tio_write(CH_CONSOLE, "' ' 'hello'");
        std::exit(0);
      },
      ::testing::ExitedWithCode(2), regex_quote("error during write, unit 6, file stdout"));

  // The stop closes the files; a failure there is a write failure too, after
  // the stop word.
  EXPECT_EXIT(
      {
        std::freopen("console2.txt", "w", stdout);
        tio_write(CH_CONSOLE, "' ' 'before'");
        tio_open(CH_MAP, "full.dat");
        tio_write(CH_MAP, "I5", {wv_int(1)});
        tio_stop("All ok");
      },
      ::testing::ExitedWithCode(2), regex_quote("error during write, unit 16, file " + path("full.dat")));
  EXPECT_EQ(read_file("console2.txt"),
            " before\nAll ok\nerror during write, unit 16, file " + path("full.dat") + "\n");
}

}  // namespace

// Data descriptors, edit forms, the free-format write and the files of a channel.
#include <cfloat>
#include <climits>
#include <cmath>
#include <vector>

#include "support/support.h"
#include "textio/textio.h"

TEST(Render, DataDescriptors) {
  const struct { const char* desc; WriteValue v; const char* want; } cases[] = {
      {"I5", wv_int(-42), "  -42"}, {"I2.2", wv_int(5), "05"}, {"I4.3", wv_int(-7), "-007"},
      {"I3", wv_int(1000), "***"}, {"F12.2", wv_real(1.0e10), "************"},
      {"E6.3", wv_real(1.0), "******"}, {"F5.3", wv_real(0.5), "0.500"}, {"F4.3", wv_real(0.5), ".500"},
      {"F5.3", wv_real(-0.5), "-.500"}, {"F5.1", wv_real(99.96), "100.0"}, {"F4.1", wv_real(99.96), "****"},
      {"F8.3", wv_real(NAN), "     NaN"}, {"F10.3", wv_real(INFINITY), "  Infinity"},
      {"F9.3", wv_real(-INFINITY), "-Infinity"}, {"E7.1", wv_real(INFINITY), "    Inf"},
      {"A", wv_text("abcdef", 4), "abcd"}, {"A1", wv_text("xyz"), "x"},
      {"E20.10", wv_real(1234.5678), "    0.1234567800E+04"}, {"E15.5", wv_real(-0.00123), "   -0.12300E-02"},
      {"E15.5", wv_real(0.0), "    0.00000E+00"}, {"E15.5", wv_real(1.0e100), "    0.10000+101"},
      {"E15.5", wv_real(-1.0e-101), "   -0.10000-100"}, {"E10.3", wv_real(0.99999995), " 0.100E+01"}};
  for (const auto& c : cases) {
    char out[64];
    tio_render(c.desc, c.v, out, sizeof out);
    EXPECT_STREQ(out, c.want) << c.desc;
  }
}

// A free-format line (integers in 12 columns counting the leading blank),
// then edit forms; all read back. Opens, reopens and the default file.
TEST_F(ScratchTest, FreeFormatEditFormsAndChannels) {
  const struct { const char* form; std::vector<WriteValue> v; const char* want; } cases[] = {
      {"I3$", {wv_int(1)}, "  1"},  // '$' keeps the line open for the next statement
      {"1X, 'CELLS ', 2I10", {wv_int(7), wv_int(28)}, " CELLS          7        28\n"},
      {"/ 1X \">> D a t e : \" I2.2 \" - \" I2.2 \" - \" I4", {wv_int(5), wv_int(3), wv_int(2024)},
       "\n >> D a t e : 05 - 03 - 2024\n"},
      {"/ / ' ' 'Processing dataset ' I3 /", {wv_int(1000)}, "\n\n Processing dataset ***\n\n"},
      {"/ ' ' 'text' I3 ' never'", {}, "\n text\n"},  // ends at the I3 with no value
  };
  write_file("run.001_res.vtk", std::string(1000, 'o') + "\n");
  tio_open(19, "run_diffres.dat");
  tio_write(19, "'diff'");
  tio_open(19, "run.001_res.vtk");  // closes run_diffres.dat
  tio_write_free(19, {wv_int(3), wv_int(INT_MIN), wv_real(1.0 / 3.0), wv_real(-DBL_MAX)});  // cuts the file
  tio_open(19, "run.001_res.vtk");  // the same file: left as it stands
  std::string want;
  for (const auto& c : cases) {
    tio_write_n(19, c.form, c.v.data(), c.v.size());
    want += c.want;
  }
  tio_close(19);
  tio_write(19, "' table'");        // no file connected: fort.19
  tio_open(19, "run.001_res.vtk");  // closes fort.19; to read the numbers back
  EXPECT_EQ(read_file("run_diffres.dat"), "diff\n");
  EXPECT_EQ(read_file("fort.19"), " table\n");
  const std::string text = read_file("run.001_res.vtk");
  EXPECT_EQ(text.substr(0, 24), "           3 -2147483648");
  EXPECT_EQ(text.substr(text.find('\n') + 1), want);
  double got[4];
  ASSERT_EQ(tio_read(19, READ_PLAIN, {rd_real(got, 4)}), READ_OK);
  EXPECT_TRUE(got[0] == 3 && got[1] == INT_MIN && got[2] == 1.0 / 3.0 && got[3] == -DBL_MAX);
}

// Rendering of the data descriptors, edit forms, the free-format write and
// the stop of the run.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "textio_fixture.h"

const double kInf = std::numeric_limits<double>::infinity();

TEST(Render, DataDescriptors) {
  const struct { const char* desc; WriteValue v; const char* want; } cases[] = {
      {"I5", wv_int(-42), "  -42"}, {"I2.2", wv_int(5), "05"}, {"I4.3", wv_int(-7), "-007"},
      {"I3", wv_int(1000), "***"}, {"I3", wv_int(-100), "***"}, {"F5.3", wv_real(0.5), "0.500"},
      {"F4.3", wv_real(0.5), ".500"}, {"F6.3", wv_real(-0.5), "-0.500"}, {"F5.3", wv_real(-0.5), "-.500"},
      {"F5.1", wv_real(99.96), "100.0"}, {"F4.1", wv_real(99.96), "****"},
      {"F12.2", wv_real(1.0e10), "************"}, {"E20.10", wv_real(1234.5678), "    0.1234567800E+04"},
      {"E15.5", wv_real(-0.00123), "   -0.12300E-02"}, {"E15.5", wv_real(0.0), "    0.00000E+00"},
      {"E15.5", wv_real(1.0e100), "    0.10000+101"}, {"E15.5", wv_real(1.0e-100), "    0.10000E-99"},
      {"E15.5", wv_real(-1.0e-101), "   -0.10000-100"}, {"E6.3", wv_real(1.0), "******"},
      {"E10.3", wv_real(0.99999995), " 0.100E+01"},  // the rounding carries into the exponent
      {"F8.3", wv_real(NAN), "     NaN"}, {"E15.5", wv_real(NAN), "            NaN"},
      {"F10.3", wv_real(kInf), "  Infinity"}, {"F9.3", wv_real(-kInf), "-Infinity"},
      {"F8.3", wv_real(kInf), "Infinity"}, {"E7.1", wv_real(kInf), "    Inf"},
      {"A", wv_text("abc   ", 6), "abc   "}, {"A1", wv_text("xyz"), "x"}};
  for (const auto& c : cases) {
    char out[64];
    tio_render(c.desc, c.v, out, sizeof out);
    EXPECT_STREQ(out, c.want) << c.desc;
  }
}

TEST_F(TextioTest, EditForms) {
  // `then`, if given, is a second statement on the same channel.
  const struct { const char* form; std::vector<WriteValue> v; const char *want, *then = nullptr; } cases[] = {
      {"/ / 1X A", {wv_text("Job title")}, "\n\n Job title\n"},
      {"1X, 'CELLS ', 2I10", {wv_int(7), wv_int(28)}, " CELLS          7        28\n"},
      {"/ 1X \">> D a t e : \" I2.2 \" - \" I2.2 \" - \" I4", {wv_int(5), wv_int(3), wv_int(2024)},
       "\n >> D a t e : 05 - 03 - 2024\n"},
      {"4E15.5", {wv_real(1), wv_real(-2), wv_real(3), wv_real(0)},
       "    0.10000E+01   -0.20000E+01    0.30000E+01    0.00000E+00\n"},
      {"/ / ' ' 'Processing dataset ' I3 /", {wv_int(1000)}, "\n\n Processing dataset ***\n\n"},
      {"/ ' ' 'text' I3 ' never'", {}, "\n text\n"},  // ends at the I3 with no value
      {"I3$", {wv_int(1)}, "  1 x\n", "' x'"},            // '$' keeps the line open
  };
  for (const auto& c : cases) {
    tio_open(CH, "form.txt");
    tio_write_n(CH, c.form, c.v.data(), c.v.size());
    if (c.then) tio_write(CH, c.then);
    tio_close(CH);
    EXPECT_EQ(read_file("form.txt"), c.want) << c.form;
    std::remove("form.txt");
  }
}

TEST_F(TextioTest, FreeFormatReadsBackBitForBit) {
  const double reals[] = {0.1, 1.0 / 3.0, -2.0 / 3.0, DBL_MIN, std::numeric_limits<double>::denorm_min(),
                          DBL_MAX, -DBL_MAX, std::nextafter(1.0, 2.0), -0.0, 3.141592653589793, 7.77e300};
  const int ints[] = {3, -5, INT_MIN, INT_MAX, 0};
  std::vector<WriteValue> vals;
  for (int i : ints) vals.push_back(wv_int(i));
  for (double r : reals) vals.push_back(wv_real(r));
  tio_open(CH, "free.dat");
  tio_write_free_n(CH, vals.data(), vals.size());
  tio_close(CH);
  const std::string text = read_file("free.dat");
  // One line; an integer takes 12 columns counting the leading blank.
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
  EXPECT_EQ(text.substr(0, 24), "           3          -5");
  tio_open(CH, "free.dat");
  int gi[5];
  double gr[11];
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(gi, 5), rd_real(gr, 11)}), READ_OK);
  for (int k = 0; k < 5; ++k) EXPECT_EQ(gi[k], ints[k]);
  for (int k = 0; k < 11; ++k) EXPECT_EQ(std::memcmp(&gr[k], &reals[k], sizeof(double)), 0) << reals[k];
}

// A message goes to the log and the console, or to the log alone; the stop
// word stands on a line of its own and the run ends with status 0.
TEST_F(TextioDeathTest, StopEndsTheRunWithStatusZero) {
  EXPECT_EQ(console_of_run(true, [] {
              tio_open(CH_LOG, "Q5.out");
              message(CH_LOG, CH_CONSOLE, "' ' 'Processing dataset ' I3", {wv_int(2)});
              message(CH_LOG, 0, "' ' 'log only'");
              tio_write(CH_CONSOLE, "I3$", {wv_int(7)});
              tio_stop("All ok");
            }), " Processing dataset   2\n  7\nAll ok\n");
  EXPECT_EQ(read_file("Q5.out"), " Processing dataset   2\n log only\n");
}

// Rendering of the data descriptors and the edit forms of the system's
// output lines.
#include <cmath>
#include <cstring>
#include <limits>

#include "textio_fixture.h"

namespace {

constexpr int CH = 40;
const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

std::string render(const char* desc, WriteValue v) {
  char buf[256];
  const int n = tio_render(desc, v, buf, sizeof buf);
  EXPECT_EQ(static_cast<size_t>(n), std::strlen(buf));
  return std::string(buf, static_cast<size_t>(n));
}
std::string ri(const char* desc, long long v) { return render(desc, wv_int(v)); }
std::string rr(const char* desc, double v) { return render(desc, wv_real(v)); }

using WriteTest = TextioTest;
using WriteDeathTest = TextioTest;

TEST(Render, IntegerFields) {
  EXPECT_EQ(ri("I5", 42), "   42");
  EXPECT_EQ(ri("I5", -42), "  -42");
  EXPECT_EQ(ri("I2.2", 5), "05");
  EXPECT_EQ(ri("I2.2", 12), "12");
  EXPECT_EQ(ri("I4", 2024), "2024");
  EXPECT_EQ(ri("I4.3", -7), "-007");
  EXPECT_EQ(ri("I3", 999), "999");
  EXPECT_EQ(ri("I3", -99), "-99");
  EXPECT_EQ(ri("I3", 1000), "***");
  EXPECT_EQ(ri("I3", -100), "***");
  EXPECT_EQ(ri("I5", 100000), "*****");
  EXPECT_EQ(ri("I5", 99999), "99999");
  EXPECT_EQ(ri("I12", INT_MIN), " -2147483648");
  EXPECT_EQ(ri("I10", 0), "         0");
}

TEST(Render, FixedFields) {
  EXPECT_EQ(rr("F4.3", 0.5), ".500");
  EXPECT_EQ(rr("F5.3", 0.5), "0.500");
  EXPECT_EQ(rr("F6.3", -0.5), "-0.500");
  EXPECT_EQ(rr("F5.3", -0.5), "-.500");
  EXPECT_EQ(rr("F4.3", -0.5), "****");
  EXPECT_EQ(rr("F5.2", -0.001), "-0.00");
  EXPECT_EQ(rr("F15.0", 12.0), "            12.");
  EXPECT_EQ(rr("F15.0", 0.3), "             0.");
  EXPECT_EQ(rr("F12.2", 1.0e10), "************");
  EXPECT_EQ(rr("F12.2", 1.0e8), "100000000.00");
  EXPECT_EQ(rr("F8.3", 2.0 / 3.0), "   0.667");
  EXPECT_EQ(rr("F8.3", -2.0 / 3.0), "  -0.667");
  EXPECT_EQ(rr("F20.5", 123.456), "           123.45600");
  EXPECT_EQ(rr("F6.1", 5.0), "   5.0");
  EXPECT_EQ(rr("F5.1", 99.96), "100.0");  // the rounding carries a digit
  EXPECT_EQ(rr("F4.1", 99.96), "****");
  EXPECT_EQ(rr("F5.0", 0.0), "   0.");
  EXPECT_EQ(rr("F12.5", -3.0), "    -3.00000");
  EXPECT_EQ(render("F6.1", wv_int(7)), "   7.0");
}

TEST(Render, ExponentFields) {
  EXPECT_EQ(rr("E20.10", 1234.5678), "    0.1234567800E+04");
  EXPECT_EQ(rr("E15.5", -0.00123), "   -0.12300E-02");
  EXPECT_EQ(rr("E15.5", 0.0), "    0.00000E+00");
  EXPECT_EQ(rr("E10.3", 0.0), " 0.000E+00");
  EXPECT_EQ(rr("E15.5", 1.0e100), "    0.10000+101");
  EXPECT_EQ(rr("E15.5", 1.0e-100), "    0.10000E-99");
  EXPECT_EQ(rr("E15.5", 1.0e-101), "    0.10000-100");
  EXPECT_EQ(rr("E15.5", -1.0e200), "   -0.10000+201");
  EXPECT_EQ(rr("E10.3", 0.99999995), " 0.100E+01");
  EXPECT_EQ(rr("E10.3", 0.9994), " 0.999E+00");
  EXPECT_EQ(rr("E12.5", 123.0), " 0.12300E+03");
  EXPECT_EQ(rr("E15.5", 1.0), "    0.10000E+01");
  EXPECT_EQ(rr("E15.5", 0.1), "    0.10000E+00");
  // The leading zero goes when the width has no room, then asterisks.
  EXPECT_EQ(rr("E9.3", 0.5), "0.500E+00");
  EXPECT_EQ(rr("E8.3", 0.5), ".500E+00");
  EXPECT_EQ(rr("E9.3", -0.5), "-.500E+00");
  EXPECT_EQ(rr("E7.3", 0.5), "*******");
  EXPECT_EQ(rr("E10.3", 1.0e100), " 0.100+101");
  EXPECT_EQ(rr("E8.3", 1.0e100), ".100+101");
  EXPECT_EQ(rr("E8.3", -1.0e100), "********");
}

TEST(Render, NotANumberAndInfinity) {
  EXPECT_EQ(rr("F8.3", kNaN), "     NaN");
  EXPECT_EQ(rr("E15.5", kNaN), "            NaN");
  EXPECT_EQ(rr("F2.0", kNaN), "**");
  EXPECT_EQ(rr("F10.3", kInf), "  Infinity");
  EXPECT_EQ(rr("F10.3", -kInf), " -Infinity");
  EXPECT_EQ(rr("F20.5", -kInf), "           -Infinity");
  EXPECT_EQ(rr("F8.3", kInf), "Infinity");
  EXPECT_EQ(rr("F8.3", -kInf), "    -Inf");
  EXPECT_EQ(rr("E7.1", kInf), "    Inf");
  EXPECT_EQ(rr("F3.0", kInf), "Inf");
  EXPECT_EQ(rr("F3.0", -kInf), "***");
}

TEST(Render, TextFields) {
  EXPECT_EQ(render("A", wv_text("abc")), "abc");
  EXPECT_EQ(render("A", wv_text("abc   ", 6)), "abc   ");
  EXPECT_EQ(render("A", wv_text("abcdef", 4)), "abcd");  // the declared length rules
  EXPECT_EQ(render("A3", wv_text("abcdef")), "abc");
  EXPECT_EQ(render("A6", wv_text("abc")), "   abc");
  EXPECT_EQ(render("A1", wv_text("xyz")), "x");
  // A buffer shorter than the field gets what fits and its terminator.
  char small[4];
  EXPECT_EQ(tio_render("I6", wv_int(123456), small, sizeof small), 3);
  EXPECT_STREQ(small, "123");
}

// Writes one statement to a fresh file and returns the file's text.
std::string form_output(const char* form, std::initializer_list<WriteValue> values) {
  tio_open(CH, "form.txt");
  tio_write(CH, form, values);
  tio_close(CH);
  const std::string text = read_file("form.txt");
  std::remove("form.txt");
  return text;
}

TEST_F(WriteTest, FormsOfTheSystem) {
  EXPECT_EQ(form_output("/ / 1X A", {wv_text("Job title")}), "\n\n Job title\n");
  EXPECT_EQ(form_output("/ 1X \">> D a t e : \" I2.2 \" - \" I2.2 \" - \" I4",
                        {wv_int(5), wv_int(3), wv_int(2024)}),
            "\n >> D a t e : 05 - 03 - 2024\n");
  EXPECT_EQ(form_output("I5, 4I7, E20.10, F15.5",
                        {wv_int(1), wv_int(2), wv_int(3), wv_int(4), wv_int(5), wv_real(1234.5678),
                         wv_real(2.5)}),
            "    1      2      3      4      5    0.1234567800E+04        2.50000\n");
  EXPECT_EQ(form_output("2F12.5, F5.0", {wv_real(1.5), wv_real(-3.0), wv_real(0.0)}),
            "     1.50000    -3.00000   0.\n");
  EXPECT_EQ(form_output("' ' 'CELLS ' 2I10", {wv_int(7), wv_int(28)}),
            " CELLS          7        28\n");
  EXPECT_EQ(form_output("1X, 'CELLS ', 2I10", {wv_int(7), wv_int(28)}),
            " CELLS          7        28\n");
  EXPECT_EQ(form_output("5I10", {wv_int(3), wv_int(0), wv_int(1), wv_int(5)}),
            "         3         0         1         5\n");
  EXPECT_EQ(form_output("' ' 2X 'Geometric mean of apparent resistivities: ' E12.5", {wv_real(123.0)}),
            "   Geometric mean of apparent resistivities:  0.12300E+03\n");
  EXPECT_EQ(form_output("1X, 20X \"Timing Summary\"", {}), std::string(21, ' ') + "Timing Summary\n");
  EXPECT_EQ(form_output("5X \"Total time taken:                    \" F15.0 \" s\"", {wv_real(12.0)}),
            "     Total time taken:                                12. s\n");
  EXPECT_EQ(form_output("5X \"Percent time taken calculating res. matrix:   \" F6.1 \" %\"", {wv_real(5.0)}),
            "     Percent time taken calculating res. matrix:      5.0 %\n");
  EXPECT_EQ(form_output("' ' 'WARNING:  Rejecting reading ' I4 ' P+' I4 ' P-' I4 ' C+' I4 ' C-' I4 ' App Res ' F12.2",
                        {wv_int(12), wv_int(1), wv_int(2), wv_int(3), wv_int(4), wv_real(-55.126)}),
            " WARNING:  Rejecting reading   12 P+   1 P-   2 C+   3 C-   4 App Res       -55.13\n");
  EXPECT_EQ(form_output("/ ' ' 4X 'WARNING: Solution not converged in ' I3 ' iterations'", {wv_int(1000)}),
            "\n     WARNING: Solution not converged in *** iterations\n");
  EXPECT_EQ(form_output("4E15.5", {wv_real(1.0), wv_real(-2.0), wv_real(3.0), wv_real(0.0)}),
            "    0.10000E+01   -0.20000E+01    0.30000E+01    0.00000E+00\n");
  // Literals: either quote, doubled quotes, blanks kept.
  EXPECT_EQ(form_output("'it''s' \"say \"\"hi\"\"\" '  two  '", {}), "it'ssay \"hi\"  two  \n");
  EXPECT_EQ(form_output("' '", {}), " \n");
  EXPECT_EQ(form_output("", {}), "\n");
  // A slash ends the line: alone it gives two empty lines.
  EXPECT_EQ(form_output("/", {}), "\n\n");
  EXPECT_EQ(form_output("'a' / / 'b'", {}), "a\n\nb\n");
  // With no value left the statement ends before the data descriptor, after
  // what stands in front of it.
  EXPECT_EQ(form_output("/ ' ' 'text' I3 ' never'", {}), "\n text\n");
  EXPECT_EQ(form_output("/ / ' ' 'Processing dataset ' I3 /", {wv_int(1)}),
            "\n\n Processing dataset   1\n\n");
  EXPECT_EQ(form_output("/ / ' ' 'Processing dataset ' I3 /", {wv_int(1000)}),
            "\n\n Processing dataset ***\n\n");
  // Values left at the end of the form start it again on a new line.
  EXPECT_EQ(form_output("2I3", {wv_int(1), wv_int(2), wv_int(3), wv_int(4), wv_int(5)}),
            "  1  2\n  3  4\n  5\n");
}

TEST_F(WriteTest, VtkSequenceWithOpenLines) {
  tio_open(CH, "model.vtk");
  tio_write(CH, "'POINTS ' I10 ' double'", {wv_int(3)});
  tio_write(CH, "2F12.5, F5.0", {wv_real(1.0), wv_real(-3.0), wv_real(0.0)});
  tio_write(CH, "'CELL_TYPES' I10", {wv_int(4)});
  for (int k = 0; k < 4; ++k) tio_write(CH, "I3$", {wv_int(9)});
  tio_write(CH,
            "/ 'POINT_DATA' I10 / 'CELL_DATA' I10 / 'SCALARS Resistivity(Ohm-m) double 1' / "
            "'LOOKUP_TABLE default'",
            {wv_int(3), wv_int(4)});
  for (int k = 0; k < 3; ++k) tio_write(CH, "F20.5$", {wv_real(100.0 * (k + 1))});
  tio_write(CH, "/ 'SCALARS Resistivity(log10) double 1' / 'LOOKUP_TABLE default'", {});
  tio_write(CH, "F20.5$", {wv_real(2.0)});
  tio_close(CH);  // ends the open line
  const std::string want =
      "POINTS          3 double\n"
      "     1.00000    -3.00000   0.\n"
      "CELL_TYPES         4\n"
      "  9  9  9  9\n"
      "POINT_DATA         3\n"
      "CELL_DATA         4\n"
      "SCALARS Resistivity(Ohm-m) double 1\n"
      "LOOKUP_TABLE default\n"
      "           100.00000           200.00000           300.00000\n"
      "SCALARS Resistivity(log10) double 1\n"
      "LOOKUP_TABLE default\n"
      "             2.00000\n";
  EXPECT_EQ(read_file("model.vtk"), want);
}

TEST_F(WriteTest, LongOpenLineOfTwoHundredThousandValues) {
  constexpr int n = 200000;
  tio_open(CH, "big.vtk");
  for (int k = 0; k < n; ++k) tio_write(CH, "F20.5$", {wv_real(k * 0.5)});
  tio_close(CH);
  const std::string text = read_file("big.vtk");
  ASSERT_EQ(text.size(), static_cast<size_t>(n) * 20 + 1);
  EXPECT_EQ(text.substr(0, 40), "             0.00000             0.50000");
  EXPECT_EQ(text.substr(text.size() - 21), "         99999.50000\n");
}

TEST_F(WriteTest, MessagesGoToBothStreamsOrOne) {
  tio_open(41, "a.txt");
  tio_open(42, "b.txt");
  message(41, 42, "' ' 'FATAL: An electrode in measurement ' I5 ' is not valid '", {wv_int(17)});
  message(41, 0, "' ' 'log only'");
  tio_close(41);
  tio_close(42);
  EXPECT_EQ(read_file("a.txt"),
            " FATAL: An electrode in measurement    17 is not valid \n log only\n");
  EXPECT_EQ(read_file("b.txt"), " FATAL: An electrode in measurement    17 is not valid \n");

  // The console gets the same text through stdout.
  tio_open(41, "c.txt");
  {
    ConsoleCapture cap("console.txt");
    message(41, CH_CONSOLE, "' ' 4X 'Alpha: ' F10.3 '   RMS Misfit:' F12.2", {wv_real(0.25), wv_real(1.5)});
    tio_write(CH_CONSOLE, "I3$", {wv_int(1)});
    tio_write(CH_CONSOLE, "I3$", {wv_int(2)});
    tio_write(CH_CONSOLE, "/");
  }
  EXPECT_EQ(read_file("console.txt"), "     Alpha:      0.250   RMS Misfit:        1.50\n  1  2\n\n");
  tio_close(41);
  EXPECT_EQ(read_file("c.txt"), "     Alpha:      0.250   RMS Misfit:        1.50\n");
}

TEST_F(WriteDeathTest, StopsEndTheRunWithStatusZero) {
  EXPECT_EXIT(
      {
        std::freopen("console.txt", "w", stdout);
        tio_open(CH_LOG, "Q5.out");
        tio_write(CH_CONSOLE, "I3$", {wv_int(7)});
        tio_write(CH_LOG, "F20.5$", {wv_real(1.0)});
        tio_stop("All ok");
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(read_file("console.txt"), "  7\nAll ok\n");
  EXPECT_EQ(read_file("Q5.out"), "             1.00000\n");

  EXPECT_EXIT(
      {
        std::freopen("console2.txt", "w", stdout);
        tio_open(CH_LOG, "Q5.out");
        fatal(CH_LOG, CH_CONSOLE, "' ' 'FATAL: duplication of electrode numbers in quadropole ' I5", {wv_int(3)});
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(read_file("console2.txt"),
            " FATAL: duplication of electrode numbers in quadropole     3\nFATAL error\n");
  EXPECT_EQ(read_file("Q5.out"), " FATAL: duplication of electrode numbers in quadropole     3\n");
}

TEST_F(WriteDeathTest, PauseTakesOneLineOrTheEndOfInput) {
  write_file("answers.txt", "yes\nsecond\n");
  EXPECT_EXIT(
      {
        std::freopen("answers.txt", "r", stdin);
        tio_pause();
        char buf[32] = {0};
        const bool ok = std::fgets(buf, sizeof buf, stdin) && std::string(buf) == "second\n";
        std::exit(ok ? 3 : 4);
      },
      ::testing::ExitedWithCode(3), "");
  EXPECT_EXIT(
      {
        std::freopen("/dev/null", "r", stdin);
        tio_pause();
        std::exit(5);
      },
      ::testing::ExitedWithCode(5), "");
}

}  // namespace

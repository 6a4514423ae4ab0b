// List-directed reads, the text-line read and the failures of plain reads.
#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>

#include "textio_fixture.h"

namespace {

constexpr int CH = 40;

using ReadTest = TextioTest;
using ReadDeathTest = TextioTest;

TEST_F(ReadTest, RecordOnOneLineFiveLinesAndWithComment) {
  write_file("rec.dat",
             "1 3 3.0 0 0\n"
             "1\n3\n  3.0\n\n0\n0\n"
             "1 3 3.0 0 0   comment 99 98 97\n"
             "1,3,3.0,0,0 , 55\n"
             "42\n");
  tio_open(CH, "rec.dat");
  for (int pass = 0; pass < 4; ++pass) {
    int a = -1, b = -1, d = -1, e = -1;
    double c = -1.0;
    ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(&a), rd_int(&b), rd_real(&c), rd_int(&d), rd_int(&e)}),
              READ_OK)
        << "pass " << pass;
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 3);
    EXPECT_EQ(c, 3.0);
    EXPECT_EQ(d, 0);
    EXPECT_EQ(e, 0);
  }
  // The comment and the extra item were skipped with the rest of their lines.
  int next = 0;
  EXPECT_EQ(tio_read(CH, READ_PLAIN, {rd_int(&next)}), READ_OK);
  EXPECT_EQ(next, 42);
}

TEST_F(ReadTest, SeparatorsBlanksTabsCommasAndLineEnds) {
  write_file("sep.dat", "1,2 , 3\t4\r\n\n   \n\t5,\n6\r\n7 8\n");
  tio_open(CH, "sep.dat");
  int v[6] = {0, 0, 0, 0, 0, 0};
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(v, 6)}), READ_OK);
  for (int k = 0; k < 6; ++k) EXPECT_EQ(v[k], k + 1);
  int a = 0, b = 0;
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(&a), rd_int(&b)}), READ_OK);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 8);
}

TEST_F(ReadTest, RepeatCountsAndNullItems) {
  write_file("rep.dat",
             "3*1.0 2* 7.5\n"   // three equal values, two left alone, one more
             "2*5 3\n"
             ",,4\n"            // a leading comma and a second one: two nulls
             "1,,3\n"
             "1, ,3\n"
             "4*2 this rest is skipped\n"
             "3*\n"
             "2*,9\n"
             "10\n");
  tio_open(CH, "rep.dat");
  double r[6] = {-1, -1, -1, -1, -1, -1};
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_real(r, 6)}), READ_OK);
  const double want_r[6] = {1.0, 1.0, 1.0, -1, -1, 7.5};
  for (int k = 0; k < 6; ++k) EXPECT_EQ(r[k], want_r[k]) << k;

  int i[3] = {-1, -1, -1};
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(i, 3)}), READ_OK);
  EXPECT_EQ(i[0], 5);
  EXPECT_EQ(i[1], 5);
  EXPECT_EQ(i[2], 3);

  for (int line = 0; line < 3; ++line) {
    int j[3] = {-1, -1, -1};
    ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(j, 3)}), READ_OK);
    if (line == 0) {
      EXPECT_EQ(j[0], -1);
      EXPECT_EQ(j[1], -1);
      EXPECT_EQ(j[2], 4);
    } else {
      EXPECT_EQ(j[0], 1);
      EXPECT_EQ(j[1], -1);
      EXPECT_EQ(j[2], 3);
    }
  }

  // Two of four repeated values are taken; the others go with the line.
  int two[2] = {0, 0};
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(two, 2)}), READ_OK);
  EXPECT_EQ(two[0], 2);
  EXPECT_EQ(two[1], 2);

  int k3[3] = {7, 8, 9};
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(k3, 3)}), READ_OK);
  EXPECT_EQ(k3[0], 7);
  EXPECT_EQ(k3[1], 8);
  EXPECT_EQ(k3[2], 9);

  int k[3] = {-1, -1, -1};
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(k, 3)}), READ_OK);
  EXPECT_EQ(k[0], -1);
  EXPECT_EQ(k[1], -1);
  EXPECT_EQ(k[2], 9);

  int last = 0;
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(&last)}), READ_OK);
  EXPECT_EQ(last, 10);
}

TEST_F(ReadTest, SlashEndsTheList) {
  write_file("slash.dat", "1 2 / 3 4\n5,/\n/\n6\n");
  tio_open(CH, "slash.dat");
  int v[4] = {-1, -1, -1, -1};
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(v, 4)}), READ_OK);
  EXPECT_EQ(v[0], 1);
  EXPECT_EQ(v[1], 2);
  EXPECT_EQ(v[2], -1);
  EXPECT_EQ(v[3], -1);
  int a = -1, b = -1;
  double c = -1.0;
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(&a), rd_int(&b), rd_real(&c)}), READ_OK);
  EXPECT_EQ(a, 5);
  EXPECT_EQ(b, -1);
  EXPECT_EQ(c, -1.0);
  a = -1;
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(&a)}), READ_OK);
  EXPECT_EQ(a, -1);
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(&a)}), READ_OK);
  EXPECT_EQ(a, 6);
}

TEST_F(ReadTest, RealForms) {
  write_file("real.dat",
             "1.5D2 1.5d-2 2.5E+3 2.5e3 1.0+5 -.5 5. +3 -7 1.25e-1 2D0 7.0-2\n"
             "inf -Infinity nan\n");
  tio_open(CH, "real.dat");
  double v[12];
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_real(v, 12)}), READ_OK);
  const double want[12] = {150.0, 0.015, 2500.0, 2500.0, 1.0e5, -0.5, 5.0, 3.0, -7.0, 0.125, 2.0, 0.07};
  for (int k = 0; k < 12; ++k) EXPECT_EQ(v[k], want[k]) << k;
  double w[3];
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_real(w, 3)}), READ_OK);
  EXPECT_TRUE(std::isinf(w[0]) && w[0] > 0);
  EXPECT_TRUE(std::isinf(w[1]) && w[1] < 0);
  EXPECT_TRUE(std::isnan(w[2]));
}

TEST_F(ReadTest, BadItemsInErrorTolerantReads) {
  // Each line holds one bad item behind a good one; the read reports it and
  // the next read starts on the following line.
  const char* bad_int[] = {"3.0", "3e2", "abc", "2147483648", "-2147483649", "+", "1-", "0*5", "*5"};
  const char* bad_real[] = {"1.0.0", "e5", "1.0e", "abc", "--1", ".", "1.0e+", "1.0ee5", "0x10", "1e5x"};
  std::string text;
  for (const char* b : bad_int) text += std::string("11 ") + b + " 12\n" + "77\n";
  for (const char* b : bad_real) text += std::string("1.5 ") + b + "\n" + "88\n";
  write_file("bad.dat", text);
  tio_open(CH, "bad.dat");
  for (const char* b : bad_int) {
    int a = 0, c = 0, d = -1;
    EXPECT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {rd_int(&a), rd_int(&c), rd_int(&d)}), READ_BAD) << b;
    EXPECT_EQ(a, 11) << b;  // the item before the bad one is kept
    EXPECT_EQ(d, -1) << b;
    int next = 0;
    EXPECT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {rd_int(&next)}), READ_OK) << b;
    EXPECT_EQ(next, 77) << b;
  }
  for (const char* b : bad_real) {
    double a = 0, c = 0;
    const int st = tio_read(CH, READ_ERROR_TOLERANT, {rd_real(&a), rd_real(&c)});
    EXPECT_EQ(st, READ_BAD) << b;
    EXPECT_EQ(a, 1.5) << b;
    int next = 0;
    EXPECT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {rd_int(&next)}), READ_OK) << b;
    EXPECT_EQ(next, 88) << b;
  }
  // The extremes of 32 bits are good integers.
  write_file("lim.dat", "-2147483648 2147483647 +5 -0\n");
  tio_open(CH, "lim.dat");
  int l[4];
  ASSERT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {rd_int(l, 4)}), READ_OK);
  EXPECT_EQ(l[0], INT_MIN);
  EXPECT_EQ(l[1], INT_MAX);
  EXPECT_EQ(l[2], 5);
  EXPECT_EQ(l[3], 0);
}

TEST_F(ReadTest, TwoHundredRealsOnTwoHundredLinesOrTwo) {
  double want[200];
  for (int k = 0; k < 200; ++k) want[k] = (k - 100) * 0.37 + 1.0 / (k + 3);
  std::string many, two;
  char buf[64];
  for (int k = 0; k < 200; ++k) {
    std::snprintf(buf, sizeof buf, "%.17g", want[k]);
    many += buf;
    many += "\n";
    two += buf;
    two += (k == 99 || k == 199) ? "\n" : " ";
  }
  write_file("r200.dat", many + two + "5\n");
  tio_open(CH, "r200.dat");
  for (int pass = 0; pass < 2; ++pass) {
    double got[200];
    ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_real(got, 200)}), READ_OK);
    for (int k = 0; k < 200; ++k) ASSERT_EQ(got[k], want[k]) << "pass " << pass << " item " << k;
  }
  int tail = 0;
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(&tail)}), READ_OK);
  EXPECT_EQ(tail, 5);
}

TEST_F(ReadTest, EndOfFileStatusesOfTheTolerantKinds) {
  write_file("short.dat", "1 2\n\n  \n");
  tio_open(CH, "short.dat");
  int v[3] = {-1, -1, -1};
  EXPECT_EQ(tio_read(CH, READ_END_TOLERANT, {rd_int(v, 3)}), READ_EOF);
  EXPECT_EQ(v[0], 1);
  EXPECT_EQ(v[1], 2);
  EXPECT_EQ(v[2], -1);
  int a = -1;
  EXPECT_EQ(tio_read(CH, READ_END_TOLERANT, {rd_int(&a)}), READ_EOF);
  EXPECT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {rd_int(&a)}), READ_EOF);
  EXPECT_EQ(a, -1);

  // An absent file is created empty and meets end of file at once.
  tio_open(CH + 1, "absent.dat");
  EXPECT_EQ(tio_read(CH + 1, READ_END_TOLERANT, {rd_int(&a)}), READ_EOF);
  EXPECT_TRUE(std::filesystem::exists("absent.dat"));

  // A read on an unconnected channel takes its lines from fort.N.
  write_file("fort.43", "9 8\n");
  int b = 0;
  EXPECT_EQ(tio_read(43, READ_PLAIN, {rd_int(&a), rd_int(&b)}), READ_OK);
  EXPECT_EQ(a, 9);
  EXPECT_EQ(b, 8);
}

TEST_F(ReadTest, TextLineReadPadsAndCuts) {
  const std::string long_line(100, 'x');
  std::string forty;
  for (int k = 0; k < 40; ++k) forty += static_cast<char>('a' + k % 26);
  write_file("lines.dat", "  Title line\n" + long_line + "\n" + "start.dat\r\n" + forty + "\n" + "\n" + "last");
  tio_open(CH, "lines.dat");
  char title[81], name[31];
  tio_read_line(CH, title, 80);
  EXPECT_EQ(std::string(title), "  Title line" + std::string(68, ' '));
  EXPECT_EQ(title[80], '\0');
  tio_read_line(CH, title, 80);
  EXPECT_EQ(std::string(title), std::string(80, 'x'));
  tio_read_line(CH, name, 30);
  EXPECT_EQ(std::string(name), "start.dat" + std::string(21, ' '));
  tio_read_line(CH, name, 30);
  EXPECT_EQ(std::string(name), forty.substr(0, 30));
  tio_read_line(CH, name, 30);
  EXPECT_EQ(std::string(name), std::string(30, ' '));
  tio_read_line(CH, name, 30);
  EXPECT_EQ(std::string(name), "last" + std::string(26, ' '));
}

TEST_F(ReadTest, FreeWriteReadsBackBitForBit) {
  const double awkward[] = {0.1,
                            1.0 / 3.0,
                            -2.0 / 3.0,
                            DBL_MIN,
                            std::numeric_limits<double>::denorm_min(),
                            DBL_MAX,
                            -DBL_MAX,
                            std::nextafter(1.0, 2.0),
                            std::nextafter(1.0, 0.0),
                            -0.0,
                            0.0,
                            3.141592653589793,
                            -2.5e-17,
                            123456789012345678.0,
                            1e300 * 7.77,
                            9.999999999999999e22};
  const int ints[] = {3, -5, INT_MIN, INT_MAX, 0};
  constexpr int nd = sizeof awkward / sizeof awkward[0];
  constexpr int ni = sizeof ints / sizeof ints[0];
  WriteValue vals[nd + ni];
  int n = 0;
  for (int k = 0; k < ni; ++k) vals[n++] = wv_int(ints[k]);
  for (int k = 0; k < nd; ++k) vals[n++] = wv_real(awkward[k]);
  tio_open(CH, "free.dat");
  tio_write_free_n(CH, vals, n);
  tio_write_free(CH, {wv_real(awkward[1]), wv_int(7)});
  tio_close(CH);

  tio_open(CH, "free.dat");
  int gi[ni];
  double gd[nd];
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_int(gi, ni), rd_real(gd, nd)}), READ_OK);
  for (int k = 0; k < ni; ++k) EXPECT_EQ(gi[k], ints[k]);
  for (int k = 0; k < nd; ++k) EXPECT_EQ(std::memcmp(&gd[k], &awkward[k], sizeof(double)), 0) << k;
  double r = 0;
  int i = 0;
  ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_real(&r), rd_int(&i)}), READ_OK);
  EXPECT_EQ(r, awkward[1]);
  EXPECT_EQ(i, 7);

  // Integers take 12 columns counting the leading blank.
  tio_open(CH + 1, "ints.dat");
  tio_write_free(CH + 1, {wv_int(3), wv_int(5)});
  tio_close(CH + 1);
  EXPECT_EQ(read_file("ints.dat"), "           3           5\n");
}

// ---- failures that end the run ----------------------------------------

// Checks that the console file written by a death-test child ends with
// `line`.
void expect_console_tail(const std::string& console, const std::string& line) {
  const std::string text = read_file(console);
  ASSERT_GE(text.size(), line.size() + 1) << text;
  EXPECT_EQ(text.substr(text.size() - line.size() - 1), line + "\n") << text;
}

TEST_F(ReadDeathTest, PlainReadFailuresEndTheRun) {
  write_file("Q5.in", "1 2\n3.0\n");
  const std::string eof_msg = "end-of-file during read, unit 12, file " + path("Q5.in");
  const std::string bad_msg = "list-directed I/O syntax error, unit 12, file " + path("Q5.in");

  EXPECT_EXIT(
      {
        std::freopen("console1.txt", "w", stdout);
        tio_open(CH_CONTROL, "Q5.in");
        int v[3];
        tio_read(CH_CONTROL, READ_PLAIN, {rd_int(v, 3)});
      },
      ::testing::ExitedWithCode(2), "^" + regex_quote(bad_msg) + "\n$");
  expect_console_tail("console1.txt", bad_msg);

  EXPECT_EXIT(
      {
        std::freopen("console2.txt", "w", stdout);
        tio_open(CH_CONTROL, "Q5.in");
        double v[4];
        tio_read(CH_CONTROL, READ_PLAIN, {rd_real(v, 4)});
      },
      ::testing::ExitedWithCode(2), "^" + regex_quote(eof_msg) + "\n$");
  const std::string console2 = read_file("console2.txt");
  EXPECT_EQ(console2, eof_msg + "\n");  // no "FATAL error", no "All ok"

  // The end-tolerant kind ends the run on a bad item.
  EXPECT_EXIT(
      {
        tio_open(CH_CONTROL, "Q5.in");
        int a;
        int b;
        tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&a), rd_int(&b)});
        tio_read(CH_CONTROL, READ_END_TOLERANT, {rd_int(&a)});
      },
      ::testing::ExitedWithCode(2), regex_quote(bad_msg));

  // The text-line read at end of file; the absent file was created empty.
  EXPECT_EXIT(
      {
        tio_open(CH_CONTROL, "none.in");
        char title[81];
        tio_read_line(CH_CONTROL, title, 80);
      },
      ::testing::ExitedWithCode(2),
      regex_quote("end-of-file during read, unit 12, file " + path("none.in")));

  // An unconnected channel names its default file.
  EXPECT_EXIT(
      {
        int a;
        tio_read(55, READ_PLAIN, {rd_int(&a)});
      },
      ::testing::ExitedWithCode(2), regex_quote("end-of-file during read, unit 55, file " + path("fort.55")));
}

}  // namespace

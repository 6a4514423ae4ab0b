// List-directed reads, the text-line read and the failures of a read.
#include <cstring>

#include "textio_fixture.h"

constexpr int U = -1;  // every item holds this before a read: "left unchanged"

// The statements read one file in turn, so each also checks that the one
// before it skipped the rest of its last line.
TEST_F(TextioTest, ListDirectedRules) {
  const struct { const char* types; const char* text; double want[8]; } cases[] = {
      {"iirii", "1 3 3.0 0 0   comment 99", {1, 3, 3, 0, 0}},
      {"iirii", "1\n3\n  3.0\n\n0\n0", {1, 3, 3, 0, 0}},
      {"iiiiii", "1,2 , 3\t4\n\n \t5,\n6 7", {1, 2, 3, 4, 5, 6}},
      {"rrrrrr", "3*1.0 2* 7.5", {1, 1, 1, U, U, 7.5}},
      {"iii", "2*5 3 9", {5, 5, 3}},       {"ii", "4*2", {2, 2}},
      {"iii", ",,4", {U, U, 4}},           {"iii", "1, ,3", {1, U, 3}},
      {"iii", "2*,9", {U, U, 9}},          {"iiii", "1 2 / 3 4", {1, 2, U, U}},
      {"iir", "5,/", {5, U, U}},           {"i", "/", {U}},
      {"rrrrrrrr", "1.5D2 1.5d-2 2.5E+3 2.5e3 -.5 5. +3 -7", {150, 0.015, 2500, 2500, -0.5, 5, 3, -7}},
      {"iii", "-2147483648 2147483647 -0", {INT_MIN, INT_MAX, 0}},
  };
  // Bad items behind a good one; the read after each must find the 9 below.
  const char* bad[] = {"i3.0", "i3e2", "iabc", "i2147483648", "i*5", "r1.0.0", "re5", "r1.0e", "r--1"};
  std::string text;
  for (const auto& c : cases) text += std::string(c.text) + "\n";
  for (const char* b : bad) text += std::string("7 ") + (b + 1) + " 5\n9\n";
  write_file("list.dat", text + "1 2\n\n  \n");
  tio_open(CH, "list.dat");
  for (const auto& c : cases) {
    const int n = static_cast<int>(std::strlen(c.types));
    int iv[8];
    double rv[8];
    ReadItem it[8];
    for (int k = 0; k < 8; ++k) {
      iv[k] = U;
      rv[k] = U;
      it[k] = k < n && c.types[k] == 'r' ? rd_real(&rv[k]) : rd_int(&iv[k], k < n ? 1 : 0);
    }
    ASSERT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {it[0], it[1], it[2], it[3], it[4], it[5], it[6], it[7]}),
              READ_OK) << c.text;
    for (int k = 0; k < n; ++k)
      EXPECT_EQ(c.types[k] == 'i' ? iv[k] : rv[k], c.want[k]) << c.text << " #" << k;
  }
  for (const char* b : bad) {
    int i3[3], next = 0;
    double r3[3];
    const ReadItem item = b[0] == 'i' ? rd_int(i3, 3) : rd_real(r3, 3);
    EXPECT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {item}), READ_BAD) << b + 1;
    EXPECT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {rd_int(&next)}), READ_OK) << b;
    EXPECT_EQ(next, 9) << b;
  }
  int v[3];
  EXPECT_EQ(tio_read(CH, READ_END_TOLERANT, {rd_int(v, 3)}), READ_EOF);
  EXPECT_EQ(tio_read(CH, READ_ERROR_TOLERANT, {rd_int(v)}), READ_EOF);
}

TEST_F(TextioTest, ArrayOfTwoHundredRealsOnTwoHundredLinesOrTwo) {
  double want[200], got[200];
  std::string many, two;
  for (int k = 0; k < 200; ++k) {
    want[k] = (k - 100) * 0.37 + 1.0 / (k + 3);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.17g", want[k]);
    many += std::string(buf) + "\n";
    two += std::string(buf) + (k % 100 == 99 ? "\n" : " ");
  }
  write_file("r200.dat", many + two);
  tio_open(CH, "r200.dat");
  for (int pass = 0; pass < 2; ++pass) {
    ASSERT_EQ(tio_read(CH, READ_PLAIN, {rd_real(got, 200)}), READ_OK);
    for (int k = 0; k < 200; ++k) ASSERT_EQ(got[k], want[k]) << "pass " << pass << " item " << k;
  }
}

TEST_F(TextioTest, TextLineIsPaddedOrCut) {
  write_file("lines.dat", "  Title line\n" + std::string(100, 'x') + "\n\nlast");
  tio_open(CH, "lines.dat");
  const struct { int length; std::string want; } cases[] = {{80, "  Title line" + std::string(68, ' ')},
      {80, std::string(80, 'x')}, {30, std::string(30, ' ')}, {30, "last" + std::string(26, ' ')}};
  for (const auto& c : cases) {
    char field[81];
    tio_read_line(CH, field, c.length);
    EXPECT_EQ(std::string(field), c.want);  // also checks the terminator at field[length]
  }
}

// The diagnostic is the whole console: no "FATAL error", no "All ok". The
// end-tolerant kind too ends the run on a bad item ("3.0" for an integer).
TEST_F(TextioDeathTest, PlainEndOfFileAndBadItemEndTheRun) {
  write_file("Q5.in", "1 2\n3.0\n");
  EXPECT_EQ(console_of_run(false, [] {
              tio_open(CH_CONTROL, "Q5.in");
              double v[4];
              tio_read(CH_CONTROL, READ_PLAIN, {rd_real(v, 4)});
            }), "end-of-file during read, unit 12, file " + dir_ + "/Q5.in\n");
  EXPECT_EQ(console_of_run(false, [] {
              int a[2];
              tio_open(CH_CONTROL, "Q5.in");
              tio_read(CH_CONTROL, READ_PLAIN, {rd_int(a, 2)});
              tio_read(CH_CONTROL, READ_END_TOLERANT, {rd_int(a)});
            }), "list-directed I/O syntax error, unit 12, file " + dir_ + "/Q5.in\n");
}

// List-directed reads, the text-line read and the stop. The read failures'
// words are checked end to end (tests/e2e, the run spine's table).
#include <climits>

#include "support/support.h"
#include "textio/textio.h"

constexpr int U = -1;  // every item holds this before a read: "left unchanged"

// The statements read one file in turn, so each also checks that the one
// before it skipped the rest of its last line, after a bad item too.
TEST_F(ScratchTest, ListDirectedAndTextLineReads) {
  const struct { char type; int n; const char* text; double want[8]; int status = READ_OK; } cases[] = {
      {'r', 5, "1 3 3.0 0 0   comment 99", {1, 3, 3, 0, 0}}, {'r', 5, "1\n3\n  3.0\n\n0\n0", {1, 3, 3, 0, 0}},
      {'i', 6, "1,2 , 3\t4\n\n \t5,\n6 7", {1, 2, 3, 4, 5, 6}}, {'i', 3, "2*5 3 9", {5, 5, 3}},
      {'r', 6, "3*1.0 2* 7.5", {1, 1, 1, U, U, 7.5}}, {'i', 3, ",,4", {U, U, 4}},
      {'i', 3, "1, ,3", {1, U, 3}}, {'i', 3, "5,/ 6", {5, U, U}}, {'i', 4, "1 2 / 3 4", {1, 2, U, U}},
      {'i', 3, "-2147483648 2147483647 -0", {INT_MIN, INT_MAX, 0}},
      {'r', 8, "1.5D2 1.5d-2 2.5E+3 2.5e3 -.5 5. +3 -7", {150, 0.015, 2500, 2500, -0.5, 5, 3, -7}},
      {'i', 3, "7 3.0 5", {7, U, U}, READ_BAD}, {'i', 2, "7 3e2", {7, U}, READ_BAD},
      {'i', 2, "7 abc", {7, U}, READ_BAD}, {'i', 2, "7 2147483648", {7, U}, READ_BAD},
      {'i', 2, "7 *5", {7, U}, READ_BAD}, {'r', 2, "7 1.0.0", {7, U}, READ_BAD},
      {'r', 2, "7 1.0e", {7, U}, READ_BAD}, {'r', 2, "7 --1", {7, U}, READ_BAD}, {'r', 2, "7 1.0e5x", {7, U}, READ_BAD}, {'i', 1, "9", {9}},
  };
  std::string text;
  for (const auto& c : cases) text += std::string(c.text) + "\n";
  text += "  Title line\r\n" + std::string(100, 'x') + "\n\n1 2\n\n  ";  // a line end of DOS too
  write_file("list.dat", text);
  tio_open(CH_CONTROL, "list.dat");
  for (const auto& c : cases) {
    int iv[8] = {U, U, U, U, U, U, U, U};
    double rv[8] = {U, U, U, U, U, U, U, U};
    const ReadItem item = c.type == 'i' ? rd_int(iv, c.n) : rd_real(rv, c.n);
    EXPECT_EQ(tio_read(CH_CONTROL, READ_ERROR_TOLERANT, {item}), c.status) << c.text;
    for (int k = 0; k < c.n; ++k) EXPECT_EQ(c.type == 'i' ? iv[k] : rv[k], c.want[k]) << c.text << " #" << k;
  }
  // A title of 80 characters and a file name of 30: blank-padded or cut.
  const std::string lines[] = {"  Title line" + std::string(68, ' '), std::string(80, 'x'),
                               std::string(30, ' ')};
  for (const std::string& want : lines) {
    char field[81];
    tio_read_line(CH_CONTROL, field, static_cast<int>(want.size()));
    EXPECT_EQ(std::string(field), want);  // also checks the terminator at field[length]
  }
  int v[3];
  EXPECT_EQ(tio_read(CH_CONTROL, READ_END_TOLERANT, {rd_int(v, 3)}), READ_EOF);
  EXPECT_EQ(tio_read(CH_CONTROL, READ_ERROR_TOLERANT, {rd_int(v)}), READ_EOF);
  EXPECT_EQ(read_file("list.dat"), text);  // read, never written: not cut
}

// The stop word has a line of its own, after a line left open; status 0.
TEST_F(ScratchTest, StopWordOnALineOfItsOwn) {
  EXPECT_EQ(console_of_child(true, [] {
              tio_write(CH_CONSOLE, "I3$", {wv_int(7)});
              tio_stop("All ok");
            }), "  7\nAll ok\n");
}

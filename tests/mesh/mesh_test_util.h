// Test scaffolding of the mesh and model readers: a scratch directory per
// test, small Q5.in fragments, and runs that must end with a fatal stop.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "mesh/mesh_model.h"
#include "run/run_context.h"
#include "textio/textio.h"

// A stop ends the process with status 0, which a test runner would count as
// a pass: a stop inside a test that does not expect one fails the program.
inline bool g_stop_expected = false;
inline bool g_in_test = false;
inline const bool g_exit_guard = [] {
  std::atexit([] {
    if (g_in_test && !g_stop_expected) {
      std::fputs("unexpected stop of the run inside a test\n", stderr);
      std::fflush(stderr);
      _exit(1);
    }
  });
  return true;
}();

// Each test runs in a directory of its own, so that Q5.in, Q5.out and the
// written files of one test never meet those of another.
class ScratchDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(getcwd(old_dir_, sizeof old_dir_), nullptr);
    char tmpl[] = "/tmp/q5_mesh_test_XXXXXX";
    char* dir = mkdtemp(tmpl);
    ASSERT_NE(dir, nullptr);
    dir_ = dir;
    ASSERT_EQ(chdir(dir), 0);
    g_in_test = true;
  }
  void TearDown() override {
    g_in_test = false;
    tio_close_all();
    ASSERT_EQ(chdir(old_dir_), 0);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

 private:
  char old_dir_[4096];
  std::string dir_;
};

inline void write_file(const char* name, const std::string& text) {
  std::ofstream out(name, std::ios::binary);
  out << text;
}

inline std::string read_file(const char* name) {
  std::ifstream in(name, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline std::vector<std::string> read_lines(const char* name) {
  std::vector<std::string> lines;
  std::ifstream in(name);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// Writes Q5.in and connects the control file and the log, as the run does.
inline void open_control(const std::string& text) {
  write_file("Q5.in", text);
  tio_open(CH_CONTROL, "Q5.in");
  tio_open(CH_LOG, "Q5.out");
}

// Connects the console (file descriptor 1) to console.txt; used inside the
// child of a death test, where it is never restored.
inline void console_to_file() {
  std::fflush(stdout);
  int fd = open("console.txt", O_CREAT | O_WRONLY | O_TRUNC, 0644);
  dup2(fd, 1);
  close(fd);
}

// Runs `body` in a child that must stop with status 0, as every fatal stop
// does; the Q5.in of the test must have been written before. The parent's
// channels are closed first, so that the child opens the files afresh. The child's log
// is Q5.out and its console console.txt, both in the test's directory.
#define EXPECT_STOPS(body)                                    \
  tio_close_all();                                            \
  std::remove("Q5.out");                                      \
  std::remove("console.txt");                                 \
  EXPECT_EXIT(                                                \
      {                                                       \
        g_stop_expected = true;                               \
        console_to_file();                                    \
        tio_open(CH_CONTROL, "Q5.in");                        \
        tio_open(CH_LOG, "Q5.out");                           \
        body;                                                 \
      },                                                      \
      ::testing::ExitedWithCode(0), "")

// The log and console of a fatal stop with the message on both streams, log
// first: the log holds the message, the console the message then the stop.
#define EXPECT_BOTH_STREAMS(msg)                                   \
  do {                                                             \
    EXPECT_EQ(read_file("Q5.out"), std::string(msg) + "\n");       \
    EXPECT_EQ(read_file("console.txt"),                            \
              std::string(msg) + "\nFATAL error\n");               \
  } while (0)

// A stop whose message goes to the log only.
#define EXPECT_LOG_ONLY(msg)                                       \
  do {                                                             \
    EXPECT_EQ(read_file("Q5.out"), std::string(msg) + "\n");       \
    EXPECT_EQ(read_file("console.txt"), "FATAL error\n");          \
  } while (0)

inline RunContext make_context(int job_type, int mesh_type) {
  RunContext ctx{};
  ctx.job_type = job_type;
  ctx.mesh_type = mesh_type;
  return ctx;
}

inline int slot(const MeshModel& mesh, int e, int s) {
  return mesh.element_nodes[4 * (e - 1) + s - 1];
}

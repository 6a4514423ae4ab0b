// Scaffolding shared by the mesh and results tests: a scratch directory per
// test, file helpers, the control file, and runs that must end in a stop.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "mesh/mesh_model.h"
#include "run/run_context.h"
#include "textio/textio.h"

// Every stop exits with status 0, as a test program that ended well does: a
// stop inside a test that does not expect one fails the program instead.
inline bool g_stop_expected = false;
inline bool g_in_test = false;
inline const int g_exit_guard = std::atexit([] { if (g_in_test && !g_stop_expected) _exit(1); });

// Each test runs in a directory of its own, so the files of tests never meet.
class ScratchDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/q5_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    old_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_ = tmpl);
    g_in_test = true;
  }
  void TearDown() override {
    g_in_test = false;
    tio_close_all();
    std::filesystem::current_path(old_);
    std::filesystem::remove_all(dir_);
  }
  std::filesystem::path dir_, old_;
};

inline void write_file(const char* name, const std::string& text) {
  std::ofstream(name, std::ios::binary) << text;
}

inline std::string read_file(const char* name) {
  std::ifstream in(name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Writes Q5.in, connects it and the log afresh as the run does, and reads a
// mesh of `type` from the control text (type 3: from mesh.dat).
inline MeshModel load_mesh(RunContext* ctx, int type, const std::string& control) {
  tio_close_all();
  write_file("Q5.in", control);
  tio_open(CH_CONTROL, "Q5.in");
  tio_open(CH_LOG, "Q5.out");
  ctx->mesh_type = type;
  MeshModel mesh{};
  read_mesh(ctx, &mesh);
  return mesh;
}

// Runs `body` in a child that must stop with status 0, leaving `msg` alone in its log
// (Q5.out, which opening does not truncate) and console unless log_only, then the stop word.
template <class Body>
void expect_stop(Body body, const std::string& msg, bool log_only = false) {
  tio_close_all();
  std::remove("Q5.out");
  auto child = [&] {
    g_stop_expected = true;
    ASSERT_NE(std::freopen("console.txt", "w", stdout), nullptr);
    body();
  };
  EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(read_file("Q5.out"), msg + "\n");
  EXPECT_EQ(read_file("console.txt"), (log_only ? "" : msg + "\n") + "FATAL error\n");
}

// Shared by the text-layer tests: a fresh working directory per test, whole
// files as strings, and runs that end the process.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "textio/textio.h"

class TextioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/q5_textio_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::filesystem::current_path(dir_ = tmpl);
  }
  void TearDown() override {
    tio_close_all();
    std::filesystem::current_path(saved_);
    std::filesystem::remove_all(dir_);
  }
  std::string dir_;
  const std::filesystem::path saved_ = std::filesystem::current_path();
};

inline std::string read_file(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& name, const std::string& text) {
  std::ofstream(name, std::ios::binary | std::ios::trunc) << text;
}

// Runs `body` in a child with the console sent to a file and returns what
// the child wrote there. The run must end with status 0 (`stop`) or non-zero.
template <class Body>
std::string console_of_run(bool stop, Body body) {
  EXPECT_EXIT({
    if (!std::freopen("console.txt", "w", stdout)) std::abort();
    body();
    std::exit(stop ? 3 : 0);
  }, [stop](int st) { return WIFEXITED(st) && (WEXITSTATUS(st) == 0) == stop; }, "");
  return read_file("console.txt");
}

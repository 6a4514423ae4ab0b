// Shared by the text-layer tests: a fresh working directory per test, small
// file helpers, and a capture of the console into a file.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "textio/textio.h"

class TextioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(getcwd(saved_cwd_, sizeof saved_cwd_), nullptr);
    char tmpl[] = "/tmp/q5_textio_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    ASSERT_EQ(chdir(dir_.c_str()), 0);
  }
  void TearDown() override {
    tio_close_all();
    EXPECT_EQ(chdir(saved_cwd_), 0);
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  // Full path of a file in the test's directory.
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  std::string dir_;

 private:
  char saved_cwd_[PATH_MAX];
};

inline std::string read_file(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void write_file(const std::string& name, const std::string& text) {
  std::ofstream out(name, std::ios::binary | std::ios::trunc);
  out << text;
}

// A regular expression that matches `text` literally.
inline std::string regex_quote(const std::string& text) {
  std::string r;
  for (char c : text) {
    if (std::string(".[]{}()\\*+?^$|").find(c) != std::string::npos) r += '\\';
    r += c;
  }
  return r;
}

// Sends file descriptor 1 to a file while alive; the console channel writes
// through stdout and so lands there.
class ConsoleCapture {
 public:
  explicit ConsoleCapture(const std::string& file) {
    std::fflush(stdout);
    saved_ = dup(1);
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 1);
    close(fd);
  }
  ~ConsoleCapture() {
    std::fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }

 private:
  int saved_;
};

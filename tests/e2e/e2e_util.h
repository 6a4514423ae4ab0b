// Helpers of the end-to-end tests: a scratch run directory, input files, one
// run of the real q5 binary with no standard input, and its output read back.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

struct RunResult {
  int exit_status;  // process exit status
  Lines console;    // standard output, line by line
  std::string errors;
};

inline std::string make_run_dir() {
  std::string pattern = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") +
                        "/q5e2eXXXXXX";
  return mkdtemp(pattern.data()) ? pattern : std::string();
}

inline void write_file(const std::string& dir, const std::string& name, const std::string& text) {
  std::ofstream(dir + "/" + name, std::ios::binary) << text;
}

inline bool file_exists(const std::string& dir, const std::string& name) {
  struct stat st;
  return stat((dir + "/" + name).c_str(), &st) == 0;
}

inline std::string read_text(const std::string& dir, const std::string& name) {
  std::stringstream ss;
  ss << std::ifstream(dir + "/" + name, std::ios::binary).rdbuf();
  return ss.str();
}

inline Lines read_lines(const std::string& dir, const std::string& name) {
  Lines lines;
  std::istringstream in(read_text(dir, name));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline RunResult run_q5_in(const std::string& dir) {
  std::string cmd = "cd '" + dir + "' && '" + Q5_BINARY + "' > .console 2> .errors < /dev/null";
  int rc = std::system(cmd.c_str());
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : 128 + WTERMSIG(rc), read_lines(dir, ".console"),
          read_text(dir, ".errors")};
}

// The lines every run starts with: two empty lines, the banner, an empty line
// and today's date.
inline Lines opening_lines() {
  std::time_t now = std::time(nullptr);
  std::tm t;
  localtime_r(&now, &t);
  char date[64];
  std::snprintf(date, sizeof date, " >> D a t e : %02d - %02d - %4d", t.tm_mday, t.tm_mon + 1,
                t.tm_year + 1900);
  return {"", "", " >> Q  5    R e s i s t i v i t y   I n v e r s i o n   v3.3 <<", "", date};
}

// Lines [from, from + count) of v, clipped.
inline Lines slice(const Lines& v, size_t from, size_t count) {
  return Lines(v.begin() + std::min(from, v.size()), v.begin() + std::min(from + count, v.size()));
}

// Index of the first line equal to `line` at or after `from`, or -1.
inline int find_line(const Lines& v, const std::string& line, size_t from = 0) {
  for (size_t i = from; i < v.size(); ++i)
    if (v[i] == line) return (int)i;
  return -1;
}

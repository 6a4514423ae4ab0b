// Scratch run directories and runs of the real q5 binary for the
// end-to-end tests.
#include "e2e_util.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>

std::string make_run_dir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base ? base : "/tmp") + "/q5e2eXXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  char* made = mkdtemp(buf.data());
  return made ? std::string(made) : std::string();
}

void write_file(const std::string& dir, const std::string& name,
                const std::string& text) {
  std::ofstream f(dir + "/" + name, std::ios::binary);
  f << text;
}

bool file_exists(const std::string& dir, const std::string& name) {
  struct stat st;
  return stat((dir + "/" + name).c_str(), &st) == 0;
}

std::string read_text(const std::string& dir, const std::string& name) {
  std::ifstream f(dir + "/" + name, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

static std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream in(text);
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

std::vector<std::string> read_lines(const std::string& dir,
                                    const std::string& name) {
  return split_lines(read_text(dir, name));
}

RunResult run_q5_in(const std::string& dir) {
  std::string cmd = "cd '" + dir + "' && '" + Q5_BINARY +
                    "' > .console 2> .errors < /dev/null";
  int rc = std::system(cmd.c_str());
  RunResult r;
  r.exit_status = WIFEXITED(rc) ? WEXITSTATUS(rc) : 128 + WTERMSIG(rc);
  r.console = read_lines(dir, ".console");
  r.errors = read_text(dir, ".errors");
  return r;
}

std::vector<std::string> opening_lines() {
  std::time_t now = std::time(nullptr);
  std::tm local;
  localtime_r(&now, &local);
  char date[64];
  std::snprintf(date, sizeof date, " >> D a t e : %02d - %02d - %4d",
                local.tm_mday, local.tm_mon + 1, local.tm_year + 1900);
  return {"", "",
          " >> Q  5    R e s i s t i v i t y   I n v e r s i o n   v3.3 <<",
          "", date};
}

std::string title_line(const std::string& title) {
  std::string t = title.substr(0, 80);
  t.resize(80, ' ');
  return " >> " + t;
}

std::vector<std::string> slice(const std::vector<std::string>& v, size_t from,
                               size_t count) {
  std::vector<std::string> out;
  for (size_t i = from; i < v.size() && i < from + count; ++i)
    out.push_back(v[i]);
  return out;
}

int find_line(const std::vector<std::string>& v, const std::string& line,
              size_t from) {
  for (size_t i = from; i < v.size(); ++i)
    if (v[i] == line) return (int)i;
  return -1;
}

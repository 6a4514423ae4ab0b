// Scratch directories and whole files; runs of the real q5 and their masked
// transcripts; comparison with expected-output files and their regeneration.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/support.h"

namespace fs = std::filesystem;

namespace {

// The scratch directories of this process, removed at its exit unless a test
// failed (they are then left for a look); a death test's child leaves them.
std::vector<std::string> scratch_dirs;
pid_t scratch_owner = 0;

void remove_scratch_dirs() {
  if (getpid() != scratch_owner || ::testing::UnitTest::GetInstance()->failed_test_count() > 0) return;
  for (const std::string& dir : scratch_dirs) fs::remove_all(dir);
}

// One part of a transcript under its heading; a part that does not end its
// last line says so, as diff does.
void section(std::string* out, const std::string& heading, const std::string& text) {
  *out += "== " + heading + " ==\n" + text;
  if (!text.empty() && text.back() != '\n') *out += "\n\\ no newline at end\n";
}

std::string mask(const std::string& text, const std::string& dir) {
  std::string out;
  for (std::string line : split_lines(text)) {
    for (size_t at; (at = line.find(dir)) != std::string::npos;) line.replace(at, dir.size(), "$RUN");
    const size_t colon = line.find(':'), end = line.size() - 2;  // the figure ends before " s" or " %"
    if (line.rfind(" >> D a t e : ", 0) == 0)
      line = " >> D a t e : dd - mm - yyyy";
    else if (line.find(" time taken") != std::string::npos && colon != std::string::npos && end > colon + 1)
      line.replace(colon + 1, end - colon - 1, std::string(end - colon - 2, ' ') + "#");
    out += line + "\n";
  }
  if (!text.empty() && text.back() != '\n') out.pop_back();
  return out;
}

}  // namespace

std::string make_scratch_dir() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp ? tmp : "/tmp") + "/q5testXXXXXX";
  if (!mkdtemp(pattern.data())) return std::string();
  if (scratch_owner == 0) {
    scratch_owner = getpid();
    std::atexit(remove_scratch_dirs);
  }
  scratch_dirs.push_back(pattern);
  return pattern;
}

std::string read_file(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

Lines split_lines(const std::string& text) {
  Lines lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

namespace {

// Writes `inputs` into a fresh scratch directory and runs `program` there,
// with `environment` ("NAME=value ..." or "-u NAME") before it.
RunResult run_in_scratch(const Files& inputs, const std::string& environment,
                         const std::string& program) {
  const std::string dir = make_scratch_dir();
  for (const auto& [name, text] : inputs) write_file(dir + "/" + name, text);
  const int rc = std::system(("cd '" + dir + "' && env " + environment + " '" + program +
                              "' > .console 2> .errors < /dev/null").c_str());
  RunResult run{dir, WIFEXITED(rc) ? WEXITSTATUS(rc) : 128 + WTERMSIG(rc), read_file(dir + "/.console"),
                read_file(dir + "/.errors"), {}};
  run.lines = split_lines(run.console);
  return run;
}

// Every file of a run directory, the console and standard error included.
Lines run_files(const std::string& dir) {
  Lines names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// The console or Q5.out of a run on several threads as it reads on one: the
// thread line dropped; then masked as a transcript is.
std::string as_on_one_thread(const std::string& text, const std::string& dir) {
  std::string out;
  for (const std::string& line : split_lines(text))
    if (line.rfind(" >> T h r e a d s : ", 0) != 0) out += line + "\n";
  if (!text.empty() && text.back() != '\n') out.pop_back();
  return mask(out, dir);
}

}  // namespace

void expect_same_runs(const RunResult& one, const RunResult& many, const std::string& what) {
  EXPECT_EQ(many.exit_status, one.exit_status) << what;
  EXPECT_EQ(run_files(many.dir), run_files(one.dir)) << what;
  for (const std::string& name : run_files(one.dir)) {
    const std::string a = read_file(one.dir + "/" + name), b = read_file(many.dir + "/" + name);
    if (name == ".console" || name == "Q5.out")
      EXPECT_EQ(as_on_one_thread(b, many.dir), as_on_one_thread(a, one.dir)) << name << ", " << what;
    else if (name == ".errors")  // names the run's own directory
      EXPECT_EQ(mask(b, many.dir), mask(a, one.dir)) << name << ", " << what;
    else
      EXPECT_TRUE(a == b) << name << " differs, " << what << " (" << many.dir << ")";
  }
}

Lines thread_counts_under_test() {
  Lines counts;
  const char* list = std::getenv("Q5_TEST_THREADS");
  std::istringstream in(list ? list : "");
  for (std::string count; std::getline(in, count, ',');)
    if (!count.empty()) counts.push_back(count);
  return counts;
}

RunResult run_q5(const Files& inputs, int failing_call) {
  if (failing_call > 0)
    return run_in_scratch(inputs, "-u Q5_THREADS Q5_FAIL_SOLVER_CALL=" + std::to_string(failing_call),
                          Q5_FAILING_SOLVER_BINARY);
  const RunResult one = run_in_scratch(inputs, "-u Q5_THREADS", Q5_BINARY);
  for (const std::string& count : thread_counts_under_test())
    expect_same_runs(one, run_q5_on_threads(inputs, count), "Q5_THREADS=" + count);
  return one;
}

RunResult run_q5_on_threads(const Files& inputs, const std::string& threads, int failing_call) {
  const std::string environment = "'Q5_THREADS=" + threads + "'";
  if (failing_call == 0) return run_in_scratch(inputs, environment, Q5_BINARY);
  return run_in_scratch(inputs, environment + " Q5_FAIL_SOLVER_CALL=" + std::to_string(failing_call),
                        Q5_FAILING_SOLVER_BINARY);
}
std::string transcript(const RunResult& run, const Lines& whole) {
  std::string out = "== exit status " + std::to_string(run.exit_status) + " ==\n", listing;
  section(&out, "console", mask(run.console, run.dir));
  if (!run.errors.empty()) section(&out, "stderr", mask(run.errors, run.dir));
  section(&out, "Q5.out", mask(read_file(run.dir + "/Q5.out"), run.dir));
  Lines names;
  for (const auto& entry : fs::directory_iterator(run.dir))
    if (entry.path().filename().string()[0] != '.') names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string text = read_file(run.dir + "/" + name);
    listing += name + " " + std::to_string(std::count(text.begin(), text.end(), '\n')) + " lines " +
               std::to_string(text.size()) + " bytes\n";
  }
  section(&out, "files", listing);
  return out + file_sections(run.dir, whole);
}

std::string file_sections(const std::string& dir, const Lines& names) {
  std::string out;
  for (const std::string& wanted : names) {
    const size_t colon = wanted.find(':');
    std::string text = read_file(dir + "/" + wanted.substr(0, colon));
    if (colon != std::string::npos) {
      size_t end = 0;
      for (int n = std::stoi(wanted.substr(colon + 1)); n > 0 && end < text.size(); --n)
        end = std::min(text.find('\n', end), text.size() - 1) + 1;
      text.resize(end);
    }
    section(&out, wanted, mask(text, dir));
  }
  return out;
}

void expect_matches_file(const std::string& path, const std::string& text) {
  const std::string full = std::string(Q5_SOURCE_DIR) + "/tests/" + path;
  const char* update = std::getenv("Q5_UPDATE_EXPECTED");
  if (update && std::string(update) == "1") {
    fs::create_directories(fs::path(full).parent_path());
    return write_file(full, text);
  }
  ASSERT_TRUE(fs::exists(full)) << full << " is missing; a run with Q5_UPDATE_EXPECTED=1 writes it";
  EXPECT_EQ(text, read_file(full)) << "differs from " << full;
}

RunResult expect_run(const std::string& path, const Files& inputs, const Lines& whole, int failing_call) {
  const RunResult run = run_q5(inputs, failing_call);
  expect_matches_file(path, transcript(run, whole));
  return run;
}

// Helpers of the end-to-end tests: a scratch run directory, input files,
// one run of the real q5 binary, and its console, log and files read back.
#pragma once

#include <string>
#include <vector>

struct RunResult {
  int exit_status;                    // process exit status
  std::vector<std::string> console;   // standard output, line by line
  std::string errors;                 // standard error
};

// A fresh directory under the system's temporary area.
std::string make_run_dir();

// Writes `text` to dir/name.
void write_file(const std::string& dir, const std::string& name,
                const std::string& text);

bool file_exists(const std::string& dir, const std::string& name);

// Lines of dir/name (without line ends); empty when the file is absent.
std::vector<std::string> read_lines(const std::string& dir,
                                    const std::string& name);

std::string read_text(const std::string& dir, const std::string& name);

// Runs q5 in `dir` with no standard input.
RunResult run_q5_in(const std::string& dir);

// The console lines that every run starts with: two empty lines, the
// banner, an empty line and today's date line.
std::vector<std::string> opening_lines();

// The title echo: " >> " and the title padded to 80 characters.
std::string title_line(const std::string& title);

// Lines [from, from + count) of v (clipped).
std::vector<std::string> slice(const std::vector<std::string>& v, size_t from,
                               size_t count);

// Index of the first line equal to `line` at or after `from`, or -1.
int find_line(const std::vector<std::string>& v, const std::string& line,
              size_t from = 0);

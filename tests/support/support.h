// Test support shared by the test programs: scratch directories and files,
// runs of the real q5 with their transcripts and expected-output files, and
// the grid, triangle and survey builders.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "mesh/mesh_model.h"

using Lines = std::vector<std::string>;
using Files = std::vector<std::pair<std::string, std::string>>;  // name, text

// A fresh directory under $TMPDIR (or /tmp), removed when the test program
// ends without a failed test.
std::string make_scratch_dir();
std::string read_file(const std::string& path);  // "" when absent
void write_file(const std::string& path, const std::string& text);
Lines split_lines(const std::string& text);

struct RunResult {
  std::string dir;
  int exit_status;           // 128 + signal when killed
  std::string console, errors;
  Lines lines;               // the console, line by line
};

// Writes `inputs` into a fresh scratch directory and runs q5 there on one
// thread (Q5_THREADS unset) with no standard input; with failing_call > 0
// the failing-solver build instead, whose solver call of that number fails.
// For each count of thread_counts_under_test() the same inputs then run on
// that many threads too, and must give the same files (expect_same_runs).
RunResult run_q5(const Files& inputs, int failing_call = 0);

// Thread counts of Q5_TEST_THREADS, a list such as "2,3,0"; none when unset.
Lines thread_counts_under_test();

// run_q5 with Q5_THREADS=threads in the environment (any text); with
// failing_call > 0 each thread of the failing-solver build fails its own
// solver call of that number.
RunResult run_q5_on_threads(const Files& inputs, const std::string& threads, int failing_call = 0);

// Expects run `many` (on several threads) to equal run `one`: the same exit
// status and files, each byte for byte but the console and Q5.out, which
// are compared without the thread line and masked as in a transcript.
// `what` names the comparison in failures.
void expect_same_runs(const RunResult& one, const RunResult& many, const std::string& what);

// The transcript of a run: exit status, console, standard error (when not
// empty) and Q5.out, each under a heading line; then every file of the run
// directory with its line and byte counts; then the text of each file named
// in `whole` ("name:N" for its first N lines). Masked where runs differ: the
// date line reads "dd - mm - yyyy", the figure of each timing line ("...
// time taken ...: figure s" or "%") is blanked but for a '#' in its last
// column, and the scratch directory's path reads "$RUN".
std::string transcript(const RunResult& run, const Lines& whole = {});
// The files of `dir` named in `names` as in a transcript.
std::string file_sections(const std::string& dir, const Lines& names);

// Compares `text` byte for byte with the expected-output file `path` (under
// tests/); with Q5_UPDATE_EXPECTED=1 in the environment writes it instead.
void expect_matches_file(const std::string& path, const std::string& text);

// run_q5, and its transcript compared with the expected-output file `path`.
RunResult expect_run(const std::string& path, const Files& inputs, const Lines& whole = {}, int failing_call = 0);

// Nodes from lo to hi, `step` apart.
std::vector<double> uniform_axis(double lo, double hi, double step);
// Grows an axis outwards, past its last node (at_end) or before its first:
// each cell `growth` times the one before, the first step * growth; at least
// `cells` cells, then on until the axis reaches `reach` metres beyond the
// node it started from. Returns the width of the last cell added.
double pad_axis(std::vector<double>* axis, bool at_end, double step, double growth, int cells,
                double reach = 0.0);

// Grid mesh of nodes (xs[i], ys[j]), numbered as q5 numbers a grid: node
// (i, j) is i * ny + j + 1, cell (i, j) is i * (ny - 1) + j + 1. Four-node
// elements (a, b, c, d) with a = (i, j), b = (i + 1, j), c = (i + 1, j + 1),
// d = (i, j + 1); or two triangles per cell cut along a-c, the one holding d
// first, each anticlockwise in the given coordinates from a, `zone` in slot
// four. Each element is its own parameter; no node is pinned.
MeshModel grid_mesh(const std::vector<double>& xs, const std::vector<double>& ys,
                    int nodes_per_element, int zone = 1);
// Grid records of Q5.in (mesh_type 4): node counts, columns, zero surface
// offsets, depths; ten significant digits.
std::string grid_records(const std::vector<double>& xs, const std::vector<double>& ys);
// mesh.dat of a triangle mesh: element records with parameter and zone, then
// the nodes, ten significant digits.
std::string mesh_dat_text(const MeshModel& mesh);

// Surface electrodes 1 m apart from x = 0 on a grid of `cells_per_spacing`
// cells between them, `padding` cells growing by 1.6 on each side, rows from
// a quarter spacing growing by 1.15 to 0.4 line lengths deep (an odd node
// count, so that blocks of 2 x 2 cells tile it); dipole-dipole n = 1..5 and
// Wenner a = 1..4 readings.
struct Survey {
  int electrodes = 16;
  int cells_per_spacing = 2;
  int padding = 5;
  std::vector<double> xs, ys;      // grid columns and depths
  int first_column = 0;            // 1-based column of electrode 1
  std::vector<std::string> quads;  // "P+ P- C+ C-" per reading
};
void build_survey(Survey* s);
int grid_cells(const Survey& s);

struct Box {  // a resistivity in x0..x1, depth d0..d1 (m)
  double x0, x1, d0, d1, rho;
};

// Control-file pieces of a survey: record 2 and the grid records (title
// "Synthetic grid survey") or, with `triangles`, the mesh_scale of its
// triangle mesh (title "Synthetic triangles"); region records of a
// background with each box over the cells whose centres lie in it (both
// triangles of a cell); no polyline and the electrodes, on the grid or on the
// nodes of the triangle mesh.
std::string survey_head(const Survey& s, int job, const char* flux, int singular, int res_calc,
                        bool triangles = false);
std::string survey_regions(const Survey& s, double background, const std::vector<Box>& boxes,
                           bool triangles = false);
std::string survey_electrodes(const Survey& s, bool triangles = false);
// mesh.dat of the survey's grid, each cell cut into two triangles, one
// parameter each, y as height.
std::string survey_mesh_dat(const Survey& s);
// One block of protocol.dat: the readings alone (values empty), or each with
// its value and reference.
std::string survey_block(const Survey& s, const std::vector<double>& values = {},
                         const std::vector<double>& reference = {});

// One column of Q5_forward.dat: transfer resistances, or with `apparent`
// apparent resistivities.
std::vector<double> forward_values(const std::string& path, bool apparent = false);
// Runs the forward job of `inputs` (Q5.in and mesh.dat, if any) over the
// survey's readings in a scratch directory and returns the transfer
// resistances.
std::vector<double> forward_data(const Files& inputs, const Survey& s);
// Relative Gaussian noise of `fraction`, from a fixed seed.
std::vector<double> add_noise(std::vector<double> values, double fraction, unsigned seed);

struct ModelRow {  // x, y, rho of a model table (fNNN_res.dat, forward_model.dat)
  double x, y, rho;
};
std::vector<ModelRow> model_rows(const std::string& path);
// Resistivity of the row nearest to (x, y).
double value_at(const std::vector<ModelRow>& rows, double x, double y);
// Final RMS of the last "Final RMS Misfit:" line, and the "Iteration" lines.
double final_rms(const Lines& lines, int* iterations = nullptr);

// The fixture of the in-process tests (library q5_test_fixture, over the text
// layer): each test in a working directory of its own, the channels closed
// after it, and a stop (status 0) that the test did not expect fails it.
class ScratchTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::string dir_, saved_;
};

// Runs `body` in a child with the console sent to console.txt and returns
// what the child wrote there. The child must end with status 0 (a stop) when
// `stop`, with a non-zero status (a failure of the text layer) otherwise.
std::string console_of_child(bool stop, const std::function<void()>& body);

// The run spine end to end, one table of small runs against their transcripts
// (expected/spine_<case>.txt): end of data, every fatal stop, the text
// layer's failures (no stop word, status 2), and the banners and warnings.
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <string>
#include <utility>

#include "support/support.h"

namespace {

// A 5 x 3 grid (x 0..4 m, depths 0, 1, 2 m), 8 elements of 100 ohm m, no
// polyline and four surface electrodes with ids 1..4.
const std::string kGrid = "5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n1\n1 8 100.0\n";
const std::string kElectrodes = "0\n4\n1 1 1\n2 2 1\n3 3 1\n4 4 1\n";

std::string forward(const std::string& record2) { return "Spine test\n" + record2 + "\n" + kGrid + kElectrodes; }

// An inverse job on the same grid with patch sizes 1, 1.
std::string inverse(const std::string& settings) {
  return "Inverse spine\n1 4 2.0 0 0\n" + kGrid + "1 1\n" + settings + kElectrodes;
}

// The start of a forward job on the grid, up to its regions.
const std::string kRegionsHead = "R\n0 4 2.0 0 0\n5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n";

struct SpineCase {
  const char* name;
  std::string control, protocol, mesh;
  Lines whole;  // files shown whole in the transcript
};

const std::string kJob = forward("0 4 2.0 0 0");
const std::string kSettings = "0 0\n1 5 0 1\n0 0 1 10\n";

const SpineCase kCases[] = {
    // An empty protocol ends the forward job at once; the model and electrode
    // files are written before any measurement is read.
    {"end_of_data", kJob, "", "", {"electrodes.dat", "electrodes.vtk", "forward_model.dat", "forward_model.vtk"}},
    // A count of 0 is the end of the data; later blocks are not read.
    {"zero_count_ends_data", kJob, "0\n1 1 2 3 4\n", "", {}},
    // Record 2: job_type on the console first; mesh_type, Singular_type and
    // res_calc on the log alone; flux_type once the pattern is built.
    {"job_type", forward("2 4 2.0 0 0"), "", "", {}},
    {"mesh_type", forward("0 6 2.0 0 0"), "", "", {}},
    {"singular_type", forward("0 4 2.0 2 0"), "", "", {}},
    {"res_calc", forward("0 4 2.0 0 4"), "", "", {}},
    {"flux_type", forward("0 4 2.5 0 0"), "", "", {}},
    // Inverse settings.
    {"inverse_type", inverse("5 0.2\n" + kSettings), "", "", {}},
    {"data_type", inverse("1 0.2\n7 0\n1 5 0 1\n0 0 1 10\n"), "", "", {}},
    {"reg_mode", inverse("1 0.2\n0 3\n1 5 0 1\n0 0 1 10\n"), "", "", {}},
    {"alpha_aniso", inverse("1 0.2\n0 0\n1 5 0 0.0\n0 0 1 10\n"), "", "", {}},
    {"rho_range", inverse("1 0.2\n0 0\n1 5 0 1\n0 0 10 10\n"), "", "", {}},
    // Mesh records: a node of mesh.dat beyond the count (the sixth value, a
    // zone number, is not checked), regions (elem1 named before elem2),
    // patching, polyline, electrode columns (the last one passes; the
    // column is named before the row, by its place in the table, not its id)
    // and rows.
    {"mesh_dat_node", "Tri\n0 3 2.0 0 0\n1.0\n", "", "2 3\n1 1 2 3 1 99\n2 1 3 4 1 -5\n", {}},
    {"elem1_range", kRegionsHead + "1\n0 9 10.0\n" + kElectrodes, "", "", {}},
    {"elem2_range", kRegionsHead + "1\n1 9 100.0\n" + kElectrodes, "", "", {}},
    {"resistivity_zero", kRegionsHead + "1\n1 8 0.0\n" + kElectrodes, "", "", {}},
    {"patch_size", "P\n1 4 2.0 0 0\n" + kGrid + "3 1\n", "", "", {}},
    {"open_polyline", "Open\n0 4 2.0 0 0\n" + kGrid + "2\n0 0\n1 1\n", "", "", {}},
    {"electrode_column", "Col\n0 4 2.0 0 0\n" + kGrid + "0\n3\n1 5 3\n2 1 1\n7 6 4\n", "", "", {}},
    {"electrode_row", "Row\n0 4 2.0 0 0\n" + kGrid + "0\n2\n1 5 3\n7 2 4\n", "", "", {}},
    // On mesh.dat an electrode's node must be one of the mesh: the last passes.
    {"electrode_node", "Tri\n0 3 2.0 0 0\n1.0\n1\n1 2 10.0\n0\n2\n1 4\n2 5\n", "",
     "2 4\n1 1 2 3 1 1\n2 2 4 3 2 1\n1 0 0\n2 1 0\n3 0 -1\n4 1 -1\n", {}},
    // Electrode checks of a block hold in a forward job too.
    {"duplicate_electrodes", kJob, "2\n1 1 2 3 4\n2 1 2 3 3\n", "", {}},
    {"invalid_electrode", kJob, "1\n7 1 2 3 9\n", "", {}},
    // Counts too large for the machine stop with words, not a crash.
    {"huge_grid", "Huge grid\n0 4 2.0 0 0\n40000 40000\n", "", "", {}},
    {"huge_block", kJob, "2000000000\n", "", {}},
    // Failures of the text layer: the diagnostic on the console and stderr,
    // status 2, no stop word. An absent Q5.in is created empty.
    {"short_control", "Short\n0 4 2.0 0 0\n5 3\n0 1 2\n", "", "", {}},
    {"absent_control", "", "", "", {}},
    {"real_for_integer", forward("0 4.0 2.0 0 0"), "", "", {}},
    {"absent_mesh_dat", "Tri\n0 3 2.0 0 0\n1.0\n", "", "", {}},
    {"measurement_syntax", kJob, "1\n1 1 2 x 4\n", "", {}},
    {"block_head_syntax", kJob, "x\n", "", {}},
    // Banners of the inverse settings in their order on both streams, and
    // the end at the empty protocol's first pass.
    {"banners_linear_log", inverse("1 0.2\n1 0\n1.5 5 0 1.0\n0 0 1 1000\n"), "", "", {}},
    // Blocked filter: other words on the console; reg_mode 2 forces true data.
    {"banners_blocked_difference",
     inverse("4 0.2\n1 2\n1.0 5 1 1.0\n0.01 0.02 1 1000\n1 1 1 1\n1 1 1 1\n"), "", "", {}},
    // Qualitative: no range or anisotropy checks, no data banners.
    {"banners_qualitative", inverse("3 0.0\n1\n100 10\n"), "", "", {}},
    // Readings out of the range (K = 1 for two-dimensional flow: a_wgt 0,
    // b_wgt 0.05, 5..500 ohm m; the log alone) or not numbers, and the summary.
    {"protocol_warnings", inverse("1 0.2\n0 0\n1 5 0 1\n0.0 0.05 5 500\n"),
     "4\n1 1 2 3 4 100.0\n2 1 2 3 4 1.0\n3 1 x 3 4 50\n-1 2 3 1 4 200.0\n", "", {}},
};

class RunSpine : public ::testing::TestWithParam<SpineCase> {};

TEST_P(RunSpine, TranscriptAsExpected) {
  const SpineCase& c = GetParam();
  Files inputs;
  for (const auto& [name, text] : Files{{"Q5.in", c.control}, {"protocol.dat", c.protocol}, {"mesh.dat", c.mesh}})
    if (!text.empty()) inputs.push_back({name, text});
  expect_run(std::string("e2e/expected/spine_") + c.name + ".txt", inputs, c.whole);
}

INSTANTIATE_TEST_SUITE_P(Cases, RunSpine, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Q5_THREADS: empty or 1 is the program of no variable, line for line; a
// count other than 1 is told after the date, on the console and then in the
// log, and the run is the one-thread run; any other value stops at once, the
// value shown as given but cut to 40 characters, control characters as '?'.
TEST(RunSpine, ThreadsVariable) {
  const Files inputs = {{"Q5.in", kJob}, {"protocol.dat", "1\n1 1 2 3 4\n"}};
  const RunResult unset = run_q5(inputs);
  for (const char* same : {"", "1"})
    EXPECT_EQ(transcript(run_q5_on_threads(inputs, same)), transcript(unset)) << "'" << same << "'";

  cpu_set_t set;
  ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
  for (const std::string& count : {std::string("3"), std::string("0")}) {
    const RunResult run = run_q5_on_threads(inputs, count);
    const std::string shown = count == "0" ? std::to_string(CPU_COUNT(&set)) : count;
    const std::string line = " >> T h r e a d s : " + std::string(3 - shown.size(), ' ') + shown;
    for (const Lines& lines : {run.lines, split_lines(read_file(run.dir + "/Q5.out"))}) {
      const auto date = std::find_if(lines.begin(), lines.end(),
                                     [](const std::string& l) { return l.rfind(" >> D a t e", 0) == 0; });
      ASSERT_TRUE(date != lines.end() && date + 1 != lines.end());
      EXPECT_EQ(date[1], line) << count;
    }
    if (CPU_COUNT(&set) > 1 || count != "0") expect_same_runs(unset, run, "Q5_THREADS=" + count);
  }

  // The whole transcript of one refused value; then the message of others.
  expect_matches_file("e2e/expected/spine_threads_invalid.txt", transcript(run_q5_on_threads(inputs, "two")));
  const std::string words = " FATAL: Q5_THREADS must be 0 (every core) or a whole number from 1 to 256, not ";
  const std::pair<std::string, std::string> refused[] = {
      {"-1", "-1"}, {"257", "257"}, {"1.5", "1.5"}, {" 2", " 2"}, {"2 ", "2 "}, {"+2", "+2"}, {"0x10", "0x10"},
      {"\t3", "?3"}, {std::string(45, '7'), std::string(40, '7')}};
  for (const auto& [value, shown] : refused) {
    const RunResult run = run_q5_on_threads(inputs, value);
    const Lines log = split_lines(read_file(run.dir + "/Q5.out"));
    ASSERT_GE(run.lines.size(), 2u) << value;
    EXPECT_EQ(run.lines.end()[-2], words + "\"" + shown + "\"") << value;
    EXPECT_EQ(run.lines.back(), "FATAL error") << value;
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), words + "\"" + shown + "\"") << value;
    EXPECT_EQ(run.exit_status, 0) << value;
  }
}

}  // namespace

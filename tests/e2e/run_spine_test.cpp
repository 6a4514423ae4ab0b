// End-to-end runs of q5 on small control files: banners, validations and
// their streams, stops, text-layer failures and end of data.
#include <gtest/gtest.h>

#include "e2e_util.h"

namespace {

const char* kFatal = "FATAL error";

// A 5 x 3 grid (x 0..4 m, depths 0, 1, 2 m), 8 elements of 100 ohm m, no
// polyline and four surface electrodes with ids 1..4.
const std::string kGrid = "5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n1\n1 8 100.0\n";
const std::string kElectrodes = "0\n4\n1 1 1\n2 2 1\n3 3 1\n4 4 1\n";

std::string forward_control(const std::string& record2) {
  return "Spine test\n" + record2 + "\n" + kGrid + kElectrodes;
}

// Inverse job on the same grid with patch sizes 1, 1 and the given
// inverse settings.
std::string inverse_control(const std::string& settings) {
  return "Inverse spine\n1 4 2.0 0 0\n" + kGrid + "1 1\n" + settings + kElectrodes;
}

Lines tail(const Lines& v, size_t n) { return slice(v, v.size() < n ? 0 : v.size() - n, n); }

}  // namespace

TEST(RunSpine, ForwardJobWithEmptyProtocolEndsAtEndOfData) {
  std::string dir = make_run_dir();
  write_file(dir, "Q5.in", forward_control("0 4 2.0 0 0"));
  RunResult r = run_q5_in(dir);
  EXPECT_EQ(r.exit_status, 0);
  Lines head = opening_lines();
  head.push_back(" >> " + std::string("Spine test").append(70, ' '));
  head.push_back(" >> F o r w a r d   S o l u t i o n   S e l e c t e d <<");
  Lines console = head;
  for (const char* l : {" >> Determining storage needed for finite element conductance matrix",
                        " >> Generating index array for finite element conductance matrix",
                        "", " End of data:  Terminating", "All ok"})
    console.push_back(l);
  EXPECT_EQ(r.console, console);

  // The log: no pattern lines, then the timing report with no calls.
  Lines log = read_lines(dir, "Q5.out");
  for (const char* l : {"", " End of data:  Terminating", "", "",
                        "                     Timing Summary",
                        "                     =============="})
    head.push_back(l);
  EXPECT_EQ(slice(log, 0, head.size()), head);
  ASSERT_EQ(log.size(), head.size() + 19);
  EXPECT_EQ(log[head.size()], "     Total time taken:                                 0. s");
  EXPECT_EQ(log[head.size() + 3], "     Percent time taken forming Jacobian:             0.0 %");
  EXPECT_EQ(log[head.size() + 5], "     Percent time taken calculating res. matrix:      0.0 %");
  EXPECT_EQ(log[head.size() + 7], "                     Timing Details");
  for (size_t i = log.size() - 10; i < log.size(); i += 2) {
    EXPECT_EQ(log[i].substr(log[i].size() - 6), "     0") << log[i];
    EXPECT_EQ(log[i + 1], "     Average time taken in call:                      0.0 s");
  }
  // The electrode files are written before any measurement is read.
  Lines electrodes = read_lines(dir, "electrodes.dat");
  ASSERT_EQ(electrodes.size(), 4u);
  EXPECT_EQ(electrodes[3], "       3.000       0.000       0.000");
  EXPECT_EQ(read_lines(dir, "electrodes.vtk")[4], "POINTS       4 double");
  EXPECT_TRUE(file_exists(dir, "forward_model.vtk"));
  EXPECT_FALSE(file_exists(dir, "Q5_forward.dat"));
}

TEST(RunSpine, StopsWriteTheirWordsOnTheirStreams) {
  struct Case {
    std::string control, protocol;
    Lines console_tail;  // last console lines
    std::string log_last;  // last line of Q5.out
  };
  const std::string settings_ok = "0 0\n1 5 0 1\n0 0 1 10\n";
  const Case cases[] = {
      // job_type: console first, then the log.
      {forward_control("2 4 2.0 0 0"), "",
       {" FATAL: Incorrect job type specified - must be 0/1", kFatal},
       " FATAL: Incorrect job type specified - must be 0/1"},
      // mesh_type, Singular_type, res_calc: the log alone.
      {forward_control("0 6 2.0 0 0"), "",
       {" >> F o r w a r d   S o l u t i o n   S e l e c t e d <<", kFatal},
       " FATAL: Incorrect mesh type specified - must be 3/4/5"},
      {forward_control("0 4 2.0 2 0"), "",
       {" >> F o r w a r d   S o l u t i o n   S e l e c t e d <<", kFatal},
       " FATAL: Singular_type must be 0/1"},
      {forward_control("0 4 2.0 0 4"), "",
       {" >> F o r w a r d   S o l u t i o n   S e l e c t e d <<", kFatal},
       " FATAL: res_calc must be 0/1/2/3"},
      // flux_type is looked at after the pattern is built.
      {forward_control("0 4 2.5 0 0"), "",
       {" >> Generating index array for finite element conductance matrix", kFatal},
       " FATAL: Incorrect flux type specified - must be 2 or 3"},
      {inverse_control("5 0.2\n" + settings_ok), "",
       {" FATAL: Incorrect inverse type - must be 0/1/2/3/4", kFatal},
       " FATAL: Incorrect inverse type - must be 0/1/2/3/4"},
      {inverse_control("1 0.2\n7 0\n1 5 0 1\n0 0 1 10\n"), "",
       {" FATAL: Incorrect data_type type - must be 0/1", kFatal},
       " FATAL: Incorrect data_type type - must be 0/1"},
      {inverse_control("1 0.2\n0 3\n1 5 0 1\n0 0 1 10\n"), "",
       {" FATAL: Incorrect reg_mode type - must be 0/1/2", kFatal},
       " FATAL: Incorrect reg_mode type - must be 0/1/2"},
      {inverse_control("1 0.2\n0 0\n1 5 0 0.0\n0 0 1 10\n"), "",
       {" FATAL: alpha_aniso is  0.000E+00 it must be > 0", kFatal},
       " FATAL: alpha_aniso is  0.000E+00 it must be > 0"},
      {inverse_control("1 0.2\n0 0\n1 5 0 1\n0 0 10 10\n"), "",
       {" FATAL: rho_max is < rho_min ", kFatal}, " FATAL: rho_max is < rho_min "},
      // Electrode checks of a block hold in a forward job too.
      {forward_control("0 4 2.0 0 0"), "2\n1 1 2 3 4\n2 1 2 3 3\n",
       {" FATAL: duplication of electrode numbers in quadropole     2", kFatal},
       " FATAL: duplication of electrode numbers in quadropole     2"},
      {forward_control("0 4 2.0 0 0"), "1\n7 1 2 3 9\n",
       {" FATAL: An electrode in measurement     1 is not valid ", kFatal},
       " FATAL: An electrode in measurement     1 is not valid "},
      // A count of 0 is the end of the data; later blocks are not read.
      {forward_control("0 4 2.0 0 0"), "0\n1 1 2 3 4\n",
       {" End of data:  Terminating", "All ok"}, "     Average time taken in call:                      0.0 s"},
      // Start model, patching, polyline and electrode checks of the mesh records.
      {"R\n0 4 2.0 0 0\n5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n1\n1 9 100.0\n" + kElectrodes, "",
       {" FATAL: defining regions - elem2 must be in range 1:number of elements ", kFatal},
       " FATAL: defining regions - elem2 must be in range 1:number of elements "},
      {"R\n0 4 2.0 0 0\n5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n1\n1 8 0.0\n" + kElectrodes, "",
       {" FATAL: defining regions - resistivity must be > 0", kFatal},
       " FATAL: defining regions - resistivity must be > 0"},
      {"P\n1 4 2.0 0 0\n" + kGrid + "3 1\n", "",
       {" Error: Patch size of     3 not valid in X", kFatal},
       " Error: Patch size of     3 not valid in X"},
      {"Open\n0 4 2.0 0 0\n" + kGrid + "2\n0 0\n1 1\n", "",
       {" FATAL:  Error in polyline - the first and last pair must be identical", kFatal},
       " FATAL:  Error in polyline - the first and last pair must be identical"},
      {"Col\n0 4 2.0 0 0\n" + kGrid + "0\n2\n1 1 1\n7 6 1\n", "",
       {" >> Generating index array for finite element conductance matrix", kFatal},
       " FATAL:  column number too large for electrode    2"},
      // Counts too large for the machine stop with words, not a crash.
      {"Huge grid\n0 4 2.0 0 0\n40000 40000\n", "",
       {" FATAL: not enough memory for the mesh", kFatal},
       " FATAL: not enough memory for the mesh"},
      {forward_control("0 4 2.0 0 0"), "2000000000\n",
       {" FATAL: not enough memory for the measurements of this block", kFatal},
       " FATAL: not enough memory for the measurements of this block"},
  };
  for (const Case& c : cases) {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", c.control);
    write_file(dir, "protocol.dat", c.protocol);
    RunResult r = run_q5_in(dir);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(tail(r.console, c.console_tail.size()), c.console_tail) << c.log_last;
    EXPECT_EQ(read_lines(dir, "Q5.out").back(), c.log_last);
  }
}

TEST(RunSpine, TextLayerFailuresEndWithoutStopWord) {
  struct Case {
    std::string control, mesh, words;
  } cases[] = {
      {"Short\n0 4 2.0 0 0\n5 3\n0 1 2\n", "", "end-of-file during read, unit 12, file %/Q5.in"},
      {"", "", "end-of-file during read, unit 12, file %/Q5.in"},  // absent: created empty
      {forward_control("0 4.0 2.0 0 0"), "", "list-directed I/O syntax error, unit 12, file %/Q5.in"},
      {"Tri\n0 3 2.0 0 0\n1.0\n", "", "end-of-file during read, unit 9, file %/mesh.dat"},
  };
  for (const Case& c : cases) {
    std::string dir = make_run_dir();
    if (!c.control.empty()) write_file(dir, "Q5.in", c.control);
    RunResult r = run_q5_in(dir);
    EXPECT_NE(r.exit_status, 0);
    std::string words = c.words;
    words.replace(words.find('%'), 1, dir);
    EXPECT_EQ(r.console.back(), words);
    EXPECT_EQ(find_line(r.console, kFatal), -1);
    EXPECT_TRUE(file_exists(dir, "Q5.in"));
  }
  // A forward job's measurement lines are plain reads.
  std::string dir = make_run_dir();
  write_file(dir, "Q5.in", forward_control("0 4 2.0 0 0"));
  write_file(dir, "protocol.dat", "1\n1 1 2 x 4\n");
  RunResult r = run_q5_in(dir);
  EXPECT_EQ(r.console.back(), "list-directed I/O syntax error, unit 13, file " + dir + "/protocol.dat");
}

TEST(RunSpine, InverseSettingsBannersInOrder) {
  struct Case {
    std::string settings;
    Lines console, log;
  } cases[] = {
      {"1 0.2\n1 0\n1.5 5 0 1.0\n0 0 1 1000\n",
       {" >> R e g u l a r i s e d   T y p e <<", " >>   L i n e a r    F i l t e r    <<",
        " >> L o g - D a t a   I n v e r s i o n <<",
        " >> N o r m a l   R e g u l a r i s a t i o n <<",
        " WARNING: it is recommended that the tolerance is set to 1",
        " >> D a t a   w e i g h t s   w i l l   n o t   b e   m o d i f i e d <<",
        " >> D a t a   w e i g h t   t o   b e   r e a d   f r o m   d a t a   f i l e <<"},
       {}},
      // Blocked filter: other words on the console; reg_mode 2 forces true data.
      {"4 0.2\n1 2\n1.0 5 1 1.0\n0.01 0.02 1 1000\n1 1 1 1\n1 1 1 1\n",
       {" >>       R e g u l a r i s e d   T y p e      <<",
        " >> B l o c k e d   L i n e a r    F i l t e r <<",
        " >> T r u e - D a t a   I n v e r s i o n <<",
        " >> D i f f e r e n c e    R e g u l a r i s a t i o n <<",
        " >> D a t a   w e i g h t s   w i l l   b e  m o d i f i e d <<"},
       {" >> R e g u l a r i s e d   T y p e <<", " >>   L i n e a r    F i l t e r    <<",
        " >> T r u e - D a t a   I n v e r s i o n <<"}},
      // Qualitative: no range or anisotropy checks, no data banners.
      {"3 0.0\n1\n100 10\n",
       {" >> Q u a l i t a t i v e   T y p e <<", "", "", " Processing dataset   1"}, {}},
  };
  for (const Case& c : cases) {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", inverse_control(c.settings));
    RunResult r = run_q5_in(dir);
    int at = find_line(r.console, c.console[0]);
    ASSERT_NE(at, -1) << c.console[0];
    EXPECT_EQ(slice(r.console, at, c.console.size()), c.console);
    Lines log = read_lines(dir, "Q5.out");
    Lines logged = c.log.empty() ? c.console : c.log;
    int lat = find_line(log, logged[0]);
    ASSERT_NE(lat, -1);
    EXPECT_EQ(slice(log, lat, logged.size()), logged);
    // An empty protocol ends the loop at its first pass.
    Lines end = {"", "", " Processing dataset   1", "", "", " End of data:  Terminating",
                 "All ok"};
    EXPECT_EQ(tail(r.console, end.size()), end);
  }
}

TEST(RunSpine, ProtocolWarningsAndSummary) {
  // a_wgt 0, b_wgt 0.05, rho 5..500 with K = 1 (two-dimensional flow).
  std::string dir = make_run_dir();
  write_file(dir, "Q5.in", inverse_control("1 0.2\n0 0\n1 5 0 1\n0.0 0.05 5 500\n"));
  write_file(dir, "protocol.dat",
             "4\n1 1 2 3 4 100.0\n2 1 2 3 4 1.0\n3 1 x 3 4 50\n-1 2 3 1 4 200.0\n");
  RunResult r = run_q5_in(dir);
  Lines log = read_lines(dir, "Q5.out");
  const std::string out_of_range =
      " WARNING:  Rejecting reading    2 P+   1 P-   2 C+   3 C-   4 App Res         1.00";
  EXPECT_NE(find_line(log, out_of_range), -1);
  EXPECT_EQ(find_line(r.console, out_of_range), -1);  // the log alone
  EXPECT_NE(find_line(log, " WARNING:  Rejecting reading    3"), -1);
  Lines summary = {"", " Measurements read:     2     Measurements rejected:     2",
                   "   Geometric mean of apparent resistivities:  0.14142E+03", "",
                   " >> Total Memory required is:          0.000 Gb"};
  int at = find_line(r.console, " WARNING:  Rejecting reading    3");
  ASSERT_NE(at, -1);
  EXPECT_EQ(slice(r.console, at + 1, summary.size()), summary);
}

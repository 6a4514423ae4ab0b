// End-to-end runs of q5 on small control files: banners, validations and
// their streams, stops, text-layer failures and end of data.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e_util.h"

namespace {

using Lines = std::vector<std::string>;

const char* kFatal = "FATAL error";

// A 5 x 3 grid (x 0..4 m, depths 0, 1, 2 m), 8 elements of 100 ohm m.
std::string grid_records() {
  return "5 3\n0 1 2 3 4\n0 0 0 0 0\n0 1 2\n1\n1 8 100.0\n";
}

// Four surface electrodes on columns 1..4, ids 1..4.
std::string electrode_records() {
  return "0\n4\n1 1 1\n2 2 1\n3 3 1\n4 4 1\n";
}

std::string forward_control(const std::string& record2) {
  return "Spine test\n" + record2 + "\n" + grid_records() + electrode_records();
}

std::string inverse_settings(const std::string& b, const std::string& c,
                             const std::string& d, const std::string& e) {
  return b + "\n" + c + "\n" + d + "\n" + e + "\n";
}

std::string inverse_control(const std::string& settings) {
  return "Inverse spine\n1 4 2.0 0 0\n" + grid_records() + "1 1\n" + settings +
         electrode_records();
}

Lines log_of(const std::string& dir) { return read_lines(dir, "Q5.out"); }

}  // namespace

TEST(RunSpine, ForwardJobWithEmptyProtocolEndsAtEndOfData) {
  std::string dir = make_run_dir();
  write_file(dir, "Q5.in", forward_control("0 4 2.0 0 0"));
  RunResult r = run_q5_in(dir);
  EXPECT_EQ(r.exit_status, 0);

  Lines expected = opening_lines();
  expected.push_back(title_line("Spine test"));
  expected.push_back(" >> F o r w a r d   S o l u t i o n   S e l e c t e d <<");
  expected.push_back(" >> Determining storage needed for finite element conductance matrix");
  expected.push_back(" >> Generating index array for finite element conductance matrix");
  expected.push_back("");
  expected.push_back(" End of data:  Terminating");
  expected.push_back("All ok");
  EXPECT_EQ(r.console, expected);

  Lines log = log_of(dir);
  Lines log_head = opening_lines();
  log_head.push_back(title_line("Spine test"));
  log_head.push_back(" >> F o r w a r d   S o l u t i o n   S e l e c t e d <<");
  log_head.push_back("");
  log_head.push_back(" End of data:  Terminating");
  log_head.push_back("");
  log_head.push_back("");
  log_head.push_back("                     Timing Summary");
  log_head.push_back("                     ==============");
  EXPECT_EQ(slice(log, 0, log_head.size()), log_head);
  ASSERT_EQ(log.size(), log_head.size() + 19);
  // No solve ran: every count is 0 with an average of 0.0.
  Lines counts = {
      "     Number of calls to form element equations:         0",
      "     Average time taken in call:                      0.0 s",
      "     Number of calls to solve forward equations:        0",
      "     Average time taken in call:                      0.0 s",
      "     Number of calls to form Jacobian:                  0",
      "     Average time taken in call:                      0.0 s",
      "     Number of calls to solve inverse equations:        0",
      "     Average time taken in call:                      0.0 s",
      "     Number of calls to calculate res. matrix:          0",
      "     Average time taken in call:                      0.0 s"};
  EXPECT_EQ(slice(log, log.size() - 10, 10), counts);
  EXPECT_EQ(log[log.size() - 13], "");
  EXPECT_EQ(log[log.size() - 12], "                     Timing Details");
  EXPECT_EQ(log[log.size() - 14],
            "     Percent time taken calculating res. matrix:      0.0 %");
  EXPECT_EQ(log[log.size() - 16],
            "     Percent time taken forming Jacobian:             0.0 %");

  // The electrode files are written and closed before any measurement.
  Lines electrodes = read_lines(dir, "electrodes.dat");
  ASSERT_EQ(electrodes.size(), 4u);
  EXPECT_EQ(electrodes[0], "       0.000       0.000       0.000");
  EXPECT_EQ(electrodes[3], "       3.000       0.000       0.000");
  Lines vtk = read_lines(dir, "electrodes.vtk");
  ASSERT_EQ(vtk.size(), 9u);
  EXPECT_EQ(vtk[4], "POINTS       4 double");
  EXPECT_TRUE(file_exists(dir, "forward_model.dat"));
  EXPECT_TRUE(file_exists(dir, "forward_model.vtk"));
  EXPECT_FALSE(file_exists(dir, "Q5_forward.dat"));
}

TEST(RunSpine, ProtocolStartingWithZeroIsEndOfData) {
  std::string dir = make_run_dir();
  write_file(dir, "Q5.in", forward_control("0 4 2.0 0 0"));
  write_file(dir, "protocol.dat", "0\n1 1 2 3 4\n");
  RunResult r = run_q5_in(dir);
  ASSERT_GE(r.console.size(), 2u);
  EXPECT_EQ(r.console[r.console.size() - 2], " End of data:  Terminating");
  EXPECT_EQ(r.console.back(), "All ok");
  EXPECT_FALSE(file_exists(dir, "Q5_forward.dat"));
}

TEST(RunSpine, RecordTwoChecksUseTheirStreams) {
  // job_type: console first, then the log, and both show it.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", forward_control("2 4 2.0 0 0"));
    RunResult r = run_q5_in(dir);
    EXPECT_EQ(r.exit_status, 0);
    Lines tail = {" FATAL: Incorrect job type specified - must be 0/1", kFatal};
    EXPECT_EQ(slice(r.console, r.console.size() - 2, 2), tail);
    Lines log = log_of(dir);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), " FATAL: Incorrect job type specified - must be 0/1");
  }
  // mesh_type: the log alone; the console shows only the stop word.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", forward_control("0 6 2.0 0 0"));
    RunResult r = run_q5_in(dir);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.console.back(), kFatal);
    EXPECT_EQ(r.console[r.console.size() - 2],
              " >> F o r w a r d   S o l u t i o n   S e l e c t e d <<");
    EXPECT_EQ(log_of(dir).back(),
              " FATAL: Incorrect mesh type specified - must be 3/4/5");
  }
  // Singular_type and res_calc: after the mesh, before the pattern, log only.
  const char* records[] = {"0 4 2.0 2 0", "0 4 2.0 0 4"};
  const char* texts[] = {" FATAL: Singular_type must be 0/1",
                         " FATAL: res_calc must be 0/1/2/3"};
  for (int i = 0; i < 2; ++i) {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", forward_control(records[i]));
    RunResult r = run_q5_in(dir);
    EXPECT_EQ(r.console.back(), kFatal);
    EXPECT_EQ(find_line(r.console, texts[i]), -1);
    EXPECT_EQ(find_line(r.console, " >> Determining storage needed for finite element conductance matrix"), -1);
    EXPECT_EQ(log_of(dir).back(), texts[i]);
  }
  // flux_type is looked at long after it was read: the pattern lines come first.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", forward_control("0 4 2.5 0 0"));
    RunResult r = run_q5_in(dir);
    Lines tail = {" >> Generating index array for finite element conductance matrix",
                  kFatal};
    EXPECT_EQ(slice(r.console, r.console.size() - 2, 2), tail);
    EXPECT_EQ(log_of(dir).back(),
              " FATAL: Incorrect flux type specified - must be 2 or 3");
  }
}

TEST(RunSpine, RecordSpreadOverLinesWithCommentsReadsTheSame) {
  std::string dir = make_run_dir();
  write_file(dir, "Q5.in",
             "Spread\n0\n4\n2.0\n0\n0   job, mesh, flux, singular, res_calc\n" +
                 grid_records() + electrode_records());
  RunResult r = run_q5_in(dir);
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_EQ(r.console.back(), "All ok");
}

TEST(RunSpine, TextLayerFailuresEndWithoutStopWord) {
  // A control file cut short: end of file on channel 12, non-zero status.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", "Short\n0 4 2.0 0 0\n5 3\n0 1 2\n");
    RunResult r = run_q5_in(dir);
    EXPECT_NE(r.exit_status, 0);
    std::string want = "end-of-file during read, unit 12, file " + dir + "/Q5.in";
    EXPECT_NE(find_line(r.console, want), -1) << r.errors;
    EXPECT_EQ(find_line(r.console, kFatal), -1);
    EXPECT_EQ(find_line(r.console, "All ok"), -1);
  }
  // An absent Q5.in is created empty and fails at its first read.
  {
    std::string dir = make_run_dir();
    RunResult r = run_q5_in(dir);
    EXPECT_NE(r.exit_status, 0);
    EXPECT_NE(find_line(r.console, "end-of-file during read, unit 12, file " +
                                       dir + "/Q5.in"),
              -1);
    EXPECT_TRUE(file_exists(dir, "Q5.in"));
    EXPECT_TRUE(file_exists(dir, "protocol.dat"));
  }
  // An integer written as "3.0" is a syntax error of the list.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", forward_control("0 4.0 2.0 0 0"));
    RunResult r = run_q5_in(dir);
    EXPECT_NE(r.exit_status, 0);
    EXPECT_NE(find_line(r.console, "list-directed I/O syntax error, unit 12, file " +
                                       dir + "/Q5.in"),
              -1);
  }
  // A missing mesh.dat is created empty: end of file on channel 9.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", "Tri\n0 3 2.0 0 0\n1.0\n");
    RunResult r = run_q5_in(dir);
    EXPECT_NE(r.exit_status, 0);
    EXPECT_NE(find_line(r.console, "end-of-file during read, unit 9, file " +
                                       dir + "/mesh.dat"),
              -1);
  }
}

TEST(RunSpine, InverseSettingsBannersAndChecks) {
  // Regularised linear filter, log data, normal regularisation, tolerance
  // not 1, weights kept, errors from the file.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in",
               inverse_control(inverse_settings("1 0.2", "1 0", "1.5 5 0 1.0",
                                                "0 0 1 1000")));
    RunResult r = run_q5_in(dir);
    EXPECT_EQ(r.exit_status, 0);
    Lines banners = {
        " >> R e g u l a r i s e d   T y p e <<",
        " >>   L i n e a r    F i l t e r    <<",
        " >> L o g - D a t a   I n v e r s i o n <<",
        " >> N o r m a l   R e g u l a r i s a t i o n <<",
        " WARNING: it is recommended that the tolerance is set to 1",
        " >> D a t a   w e i g h t s   w i l l   n o t   b e   m o d i f i e d <<",
        " >> D a t a   w e i g h t   t o   b e   r e a d   f r o m   d a t a   f i l e <<"};
    int at = find_line(r.console, banners[0]);
    ASSERT_NE(at, -1);
    EXPECT_EQ(slice(r.console, at, banners.size()), banners);
    Lines log = log_of(dir);
    at = find_line(log, banners[0]);
    ASSERT_NE(at, -1);
    EXPECT_EQ(slice(log, at, banners.size()), banners);
    // End of data after the first "Processing dataset" record.
    Lines tail = {"", "", " Processing dataset   1", "", "",
                  " End of data:  Terminating", "All ok"};
    EXPECT_EQ(slice(r.console, r.console.size() - tail.size(), tail.size()), tail);
  }
  // Blocked linear filter: the console and the log show different words.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in",
               inverse_control(inverse_settings("4 0.2", "0 2", "1.0 5 1 1.0",
                                                "0.01 0.02 1 1000") +
                               "1 1 1 1\n1 1 1 1\n"));
    RunResult r = run_q5_in(dir);
    Lines console_banners = {
        " >>       R e g u l a r i s e d   T y p e      <<",
        " >> B l o c k e d   L i n e a r    F i l t e r <<",
        " >> T r u e - D a t a   I n v e r s i o n <<",
        " >> D i f f e r e n c e    R e g u l a r i s a t i o n <<",
        " >> D a t a   w e i g h t s   w i l l   b e  m o d i f i e d <<"};
    int at = find_line(r.console, console_banners[0]);
    ASSERT_NE(at, -1);
    EXPECT_EQ(slice(r.console, at, console_banners.size()), console_banners);
    Lines log = log_of(dir);
    at = find_line(log, " >> R e g u l a r i s e d   T y p e <<");
    ASSERT_NE(at, -1);
    EXPECT_EQ(log[at + 1], " >>   L i n e a r    F i l t e r    <<");
    EXPECT_EQ(log[at + 2], " >> T r u e - D a t a   I n v e r s i o n <<");
    EXPECT_EQ(find_line(log, " >> B l o c k e d   L i n e a r    F i l t e r <<"), -1);
    EXPECT_EQ(r.console.back(), "All ok");
  }
  struct Case {
    std::string settings;
    std::string text;
  };
  std::vector<Case> fatal_cases = {
      {inverse_settings("5 0.2", "0 0", "1 5 0 1", "0 0 1 10"),
       " FATAL: Incorrect inverse type - must be 0/1/2/3/4"},
      {inverse_settings("1 0.2", "7 0", "1 5 0 1", "0 0 1 10"),
       " FATAL: Incorrect data_type type - must be 0/1"},
      {inverse_settings("1 0.2", "0 3", "1 5 0 1", "0 0 1 10"),
       " FATAL: Incorrect reg_mode type - must be 0/1/2"},
      {inverse_settings("1 0.2", "0 0", "1 5 0 0.0", "0 0 1 10"),
       " FATAL: alpha_aniso is  0.000E+00 it must be > 0"},
      {inverse_settings("1 0.2", "0 0", "1 5 0 1", "0 0 10 10"),
       " FATAL: rho_max is < rho_min "},
  };
  for (const Case& c : fatal_cases) {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", inverse_control(c.settings));
    RunResult r = run_q5_in(dir);
    EXPECT_EQ(r.exit_status, 0);
    Lines tail = {c.text, kFatal};
    EXPECT_EQ(slice(r.console, r.console.size() - 2, 2), tail) << c.text;
    EXPECT_EQ(log_of(dir).back(), c.text);
  }
}

TEST(RunSpine, QualitativeRunSkipsRangeAndAnisotropyChecks) {
  std::string dir = make_run_dir();
  // rho_max below rho_min is not tested for the qualitative type.
  write_file(dir, "Q5.in", inverse_control("3 0.0\n1\n100 10\n"));
  RunResult r = run_q5_in(dir);
  EXPECT_EQ(r.exit_status, 0);
  EXPECT_NE(find_line(r.console, " >> Q u a l i t a t i v e   T y p e <<"), -1);
  EXPECT_EQ(find_line(r.console, " >> T r u e - D a t a   I n v e r s i o n <<"), -1);
  EXPECT_EQ(r.console.back(), "All ok");
}

TEST(RunSpine, ProtocolChecksAndSummaries) {
  std::string control = inverse_control(
      inverse_settings("1 0.2", "0 0", "1 5 0 1", "0.0 0.05 5 500"));
  // A reading outside rho_min..rho_max: long warning on the log alone; a
  // bad item: short warning on both; the summary counts kept lines.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", control);
    write_file(dir, "protocol.dat",
               "4\n1 1 2 3 4 100.0\n2 1 2 3 4 1.0\n3 1 x 3 4 50\n"
               "-1 2 3 1 4 200.0\n");
    RunResult r = run_q5_in(dir);
    Lines log = log_of(dir);
    EXPECT_NE(find_line(log, " WARNING:  Rejecting reading    2 P+   1 P-   2 C+   3 C-   4 App Res         1.00"), -1);
    EXPECT_EQ(find_line(r.console, " WARNING:  Rejecting reading    2 P+   1 P-   2 C+   3 C-   4 App Res         1.00"), -1);
    EXPECT_NE(find_line(log, " WARNING:  Rejecting reading    3"), -1);
    EXPECT_NE(find_line(r.console, " WARNING:  Rejecting reading    3"), -1);
    Lines summary = {"", " Measurements read:     2     Measurements rejected:     2",
                     "   Geometric mean of apparent resistivities:  0.14142E+03"};
    int at = find_line(r.console, summary[1]);
    ASSERT_NE(at, -1);
    EXPECT_EQ(slice(r.console, at - 1, 3), summary);
  }
  // Two equal electrode numbers stop the run, in a forward job too.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", forward_control("0 4 2.0 0 0"));
    write_file(dir, "protocol.dat", "2\n1 1 2 3 4\n2 1 2 3 3\n");
    RunResult r = run_q5_in(dir);
    Lines tail = {" FATAL: duplication of electrode numbers in quadropole     2",
                  kFatal};
    EXPECT_EQ(slice(r.console, r.console.size() - 2, 2), tail);
    EXPECT_EQ(log_of(dir).back(), tail[0]);
  }
  // An electrode number that is not in the table.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", forward_control("0 4 2.0 0 0"));
    write_file(dir, "protocol.dat", "1\n7 1 2 3 9\n");
    RunResult r = run_q5_in(dir);
    Lines tail = {" FATAL: An electrode in measurement     1 is not valid ", kFatal};
    EXPECT_EQ(slice(r.console, r.console.size() - 2, 2), tail);
  }
  // A forward job's bad item is a failure of the text layer.
  {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", forward_control("0 4 2.0 0 0"));
    write_file(dir, "protocol.dat", "1\n1 1 2 x 4\n");
    RunResult r = run_q5_in(dir);
    EXPECT_NE(r.exit_status, 0);
    EXPECT_NE(find_line(r.console, "list-directed I/O syntax error, unit 13, file " +
                                       dir + "/protocol.dat"),
              -1);
  }
}

TEST(RunSpine, CountsTooLargeForTheMachineStopWithAMessage) {
  struct Case {
    std::string control, protocol, text;
  } cases[] = {
      {"Huge grid\n0 4 2.0 0 0\n40000 40000\n", "",
       " FATAL: not enough memory for the mesh"},
      {forward_control("0 4 2.0 0 0"), "2000000000\n",
       " FATAL: not enough memory for the measurements of this block"},
  };
  for (const Case& c : cases) {
    std::string dir = make_run_dir();
    write_file(dir, "Q5.in", c.control);
    write_file(dir, "protocol.dat", c.protocol);
    RunResult r = run_q5_in(dir);
    EXPECT_EQ(r.exit_status, 0);
    Lines tail = {c.text, kFatal};
    EXPECT_EQ(slice(r.console, r.console.size() - 2, 2), tail);
    EXPECT_EQ(log_of(dir).back(), c.text);
  }
}

// Forward-job benchmark: builds a survey-sized and a large run directory,
// runs the driver's steps of a forward job in process with the solver's
// stage log on, and reports set-up, per-wavenumber solver times, peak memory
// and the share of the job spent inside PARDISO. Not part of the tests.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "bench.h"
#include "data/measurement_set.h"
#include "forward/forward.h"
#include "forward/forward_output.h"
#include "mesh/mesh_model.h"
#include "run/driver.h"
#include "textio/textio.h"

double bench_seconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

long peak_rss_kb() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

namespace {

struct BenchCase {
  const char* name;
  int electrodes;     // at 1 m spacing
  int cells_per_m;    // cells per electrode spacing near the line
  int rows;           // grid rows
};

// The polyline round the survey area, so that the mask has work to do.
const double polyline_y[5] = {1, 1, -40, -40, 1};
std::vector<double> polyline_x(const BenchCase& c) {
  const double e = c.electrodes + 20;
  return {-20, e, e, -20, -20};
}

// Column positions: fine cells under the line, growing by 1.3 to about
// 300 m on either side; rows: fine near the surface, growing to ~300 m.
std::vector<double> columns(const BenchCase& c) {
  std::vector<double> left, xs;
  double h = 1.0 / c.cells_per_m, x = 0.0;
  while (x > -300.0) {
    h *= 1.3;
    x -= h;
    left.push_back(x);
  }
  for (size_t i = left.size(); i-- > 0;) xs.push_back(left[i]);
  int fine = (c.electrodes - 1) * c.cells_per_m;
  for (int i = 0; i <= fine; ++i) xs.push_back((double)i / c.cells_per_m);
  h = 1.0 / c.cells_per_m;
  x = c.electrodes - 1;
  while (x < c.electrodes - 1 + 300.0) {
    h *= 1.3;
    x += h;
    xs.push_back(x);
  }
  return xs;
}

std::vector<double> rows(const BenchCase& c) {
  // Geometric growth g chosen by bisection so that `rows` reach ~300 m.
  double lo = 1.0, hi = 2.0;
  for (int it = 0; it < 60; ++it) {
    double g = 0.5 * (lo + hi), y = 0.0, h = 0.5 / c.cells_per_m;
    for (int j = 1; j < c.rows; ++j) {
      y += h;
      h *= g;
    }
    (y > 300.0 ? hi : lo) = g;
  }
  std::vector<double> ys;
  double y = 0.0, h = 0.5 / c.cells_per_m;
  for (int j = 0; j < c.rows; ++j) {
    ys.push_back(y);
    y += h;
    h *= lo;
  }
  return ys;
}

void write_case(const BenchCase& c, int* first_column, int* num_x) {
  std::vector<double> xs = columns(c), ys = rows(c);
  *num_x = (int)xs.size();
  int first = 0;
  while (xs[first] < 0.0) ++first;
  *first_column = first + 1;
  FILE* f = std::fopen("Q5.in", "w");
  std::fprintf(f, "%s\n0 4 3.0 1 0\n%d %d\n", c.name, *num_x, c.rows);
  for (double x : xs) std::fprintf(f, "%.6f\n", x);
  for (size_t i = 0; i < xs.size(); ++i) std::fprintf(f, "0\n");
  for (double y : ys) std::fprintf(f, "%.6f\n", y);
  long long cells = (long long)(*num_x - 1) * (c.rows - 1);
  std::fprintf(f, "2\n1 %lld 100.0\n%lld %lld 20.0\n", cells, cells / 3,
               cells / 3 + c.rows * 20);
  // A polyline round the survey area, so that the mask has work to do.
  std::fprintf(f, "5\n");
  for (int k = 0; k < 5; ++k) std::fprintf(f, "%g %g\n", polyline_x(c)[k], polyline_y[k]);
  std::fprintf(f, "%d\n", c.electrodes);
  for (int k = 1; k <= c.electrodes; ++k)
    std::fprintf(f, "%d %d 1\n", k, *first_column + (k - 1) * c.cells_per_m);
  std::fclose(f);

  std::vector<std::string> lines;
  char buf[96];
  for (int n = 1; n <= 6; ++n)
    for (int a = 1; a + n + 2 <= c.electrodes; ++a) {
      std::snprintf(buf, sizeof buf, "%d %d %d %d", a + n + 1, a + n + 2, a, a + 1);
      lines.push_back(buf);
    }
  for (int s = 1; s <= 15; ++s)
    for (int a = 1; a + 3 * s <= c.electrodes; ++a) {
      std::snprintf(buf, sizeof buf, "%d %d %d %d", a + s, a + 2 * s, a, a + 3 * s);
      lines.push_back(buf);
    }
  f = std::fopen("protocol.dat", "w");
  std::fprintf(f, "%zu\n", lines.size());
  for (size_t i = 0; i < lines.size(); ++i)
    std::fprintf(f, "%zu %s\n", i + 1, lines[i].c_str());
  std::fclose(f);
}

void run_case(const BenchCase& c) {
  std::string dir = "bench-" + std::string(c.name);
  mkdir(dir.c_str(), 0755);
  if (chdir(dir.c_str()) != 0) return;
  int first_column = 0, num_x = 0;
  write_case(c, &first_column, &num_x);

  double t_start = bench_seconds();
  start_run();
  static RunState s;
  s = RunState{};
  double t0 = bench_seconds();
  read_control_and_build(&s);
  double t_build = bench_seconds() - t0;
  const MeshModel& mesh = s.mesh;
  const int npe = s.ctx.mesh_type;

  // Stages of the reading step timed once more on their own, on its mesh.
  double t_pattern = 0.0, t_mask = 0.0;
  {
    MatrixPattern pattern;
    ForwardWork work;
    t0 = bench_seconds();
    build_matrix_pattern(mesh, npe, &pattern, &work);
    t_pattern = bench_seconds() - t0;
    OutputMask mask;
    const std::vector<double> px = polyline_x(c);
    t0 = bench_seconds();
    polyline_mask(mesh, npe, 5, px.data(), polyline_y, &mask);
    t_mask = bench_seconds() - t0;
  }
  // The search of a triangle mesh (every node against every electrode) is
  // timed on the same nodes; the grid then gets its own pinned node back.
  t0 = bench_seconds();
  choose_pinned_node(3, s.table, &s.mesh);
  double t_pin_search = bench_seconds() - t0;
  t0 = bench_seconds();
  choose_pinned_node(npe, s.table, &s.mesh);
  double t_pin = bench_seconds() - t0;

  t0 = bench_seconds();
  write_forward_model(s);
  double t_model = bench_seconds() - t0;

  const int head = read_block_head();
  MeasurementSet ms;
  read_block(s, head, &ms);
  std::vector<double> resistance(ms.num_measurements);
  double wavenumbers[MAX_WAVENUMBERS], weights[MAX_WAVENUMBERS];
  const Quadrature q = choose_wavenumbers(&s, ms, wavenumbers, weights);

  // The stages of thread 0's wavenumbers (all of them on one thread).
  static SolverStageLog stage_log;
  stage_log.enabled = true;
  stage_log.count = 0;
  s.team.work[0].stage_log = &stage_log;
  t0 = bench_seconds();
  const int failed = forward_solve(forward_mesh(s), ms, s.log_conductivity.data(),
                                   q, &s.team, resistance.data());
  double t_forward = bench_seconds() - t0;
  s.team.work[0].stage_log = nullptr;
  t0 = bench_seconds();
  write_forward_results(mesh, s.table, ms, resistance.data(), s.ctx.flux_type);
  double t_results = bench_seconds() - t0;
  // The job's own time, without the stages timed a second time.
  double t_total = bench_seconds() - t_start - (t_pattern + t_mask);
  tio_close_all();

  std::printf("\n== %s: %d nodes, %d elements, %d stored entries, %d electrodes, "
              "%d readings, %d wavenumbers%s\n",
              c.name, mesh.num_nodes, mesh.num_elements, s.pattern.num_entries,
              s.table.num_electrodes, ms.num_measurements, s.ctx.num_wavenumbers,
              failed ? " (FAILED)" : "");
  std::printf("set-up: reading and building %.3f s; alone: pattern %.3f s, mask %.3f s, "
              "pinned node %.3f s (search as on mesh.dat %.3f s); model files %.3f s\n",
              t_build, t_pattern, t_mask, t_pin, t_pin_search, t_model);
  std::printf("%3s %10s %10s %10s %10s %12s %12s %8s\n", "j", "k (1/m)",
              "assembly", "reorder", "factor", "solve/elec", "rhs/elec", "solves");
  double in_pardiso = 0.0;
  const int T = static_cast<int>(s.team.work.size());
  for (int j = 0; j < stage_log.count; ++j) {
    const SolverStageRecord& r = stage_log.records[j];
    int n = r.solves > 0 ? r.solves : 1;
    std::printf("%3d %10.4g %9.1fms %9.1fms %9.1fms %10.2fms %10.2fms %8d\n", T * j + 1,
                wavenumbers[T * j], 1e3 * r.assembly, 1e3 * r.reordering,
                1e3 * r.factorisation, 1e3 * r.solve / n,
                1e3 * r.right_hand_side / n, r.solves);
    in_pardiso += r.reordering + r.factorisation + r.solve + r.release;
  }
  double setup = t_pattern + t_mask + t_pin;
  std::printf("forward_solve %.2f s; Q5_forward.dat %.3f s; whole job %.2f s\n",
              t_forward, t_results, t_total);
  std::printf("inside PARDISO: %.2f s = %.1f %% of the job; set-up (pattern, mask, "
              "pinned node) %.1f %% of the job\n",
              in_pardiso, 100.0 * in_pardiso / t_total, 100.0 * setup / t_total);
  std::printf("peak resident memory so far: %.1f MB\n", peak_rss_kb() / 1024.0);
  std::fflush(stdout);
  if (chdir("..") != 0) return;
}

}  // namespace

int main(int argc, char** argv) {
  const BenchCase cases[] = {{"survey", 48, 4, 90}, {"large", 96, 8, 250}};
  std::string only = argc > 1 ? argv[1] : "";
  std::string top = "bench-runs";
  mkdir(top.c_str(), 0755);
  if (chdir(top.c_str()) != 0) return 1;
  for (const BenchCase& c : cases)
    if (only.empty() || only == c.name) run_case(c);
  if (only.empty() || only == "inverse") run_inverse_bench();
  return 0;
}

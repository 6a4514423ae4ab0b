// PARDISO adapter: the one place that calls the direct sparse solver. Solves
// the system of one wavenumber for one source node, with the right-hand side
// of a point source or of the secondary potential, and reports its errors.
#include <mkl_pardiso.h>

#include <cmath>
#include <cstddef>

#include <ctime>
#include <mutex>

#include "forward/forward_kernels.h"
#include "mesh/mesh_model.h"
#include "run/maintainer.h"
#include "run/timers.h"
#include "textio/textio.h"

namespace {

// The solver's handle and control words live in the work of the solution
// they serve; the handle is zeroed before each reordering and otherwise
// left to the library.
const int max_factors = 1;     // maxfct
const int matrix_number = 1;   // mnum
const int matrix_type = -2;    // real symmetric indefinite
const int num_rhs = 1;         // nrhs
const int message_level = 0;   // msglvl

// Held around every reordering (phase 11).
std::mutex reordering_lock;

// Seconds on a monotonic clock, for the stage log only.
double stage_clock() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

// The record of the present wavenumber, or null when the log is off.
SolverStageRecord* stage_record(SolverStageLog* kept, bool new_wavenumber) {
  if (kept == nullptr || !kept->enabled) return nullptr;
  SolverStageLog& log = *kept;
  if (new_wavenumber && log.count < MAX_STAGE_RECORDS) {
    log.records[log.count] = SolverStageRecord{0, 0, 0, 0, 0, 0, 0};
    ++log.count;
  }
  return log.count > 0 ? &log.records[log.count - 1] : nullptr;
}

// Control words of the published interface, 1-based numbers as documented.
void build_control(int* pardiso_control) {
  for (int t = 0; t < 64; ++t) pardiso_control[t] = 0;
  pardiso_control[0] = 1;    // 1: the values given here count
  pardiso_control[1] = 2;    // 2: nested dissection ordering
  pardiso_control[6] = 6;    // 7: an output of the library, set all the same
  pardiso_control[7] = 9;    // 8: iterative refinement steps (2 at each solve)
  pardiso_control[9] = 13;   // 10: pivot perturbation 1e-13
  pardiso_control[10] = 1;   // 11: scaling
  pardiso_control[17] = -1;  // 18: report non-zeros of the factors
  pardiso_control[59] = 1;   // 60: in core if it fits, else out of core
}

// One solver call of the given phase on the assembled upper triangle.
int call_pardiso(int phase, int n, const MatrixPattern& pattern,
                 ForwardWork* work, int* perm, double* b, double* x) {
  int error = 0;
  pardiso(work->solver_handle, &max_factors, &matrix_number, &matrix_type,
          &phase, &n, work->matrix_values.data(),
          pattern.matrix_row_start.data(), pattern.matrix_columns.data(), perm,
          &num_rhs, work->solver_control, &message_level, b, x, &error);
  return error;
}


// Right-hand side of the secondary problem A(s) v_s = -(A(s) - A(sigma_0)) v_p,
// element by element with the unpenalised element matrices of wavenumber k.
//   work->primary_potential  in: N doubles, v_p of the present source
//   work->right_hand_side    in/out: N doubles, zero on entry
//   work->element_matrices   in/out: the store of wavenumber k
void secondary_right_hand_side(const MeshModel& mesh, int p,
                               const double* log_conductivity, double k,
                               double sigma_0, ForwardWork* work) {
  const std::size_t pp = static_cast<std::size_t>(p) * p;
  const double* store = element_matrices(mesh, p, k, work);
  const double* primary_potential = work->primary_potential.data();
  double* right_hand_side = work->right_hand_side.data();
  const int* en = mesh.element_nodes.data();
  for (int e = 0; e < mesh.num_elements; ++e) {
    const double s = std::exp(log_conductivity[e]);
    const double* a = store + pp * e;
    const int* nodes = en + 4 * e;
    const double contrast = s - sigma_0;
    for (int i = 0; i < p; ++i) {
      double sum = 0.0;
      for (int j = 0; j < p; ++j) {
        sum += a[i * p + j] * contrast * primary_potential[nodes[j] - 1];
      }
      right_hand_side[nodes[i] - 1] -= sum;
    }
  }
}

// Phases 11 and 22 on a fresh handle and permutation, with the control words
// built anew; a failure is reported with its stage record. Returns PARDISO's
// error value.
int reorder_and_factorise(int n, const MatrixPattern& pattern,
                          ForwardWork* work, SolverStageRecord* rec) {
  int dummy_int = 0;
  double dummy_double = 0.0;
  for (int t = 0; t < 64; ++t) work->solver_handle[t] = nullptr;
  int* perm = work->matrix_permutation.data();
  for (int i = 0; i < n; ++i) perm[i] = 0;
  build_control(work->solver_control);
  double t0 = rec ? stage_clock() : 0.0;
  int error;
  {
    // Reorderings run one at a time, whatever the threads: two at once,
    // each on its own handle, do not always give the ordering either gives
    // alone, and the factors then round differently (every model changed
    // from run to run in its fourth digit). One at a time, each is the
    // ordering a single thread gets. Factorisations and solves run side by
    // side.
    std::lock_guard<std::mutex> hold(reordering_lock);
    error = call_pardiso(11, n, pattern, work, &dummy_int, &dummy_double,
                         &dummy_double);
  }
  if (rec) rec->reordering += stage_clock() - t0;
  if (error != 0) {
    work->failed_stage = STAGE_REORDERING;
    return error;
  }
  if (rec) t0 = stage_clock();
  error = call_pardiso(22, n, pattern, work, perm, &dummy_double,
                       &dummy_double);
  if (rec) rec->factorisation += stage_clock() - t0;
  if (error != 0) work->failed_stage = STAGE_FACTORISATION;
  return error;
}

}  // namespace

// A failed reordering, factorisation or solve names its stage and code on the
// log; a failed release has no stage record. Each stage record is written
// only when that stage failed, whatever its words say.
void report_solver_failure(int stage, int error) {
  const char* stage_form = stage == STAGE_REORDERING ? "1X, 'Reordering completed'"
                           : stage == STAGE_FACTORISATION
                               ? "1X, 'Factorisation completed'"
                           : stage == STAGE_SOLVE ? "1X, 'Solve completed'"
                                                  : nullptr;
  if (stage_form != nullptr) {
    message(CH_LOG, 0, stage_form);
    message(CH_LOG, 0, "1X, 'The following error was detected ', I10",
            {wv_int(error)});
  }
  pardiso_report(error);
}

void pardiso_report(int error) {
  message(CH_LOG, CH_CONSOLE, "1X, 'Error in Pardiso call:  error flag = ', I10",
          {wv_int(error)});
  switch (error) {
    case -2:
      message(CH_LOG, CH_CONSOLE, "1X, 'Not enough memory for Pardiso call'");
      break;
    case -9:
      message(CH_LOG, CH_CONSOLE,
              "1X, 'Not enough out of core memory for Pardiso call - Increase "
              "out of core memory available by typing SET "
              "MKL_PARDISO_OOC_MAX_CORE_SIZE = N', /, 2X, 'at the command "
              "line, where N is memory available in Mb (default is 2000Mb)'");
      break;
    case -10:
      message(CH_LOG, CH_CONSOLE,
              "1X, 'Problems opening Pardiso out of core memory files - check "
              "disk space'");
      break;
    case -11:
      message(CH_LOG, CH_CONSOLE,
              "1X, 'Read/write problems with Pardiso out of core memory files "
              "- check disk area for conflicts'");
      break;
    default:
      message(CH_LOG, CH_CONSOLE,
              "1X, 'Error in Pardiso call -report error flag to ', A",
              {wv_text(MAINTAINER_EMAIL)});
      break;
  }
}

// Inputs: fm (mesh with pin_flags, p, pattern, electrode table),
// log_conductivity (E), q (singularity_removal, sigma_0 in S/m), k (1/m),
// electrode (1-based table row of the source), reuse, release.
// In/out: work: matrix values (assembled unless reuse), permutation, solver
// handle and control words, element store; right_hand_side (N, cleared and
// built here, left as built); primary_potential (N, read with singularity
// removal).
// Output: column `electrode` of work->potentials (N, potential per unit
// current). Returns 0 or PARDISO's error code, with work->failed_stage set;
// the caller reports it.
int solve_wavenumber(const ForwardMesh& fm, const double* log_conductivity,
                     const Quadrature& q, double k, int electrode, bool reuse,
                     bool release, ForwardWork* work) {
  const MeshModel& mesh = *fm.mesh;
  const int n = mesh.num_nodes;
  const int p = fm.nodes_per_element;
  const int source = fm.table->electrode_nodes[electrode - 1];
  double* right_hand_side = work->right_hand_side.data();
  const double* primary_potential = work->primary_potential.data();
  double* result =
      work->potentials.data() + static_cast<std::size_t>(electrode - 1) * n;
  for (int i = 0; i < n; ++i) right_hand_side[i] = 0.0;
  int dummy_int = 0;
  double dummy_double = 0.0;

  SolverStageRecord* rec = stage_record(work->stage_log, !reuse);
  double t0 = rec ? stage_clock() : 0.0;
  if (!reuse) {
    assemble_matrix(fm, log_conductivity, k, work);
    if (rec) rec->assembly += stage_clock() - t0;
  }
  timer("for0");
  // With reuse the factors of the present wavenumber serve as they stand.
  if (!reuse) {
    const int error = reorder_and_factorise(n, *fm.pattern, work, rec);
    if (error != 0) return error;
  }

  if (rec) t0 = stage_clock();
  if (!q.singularity_removal)
    right_hand_side[source - 1] = 1.0;
  else
    secondary_right_hand_side(mesh, p, log_conductivity, k, q.sigma_0, work);
  if (rec) {
    rec->right_hand_side += stage_clock() - t0;
    t0 = stage_clock();
  }
  work->solver_control[7] = 2;
  int error = call_pardiso(33, n, *fm.pattern, work,
                           work->matrix_permutation.data(), right_hand_side,
                           result);
  if (rec) {
    rec->solve += stage_clock() - t0;
    rec->solves += 1;
  }
  if (error != 0) {
    work->failed_stage = STAGE_SOLVE;
    return error;
  }
  timer("for1");

  if (release) {
    if (rec) t0 = stage_clock();
    error = call_pardiso(-1, n, *fm.pattern, work, &dummy_int, &dummy_double,
                         &dummy_double);
    if (rec) rec->release += stage_clock() - t0;
    if (error != 0) {
      work->failed_stage = STAGE_RELEASE;
      return error;
    }
  }

  if (q.singularity_removal) {
    for (int i = 0; i < n; ++i) result[i] = result[i] + primary_potential[i];
  }
  return 0;
}

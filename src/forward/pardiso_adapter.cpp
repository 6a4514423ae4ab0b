// PARDISO adapter: the one place that calls the direct sparse solver. Solves
// the system of one wavenumber for one source node, with the right-hand side
// of a point source or of the secondary potential, and reports its errors.
#include <mkl_pardiso.h>

#include <cmath>
#include <cstddef>

#include <ctime>

#include "forward/forward.h"
#include "mesh/mesh_model.h"
#include "run/maintainer.h"
#include "run/timers.h"
#include "textio/textio.h"

namespace {

// One factorisation at a time: the solver's handle and control words are
// global, the handle zeroed before each reordering and otherwise left to
// the library.
void* pardiso_handle[64];
int pardiso_control[64];

const int max_factors = 1;     // maxfct
const int matrix_number = 1;   // mnum
const int matrix_type = -2;    // real symmetric indefinite
const int num_rhs = 1;         // nrhs
const int message_level = 0;   // msglvl

// Seconds on a monotonic clock, for the stage log only.
double stage_clock() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + 1e-9 * (double)ts.tv_nsec;
}

// The record of the present wavenumber, or null when the log is off.
SolverStageRecord* stage_record(bool new_wavenumber) {
  SolverStageLog& log = solver_stage_log;
  if (!log.enabled) return nullptr;
  if (new_wavenumber && log.count < MAX_STAGE_RECORDS) {
    log.records[log.count] = SolverStageRecord{0, 0, 0, 0, 0, 0, 0};
    ++log.count;
  }
  return log.count > 0 ? &log.records[log.count - 1] : nullptr;
}

// Control words of the published interface, 1-based numbers as documented.
void build_control() {
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
int call_pardiso(int phase, int n, ConductanceMatrix* cm, int* perm,
                 double* b, double* x) {
  int error = 0;
  pardiso(pardiso_handle, &max_factors, &matrix_number, &matrix_type, &phase,
          &n, cm->matrix_values.data(), cm->matrix_row_start.data(),
          cm->matrix_columns.data(), perm, &num_rhs, pardiso_control,
          &message_level, b, x, &error);
  return error;
}

// The words of a failed reordering, factorisation or solve: the stage record
// and the code on the log, then the report on both streams.
void stage_failed(const char* stage_form, int error) {
  message(CH_LOG, 0, stage_form);
  message(CH_LOG, 0, "1X, 'The following error was detected ', I10",
          {wv_int(error)});
  pardiso_report(error);
}


// Right-hand side of the secondary problem A(s) v_s = -(A(s) - A(sigma_0)) v_p,
// element by element with the unpenalised element matrices of wavenumber k.
//   primary_potential  in: N doubles, v_p of the present source
//   right_hand_side    in/out: N doubles, zero on entry
void secondary_right_hand_side(const MeshModel& mesh, int p,
                               const double* log_conductivity, double k,
                               double sigma_0, const double* primary_potential,
                               ConductanceMatrix* cm, double* right_hand_side) {
  const std::size_t pp = static_cast<std::size_t>(p) * p;
  const double* store = element_matrices(mesh, p, k, cm);
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
int reorder_and_factorise(int n, ConductanceMatrix* cm, SolverStageRecord* rec) {
  int dummy_int = 0;
  double dummy_double = 0.0;
  for (int t = 0; t < 64; ++t) pardiso_handle[t] = nullptr;
  int* perm = cm->matrix_permutation.data();
  for (int i = 0; i < n; ++i) perm[i] = 0;
  build_control();
  double t0 = rec ? stage_clock() : 0.0;
  int error = call_pardiso(11, n, cm, &dummy_int, &dummy_double, &dummy_double);
  if (rec) rec->reordering += stage_clock() - t0;
  if (error != 0) {
    stage_failed("1X, 'Reordering completed'", error);
    return error;
  }
  if (rec) t0 = stage_clock();
  error = call_pardiso(22, n, cm, perm, &dummy_double, &dummy_double);
  if (rec) rec->factorisation += stage_clock() - t0;
  if (error != 0) stage_failed("1X, 'Factorisation completed'", error);
  return error;
}

}  // namespace

SolverStageLog solver_stage_log;

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

// Inputs: mesh (nodes, elements, pin_flags), nodes_per_element p (3 or 4),
// log_conductivity (E), source (1-based node), k (1/m), sigma_0 (S/m, with
// singularity removal only), primary_potential (N, with singularity removal
// only), reuse, release.
// In/out: cm (values assembled unless reuse; permutation and element store
// written), right_hand_side (N, cleared and built here, left as built).
// Outputs: result (N, potential per unit current), *error (0 or PARDISO's).
void solve_wavenumber(const MeshModel& mesh, int nodes_per_element,
                      const double* log_conductivity, ConductanceMatrix* cm,
                      double* right_hand_side, const double* primary_potential,
                      double* result, int source, double k, double sigma_0,
                      bool singularity_removal, bool reuse, bool release,
                      int* error) {
  const int n = mesh.num_nodes;
  const int p = nodes_per_element;
  *error = 0;
  for (int i = 0; i < n; ++i) right_hand_side[i] = 0.0;
  int dummy_int = 0;
  double dummy_double = 0.0;

  SolverStageRecord* rec = stage_record(!reuse);
  double t0 = rec ? stage_clock() : 0.0;
  if (!reuse) {
    assemble_matrix(mesh, p, log_conductivity, k, cm);
    if (rec) rec->assembly += stage_clock() - t0;
  }
  timer("for0");
  // With reuse the factors of the present wavenumber serve as they stand.
  if (!reuse) {
    *error = reorder_and_factorise(n, cm, rec);
    if (*error != 0) return;
  }

  if (rec) t0 = stage_clock();
  if (!singularity_removal)
    right_hand_side[source - 1] = 1.0;
  else
    secondary_right_hand_side(mesh, p, log_conductivity, k, sigma_0,
                              primary_potential, cm, right_hand_side);
  if (rec) {
    rec->right_hand_side += stage_clock() - t0;
    t0 = stage_clock();
  }
  pardiso_control[7] = 2;
  *error = call_pardiso(33, n, cm, cm->matrix_permutation.data(),
                        right_hand_side, result);
  if (rec) {
    rec->solve += stage_clock() - t0;
    rec->solves += 1;
  }
  if (*error != 0) {
    stage_failed("1X, 'Solve completed'", *error);
    return;
  }
  timer("for1");

  if (release) {
    if (rec) t0 = stage_clock();
    *error = call_pardiso(-1, n, cm, &dummy_int, &dummy_double, &dummy_double);
    if (rec) rec->release += stage_clock() - t0;
    if (*error != 0) {
      pardiso_report(*error);
      return;
    }
  }

  if (singularity_removal) {
    for (int i = 0; i < n; ++i) result[i] = result[i] + primary_potential[i];
  }
}

// Forward loop: one conductivity model to one transfer resistance per
// measurement, summing the two-dimensional solutions of every wavenumber
// along strike with their quadrature weights; the wavenumbers are solved on
// the threads of the team and summed in their order.
#include <cstddef>
#include <vector>

#include "data/measurement_set.h"
#include "forward/forward_kernels.h"
#include "mesh/mesh_model.h"
#include "run/memory_guard.h"
#include "run/threads.h"
#include "run/timers.h"

namespace {

// Inputs: fm, log_conductivity (E), q (singularity_removal, sigma_0), k (1/m).
// Work: as solve_wavenumber.
// Output: work->potentials (N * L, column c the unit source at electrode c).
// Returns 0, or the PARDISO error code of the solve that failed.
int solve_all_electrodes(const ForwardMesh& fm, const double* log_conductivity,
                         const Quadrature& q, double k, ForwardWork* work) {
  const int n_electrodes = fm.table->num_electrodes;
  // Assemble and factorise at the first electrode, solve only at the
  // others, free the factors at the last.
  bool release = false;
  bool reuse = false;
  for (int c = 1; c <= n_electrodes; ++c) {
    if (c == n_electrodes) release = true;
    if (q.singularity_removal) {
      fill_primary_potential(*fm.mesh, fm.table->electrode_nodes[c - 1], k,
                             q.sigma_0, work->primary_potential.data());
    }
    const int error = solve_wavenumber(fm, log_conductivity, q, k, c, reuse,
                                       release, work);
    if (error != 0) return error;
    reuse = true;
  }
  return 0;
}

// transfer_resistance (n measurements, ohm) += w times the four-potential
// bracket of each measurement, added left to right as
// ((v(m; a) - v(m; b)) - v(n; a)) + v(n; b).
void add_transfer_resistances(const ElectrodeTable& table,
                              const MeasurementSet& ms, int num_nodes,
                              const double* potentials, double w,
                              double* transfer_resistance) {
  const int* enode = table.electrode_nodes.data();
  for (int i = 0; i < ms.num_measurements; ++i) {
    const int pm = enode[ms.elec_m[i] - 1];
    const int pn = enode[ms.elec_n[i] - 1];
    const double* va =
        potentials + static_cast<std::size_t>(ms.elec_a[i] - 1) * num_nodes;
    const double* vb =
        potentials + static_cast<std::size_t>(ms.elec_b[i] - 1) * num_nodes;
    transfer_resistance[i] +=
        w * (((va[pm - 1] - vb[pm - 1]) - va[pn - 1]) + vb[pn - 1]);
  }
}

}  // namespace

void allocate_forward_vectors(int num_nodes, int num_electrodes,
                              ForwardWork* work) {
  const std::size_t n = static_cast<std::size_t>(num_nodes);
  work->right_hand_side.assign(n, 0.0);
  work->primary_potential.assign(n, 0.0);
  work->potentials.assign(n * static_cast<std::size_t>(num_electrodes), 0.0);
}

int forward_term(const ForwardMesh& fm, const MeasurementSet& ms,
                 const double* log_conductivity, const Quadrature& q, int j,
                 ForwardWork* work, double* transfer_resistance) {
  if (q.flux_type <= 2.0) {
    work->k = 0.0;  // two-dimensional flow: one plain solve with weight 1
    work->w = 1.0;
  } else {
    work->k = q.wavenumbers[j];
    work->w = q.weights[j];
  }
  const int ele_before = timer_calls("ele"), for_before = timer_calls("for");
  const int error =
      solve_all_electrodes(fm, log_conductivity, q, work->k, work);
  work->term_calls[0] = timer_calls("ele") - ele_before;
  work->term_calls[1] = timer_calls("for") - for_before;
  if (error != 0) return error;
  add_transfer_resistances(*fm.table, ms, fm.mesh->num_nodes,
                           work->potentials.data(), work->w,
                           transfer_resistance);
  return 0;
}

void uncount_terms(const int* calls, int count) {
  int assemblies = 0, solves = 0;
  for (int t = 0; t < count; ++t) {
    assemblies += calls[2 * t];
    solves += calls[2 * t + 1];
  }
  timer_uncount("ele", assemblies);
  timer_uncount("for", solves);
}

void allocate_forward_team(int num_threads, const MeshModel& mesh,
                           ForwardTeam* team) {
  if (num_threads > 1) {
    // Every thread holds a whole work: matrix, permutation, element store,
    // right-hand side, primary potential and the potentials of all sources.
    const ForwardWork& one = team->work[0];
    const double bytes =
        8.0 * one.matrix_values.size() + 4.0 * mesh.num_nodes +
        8.0 * one.element_matrices.size() + 16.0 * mesh.num_nodes +
        8.0 * one.potentials.size();
    require_memory(bytes * num_threads, "the arrays of this run");
  }
  team->work.resize(static_cast<std::size_t>(num_threads), team->work[0]);
}

namespace {

// What the threads of one forward_solve share: each term's share of every
// measurement, and each term's failure, for the sums and the report in
// wavenumber order once all threads are back.
struct ForwardRound {
  const ForwardMesh* fm;
  const MeasurementSet* ms;
  const double* log_conductivity;  // E, ln S/m
  const Quadrature* q;             // sigma_0 set
  ForwardTeam* team;
  int num_threads;                 // T, at most W
  double* shares;                  // W * n, ohm: w times the bracket of term j at j * n
  int* errors;                     // W: PARDISO code of term j, 0 when done or not run
  int* stages;                     // W: failed stage of term j
  int* calls;                      // 2 * W: term_calls of term j at 2 * j
};

// Thread t takes the terms t, t + T, ... and stops at its own first failure
// only: each thread makes the same solver calls on every run, so that a
// solver failing on a chosen call fails on the same term each time. Terms
// beyond another thread's failure are wasted, and failures are rare.
void solve_terms(int t, void* arg) {
  ForwardRound* r = static_cast<ForwardRound*>(arg);
  const int n = r->ms->num_measurements;
  ForwardWork* work = &r->team->work[static_cast<std::size_t>(t)];
  for (int j = t; j < r->q->num_wavenumbers; j += r->num_threads) {
    double* share = r->shares + static_cast<std::size_t>(j) * n;
    for (int i = 0; i < n; ++i) share[i] = 0.0;
    const int error = forward_term(*r->fm, *r->ms, r->log_conductivity, *r->q,
                                   j, work, share);
    r->calls[2 * j] = work->term_calls[0];
    r->calls[2 * j + 1] = work->term_calls[1];
    if (error != 0) {
      r->errors[j] = error;
      r->stages[j] = work->failed_stage;
      return;
    }
  }
}

}  // namespace

// Inputs: fm, ms, log_conductivity (E), q (its sigma_0 is set here from the
// model). Work: team (one ForwardWork per thread); the shares of the terms
// (W * n).
// Output: transfer_resistance (ms.num_measurements, ohm).
int forward_solve(const ForwardMesh& fm, const MeasurementSet& ms,
                  const double* log_conductivity, const Quadrature& q,
                  ForwardTeam* team, double* transfer_resistance) {
  const int n = ms.num_measurements;
  const int W = q.num_wavenumbers;
  for (int i = 0; i < n; ++i) transfer_resistance[i] = 0.0;

  // sigma_0 depends on the model alone.
  Quadrature terms = q;
  terms.sigma_0 = 0.0;
  if (q.singularity_removal) {
    terms.sigma_0 = reference_conductivity(*fm.mesh, fm.nodes_per_element,
                                           log_conductivity);
  }
  std::vector<double> shares(static_cast<std::size_t>(W) * n);
  std::vector<int> errors(static_cast<std::size_t>(W), 0);
  std::vector<int> stages(static_cast<std::size_t>(W), 0);
  std::vector<int> calls(2 * static_cast<std::size_t>(W), 0);
  const int T = static_cast<int>(team->work.size());
  ForwardRound round{&fm, &ms, log_conductivity, &terms, team,
                     T < W ? T : W, shares.data(), errors.data(),
                     stages.data(), calls.data()};
  run_on_threads(round.num_threads, solve_terms, &round);

  // The sum runs over the terms in order, each added whole, as one thread
  // adds them while it goes; it ends at the first failed term.
  int j = 0;
  for (; j < W && errors[static_cast<std::size_t>(j)] == 0; ++j) {
    const double* share = shares.data() + static_cast<std::size_t>(j) * n;
    for (int i = 0; i < n; ++i) transfer_resistance[i] += share[i];
  }
  if (j == W) return 0;
  uncount_terms(calls.data() + 2 * static_cast<std::size_t>(j + 1), W - j - 1);
  report_solver_failure(stages[static_cast<std::size_t>(j)],
                        errors[static_cast<std::size_t>(j)]);
  return errors[static_cast<std::size_t>(j)];
}

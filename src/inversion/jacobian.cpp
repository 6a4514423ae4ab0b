// Jacobian: the calculated data of the present model and the derivative of
// every measurement with respect to every inversion parameter, by the
// adjoint sum over each element's matrix, wavenumber by wavenumber.
#include <cmath>
#include <cstddef>
#include <vector>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "inversion/inversion.h"
#include "mesh/mesh_model.h"
#include "run/threads.h"
#include "run/timers.h"

namespace {

// Potential differences of one element's nodes for every measurement,
// gathered once per element so that the pair passes stream contiguously.
//   source_pairs  nn * n: v(node, a_i) - v(node, b_i), node by node
//   sensor_pairs  nn * n: v(node, m_i) - v(node, n_i), node by node
//   node_row      L: the potentials of one node for every electrode
struct ElementGather {
  std::vector<double> source_pairs;
  std::vector<double> sensor_pairs;
  std::vector<double> node_row;
};

// Row `node` (1-based) of the potentials (N by L, a column contiguous) into
// row[L], then the two differences of every measurement: the same
// subtractions as reading the potentials directly, so the same numbers.
void gather_node(const double* potentials, int num_nodes, int num_electrodes,
                 int node, const MeasurementSet& ms, double* row,
                 double* source_pair, double* sensor_pair) {
  for (int c = 0; c < num_electrodes; ++c)
    row[c] = potentials[static_cast<std::size_t>(c) * num_nodes + (node - 1)];
  const int* ea = ms.elec_a.data();
  const int* eb = ms.elec_b.data();
  const int* em = ms.elec_m.data();
  const int* en = ms.elec_n.data();
  for (int i = 0; i < ms.num_measurements; ++i) {
    source_pair[i] = row[ea[i] - 1] - row[eb[i] - 1];
    sensor_pair[i] = row[em[i] - 1] - row[en[i] - 1];
  }
}

// J(i, p) += ((source_a(i) * t(a, b)) * sensor_b(i)) for every local pair
// (a, b) in the order a outer, b inner. The NN * NN additions to one entry
// are made in that order within one sweep of the column, so the sums are
// those of NN * NN separate passes, rounding for rounding.
//   column  n: column p of J
//   source, sensor  NN * n: gathered differences, node by node
//   t       NN * NN: K_e(a, b) * (w * scale), a outer
template <int NN>
void accumulate_pairs(double* column, const double* source,
                      const double* sensor, const double* t, int n) {
  for (int i = 0; i < n; ++i) {
    double sum = column[i];
    for (int a = 0; a < NN; ++a) {
      const double s = source[static_cast<std::size_t>(a) * n + i];
      for (int b = 0; b < NN; ++b)
        sum += (s * t[a * NN + b]) * sensor[static_cast<std::size_t>(b) * n + i];
    }
    column[i] = sum;
  }
}

// The element loop of one wavenumber k with weight w, over the elements
// whose parameter lies in first..last (1-based): those columns alone are
// written, each in element order as a whole loop would.
//   store      E * nn * nn: element matrices of wavenumber k, ae(a, b) at a * nn + b
//   potentials N * L of this wavenumber
//   jacobian   in/out: n by P, column contiguous
void accumulate_wavenumber(const MeshModel& mesh, int nn,
                           const double* store, const double* potentials,
                           int num_electrodes, const MeasurementSet& ms,
                           const double* log_conductivity, bool log_data,
                           double w, int first, int last, double* jacobian,
                           ElementGather* g) {
  const int n = ms.num_measurements;
  const std::size_t pp = static_cast<std::size_t>(nn) * nn;
  double t[16];
  double scale = 1.0;
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int p = mesh.element_parameter[e];
    if (p == 0 || p < first || p > last) continue;
    // True data: the derivative in ln(sigma) carries the element's
    // conductivity, with the minus sign of dA/dsigma on the solution.
    if (!log_data) scale = -std::exp(log_conductivity[e]);
    const int* nodes = &mesh.element_nodes[4 * static_cast<std::size_t>(e)];
    for (int a = 0; a < nn; ++a)
      gather_node(potentials, mesh.num_nodes, num_electrodes, nodes[a], ms,
                  g->node_row.data(),
                  g->source_pairs.data() + static_cast<std::size_t>(a) * n,
                  g->sensor_pairs.data() + static_cast<std::size_t>(a) * n);
    const double* k_e = store + pp * e;
    for (std::size_t ab = 0; ab < pp; ++ab) t[ab] = k_e[ab] * (w * scale);
    double* column = jacobian + static_cast<std::size_t>(p - 1) * n;
    if (nn == 3)
      accumulate_pairs<3>(column, g->source_pairs.data(), g->sensor_pairs.data(), t, n);
    else
      accumulate_pairs<4>(column, g->source_pairs.data(), g->sensor_pairs.data(), t, n);
  }
}

// The parameters 1..P shared out among T threads by the number of elements
// each parameter holds, the work of the element loop: thread t takes
// first[t] .. first[t + 1] - 1.
//   first  out: T + 1 entries, 1-based, first[T] = P + 1
void split_parameters(const MeshModel& mesh, int num_parameters, int T,
                      int* first) {
  std::vector<double> elements(static_cast<std::size_t>(num_parameters) + 1, 0.0);
  double total = 0.0;
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int p = mesh.element_parameter[e];
    if (p < 1 || p > num_parameters) continue;
    elements[static_cast<std::size_t>(p)] += 1.0;
    total += 1.0;
  }
  first[0] = 1;
  int t = 1;
  double seen = 0.0;
  for (int p = 1; p <= num_parameters && t < T; ++p) {
    seen += elements[static_cast<std::size_t>(p)];
    while (t < T && seen >= total * t / T) first[t++] = p + 1;
  }
  for (; t <= T; ++t) first[t] = num_parameters + 1;
}

// What the threads of one compute_jacobian share. A round solves up to T
// terms side by side, one per thread, and then every thread adds all of
// them, in wavenumber order, to its own columns of J.
struct JacobianRound {
  const ForwardMesh* fm;
  const MeasurementSet* ms;
  const double* log_conductivity;  // E, ln S/m
  const double* values;            // P, ln S/m
  const Quadrature* q;             // sigma_0 set
  bool log_data;
  ForwardTeam* team;
  int nn;                          // nodes per element in the element store
  int j0;                          // first term of the round
  int terms;                       // terms of the round, at most T
  double* shares;                  // T * n, ohm: w times the bracket of term j0 + t at t * n
  int* errors;                     // T: PARDISO code of term j0 + t
  const int* first;                // T + 1: parameter ranges of split_parameters
  ElementGather* gathers;          // T
  const double* transfer_resistance;  // n, ohm, complete before the log scaling
  double* jacobian;                // n by P
};

// Solves term j0 + t on thread t, and leaves its element store at the
// term's wavenumber for the accumulation.
void solve_round_term(int t, void* arg) {
  JacobianRound* r = static_cast<JacobianRound*>(arg);
  const int n = r->ms->num_measurements;
  ForwardWork* work = &r->team->work[static_cast<std::size_t>(t)];
  double* share = r->shares + static_cast<std::size_t>(t) * n;
  for (int i = 0; i < n; ++i) share[i] = 0.0;
  r->errors[t] = forward_term(*r->fm, *r->ms, r->log_conductivity, *r->q,
                              r->j0 + t, work, share);
  if (r->errors[t] == 0)
    element_matrices(*r->fm->mesh, r->fm->nodes_per_element, work->k, work);
}

// Adds the first r->terms terms of the round to the columns of thread t.
void accumulate_round(int t, void* arg) {
  JacobianRound* r = static_cast<JacobianRound*>(arg);
  const ForwardMesh& fm = *r->fm;
  for (int u = 0; u < r->terms; ++u) {
    const ForwardWork& work = r->team->work[static_cast<std::size_t>(u)];
    accumulate_wavenumber(*fm.mesh, r->nn, work.element_matrices.data(),
                          work.potentials.data(), fm.table->num_electrodes,
                          *r->ms, r->log_conductivity, r->log_data, work.w,
                          r->first[t], r->first[t + 1] - 1, r->jacobian,
                          &r->gathers[t]);
  }
}

// Log data: d(ln R)/d(ln rho), the conductivity applied once per parameter
// and the division by the calculated datum, on the columns of thread t.
void scale_log_columns(int t, void* arg) {
  JacobianRound* r = static_cast<JacobianRound*>(arg);
  const int n = r->ms->num_measurements;
  for (int p = r->first[t] - 1; p < r->first[t + 1] - 1; ++p) {
    const double sigma = std::exp(r->values[p]);
    double* column = r->jacobian + static_cast<std::size_t>(p) * n;
    for (int i = 0; i < n; ++i)
      column[i] = (column[i] * sigma) / r->transfer_resistance[i];
  }
}

}  // namespace

// Inputs: fm (mesh with element_parameter: the parameter of each element,
// 0 for none), ms, model (log_conductivity E, values P), q, log_data.
// Work: team (one ForwardWork per thread, T); per thread the gathered
// differences (2 * nn * n) and the share of its term (n).
// Outputs: jacobian (n by P, column contiguous), transfer_resistance (n, ohm).
// Every entry is made by one thread, its additions in wavenumber order and
// within a wavenumber in element order: the same doubles on any number of
// threads.
int compute_jacobian(const ForwardMesh& fm, const MeasurementSet& ms,
                     const ParameterModel& model, const Quadrature& q,
                     bool log_data, ForwardTeam* team, double* jacobian,
                     double* transfer_resistance) {
  const MeshModel& mesh = *fm.mesh;
  const double* log_conductivity = model.log_conductivity;
  const int num_parameters = model.num_parameters;
  const int n = ms.num_measurements;
  const int nn = fm.nodes_per_element == 3 ? 3 : 4;
  const int T = static_cast<int>(team->work.size());
  for (int i = 0; i < n; ++i) transfer_resistance[i] = 0.0;
  const std::size_t size = static_cast<std::size_t>(n) * num_parameters;
  for (std::size_t t = 0; t < size; ++t) jacobian[t] = 0.0;

  Quadrature terms = q;
  terms.sigma_0 = 0.0;
  if (q.singularity_removal)
    terms.sigma_0 = reference_conductivity(mesh, fm.nodes_per_element,
                                           log_conductivity);

  std::vector<ElementGather> gathers(static_cast<std::size_t>(T));
  for (ElementGather& g : gathers) {
    g.source_pairs.assign(static_cast<std::size_t>(nn) * n, 0.0);
    g.sensor_pairs.assign(static_cast<std::size_t>(nn) * n, 0.0);
    g.node_row.assign(static_cast<std::size_t>(fm.table->num_electrodes) + 1,
                      0.0);
  }
  std::vector<double> shares(static_cast<std::size_t>(T) * n);
  std::vector<int> errors(static_cast<std::size_t>(T), 0);
  std::vector<int> first(static_cast<std::size_t>(T) + 1);
  split_parameters(mesh, num_parameters, T, first.data());
  JacobianRound r{&fm, &ms, log_conductivity, model.values, &terms, log_data,
                  team, nn, 0, 0, shares.data(), errors.data(), first.data(),
                  gathers.data(), transfer_resistance, jacobian};

  for (int j0 = 0; j0 < q.num_wavenumbers; j0 += T) {
    const int round = q.num_wavenumbers - j0 < T ? q.num_wavenumbers - j0 : T;
    r.j0 = j0;
    r.terms = round;
    run_on_threads(round, solve_round_term, &r);
    // As one thread goes: each term's data and columns are added until the
    // first failed term, which ends the Jacobian there.
    int done = 0;
    while (done < round && errors[static_cast<std::size_t>(done)] == 0) ++done;
    for (int u = 0; u < done; ++u) {
      const double* share = shares.data() + static_cast<std::size_t>(u) * n;
      for (int i = 0; i < n; ++i) transfer_resistance[i] += share[i];
    }
    if (done > 0) {
      // The timer restarts at every round and stops once at the end: the
      // reported Jacobian time is that of the last accumulation.
      timer("jac0");
      r.terms = done;
      run_on_threads(T, accumulate_round, &r);
    }
    if (done < round) {
      const int u = done;
      std::vector<int> calls;
      for (int v = u + 1; v < round; ++v) {
        const ForwardWork& beyond = team->work[static_cast<std::size_t>(v)];
        calls.insert(calls.end(), {beyond.term_calls[0], beyond.term_calls[1]});
      }
      uncount_terms(calls.data(), round - u - 1);
      report_solver_failure(team->work[static_cast<std::size_t>(u)].failed_stage,
                            errors[static_cast<std::size_t>(u)]);
      return errors[static_cast<std::size_t>(u)];
    }
  }

  if (log_data) run_on_threads(T, scale_log_columns, &r);
  timer("jac1");
  return 0;
}

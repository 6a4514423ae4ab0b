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

// The element loop of one wavenumber k with weight w.
//   store      E * nn * nn: element matrices of wavenumber k, ae(a, b) at a * nn + b
//   potentials N * L of this wavenumber
//   jacobian   in/out: n by P, column contiguous
void accumulate_wavenumber(const MeshModel& mesh, int nn,
                           const double* store, const double* potentials,
                           int num_electrodes, const MeasurementSet& ms,
                           const double* log_conductivity, bool log_data,
                           double w, double* jacobian, ElementGather* g) {
  const int n = ms.num_measurements;
  const std::size_t pp = static_cast<std::size_t>(nn) * nn;
  double t[16];
  double scale = 1.0;
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int p = mesh.element_parameter[e];
    if (p == 0) continue;
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

}  // namespace

// Inputs: fm (mesh with element_parameter: the parameter of each element,
// 0 for none), ms, model (log_conductivity E, values P), q, log_data.
// Work: work (as forward_solve); the gathered differences (2 * nn * n).
// Outputs: jacobian (n by P, column contiguous), transfer_resistance (n, ohm).
int compute_jacobian(const ForwardMesh& fm, const MeasurementSet& ms,
                     const ParameterModel& model, const Quadrature& q,
                     bool log_data, ForwardWork* work, double* jacobian,
                     double* transfer_resistance) {
  const MeshModel& mesh = *fm.mesh;
  const double* log_conductivity = model.log_conductivity;
  const int num_parameters = model.num_parameters;
  const int n = ms.num_measurements;
  const int nn = fm.nodes_per_element == 3 ? 3 : 4;
  for (int i = 0; i < n; ++i) transfer_resistance[i] = 0.0;
  const std::size_t size = static_cast<std::size_t>(n) * num_parameters;
  for (std::size_t t = 0; t < size; ++t) jacobian[t] = 0.0;

  Quadrature terms = q;
  terms.sigma_0 = 0.0;
  if (q.singularity_removal)
    terms.sigma_0 = reference_conductivity(mesh, fm.nodes_per_element,
                                           log_conductivity);

  ElementGather g;
  g.source_pairs.assign(static_cast<std::size_t>(nn) * n, 0.0);
  g.sensor_pairs.assign(static_cast<std::size_t>(nn) * n, 0.0);
  g.node_row.assign(static_cast<std::size_t>(fm.table->num_electrodes) + 1,
                    0.0);

  for (int j = 0; j < q.num_wavenumbers; ++j) {
    const int error = forward_term(fm, ms, log_conductivity, terms, j, work,
                                   transfer_resistance);
    if (error != 0) return error;
    // The timer restarts at every wavenumber and stops once at the end:
    // the reported Jacobian time is that of the last accumulation.
    timer("jac0");
    const double* store =
        element_matrices(mesh, fm.nodes_per_element, work->k, work);
    accumulate_wavenumber(mesh, nn, store, work->potentials.data(),
                          fm.table->num_electrodes, ms, log_conductivity,
                          log_data, work->w, jacobian, &g);
  }

  // Log data: d(ln R)/d(ln rho), the conductivity applied once per
  // parameter and the division by the calculated datum.
  if (log_data) {
    for (int p = 0; p < num_parameters; ++p) {
      const double sigma = std::exp(model.values[p]);
      double* column = jacobian + static_cast<std::size_t>(p) * n;
      for (int i = 0; i < n; ++i)
        column[i] = (column[i] * sigma) / transfer_resistance[i];
    }
  }
  timer("jac1");
  return 0;
}

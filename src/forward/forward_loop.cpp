// Forward loop: one conductivity model to one transfer resistance per
// measurement, summing the two-dimensional solutions of every wavenumber
// along strike with their quadrature weights.
#include <cstddef>

#include "data/measurement_set.h"
#include "forward/forward.h"
#include "mesh/mesh_model.h"

namespace {

// k = 0, w = 1 for two-dimensional flow (flux_type <= 2.0), else entry j of
// the table.
void wavenumber_term(double flux_type, const double* wavenumbers,
                     const double* wavenumber_weights, int j, double* k,
                     double* w) {
  if (flux_type <= 2.0) {
    *k = 0.0;  // two-dimensional flow: one plain solve with weight 1
    *w = 1.0;
  } else {
    *k = wavenumbers[j];
    *w = wavenumber_weights[j];
  }
}

// Inputs: mesh, pattern cm (values, permutation and element store are work),
// electrode table, log_conductivity (E), k (1/m), sigma_0 (S/m, with
// singularity removal only).
// Work: work->right_hand_side (N), work->primary_potential (N).
// Output: work->potentials (N * L, column c the unit source at electrode c).
// Returns 0, or the PARDISO error code of the solve that failed.
int solve_all_electrodes(const MeshModel& mesh, int nodes_per_element,
                         ConductanceMatrix* cm, const ElectrodeTable& table,
                         const double* log_conductivity, double k,
                         double sigma_0, bool singularity_removal,
                         ForwardWork* work) {
  const int n = mesh.num_nodes;
  const int n_electrodes = table.num_electrodes;
  double* potentials = work->potentials.data();
  // Assemble and factorise at the first electrode, solve only at the
  // others, free the factors at the last.
  bool release = false;
  bool reuse = false;
  for (int c = 1; c <= n_electrodes; ++c) {
    if (c == n_electrodes) release = true;
    const int s = table.electrode_nodes[c - 1];
    if (singularity_removal) {
      fill_primary_potential(mesh, s, k, sigma_0,
                             work->primary_potential.data());
    }
    int error = 0;
    solve_wavenumber(mesh, nodes_per_element, log_conductivity, cm,
                     work->right_hand_side.data(),
                     work->primary_potential.data(),
                     potentials + static_cast<std::size_t>(c - 1) * n, s, k,
                     sigma_0, singularity_removal, reuse, release, &error);
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

int forward_term(const MeshModel& mesh, int nodes_per_element,
                 ConductanceMatrix* cm, const ElectrodeTable& table,
                 const MeasurementSet& ms, const double* log_conductivity,
                 const double* wavenumbers, const double* wavenumber_weights,
                 int j, double flux_type, double sigma_0,
                 bool singularity_removal, ForwardWork* work,
                 double* transfer_resistance, double* k, double* w) {
  wavenumber_term(flux_type, wavenumbers, wavenumber_weights, j, k, w);
  int error = solve_all_electrodes(mesh, nodes_per_element, cm, table,
                                   log_conductivity, *k, sigma_0,
                                   singularity_removal, work);
  if (error != 0) return error;
  add_transfer_resistances(table, ms, mesh.num_nodes, work->potentials.data(),
                           *w, transfer_resistance);
  return 0;
}

// Inputs: mesh, pattern cm (values, permutation and element store are work),
// electrode table, measurement set ms, log_conductivity (E), wavenumbers and
// wavenumber_weights (num_wavenumbers, 1/m and dimensionless), flux_type,
// singularity_removal.
// Work: work->right_hand_side (N), work->primary_potential (N),
// work->potentials (N * L).
// Outputs: transfer_resistance (ms.num_measurements, ohm), forward_failed.
void forward_solve(const MeshModel& mesh, int nodes_per_element,
                   ConductanceMatrix* cm, const ElectrodeTable& table,
                   const MeasurementSet& ms, const double* log_conductivity,
                   const double* wavenumbers, const double* wavenumber_weights,
                   int num_wavenumbers, double flux_type,
                   bool singularity_removal, ForwardWork* work,
                   double* transfer_resistance, int* forward_failed) {
  *forward_failed = 0;
  for (int i = 0; i < ms.num_measurements; ++i) transfer_resistance[i] = 0.0;

  // sigma_0 depends on the model alone.
  double sigma_0 = 0.0;
  if (singularity_removal) {
    sigma_0 = reference_conductivity(mesh, nodes_per_element, log_conductivity);
  }
  for (int j = 0; j < num_wavenumbers; ++j) {
    double k, w;
    int error = forward_term(mesh, nodes_per_element, cm, table, ms,
                             log_conductivity, wavenumbers, wavenumber_weights,
                             j, flux_type, sigma_0, singularity_removal, work,
                             transfer_resistance, &k, &w);
    if (error != 0) {
      *forward_failed = error;
      return;
    }
  }
}


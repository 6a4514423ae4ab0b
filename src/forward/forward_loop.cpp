// Forward loop: one conductivity model to one transfer resistance per
// measurement, summing the two-dimensional solutions of every wavenumber
// along strike with their quadrature weights.
#include <cstddef>

#include "data/measurement_set.h"
#include "forward/forward_kernels.h"
#include "mesh/mesh_model.h"

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
  const int error =
      solve_all_electrodes(fm, log_conductivity, q, work->k, work);
  if (error != 0) return error;
  add_transfer_resistances(*fm.table, ms, fm.mesh->num_nodes,
                           work->potentials.data(), work->w,
                           transfer_resistance);
  return 0;
}

// Inputs: fm, ms, log_conductivity (E), q (its sigma_0 is set here from the
// model). Work: as forward_term.
// Output: transfer_resistance (ms.num_measurements, ohm).
int forward_solve(const ForwardMesh& fm, const MeasurementSet& ms,
                  const double* log_conductivity, const Quadrature& q,
                  ForwardWork* work, double* transfer_resistance) {
  for (int i = 0; i < ms.num_measurements; ++i) transfer_resistance[i] = 0.0;

  // sigma_0 depends on the model alone.
  Quadrature terms = q;
  terms.sigma_0 = 0.0;
  if (q.singularity_removal) {
    terms.sigma_0 = reference_conductivity(*fm.mesh, fm.nodes_per_element,
                                           log_conductivity);
  }
  for (int j = 0; j < q.num_wavenumbers; ++j) {
    const int error =
        forward_term(fm, ms, log_conductivity, terms, j, work,
                     transfer_resistance);
    if (error != 0) return error;
  }
  return 0;
}

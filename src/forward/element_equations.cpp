// Element equations: the element matrix of stiffness plus k^2 mass, the
// store of all element matrices of one wavenumber, the assembly of the
// conductance matrix with its pinned node, and the choice of that node.
#include <bit>
#include <cmath>
#include <cstdint>

#include "forward/forward_kernels.h"
#include "mesh/mesh_model.h"
#include "run/timers.h"

namespace {

// Sub-triangles about the centre node, local 1-based numbers, by rows.
const int triangle_parts[3][3] = {{1, 2, 4}, {2, 3, 4}, {3, 1, 4}};
const int quad_parts[4][3] = {{1, 2, 5}, {2, 3, 5}, {3, 4, 5}, {4, 1, 5}};

// The same wavenumber bit for bit (0.0 and -0.0 are different inputs).
bool same_wavenumber(double a, double b) {
  return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b);
}

// Leading p by p block of ae (column stride 5) into out[i * p + j] = ae(i, j),
// 0-based i, j.
void copy_block(const double* ae, int p, double* out) {
  for (int i = 0; i < p; ++i) {
    for (int j = 0; j < p; ++j) out[i * p + j] = ae[i + 5 * j];
  }
}

}  // namespace

void element_matrix(double* ae, const double* node_x, const double* node_y,
                    const int* nodes, int p, double k) {
  for (int t = 0; t < 25; ++t) ae[t] = 0.0;
  // Local coordinates, 1-based as the sub-triangle table; slot p + 1 is the
  // vertex mean, so that both shapes are split the same way.
  double x[6], y[6];
  for (int t = 1; t <= p; ++t) {
    x[t] = node_x[nodes[t - 1] - 1];
    y[t] = node_y[nodes[t - 1] - 1];
  }
  const int c = p + 1;
  element_centre(node_x, node_y, nodes, p, &x[c], &y[c]);

  const int (*parts)[3] = p == 3 ? triangle_parts : quad_parts;
#define AE(r, s) ae[((r) - 1) + 5 * ((s) - 1)]
  for (int t = 0; t < p; ++t) {
    const int I = parts[t][0], J = parts[t][1], K = parts[t][2];
    const double bI = y[J] - y[K], bJ = y[K] - y[I], bK = y[I] - y[J];
    const double qI = x[K] - x[J], qJ = x[I] - x[K], qK = x[J] - x[I];
    // Four times the signed area: the stiffness scales with 1/D and the
    // consistent mass (area * k^2 / 12 off the diagonal) with D / 48. A
    // clockwise triangle changes the sign of both; no correction is made.
    const double D = 2.0 * (bJ * qK - bK * qJ);
    const double m = D * k * k / 48.0;
    AE(I, I) += (bI * bI + qI * qI) / D + m + m;
    AE(J, J) += (bJ * bJ + qJ * qJ) / D + m + m;
    AE(K, K) += (bK * bK + qK * qK) / D + m + m;
    const double ij = (bI * bJ + qI * qJ) / D + m;
    const double ik = (bI * bK + qI * qK) / D + m;
    const double jk = (bJ * bK + qJ * qK) / D + m;
    AE(I, J) += ij;
    AE(J, I) += ij;
    AE(I, K) += ik;
    AE(K, I) += ik;
    AE(J, K) += jk;
    AE(K, J) += jk;
  }
  // Static condensation of the centre node; its row and column stay as they
  // are and are not read afterwards.
  for (int i = 1; i <= p; ++i) {
    for (int j = 1; j <= p; ++j) {
      AE(j, i) = AE(j, i) - AE(j, c) * AE(c, i) / AE(c, c);
    }
  }
#undef AE
}

// The element matrices depend on geometry and k only, yet every assembly and
// every secondary right-hand side of a wavenumber needs all of them: they are
// made once per wavenumber into the store sized with the pattern. Copies of
// what element_matrix returns, so every user sees the same bits.
const double* element_matrices(const MeshModel& mesh, int nodes_per_element,
                               double k, ForwardWork* work) {
  const int p = nodes_per_element;
  const std::size_t pp = static_cast<std::size_t>(p) * p;
  double* store = work->element_matrices.data();
  if (same_wavenumber(work->element_matrices_k, k)) return store;
  double ae[25];
  const double* x = mesh.node_x.data();
  const double* y = mesh.node_y.data();
  const int* en = mesh.element_nodes.data();
  for (int e = 0; e < mesh.num_elements; ++e) {
    element_matrix(ae, x, y, en + 4 * e, p, k);
    copy_block(ae, p, store + pp * e);
  }
  work->element_matrices_k = k;
  return store;
}

// Inputs: fm (mesh with pin_flags, p, pattern), log_conductivity (E),
// k (1/m).
// In/out: work->matrix_values (M, overwritten), work->element_matrices (the
// store of wavenumber k, refilled when k changes).
void assemble_matrix(const ForwardMesh& fm, const double* log_conductivity,
                     double k, ForwardWork* work) {
  timer("ele0");
  const MeshModel& mesh = *fm.mesh;
  const int p = fm.nodes_per_element;
  const std::size_t pp = static_cast<std::size_t>(p) * p;
  const int n_nodes = mesh.num_nodes;
  const int* row_start = fm.pattern->matrix_row_start.data();
  double* values = work->matrix_values.data();
  const int m = row_start[n_nodes] - 1;
  for (int t = 0; t < m; ++t) values[t] = 0.0;

  // Each local pair adds s * ae(i, j) at the place the pattern gave it, in
  // element order and pair order with i outer; mirrored pairs and pairs
  // outside the pattern have no place and add nothing.
  const double* store = element_matrices(mesh, p, k, work);
  const int* positions = fm.pattern->element_positions.data();
  for (int e = 0; e < mesh.num_elements; ++e) {
    const double s = std::exp(log_conductivity[e]);
    const double* a = store + pp * e;
    const int* pos = positions + pp * e;
    for (std::size_t t = 0; t < pp; ++t) {
      if (pos[t] > 0) values[pos[t] - 1] += s * a[t];
    }
  }
  // The one boundary condition: the pinned node's potential is held near 0.
  const int* pin = mesh.pin_flags.data();
  for (int i = 0; i < n_nodes; ++i) {
    if (pin[i] == 1) values[row_start[i] - 1] *= 10000000000.0;
  }
  timer("ele1");
}

void choose_pinned_node(int mesh_type, const ElectrodeTable& table,
                        MeshModel* mesh) {
  const int n_nodes = mesh->num_nodes;
  mesh->pin_flags.assign(n_nodes, 0);
  int pinned = 1;
  if (mesh_type == 3) {
    // The rule uses an electrode's node number less a coordinate as a node
    // number; a term whose number falls outside 1..N takes the coordinate 0.
    const double* x = mesh->node_x.data();
    const double* y = mesh->node_y.data();
    const double upper = n_nodes;
    double best = 0.0;
    for (int i = 1; i <= n_nodes; ++i) {
      double sum = 0.0;
      for (int e = 0; e < table.num_electrodes; ++e) {
        const double node = table.electrode_nodes[e];
        const double tp = std::trunc(node - x[i - 1]);
        const double tq = std::trunc(node - y[i - 1]);
        const double xp = (tp >= 1.0 && tp <= upper) ? x[static_cast<int>(tp) - 1] : 0.0;
        const double yq = (tq >= 1.0 && tq <= upper) ? y[static_cast<int>(tq) - 1] : 0.0;
        sum = sum + std::sqrt(xp * xp + yq * yq);
      }
      if (sum > best) {
        best = sum;
        pinned = i;
      }
    }
  }
  if (n_nodes > 0) mesh->pin_flags[pinned - 1] = 1;
}

// Matrix pattern: which entries of the upper triangle of the conductance
// matrix are stored (diagonal first, then the higher neighbours ascending),
// and the map from each element's local node pairs to those entries.
#include <limits>
#include <vector>

#include "forward/forward.h"
#include "mesh/mesh_model.h"
#include "run/maintainer.h"
#include "textio/textio.h"

namespace {

// Elements that name each node among their first p slots, each element once,
// in ascending element order; a node scans only these instead of all E.
//   node_start     out: N + 1 entries, 0-based start of node n's list at [n - 1]
//   node_elements  out: the lists, 0-based element indices
void build_node_elements(const MeshModel& mesh, int p,
                         std::vector<int>* node_start,
                         std::vector<int>* node_elements) {
  const int n_nodes = mesh.num_nodes;
  const int n_elements = mesh.num_elements;
  const int* en = mesh.element_nodes.data();
  node_start->assign(n_nodes + 1, 0);
  int* start = node_start->data();
  for (int e = 0; e < n_elements; ++e) {
    for (int s = 0; s < p; ++s) {
      const int node = en[4 * e + s];
      bool repeat = false;
      for (int r = 0; r < s; ++r) repeat = repeat || en[4 * e + r] == node;
      if (!repeat) ++start[node];
    }
  }
  // start[n] counts node n (1-based); turn the counts into start offsets.
  int total = 0;
  for (int n = 0; n < n_nodes; ++n) {
    const int count = start[n + 1];
    start[n] = total;
    total += count;
  }
  start[n_nodes] = total;
  node_elements->assign(total, 0);
  std::vector<int> fill(start, start + n_nodes);
  for (int e = 0; e < n_elements; ++e) {
    for (int s = 0; s < p; ++s) {
      const int node = en[4 * e + s];
      bool repeat = false;
      for (int r = 0; r < s; ++r) repeat = repeat || en[4 * e + r] == node;
      if (!repeat) (*node_elements)[fill[node - 1]++] = e;
    }
  }
}

// The distinct neighbours of node i with higher numbers, in the order a scan
// of i's elements in element order and slot order meets them. The list holds
// CONNECTED_LIMIT entries; one more is fatal, as for a row too long for the
// fixed row list.
//   mark  in/out: N entries; mark[q - 1] == i flags q as already listed
//   list  out: CONNECTED_LIMIT entries, 1-based node numbers
// Returns the list length.
int higher_neighbours(const MeshModel& mesh, int p, int i,
                      const int* node_start, const int* node_elements,
                      int* mark, int* list) {
  const int* en = mesh.element_nodes.data();
  int c = 0;
  for (int t = node_start[i - 1]; t < node_start[i]; ++t) {
    const int e = node_elements[t];
    for (int s = 0; s < p; ++s) {
      const int q = en[4 * e + s];
      if (q <= i || mark[q - 1] == i) continue;
      mark[q - 1] = i;
      ++c;
      if (c > CONNECTED_LIMIT) {
        fatal(CH_LOG, 0,
              "1X, 'FATAL:  Too many connected nodes -  reduce size of mesh "
              "or contact ', A",
              {wv_text(MAINTAINER_EMAIL)});
      }
      list[c - 1] = q;
    }
  }
  return c;
}

// For every local pair (i, j) of every element, the 1-based position in
// matrix_values that the assembly adds s * ae(i, j) to, or 0 when the pair
// adds nothing: the diagonal for i = j, the entry of column gj in row gi when
// gi < gj (0 if the pattern lacks it), and nothing when gi >= gj at i != j,
// since the mirrored pair supplies that term.
void build_element_positions(const MeshModel& mesh, int p,
                             MatrixPattern* pattern) {
  const int pp = p * p;
  const int* en = mesh.element_nodes.data();
  const int* row_start = pattern->matrix_row_start.data();
  const int* columns = pattern->matrix_columns.data();
  pattern->element_positions.assign(static_cast<std::size_t>(mesh.num_elements) * pp, 0);
  int* pos = pattern->element_positions.data();
  for (int e = 0; e < mesh.num_elements; ++e) {
    for (int i = 0; i < p; ++i) {
      const int gi = en[4 * e + i];
      for (int j = 0; j < p; ++j) {
        const int gj = en[4 * e + j];
        int found = 0;
        if (i == j) {
          found = row_start[gi - 1];
        } else if (gi < gj) {
          for (int r = row_start[gi - 1] + 1; r < row_start[gi]; ++r) {
            if (columns[r - 1] == gj) {
              found = r;
              break;
            }
          }
        }
        pos[static_cast<std::size_t>(e) * pp + i * p + j] = found;
      }
    }
  }
}

// Counts the stored entries M of the mesh's pattern, writing its progress
// line first.
int count_storage(const MeshModel& mesh, int nodes_per_element) {
  tio_write(CH_CONSOLE,
            "1X, '>> Determining storage needed for finite element "
            "conductance matrix'");
  std::vector<int> node_start, node_elements;
  build_node_elements(mesh, nodes_per_element, &node_start, &node_elements);
  std::vector<int> mark(mesh.num_nodes, 0);
  int list[CONNECTED_LIMIT];
  int m = 0;
  for (int i = 1; i <= mesh.num_nodes; ++i) {
    const int c = higher_neighbours(mesh, nodes_per_element, i,
                                    node_start.data(), node_elements.data(),
                                    mark.data(), list);
    m += c + 1;
  }
  return m;
}

// Fills matrix_row_start and matrix_columns (sized N + 1 and M) and the
// element positions, writing its progress line first.
void generate_index(const MeshModel& mesh, int nodes_per_element,
                    MatrixPattern* pattern) {
  tio_write(CH_CONSOLE,
            "1X, '>> Generating index array for finite element conductance "
            "matrix'");
  std::vector<int> node_start, node_elements;
  build_node_elements(mesh, nodes_per_element, &node_start, &node_elements);
  std::vector<int> mark(mesh.num_nodes, 0);
  int list[CONNECTED_LIMIT];
  int* row_start = pattern->matrix_row_start.data();
  int* columns = pattern->matrix_columns.data();
  int pos = 1;
  for (int i = 1; i <= mesh.num_nodes; ++i) {
    row_start[i - 1] = pos;
    columns[pos - 1] = i;
    ++pos;
    const int c = higher_neighbours(mesh, nodes_per_element, i,
                                    node_start.data(), node_elements.data(),
                                    mark.data(), list);
    // Insertion sort: rows are short and the entries distinct, so any
    // ascending sort gives the same row.
    for (int t = 1; t < c; ++t) {
      const int v = list[t];
      int r = t;
      while (r > 0 && list[r - 1] > v) {
        list[r] = list[r - 1];
        --r;
      }
      list[r] = v;
    }
    for (int t = 0; t < c; ++t) columns[pos - 1 + t] = list[t];
    pos += c;
  }
  row_start[mesh.num_nodes] = pos;

  build_element_positions(mesh, nodes_per_element, pattern);
}

}  // namespace

// The matrix values and permutation are sized between the two passes, so
// that a mesh too large for the memory stops the run before the index pass
// writes its line; the element store follows the pattern.
void build_matrix_pattern(const MeshModel& mesh, int nodes_per_element,
                          MatrixPattern* pattern, ForwardWork* work) {
  const int m = count_storage(mesh, nodes_per_element);
  const std::size_t n = static_cast<std::size_t>(mesh.num_nodes);
  pattern->num_entries = m;
  pattern->matrix_row_start.assign(n + 1, 0);
  pattern->matrix_columns.assign(static_cast<std::size_t>(m), 0);
  work->matrix_values.assign(static_cast<std::size_t>(m), 0.0);
  work->matrix_permutation.assign(n, 0);
  generate_index(mesh, nodes_per_element, pattern);
  work->element_matrices.assign(
      static_cast<std::size_t>(mesh.num_elements) * nodes_per_element *
          nodes_per_element,
      0.0);
  work->element_matrices_k = std::numeric_limits<double>::quiet_NaN();
}

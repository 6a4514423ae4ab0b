// Regularisation matrix: the roughness penalty C on the parameter vector,
// built once per run: identity (Marquardt), edge neighbours on a triangle
// mesh, or a fixed stencil on the parameter grid of a rectangular mesh.
#include <cmath>
#include <cstddef>
#include <vector>

#include "inversion/inversion.h"
#include "mesh/mesh_model.h"
#include "run/run_context.h"

namespace {

// Slot k (1..L) of row i (1..P).
inline std::size_t slot(const RegularisationMatrix& C, int i, int k) {
  return static_cast<std::size_t>(k - 1) * C.num_parameters + (i - 1);
}

// The weight is rounded to single precision once; the sums are single
// precision, so a diagonal depends on the order its couplings were met.
inline void add_to_diagonal(RegularisationMatrix* C, int p, float w) {
  C->values[slot(*C, p, 1)] += w;
}

// Parameter of element e (1-based), or 0 for none. A number outside 1..P
// counts as none, so that no row or index beyond the table can arise.
inline int parameter_of(const MeshModel& mesh, int e, int num_parameters) {
  int p = mesh.element_parameter[e - 1];
  return (p >= 1 && p <= num_parameters) ? p : 0;
}

// Centroid of triangle e (1-based).
void centroid(const MeshModel& mesh, int e, double* cx, double* cy) {
  element_centre(mesh.node_x.data(), mesh.node_y.data(),
                 &mesh.element_nodes[4 * static_cast<std::size_t>(e - 1)], 3,
                 cx, cy);
}

// Neighbours share an edge: exactly 2 of the 9 node pairs agree (a repeated
// or identical element is no neighbour).
bool share_edge(const MeshModel& mesh, int e, int f) {
  const int* a = &mesh.element_nodes[4 * static_cast<std::size_t>(e - 1)];
  const int* b = &mesh.element_nodes[4 * static_cast<std::size_t>(f - 1)];
  int same = 0;
  for (int s = 0; s < 3; ++s)
    for (int t = 0; t < 3; ++t)
      if (a[s] == b[t]) ++same;
  return same == 2;
}

// Inputs: mesh (node_x, node_y, element_nodes with the zone number in slot 4,
// element_parameter), alpha_aniso. In/out: C, zeroed with its diagonal
// indices set; only slots 1..5 of a row are used whatever its width.
// Each element couples to at most 3 edge neighbours, taken in ascending
// element number over the whole mesh.
void triangle_couplings(const MeshModel& mesh, double alpha_aniso,
                        RegularisationMatrix* C) {
  const int P = C->num_parameters;
  const int E = mesh.num_elements;
  for (int e = 1; e <= E; ++e) {
    double ex = 0.0, ey = 0.0;
    centroid(mesh, e, &ex, &ey);
    const int pe = parameter_of(mesh, e, P);
    const int zone_e = mesh.element_nodes[4 * static_cast<std::size_t>(e - 1) + 3];
    int count = 1;
    int start = 1;
    while (count <= 3) {
      int f = start;
      while (f <= E && (f == e || !share_edge(mesh, e, f))) ++f;
      if (f > E) break;
      const int pf = parameter_of(mesh, f, P);
      // A neighbour without a parameter (or e without one) ends the search
      // of e: the search start stays, the same f would be met until the
      // count runs out, so later neighbours are never coupled.
      if (pe == 0 || pf == 0) break;
      const int zone_f = mesh.element_nodes[4 * static_cast<std::size_t>(f - 1) + 3];
      // Different zone numbers mark a boundary the model may jump across.
      if (zone_e == zone_f) {
        double fx = 0.0, fy = 0.0;
        centroid(mesh, f, &fx, &fy);
        const double dx = std::fabs(ex - fx);
        const double dy = std::fabs(ey - fy);
        const double wd = (dx / (dx + dy)) * alpha_aniso + dy / (dx + dy);
        const float w = static_cast<float>(wd);
        add_to_diagonal(C, pe, w);
        if (pf != pe) {
          // Four off-diagonal slots; a fifth distinct neighbour parameter is
          // dropped while its diagonal share stays.
          for (int k = 2; k <= 5; ++k) {
            const std::size_t s = slot(*C, pe, k);
            if (C->index[s] == pf) {
              C->values[s] -= w;
              break;
            }
            if (C->index[s] == 0) {
              C->values[s] = -w;
              C->index[s] = pf;
              break;
            }
          }
        }
      }
      ++count;
      start = f + 1;
    }
  }
}

// Extents of each grid parameter over the nodes of its elements.
// Inputs: mesh (4 nodes per element). Outputs: X, Y (P, 0-based).
// The running maximum starts at -10.0 and the minimum at 1e11: a parameter
// lying wholly below -10 gets too large an extent, and one without elements
// gets -10 - 1e11. The couplings are built on exactly these values.
void grid_extents(const MeshModel& mesh, int num_parameters, double* X,
                  double* Y, double* work_min_x, double* work_min_y) {
  for (int p = 0; p < num_parameters; ++p) {
    X[p] = -10.0;
    Y[p] = -10.0;
    work_min_x[p] = 1e11;
    work_min_y[p] = 1e11;
  }
  for (int e = 1; e <= mesh.num_elements; ++e) {
    const int p = parameter_of(mesh, e, num_parameters);
    if (p == 0) continue;
    const int* nodes = &mesh.element_nodes[4 * static_cast<std::size_t>(e - 1)];
    for (int s = 0; s < 4; ++s) {
      const double x = mesh.node_x[nodes[s] - 1];
      const double y = mesh.node_y[nodes[s] - 1];
      if (x > X[p - 1]) X[p - 1] = x;
      if (x < work_min_x[p - 1]) work_min_x[p - 1] = x;
      if (y > Y[p - 1]) Y[p - 1] = y;
      if (y < work_min_y[p - 1]) work_min_y[p - 1] = y;
    }
  }
  for (int p = 0; p < num_parameters; ++p) {
    X[p] = X[p] - work_min_x[p];
    Y[p] = Y[p] - work_min_y[p];
  }
}

// Block label of grid parameter p (1-based). A table shorter than the grid
// reads as the default label 1.0 beyond its end.
inline double block_label(const RunContext& ctx, int p) {
  const std::size_t i = static_cast<std::size_t>(p - 1);
  return i < ctx.block_weights.size() ? ctx.block_weights[i] : 1.0;
}

// Linear filter on the parameter grid (p = o * npy + c + 1, y fastest).
// Inputs: mesh, ctx (num_patch_x, num_patch_y, alpha_aniso, block_weights).
// In/out: C. Work: four vectors of P reals for the extents.
// The weights are products of extents: a coupling along y grows with the
// width of the cell and the sum of the two heights, one along x with the
// height and the two widths, times alpha_aniso. Neighbours with another
// block label (compared exactly) are not coupled.
void grid_linear(const RunContext& ctx, const MeshModel& mesh,
                 RegularisationMatrix* C) {
  const int P = C->num_parameters;
  const int npx = ctx.num_patch_x, npy = ctx.num_patch_y;
  std::vector<double> work(4 * static_cast<std::size_t>(P));
  double* X = work.data();
  double* Y = X + P;
  grid_extents(mesh, P, X, Y, Y + P, Y + 2 * P);
  for (int o = 0; o < npx; ++o) {
    for (int c = 0; c < npy; ++c) {
      const int p = o * npy + c + 1;
      if (p > P) continue;
      const double label = block_label(ctx, p);
      const double Xp = X[p - 1], Yp = Y[p - 1];
      int next = 2;
      for (int n = 0; n < 4; ++n) {
        int q = 0;
        if (n == 0 && c > 0) q = p - 1;
        if (n == 1 && c < npy - 1) q = p + 1;
        if (n == 2 && o > 0) q = p - npy;
        if (n == 3 && o < npx - 1) q = p + npy;
        if (q < 1 || q > P || block_label(ctx, q) != label) continue;
        const double wd = n < 2 ? Xp * 2.0 * (Yp + Y[q - 1])
                                : Yp * (2.0 * ctx.alpha_aniso) * (Xp + X[q - 1]);
        const float w = static_cast<float>(wd);
        add_to_diagonal(C, p, w);
        const std::size_t s = slot(*C, p, next++);
        C->values[s] = -w;
        C->index[s] = q;
      }
    }
  }
}

// Quadratic filter stencil: offsets along x (o) and y (c) and the weight, in
// the order the terms fill the row. The diagonal neighbours carry +2 and the
// interior diagonal is 36; this is the operator used, not the textbook
// biharmonic one.
struct StencilTerm {
  int step_o, step_c;
  double w;
};
const StencilTerm quadratic_stencil[12] = {
    {0, -1, 8.0},  {0, 1, 8.0},  {-1, 0, 8.0}, {1, 0, 8.0},
    {0, -2, -1.0}, {0, 2, -1.0}, {-2, 0, -1.0}, {2, 0, -1.0},
    {1, -1, 2.0},  {1, 1, 2.0},  {-1, 1, 2.0}, {-1, -1, 2.0}};

// Quadratic filter on the parameter grid, without extents, labels or
// anisotropy. Inputs: num_patch_x, num_patch_y. In/out: C (width 13).
// Terms outside the grid are left out, so every row sums to zero.
void grid_quadratic(int npx, int npy, RegularisationMatrix* C) {
  const int P = C->num_parameters;
  for (int o = 0; o < npx; ++o) {
    for (int c = 0; c < npy; ++c) {
      const int p = o * npy + c + 1;
      if (p > P) continue;
      int next = 2;
      for (const StencilTerm& t : quadratic_stencil) {
        const int oq = o + t.step_o, cq = c + t.step_c;
        if (oq < 0 || oq >= npx || cq < 0 || cq >= npy) continue;
        const int q = oq * npy + cq + 1;
        if (q > P) continue;
        const float w = static_cast<float>(t.w);
        add_to_diagonal(C, p, w);
        const std::size_t s = slot(*C, p, next++);
        C->values[s] = -w;
        C->index[s] = q;
      }
    }
  }
}

}  // namespace

// Inputs: ctx (regularised, quadratic_filter, alpha_aniso, num_patch_x,
// num_patch_y, block_weights), mesh, nodes_per_element (3 triangles, else
// grid), num_parameters P. Output: C sized P by L (L = 13 with the quadratic
// filter, else 5), slot 1 of row i holding index i.
void build_regularisation(const RunContext& ctx, const MeshModel& mesh,
                          int nodes_per_element, int num_parameters,
                          RegularisationMatrix* C) {
  const int P = num_parameters > 0 ? num_parameters : 0;
  C->num_parameters = P;
  C->width = ctx.quadratic_filter ? 13 : 5;
  const std::size_t size = static_cast<std::size_t>(P) * C->width;
  C->values.assign(size, 0.0f);
  C->index.assign(size, 0);
  for (int i = 1; i <= P; ++i) C->index[slot(*C, i, 1)] = i;

  if (!ctx.regularised) {
    for (int i = 1; i <= P; ++i) C->values[slot(*C, i, 1)] = 1.0f;
  } else if (nodes_per_element == 3) {
    triangle_couplings(mesh, ctx.alpha_aniso, C);
  } else if (ctx.quadratic_filter) {
    grid_quadratic(ctx.num_patch_x, ctx.num_patch_y, C);
  } else {
    grid_linear(ctx, mesh, C);
  }
}

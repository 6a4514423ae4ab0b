// Element centre: the vertex mean of an element, the one point at which the
// model files, the polyline mask, the triangle regularisation and the
// element matrix place an element.
#include "mesh/mesh_model.h"

// Inputs: node_x, node_y (N, metres), nodes (the element's first p slots,
// 1-based), nodes_per_element p. Outputs: cx, cy, metres.
// The sums run in slot order from the first node. Dividing by 4 gives the
// bits of multiplying by 0.25, so both shapes share the division.
void element_centre(const double* node_x, const double* node_y,
                    const int* nodes, int nodes_per_element, double* cx,
                    double* cy) {
  double sx = node_x[nodes[0] - 1];
  double sy = node_y[nodes[0] - 1];
  for (int s = 1; s < nodes_per_element; ++s) {
    sx = sx + node_x[nodes[s] - 1];
    sy = sy + node_y[nodes[s] - 1];
  }
  *cx = sx / nodes_per_element;
  *cy = sy / nodes_per_element;
}

// Primary potentials of the singularity removal: the reference conductivity
// of the homogeneous half-space, the Bessel functions K0 and I0, and the
// half-space potential of a point source at every node for one wavenumber.
#include <cmath>

#include "forward/forward_kernels.h"
#include "mesh/mesh_model.h"
#include "run/constants.h"

// Four times the signed area of the triangle of nodes i, j, k (1-based),
// written as the weight is defined, positive when anticlockwise in (x, y).
static double four_areas(const double* x, const double* y, int i, int j, int k) {
  const double xi = x[i - 1], xj = x[j - 1], xk = x[k - 1];
  const double yi = y[i - 1], yj = y[j - 1], yk = y[k - 1];
  return ((xj - xi) * (yk - yi) - (yi - yj) * (xi - xk)) * 2.0;
}

// Local numbers of the four triangles that weight a four-node element.
static const int area_table[12] = {1, 2, 5, 2, 3, 5, 3, 4, 5, 4, 1, 5};

// Conductivity sigma_0 of the primary half-space: the area-weighted
// geometric mean of the model, taken 5 percent low when the model is uniform
// so that the secondary problem never vanishes.
//   mesh               in: node_x, node_y (N), element_nodes (4 E + 1, 1-based)
//   nodes_per_element  in: 3 for triangles, else four-node elements
//   log_conductivity   in: E values, ln of S/m
// For a four-node element the fifth point of its triangles is the entry
// behind its fourth slot, the first node of the next element (node 1 behind
// the last element); the weights of such elements are not their areas.
double reference_conductivity(const MeshModel& mesh, int nodes_per_element,
                              const double* log_conductivity) {
  const double* x = mesh.node_x.data();
  const double* y = mesh.node_y.data();
  const int* en = mesh.element_nodes.data();
  double s = 0.0;
  double l = 0.0;
  for (int e = 0; e < mesh.num_elements; ++e) {
    const int* local = en + 4 * e;  // local[0..4]: slots 1..4 and the entry behind
    double a;
    if (nodes_per_element == 3) {
      a = four_areas(x, y, local[0], local[1], local[2]);
    } else {
      a = 0.0;
      for (int t = 0; t < 4; ++t) {
        a = a + four_areas(x, y, local[area_table[3 * t] - 1],
                           local[area_table[3 * t + 1] - 1],
                           local[area_table[3 * t + 2] - 1]);
      }
    }
    s = s + a;
    l = l + a * log_conductivity[e];
  }
  double sigma_0 = std::exp(l / s);
  for (int e = 0; e < mesh.num_elements; ++e) {
    if (std::fabs(std::exp(log_conductivity[e]) - sigma_0) > 1e-6) return sigma_0;
  }
  return sigma_0 * 0.949999988079071;
}

// I0 by the polynomial approximations of Abramowitz and Stegun 9.8.1
// (|x| < 3.75) and 9.8.2, Horner's scheme.
double bessel_i0(double x) {
  const double ax = std::fabs(x);
  if (ax < 3.75) {
    double t = x / 3.75;
    t = t * t;
    return 1.0 + t * (3.5156229 + t * (3.0899424 + t * (1.2067492 +
           t * (0.2659732 + t * (0.0360768 + t * 0.0045813)))));
  }
  const double t = 3.75 / ax;
  return (std::exp(ax) / std::sqrt(ax)) *
         (0.39894228 + t * (0.01328592 + t * (0.00225319 + t * (-0.00157565 +
          t * (0.00916281 + t * (-0.02057706 + t * (0.02635537 +
          t * (-0.01647633 + t * 0.00392377))))))));
}

// K0 for x > 0 by Abramowitz and Stegun 9.8.5 (x <= 2) and 9.8.6, Horner's
// scheme.
double bessel_k0(double x) {
  if (x <= 2.0) {
    const double t = x * 0.25 * x;
    return (-std::log(x * 0.5) * bessel_i0(x)) +
           (-0.57721566 + t * (0.42278420 + t * (0.23069756 + t * (0.03488590 +
            t * (0.00262698 + t * (0.00010750 + t * 0.0000074))))));
  }
  const double t = 2.0 / x;
  return (std::exp(-x) / std::sqrt(x)) *
         (1.25331414 + t * (-0.07832358 + t * (0.02189568 + t * (-0.01062446 +
          t * (0.00587872 + t * (-0.00251540 + t * 0.00053208))))));
}

// Potential of a unit point source at node `source` in a half-space of
// conductivity sigma_0 bounded by y = 0, for wavenumber k along strike:
// source plus image in y = 0, the 3-D form 1/(4 pi sigma r) when k is 0 and
// the transformed form K0(k r)/(2 pi sigma) otherwise. The source node itself
// gets 0.
//   mesh               in: node_x, node_y, N each, metres
//   source             in: 1-based source node
//   k                  in: wavenumber, 1/m
//   sigma_0            in: S/m
//   primary_potential  out: N doubles, volts per ampere
void fill_primary_potential(const MeshModel& mesh, int source, double k,
                            double sigma_0, double* primary_potential) {
  const int n = mesh.num_nodes;
  const double* x = mesh.node_x.data();
  const double* y = mesh.node_y.data();
  const double xs = x[source - 1];
  const double ys = y[source - 1];
  // k = 0 is the point source of the three-dimensional field (the divisor
  // is 4 pi); otherwise the two-dimensional transform with K0 (2 pi). Both
  // divisors are formed from pi in single precision.
  const bool point = k == 0.0;
  const double scale = sigma_0 * (point ? 4.0 * pi_single : 2.0 * pi_single);
  for (int i = 0; i < n; ++i) {
    const double dx = x[i] - xs;
    const double dy = y[i] - ys;
    const double dyi = y[i] + ys;
    const double r = std::sqrt(dy * dy + dx * dx);
    const double ri = std::sqrt(dx * dx + dyi * dyi);
    primary_potential[i] = point ? (1.0 / r + 1.0 / ri) / scale
                                 : (bessel_k0(k * r) + bessel_k0(k * ri)) / scale;
  }
  primary_potential[source - 1] = 0.0;
}

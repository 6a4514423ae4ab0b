// Kernels shared by the files of the forward solver: the element matrix and
// the assembly, the quadrature rules, the Bessel functions and the primary
// potential, and the solver adapter. Internal to the forward library.
#pragma once

#include "forward/forward.h"

// Element matrix of stiffness plus k^2 times mass for an element of p nodes
// (3 or 4), split into sub-triangles about its vertex mean and condensed.
//   ae     out: 25 doubles, column stride 5; the leading p by p block is the result
//   node_x, node_y  in: node coordinates, 0-based arrays of N, metres
//   nodes  in: p 1-based node numbers
//   p      in: 3 or 4
//   k      in: wavenumber, 1/m
void element_matrix(double* ae, const double* node_x, const double* node_y,
                    const int* nodes, int p, double k);

// Assembles the matrix of wavenumber k into work->matrix_values, with the
// pinned node's diagonal times 1e10, between the timer calls "ele0"/"ele1".
void assemble_matrix(const ForwardMesh& fm, const double* log_conductivity,
                     double k, ForwardWork* work);

// n-point Gauss-Legendre abscissae x and weights w on (x1, x2); 0-based arrays of n.
void legendre_nodes(double x1, double x2, double* x, double* w, int n);

// n-point generalised Gauss-Laguerre abscissae and weights, weight x^alpha e^-x.
void laguerre_nodes(double* x, double* w, int n, double alpha);

double bessel_k0(double x);
double bessel_i0(double x);

// Half-space potential of a unit point source at node `source` for
// wavenumber k and conductivity sigma_0, at every node (0 at the source).
//   primary_potential  out: N doubles
void fill_primary_potential(const MeshModel& mesh, int source, double k,
                            double sigma_0, double* primary_potential);

// Writes the PARDISO error words for `error` to log and console.
void pardiso_report(int error);

// Potential of every node for wavenumber k (1/m) and a unit source at
// electrode c (1-based table row) into column c of work->potentials. With
// singularity removal the primary potential of that source must stand in
// work->primary_potential, and q.sigma_0 is read. reuse: solve with the
// present factors only; release: free the solver at the end.
// Returns 0, or PARDISO's error code.
int solve_wavenumber(const ForwardMesh& fm, const double* log_conductivity,
                     const Quadrature& q, double k, int electrode, bool reuse,
                     bool release, ForwardWork* work);

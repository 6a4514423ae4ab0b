// Kernels shared by the inner solver and the resolution map: the two passes
// over the Jacobian, the scaled operator and the conjugate-gradient loop.
// Internal to the inversion library.
#pragma once

#include "inversion/inversion.h"

// Column reductions of J (n by P, column j contiguous at J + j * n) into
// out (P). Each column's sum starts at 0.0 and adds its terms in ascending
// measurement order, the products formed as written.
//   column_squares        out_j = sum ((J(i,j) * J(i,j)) * W(i)) * W(i)
//   column_weighted_dots  out_j = sum ((J(i,j) * W(i)) * W(i)) * x(i)
//   column_dots           out_j = sum J(i,j) * x(i)
void column_squares(const double* J, const double* W, int n, int P,
                    double* out);
void column_weighted_dots(const double* J, const double* W, const double* x,
                          int n, int P, double* out);
void column_dots(const double* J, const double* x, int n, int P, double* out);

// t(i) = sum over k = 1..P, ascending, of (J(i,k) * p_k) * D_k; t is n.
void scaled_product(const double* J, const double* p, const double* D, int n,
                    int P, double* t);

// One row of C times x: value(j,1) * x_j + the filled off-diagonal slots in
// slot order, each term (value * x_x) * D_x, or value * x_x when D is null.
// j is 0-based.
double regularisation_row(const RegularisationMatrix& C, int j,
                          const double* x, const double* D);

// The Jacobi-scaled operator of eq is D (J^T W^2 J + alpha c C
// [+ joint_weight I]) D. With c null the scale is 1 and the diagonal weight
// is alpha alone, which is the resolution operator (the joint term needs c).
// The kernels below read J, W, C, c, alpha, joint_weight, joint, n and P.

// D_j = 1 / sqrt(scale_j * value(j,1) + S_j [+ joint_weight]) with S the
// column_squares of J and scale_j = c_j * alpha (alpha with c null); D is P.
void jacobi_scaling(const NormalEquations& op, double* D);

// Conjugate gradient on (D A D) y = b from y = 0, where b is in work->r on
// entry and work->D holds the scaling. At most P / 2 steps (integer
// division); converged when 0.0001 >= ||r|| / ||r0||.
//   y, first, count  out: entries first..first+count-1 (0-based) of y,
//                    stored at y[0..count-1]; the rest are not kept
//   steps            out: steps made
//   ratio            out: ||r|| / ||r0|| of the last step, 0 / ||r0|| when
//                    no step was made
// Returns true on convergence. work->p, q, t are overwritten.
bool conjugate_gradient(const NormalEquations& op, SolverWork* work, double* y,
                        int first, int count, int* steps, double* ratio);

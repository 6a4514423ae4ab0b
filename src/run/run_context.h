// RunContext: the control values of a run, filled while Q5.in is read and
// read-only afterwards (but for mesh_type, 5 becoming 4, and num_wavenumbers).
#pragma once

#include <vector>

// Upper bound of the wavenumber table.
enum { MAX_WAVENUMBERS = 20 };

struct RunContext {
  char job_title[81];       // 80 characters, blank-padded, terminated
  int job_type;             // 0 forward, 1 inverse
  int mesh_type;            // 3 mesh.dat, 4 grid with offsets, 5 grid with depth lists; 3 or 4 after the mesh
  double flux_type;         // 2.0 two-dimensional flow, 3.0 three-dimensional flow
  int Singular_type;        // 0 off, 1 removal of the source singularity
  int res_calc;             // 0 nothing, 1 sensitivity, 2 resolution, 3 sensitivity and dumps
  bool singularity_removal;
  bool want_sensitivity, want_resolution, want_matrix_dump, want_post_calc;
  int num_wavenumbers;      // 1 when flux_type <= 2.0, else 10 until the rule sets it

  int num_x, num_y;         // grid node counts; 1 and num_nodes on mesh.dat
  double mesh_scale;        // mesh.dat coordinate factor

  int num_regions;          // region records, or 0 for a start model file
  char start_file[31];      // 30 characters, blank-padded, terminated

  int patch_size_x, patch_size_y;  // cells per parameter block, 0 for lists
  int num_patch_x, num_patch_y;    // blocks along x and y

  int inverse_type;         // 0 Marquardt, 1 linear, 2 quadratic, 3 qualitative, 4 blocked linear
  double target_decrease;
  bool regularised, quadratic_filter, qualitative;
  int data_type;            // 0 true data, 1 log data
  bool log_data;
  int reg_mode;             // 0 normal, 1 joint, 2 difference
  bool joint_reg, difference_reg;
  double tolerance;
  int max_iterations;
  int weight_update;
  bool weights_modified;
  double alpha_aniso, joint_weight;
  double a_wgt, b_wgt;      // absolute (ohm) and relative data error terms
  double rho_min, rho_max;  // accepted apparent resistivity range, ohm m
  int qualitative_mode;
  bool qualitative_flag;
  std::vector<double> block_weights;  // num_patch_x * num_patch_y, runs along y first

  // Settings of the outer iteration, built in.
  double alpha_max;         // largest trial regularisation weight
  int alpha_trials;         // trial weights per iteration
  double min_step;          // 0.001 in single precision, widened
  double scale_exponent;
};

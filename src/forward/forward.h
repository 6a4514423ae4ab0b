// Forward solver: matrix pattern, element equations, wavenumber quadrature,
// primary potentials, the PARDISO adapter and the forward loop. Turns a
// conductivity model into transfer resistances.
#pragma once

#include <vector>

struct MeshModel;
struct ElectrodeTable;
struct MeasurementSet;

// Row may hold at most this many entries beyond the diagonal.
enum { CONNECTED_LIMIT = 100 };

// Upper triangle of the symmetric conductance matrix in 1-based compressed
// rows, diagonal first in each row, then the higher columns in ascending order.
struct ConductanceMatrix {
  int num_entries;                     // M, stored entries
  std::vector<int> matrix_row_start;   // N + 1, 1-based positions; last is M + 1
  std::vector<int> matrix_columns;     // M, 1-based columns
  std::vector<double> matrix_values;   // M, values of one wavenumber
  std::vector<int> matrix_permutation; // N, PARDISO's perm
  // Set up by generate_index for the assembly; the pattern's mesh only.
  // Entry (e - 1) * p * p + (i - 1) * p + (j - 1) belongs to local pair (i, j)
  // of element e (p nodes per element).
  std::vector<int> element_positions;  // E * p * p, 1-based position in matrix_values that takes s * ae(i, j), 0 when the pair adds nothing
  std::vector<double> element_matrices; // E * p * p, ae(i, j) of every element at wavenumber element_matrices_k
  double element_matrices_k;           // wavenumber of element_matrices; NaN while they hold none
};

// ---- matrix pattern ------------------------------------------------------

// Counts the stored entries M of the mesh's pattern (writes its progress line
// to the console). A row with more than CONNECTED_LIMIT higher neighbours is
// fatal. nodes_per_element: 3 or 4.
int count_storage(const MeshModel& mesh, int nodes_per_element);

// Fills matrix_row_start and matrix_columns (sized N + 1 and M by the
// caller) and writes its progress line to the console. Also sizes and fills
// element_positions and sizes element_matrices (once per run).
void generate_index(const MeshModel& mesh, int nodes_per_element,
                    ConductanceMatrix* cm);

// Both passes with the allocation between them: sizes every array of cm
// (values and permutation included) for the mesh.
void build_matrix_pattern(const MeshModel& mesh, int nodes_per_element,
                          ConductanceMatrix* cm);

// ---- element equations ---------------------------------------------------

// Element matrix of stiffness plus k^2 times mass for an element of p nodes
// (3 or 4), split into sub-triangles about its vertex mean and condensed.
//   ae     out: 25 doubles, column stride 5; the leading p by p block is the result
//   node_x, node_y  in: node coordinates, 0-based arrays of N, metres
//   nodes  in: p 1-based node numbers
//   p      in: 3 or 4
//   k      in: wavenumber, 1/m
void element_matrix(double* ae, const double* node_x, const double* node_y,
                    const int* nodes, int p, double k);

// Element matrices of every element at wavenumber k, laid out as
// cm->element_matrices (sized by generate_index), computed on the first call
// for this k and kept until another k is asked for: they depend on geometry
// and k alone.
const double* element_matrices(const MeshModel& mesh, int nodes_per_element,
                               double k, ConductanceMatrix* cm);

// Assembles the matrix of wavenumber k into cm->matrix_values, with the
// pinned node's diagonal times 1e10, between the timer calls "ele0"/"ele1".
void assemble_matrix(const MeshModel& mesh, int nodes_per_element,
                     const double* log_conductivity, double k,
                     ConductanceMatrix* cm);

// Chooses the pinned node and sets mesh->pin_flags: node 1 on a grid; on
// mesh.dat the first node with the largest electrode sum (node 1 if no sum
// exceeds 0).
void choose_pinned_node(int mesh_type, const ElectrodeTable& table,
                        MeshModel* mesh);

// ---- wavenumber quadrature -----------------------------------------------

// Smallest and largest current-to-potential electrode distance over all
// measurements, metres.
void measurement_spacing(const MeshModel& mesh, const ElectrodeTable& table,
                         const MeasurementSet& ms, double* min_spacing,
                         double* max_spacing);

// Fills wavenumbers and wavenumber_weights (table_size entries each) and sets
// *num_wavenumbers, for wavenumber_mode 0 (Legendre and Laguerre) or 1
// (fixed table); other modes leave everything untouched.
void wavenumber_rule(int table_size, int wavenumber_mode, double min_spacing,
                     double max_spacing, double* wavenumbers,
                     double* wavenumber_weights, int* num_wavenumbers);

// n-point Gauss-Legendre abscissae x and weights w on (x1, x2); 0-based arrays of n.
void legendre_nodes(double x1, double x2, double* x, double* w, int n);

// n-point generalised Gauss-Laguerre abscissae and weights, weight x^alpha e^-x.
void laguerre_nodes(double* x, double* w, int n, double alpha);

double log_gamma(double x);

// ---- primary potentials --------------------------------------------------

// Area-weighted geometric mean conductivity of the model, times 0.95 (in
// single precision) when every element lies within 1e-6 S/m of it.
double reference_conductivity(const MeshModel& mesh, int nodes_per_element,
                              const double* log_conductivity);

double bessel_k0(double x);
double bessel_i0(double x);

// Half-space potential of a unit point source at node `source` for
// wavenumber k and conductivity sigma_0, at every node (0 at the source).
//   primary_potential  out: N doubles
void fill_primary_potential(const MeshModel& mesh, int source, double k,
                            double sigma_0, double* primary_potential);

// ---- solver adapter and forward loop -------------------------------------

// Work arrays of the forward solution, sized by the driver once.
struct ForwardWork {
  std::vector<double> right_hand_side;    // N
  std::vector<double> primary_potential;  // N
  std::vector<double> potentials;         // N * L, column c (electrode) contiguous
};

// Wall-clock seconds of the solver's stages, one record per wavenumber (a
// record starts at each reordering), kept only while `enabled` is set. For
// the benchmark; the run itself never enables it.
struct SolverStageRecord {
  double assembly;       // element matrices and assembly
  double reordering;     // phase 11
  double factorisation;  // phase 22
  double right_hand_side;  // building right-hand sides
  double solve;          // phase 33, all electrodes
  double release;        // phase -1
  int solves;            // phase 33 calls
};
enum { MAX_STAGE_RECORDS = 256 };
struct SolverStageLog {
  bool enabled;
  int count;             // records in use
  SolverStageRecord records[MAX_STAGE_RECORDS];
};
extern SolverStageLog solver_stage_log;

// Writes the PARDISO error words for `error` to log and console.
void pardiso_report(int error);

// Potential of every node for one wavenumber k and unit source at node
// `source` into `result` (N doubles). reuse: solve with the present factors
// only; release: free the solver at the end. *error: 0 or PARDISO's code.
void solve_wavenumber(const MeshModel& mesh, int nodes_per_element,
                      const double* log_conductivity, ConductanceMatrix* cm,
                      double* right_hand_side, const double* primary_potential,
                      double* result, int source, double k, double sigma_0,
                      bool singularity_removal, bool reuse, bool release,
                      int* error);

// Term j (0-based) of the wavenumber sum: the potentials of every
// electrode's unit source at the term's wavenumber into work->potentials
// (column c for electrode c; one assembly and factorisation, one solve per
// electrode), then each measurement's share added to transfer_resistance
// (num_measurements, ohm). k, w out: the term's wavenumber (1/m) and weight,
// k = 0 and w = 1 for two-dimensional flow. Returns 0, or the PARDISO error
// code that stopped it (nothing is added then).
int forward_term(const MeshModel& mesh, int nodes_per_element,
                 ConductanceMatrix* cm, const ElectrodeTable& table,
                 const MeasurementSet& ms, const double* log_conductivity,
                 const double* wavenumbers, const double* wavenumber_weights,
                 int j, double flux_type, double sigma_0,
                 bool singularity_removal, ForwardWork* work,
                 double* transfer_resistance, double* k, double* w);

// Transfer resistance of every measurement for the model log_conductivity.
//   transfer_resistance  out: num_measurements doubles, ohm
//   forward_failed       out: 0, or the PARDISO error code that stopped it
void forward_solve(const MeshModel& mesh, int nodes_per_element,
                   ConductanceMatrix* cm, const ElectrodeTable& table,
                   const MeasurementSet& ms, const double* log_conductivity,
                   const double* wavenumbers, const double* wavenumber_weights,
                   int num_wavenumbers, double flux_type,
                   bool singularity_removal, ForwardWork* work,
                   double* transfer_resistance, int* forward_failed);

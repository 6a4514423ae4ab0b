// Data and matrix files of an inverse dataset: the table of final misfits
// and weights (stem_err.dat) and the dumps of the regularisation matrix and
// the Jacobian (stem_Rindex.dat, stem_R.dat, stem_J.dat).
#pragma once

struct MeshModel;
struct ElectrodeTable;
struct MeasurementSet;

// Writes the header and one line per measurement whose ignore flag is clear
// to channel 15: electrode numbers, normalised error E * Wf (E = c - d, or
// ln(c / d) with log data), observed and calculated apparent resistivity,
// original and final weight and whether they differ.
//   d, c, Wf, W0  in: ms.num_measurements doubles;  flags  in: as many words
void write_error_table(const MeshModel& mesh, const ElectrodeTable& table,
                       const MeasurementSet& ms, const double* d,
                       const double* c, const double* Wf, const double* W0,
                       const unsigned* flags, double flux_type, bool log_data);

// Writes the three dumps of dataset number `dataset` (stem fDDD) on channel
// 31 in turn, each opened, written and closed: stem_Rindex.dat (P, L, then P
// rows of L indices), stem_R.dat (the same with the single-precision values)
// and stem_J.dat (n, P, then the n rows of J, held column by column).
//   values, index  in: P * L, slot k of row i at (k - 1) * P + (i - 1)
//   jacobian       in: n by P, column contiguous
void write_matrix_dumps(int dataset, const float* values,
                        const int* index, int num_parameters, int width,
                        const double* jacobian, int num_measurements);

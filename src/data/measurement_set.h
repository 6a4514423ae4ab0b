// Measurements: one block of protocol.dat after checking, and the
// geometric factor that turns a transfer resistance into an apparent
// resistivity.
#pragma once

#include <vector>

struct RunContext;
struct MeshModel;
struct ElectrodeTable;

struct MeasurementSet {
  int measurement_capacity;          // block head as read
  int num_measurements;              // kept lines
  std::vector<int> electrode_numbers;  // 4 * capacity: P+, P-, C+, C- as in the file
  std::vector<int> elec_m, elec_n, elec_a, elec_b;  // capacity, 1-based table rows
  std::vector<double> observed;      // capacity, ohm
  std::vector<double> reference;     // capacity, ohm (difference inversion)
  std::vector<double> data_weight;   // capacity, 1/ohm or dimensionless (log data)
};

// Starts a block of `capacity` lines as read from its head: stops the run
// when that many would not fit in memory, and empties the arrays, which
// read_measurements grows line by line to `capacity` entries.
void begin_measurement_block(int capacity, MeasurementSet* ms);

// The same, with every array sized for `capacity` lines at once, for
// callers that fill them without read_measurements.
void allocate_measurements(int capacity, MeasurementSet* ms);

// Reads one block of `ms->measurement_capacity` lines from channel 13, checks
// them, writes warnings and the summary, and sets num_measurements. The
// arrays grow as lines are read where they are shorter; all hold
// `capacity` entries at the end.
void read_measurements(const RunContext& ctx, const MeshModel& mesh,
                       const ElectrodeTable& table, MeasurementSet* ms);

// Row (1-based) of electrode number `id` in the table; the last row with
// that number wins. Returns 0 when the number is not in the table.
int find_electrode(const ElectrodeTable& table, int id);

// Geometric factor K (m) of one measurement from the flat half-space rule,
// 1.0 when flux_type is 2.0. m, n, a, b are 1-based table rows.
double geometric_factor(const MeshModel& mesh, const ElectrodeTable& table,
                        int m, int n, int a, int b, double flux_type);

// Ignore flag of a measurement: all bits set when it is out of the misfit;
// only the lowest bit is tested.
enum : unsigned { MEASUREMENT_IGNORED = 0xFFFFFFFFu };

// RMS misfit sqrt(sum (W e)^2 / (n - ignored)) of calculated data c against
// observed d, e = d - c (true data) or ln(c / d) (log data). A log-data
// measurement with c / d < 0 is flagged and counted in *num_ignored here;
// flagged measurements are passed over.
//   c, d, W  in: n doubles;  flags  in/out: n words
double rms(const double* c, const double* d, const double* W, unsigned* flags,
           int n, int* num_ignored, bool log_data);

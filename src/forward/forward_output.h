// Forward outputs: the calculated data of a forward job, Q5_forward.dat.
#pragma once

struct MeshModel;
struct ElectrodeTable;
struct MeasurementSet;

// Opens channel 16 on Q5_forward.dat, writes the kept count and one line per
// measurement (its place, the four electrode numbers as in protocol.dat,
// the transfer resistance and the apparent resistivity), and closes it.
//   transfer_resistance  in: num_measurements values, ohm
void write_forward_results(const MeshModel& mesh, const ElectrodeTable& table,
                           const MeasurementSet& ms,
                           const double* transfer_resistance,
                           double flux_type);

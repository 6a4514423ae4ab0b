// Q5_forward.dat: the transfer resistance and apparent resistivity of every
// kept measurement of a forward job.
#include "forward/forward_output.h"

#include "data/measurement_set.h"
#include "mesh/mesh_model.h"
#include "textio/textio.h"

void write_forward_results(const MeshModel& mesh, const ElectrodeTable& table,
                           const MeasurementSet& ms,
                           const double* transfer_resistance,
                           double flux_type) {
  tio_open(CH_MAP, "Q5_forward.dat");
  tio_write_free(CH_MAP, {wv_int(ms.num_measurements)});
  for (int i = 1; i <= ms.num_measurements; ++i) {
    const int* e = &ms.electrode_numbers[4 * (size_t)(i - 1)];
    double k = geometric_factor(mesh, table, ms.elec_m[i - 1], ms.elec_n[i - 1],
                                ms.elec_a[i - 1], ms.elec_b[i - 1], flux_type);
    double r = transfer_resistance[i - 1];
    tio_write(CH_MAP, "I5, 4I7, E20.10, F15.5",
              {wv_int(i), wv_int(e[0]), wv_int(e[1]), wv_int(e[2]),
               wv_int(e[3]), wv_real(r), wv_real(k * r)});
  }
  tio_close(CH_MAP);
}

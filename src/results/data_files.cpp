// Data and matrix files: the per-measurement misfit table of a dataset and
// the free-format dumps of the regularisation matrix and the Jacobian.
#include "results/data_files.h"

#include <cmath>
#include <cstddef>
#include <vector>

#include "data/measurement_set.h"
#include "mesh/mesh_model.h"
#include "run/control_file.h"
#include "textio/textio.h"

void write_error_table(const MeshModel& mesh, const ElectrodeTable& table,
                       const MeasurementSet& ms, const double* d,
                       const double* c, const double* Wf, const double* W0,
                       const unsigned* flags, double flux_type, bool log_data) {
  tio_write(CH_ERROR,
            "' ', 3X, 'P+   P-', 8X, 'C+   C-', 2X, 'Normalised_Error', 2X, "
            "'Observed_Rho', 2X, 'Calculated_Rho', 2X, 'Original_Weight', 2X, "
            "'Final_Weight    C'");
  const int* ids = table.electrode_ids.data();
  for (int i = 0; i < ms.num_measurements; ++i) {
    if (flags[i] & 1u) continue;
    const double k = geometric_factor(mesh, table, ms.elec_m[i], ms.elec_n[i],
                                      ms.elec_a[i], ms.elec_b[i], flux_type);
    // Calculated minus observed in both modes.
    const double e = log_data ? std::log(c[i] / d[i]) : c[i] - d[i];
    tio_write(CH_ERROR, "2I5, 5X, 2I5, F15.5, 2F15.3, 5X, 2E15.5, I5",
              {wv_int(ids[ms.elec_m[i] - 1]), wv_int(ids[ms.elec_n[i] - 1]),
               wv_int(ids[ms.elec_a[i] - 1]), wv_int(ids[ms.elec_b[i] - 1]),
               wv_real(e * Wf[i]), wv_real(d[i] * k), wv_real(c[i] * k),
               wv_real(W0[i]), wv_real(Wf[i]), wv_int(W0[i] != Wf[i] ? 1 : 0)});
  }
}

namespace {

// Opens the dataset's file with `tail` on channel 31 and writes the head
// record of two integers.
void open_dump(int dataset, const char* tail, int rows, int columns) {
  char name[DATASET_NAME_SIZE];
  dataset_file_name(dataset, 0, tail, name);
  tio_open(CH_MATRIX, name);
  tio_write_free(CH_MATRIX, {wv_int(rows), wv_int(columns)});
}

}  // namespace

void write_matrix_dumps(int dataset, const float* values,
                        const int* index, int num_parameters, int width,
                        const double* jacobian, int num_measurements) {
  const int P = num_parameters > 0 ? num_parameters : 0;
  const int n = num_measurements > 0 ? num_measurements : 0;
  std::vector<WriteValue> row(static_cast<std::size_t>(width > P ? width : P) + 1);

  open_dump(dataset, "_Rindex.dat", num_parameters, width);
  for (int i = 0; i < P; ++i) {
    for (int k = 0; k < width; ++k)
      row[k] = wv_int(index[static_cast<std::size_t>(k) * P + i]);
    tio_write_free_n(CH_MATRIX, row.data(), static_cast<std::size_t>(width));
  }
  tio_close(CH_MATRIX);

  open_dump(dataset, "_R.dat", num_parameters, width);
  for (int i = 0; i < P; ++i) {
    for (int k = 0; k < width; ++k)
      row[k] = wv_real(values[static_cast<std::size_t>(k) * P + i]);
    tio_write_free_n(CH_MATRIX, row.data(), static_cast<std::size_t>(width));
  }
  tio_close(CH_MATRIX);

  // J is held column by column; its rows are read with a stride.
  open_dump(dataset, "_J.dat", num_measurements, num_parameters);
  for (int i = 0; i < n; ++i) {
    for (int p = 0; p < P; ++p)
      row[p] = wv_real(jacobian[static_cast<std::size_t>(p) * n + i]);
    tio_write_free_n(CH_MATRIX, row.data(), static_cast<std::size_t>(P));
  }
  tio_close(CH_MATRIX);
}

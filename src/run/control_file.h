// Readers and checks of the control file Q5.in that belong to run control:
// title, job record, inverse settings, and the derived flags. The mesh,
// start model, patching, polyline and electrode records are read by the
// mesh subsystem at the stages the driver calls them.
#pragma once

struct RunContext;

// Record 1: reads the 80-character title and echoes it as " >> " + title to
// the console, then the log.
void read_title(RunContext* ctx);

// Record 2: job_type, mesh_type, flux_type, Singular_type, res_calc; checks
// job_type and writes the job banner.
void read_job_record(RunContext* ctx);

// After the mesh is built: checks Singular_type and res_calc (log only) and
// derives their flags.
void check_singular_and_res_calc(RunContext* ctx);

// After the pattern: checks flux_type (log only) and derives num_wavenumbers.
void check_flux_type(RunContext* ctx);

// Record 8, inverse job: inverse_type, data, regularisation and error
// settings with their banners, warnings and checks; the block weights.
void read_inverse_settings(RunContext* ctx);

// The memory estimate in bytes: 32-bit products that may wrap, as intended
// (the figure is a rough upper estimate), widened for the total.
//   N nodes, E elements, M stored matrix entries, P parameters,
//   L electrodes, D0 block head, D kept measurements, W stencil width.
long long memory_estimate_bytes(int N, int E, int M, int P, int L, int D0,
                                int D, int W, bool inverse_job);

// Writes the estimate in gigabytes to the console, then the log.
void write_memory_estimate(long long bytes);

// Name of a file of dataset n: "f" and the three digits of n, then, for an
// iteration above 0, "." and its three digits, then tail (f001_res.dat,
// f001.003_res.vtk). Each digit is the character 48 + digit, unchecked,
// so 1000 gives ':' in the hundreds.
//   out  out: DATASET_NAME_SIZE characters
enum { DATASET_NAME_SIZE = 64 };
void dataset_file_name(int n, int iteration, const char* tail, char* out);

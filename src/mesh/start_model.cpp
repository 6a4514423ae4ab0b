// The start model: the log conductivity (-ln of resistivity) of every
// element, from region records of Q5.in or from a start model file.
#include "mesh/mesh_model.h"

#include <cmath>
#include <cstddef>

#include "run/run_context.h"
#include "textio/textio.h"

namespace {

// Region records: elem1, elem2, resistivity; later records overwrite earlier
// ones, and elem1 above elem2 sets nothing.
void read_regions(int num_regions, int num_elements, double* value) {
  for (int r = 0; r < num_regions; ++r) {
    int elem1 = 0;
    int elem2 = 0;
    double rho = 0.0;
    tio_read(CH_CONTROL, READ_PLAIN,
             {rd_int(&elem1), rd_int(&elem2), rd_real(&rho)});
    if (elem1 < 1 || elem1 > num_elements)
      fatal(CH_LOG, CH_CONSOLE,
            "' FATAL: defining regions - elem1 must be in range 1:number of "
            "elements '");
    if (elem2 < 1 || elem2 > num_elements)
      fatal(CH_LOG, CH_CONSOLE,
            "' FATAL: defining regions - elem2 must be in range 1:number of "
            "elements '");
    if (rho <= 0.0)
      fatal(CH_LOG, CH_CONSOLE,
            "' FATAL: defining regions - resistivity must be > 0'");
    double v = -std::log(rho);
    for (int e = elem1; e <= elem2; ++e) value[e - 1] = v;
  }
}

// Start model file on channel 20: x, y, resistivity per element, tied to the
// element by line order alone; the coordinates are dropped. No sign check: a
// resistivity of 0 or below gives a non-finite value. An item a record
// leaves unchanged (null, or after '/') keeps the value of the record
// before, 0 in the first.
void read_start_file(RunContext* ctx, int num_elements, double* value) {
  tio_read_line(CH_CONTROL, ctx->start_file, 30);
  message(CH_LOG, CH_CONSOLE, "' >> Reading start resistivity from ', A",
          {wv_text(ctx->start_file, 30)});
  char name[31];
  int len = 30;
  while (len > 0 && ctx->start_file[len - 1] == ' ') --len;
  for (int i = 0; i < len; ++i) name[i] = ctx->start_file[i];
  name[len] = '\0';
  tio_open(CH_START, name);
  double rec[3] = {0.0, 0.0, 0.0};
  for (int e = 0; e < num_elements; ++e) {
    tio_read(CH_START, READ_PLAIN, {rd_real(rec, 3)});
    value[e] = rec[2];
  }
  for (int e = 0; e < num_elements; ++e) value[e] = -std::log(value[e]);
  tio_close(CH_START);
}

}  // namespace

void read_start_model(RunContext* ctx, const MeshModel& mesh,
                      std::vector<double>* log_conductivity) {
  // An element that no region reaches starts at 0.0, a resistivity of
  // 1 ohm m.
  log_conductivity->assign(static_cast<std::size_t>(mesh.num_elements), 0.0);
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&ctx->num_regions)});
  if (ctx->num_regions > 0)
    read_regions(ctx->num_regions, mesh.num_elements, log_conductivity->data());
  else if (ctx->num_regions == 0)
    read_start_file(ctx, mesh.num_elements, log_conductivity->data());
}

// Parameter zones: the map of elements to inversion parameters (from mesh.dat
// or the patching records of a grid) with the start parameter vector, and the
// output mask that the polyline selects for the model files.
#include "mesh/mesh_model.h"

#include <climits>
#include <cstddef>

#include "run/memory_guard.h"
#include "run/run_context.h"
#include "textio/textio.h"

namespace {

// A parameter number of mesh.dat, or blocks of zero width, may ask for far
// more parameters than there are elements: the stop that a failed
// allocation of their start values would give, before any work on them.
void require_parameter_memory(double num_parameters) {
  require_memory(8.0 * num_parameters, "the arrays of this run");
}

const char* const kNegativePatching =
    "' FATAL: defining patching of parameters - patch sizes and counts must "
    "not be negative'";

// Triangle mesh: the parameter numbers came with mesh.dat. A negative number
// would address a parameter below the first one, so it stops the run.
int mesh_file_parameters(RunContext* ctx, const MeshModel& mesh) {
  ctx->num_patch_x = 1;
  ctx->num_patch_y = 1;
  int largest = 0;
  for (int e = 0; e < mesh.num_elements; ++e) {
    int p = mesh.element_parameter[e];
    if (p < 0)
      fatal(CH_LOG, CH_CONSOLE,
            "' FATAL: parameter number out of range in mesh.dat: ', I10",
            {wv_int(p)});
    if (p > largest) largest = p;
  }
  require_parameter_memory(largest);
  return largest;
}

// Uniform blocks of patch_size_x by patch_size_y cells. The block counts come
// from integer division, so a size that does not divide the cell count is an
// error rather than a partly covered grid.
int uniform_blocks(RunContext* ctx, MeshModel* mesh) {
  int cells_x = ctx->num_x - 1;
  int cells_y = ctx->num_y - 1;
  int size_x = ctx->patch_size_x;
  int size_y = ctx->patch_size_y;
  ctx->num_patch_x = cells_x / size_x;
  ctx->num_patch_y = cells_y / size_y;
  if (cells_x != size_x * ctx->num_patch_x)
    fatal(CH_LOG, CH_CONSOLE, "' Error: Patch size of ', I5, ' not valid in X'",
          {wv_int(size_x)});
  if (cells_y != size_y * ctx->num_patch_y)
    fatal(CH_LOG, CH_CONSOLE, "' Error: Patch size of ', I5, ' not valid in Y'",
          {wv_int(size_y)});
  for (int i = 0; i < cells_x; ++i)
    for (int j = 0; j < cells_y; ++j)
      mesh->element_parameter[static_cast<std::size_t>(i) * cells_y + j] =
          (i / size_x) * ctx->num_patch_y + j / size_y + 1;
  return ctx->num_patch_x * ctx->num_patch_y;
}

// Explicit block lists: block widths in cells along x and y from a first
// cell column npxstart and row npystart (1-based). Cells outside all blocks
// keep parameter 0 and stay at their start value.
int listed_blocks(RunContext* ctx, MeshModel* mesh) {
  tio_read(CH_CONTROL, READ_PLAIN,
           {rd_int(&ctx->num_patch_x), rd_int(&ctx->num_patch_y)});
  int npx = ctx->num_patch_x;
  int npy = ctx->num_patch_y;
  if (npx < 0 || npy < 0) fatal(CH_LOG, CH_CONSOLE, kNegativePatching);
  if (static_cast<long long>(npx) * npy > INT_MAX)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL: defining patching of parameters - too many blocks'");

  // The width lists grow as their values are read: counts larger than the
  // file end the run at its end without lists of that size. The guard is
  // the stop a failed allocation of the lists would give.
  require_memory(4.0 * (static_cast<double>(npx) + npy + 2.0), "the arrays of this run");
  std::vector<int> patch_x;
  std::vector<int> patch_y;
  int npxstart = 0;
  int npystart = 0;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&npxstart), rd_int_grow(&patch_x, npx)});
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&npystart), rd_int_grow(&patch_y, npy)});
  long long sum_x = 0;
  long long sum_y = 0;
  for (int a = 0; a < npx; ++a) {
    if (patch_x[a] < 0) fatal(CH_LOG, CH_CONSOLE, kNegativePatching);
    sum_x += patch_x[a];
  }
  for (int b = 0; b < npy; ++b) {
    if (patch_y[b] < 0) fatal(CH_LOG, CH_CONSOLE, kNegativePatching);
    sum_y += patch_y[b];
  }

  if (npxstart < 1 || npystart < 1)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL: defining patching of parameters - npxstart and npystart "
          "must be > 0'");
  if (npxstart >= ctx->num_x - 1 || npystart >= ctx->num_y - 1)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL: defining patching of parameters - npxstart and/or "
          "npystart are too large'");
  if (npxstart + sum_x > ctx->num_x)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL: defining patching of parameters - incorrect patching in x "
          "direction'");
  if (npystart + sum_y > ctx->num_y)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL: defining patching of parameters - incorrect patching in y "
          "direction'");

  require_parameter_memory(static_cast<double>(npx) * npy);
  // The checks above keep the last covered cell column at
  // npxstart + sum_x - 1 <= num_x - 1, the last cell of the grid.
  int cells_y = ctx->num_y - 1;
  for (int e = 0; e < mesh->num_elements; ++e) mesh->element_parameter[e] = 0;
  int first_i = npxstart - 1;
  for (int a = 1; a <= npx; ++a) {
    int first_j = npystart - 1;
    for (int b = 1; b <= npy; ++b) {
      int p = (a - 1) * npy + b;
      for (int i = first_i; i < first_i + patch_x[a - 1]; ++i)
        for (int j = first_j; j < first_j + patch_y[b - 1]; ++j)
          mesh->element_parameter[static_cast<std::size_t>(i) * cells_y + j] = p;
      first_j += patch_y[b - 1];
    }
    first_i += patch_x[a - 1];
  }
  return npx * npy;
}

// Crossing test of a ray from (cx, cy) toward positive x against the edges
// of the polyline: an odd number of crossings means inside. An edge counts
// when cy lies between its ends, one end inclusive, so a horizontal edge at
// the height of the centre never counts and t never divides by zero.
bool inside_polyline(double cx, double cy, int n, const double* px,
                     const double* py) {
  int c = 1;
  for (int k = 0; k + 1 < n; ++k) {
    if ((py[k] >= cy && cy > py[k + 1]) || (cy > py[k] && py[k + 1] >= cy)) {
      double t = (cx - px[k]) -
                 (cy - py[k]) * (px[k + 1] - px[k]) / (py[k + 1] - py[k]);
      if (t < 0.0) c = -c;
    }
  }
  return c != 1;
}

void flip_node_y(MeshModel* mesh) {
  for (int n = 0; n < mesh->num_nodes; ++n) mesh->node_y[n] = -mesh->node_y[n];
}

}  // namespace

void build_parameter_map(RunContext* ctx, MeshModel* mesh,
                         const std::vector<double>& log_conductivity,
                         ParameterMap* map) {
  int num_parameters = 0;
  if (ctx->mesh_type == 3) {
    num_parameters = mesh_file_parameters(ctx, *mesh);
  } else {
    tio_read(CH_CONTROL, READ_PLAIN,
             {rd_int(&ctx->patch_size_x), rd_int(&ctx->patch_size_y)});
    if (ctx->patch_size_x < 0 || ctx->patch_size_y < 0)
      fatal(CH_LOG, CH_CONSOLE, kNegativePatching);
    if (ctx->patch_size_x != 0 && ctx->patch_size_y != 0)
      num_parameters = uniform_blocks(ctx, mesh);
    else
      num_parameters = listed_blocks(ctx, mesh);
  }

  // With several elements in one parameter the last in element order sets
  // its start value.
  map->num_parameters = num_parameters;
  map->start_parameters.assign(static_cast<std::size_t>(num_parameters), 0.0);
  for (int e = 0; e < mesh->num_elements; ++e) {
    int p = mesh->element_parameter[e];
    if (p != 0) map->start_parameters[p - 1] = log_conductivity[e];
  }
}

void polyline_mask(const MeshModel& mesh, int nodes_per_element, int n,
                   const double* px, const double* py, OutputMask* mask) {
  mask->element_mask.assign(static_cast<std::size_t>(mesh.num_elements), 1);
  mask->node_mask.assign(static_cast<std::size_t>(mesh.num_nodes), 0);
  if (n >= 1) {
    for (int e = 1; e <= mesh.num_elements; ++e) {
      double cx = 0.0;
      double cy = 0.0;
      element_centre(mesh.node_x.data(), mesh.node_y.data(),
                     &mesh.element_nodes[4 * static_cast<std::size_t>(e - 1)],
                     nodes_per_element, &cx, &cy);
      if (!inside_polyline(cx, cy, n, px, py)) mask->element_mask[e - 1] = 0;
    }
  }
  for (int e = 1; e <= mesh.num_elements; ++e) {
    if (!mask->element_mask[e - 1]) continue;
    const int* slot = &mesh.element_nodes[4 * static_cast<std::size_t>(e - 1)];
    for (int s = 0; s < nodes_per_element; ++s) mask->node_mask[slot[s] - 1] = 1;
  }
}

void read_polyline_mask(const RunContext& ctx, MeshModel* mesh,
                        OutputMask* mask) {
  // The polyline is given in height, positive up; grid y counts depth.
  bool grid = ctx.mesh_type != 3;
  if (grid) flip_node_y(mesh);
  int n = 0;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&n)});
  if (n < 1) n = 0;
  require_memory(16.0 * n, "the polyline");
  // The points are kept as they are read: a count larger than the file ends
  // the run at its end with no more than the file's points in memory.
  std::vector<double> px;
  std::vector<double> py;
  for (int k = 0; k < n; ++k) {
    double x = 0.0;
    double y = 0.0;
    tio_read(CH_CONTROL, READ_PLAIN, {rd_real(&x), rd_real(&y)});
    px.push_back(x);
    py.push_back(y);
  }
  if (n >= 1 && (px[0] != px[n - 1] || py[0] != py[n - 1]))
    fatal(CH_CONSOLE, CH_LOG,
          "' FATAL:  Error in polyline - the first and last pair must be "
          "identical'");
  polyline_mask(*mesh, ctx.mesh_type, n, px.data(), py.data(), mask);
  if (grid) flip_node_y(mesh);
}

// The electrode table: which node each electrode sits on, read from Q5.in,
// and the electrode positions written to electrodes.dat and electrodes.vtk.
#include "mesh/mesh_model.h"

#include <cstddef>

#include "run/memory_guard.h"
#include "run/threads.h"
#include "run/run_context.h"
#include "textio/textio.h"

namespace {

// Record 11 on a grid: id, column, row. The column and row are checked before
// the node number is formed, columns first; k is the table position.
int grid_electrode_node(const RunContext& ctx, int k, int column, int row) {
  if (column > ctx.num_x)
    fatal(CH_LOG, 0, "' FATAL:  column number too large for electrode ', I4",
          {wv_int(k)});
  if (column < 1)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL:  column number too small for electrode ', I4", {wv_int(k)});
  if (row > ctx.num_y)
    fatal(CH_LOG, 0, "' FATAL:  row number too large for electrode ', I4",
          {wv_int(k)});
  if (row < 1)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL:  row number too small for electrode ', I4", {wv_int(k)});
  return (column - 1) * ctx.num_y + row;
}

// Both position files: per electrode x, y and a zero third coordinate, the
// table line first. Grid depths are turned into heights so that both kinds
// of mesh show height positive upward.
void write_positions(const RunContext& ctx, const MeshModel& mesh,
                     const ElectrodeTable& table) {
  tio_write(CH_ELECTRODES_VTK,
            "'# vtk DataFile Version 3.0', /, 'Output from Q5', /, 'ASCII', /, "
            "'DATASET POLYDATA', /, 'POINTS', I8, ' double'",
            {wv_int(table.num_electrodes)});
  const float zero = 0.0f;
  for (int k = 1; k <= table.num_electrodes; ++k) {
    int node = table.electrode_nodes[k - 1];
    double x = mesh.node_x[node - 1];
    double y = mesh.node_y[node - 1];
    if (ctx.mesh_type != 3) y = -y;
    tio_write(CH_ELECTRODES, "3F12.3", {wv_real(x), wv_real(y), wv_real(zero)});
    tio_write(CH_ELECTRODES_VTK, "3F12.3",
              {wv_real(x), wv_real(y), wv_real(zero)});
  }
}

}  // namespace

void read_electrodes(const RunContext& ctx, const MeshModel& mesh,
                     ElectrodeTable* table) {
  int count = 0;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&count)});
  // A negative count is read as an empty table.
  if (count < 0) count = 0;
  // The table and the potentials of one unit source per electrode, which
  // every thread holds for a wavenumber of its own.
  require_memory(8.0 * count * (mesh.num_nodes + 1.0) * thread_count(),
                 "the electrodes");
  // The table grows as records are read: a count larger than the file ends
  // the run at its end with no more than the file's records in memory.
  table->num_electrodes = count;
  table->electrode_nodes.clear();
  table->electrode_ids.clear();

  for (int k = 1; k <= count; ++k) {
    int id = 0;
    int node = 0;
    if (ctx.mesh_type == 3) {
      tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&id), rd_int(&node)});
      if (node < 1 || node > mesh.num_nodes)
        fatal(CH_LOG, CH_CONSOLE,
              "' FATAL:  node number out of range for electrode ', I4",
              {wv_int(k)});
    } else {
      int column = 0;
      int row = 0;
      tio_read(CH_CONTROL, READ_PLAIN,
               {rd_int(&id), rd_int(&column), rd_int(&row)});
      node = grid_electrode_node(ctx, k, column, row);
    }
    table->electrode_ids.push_back(id);
    table->electrode_nodes.push_back(node);
  }

  write_positions(ctx, mesh, *table);
  tio_close(CH_ELECTRODES);
  tio_close(CH_ELECTRODES_VTK);
}

// The mesh in its common form: a rectangular grid built from the grid records
// of Q5.in, or a triangle mesh read from mesh.dat; and the coordinate factor
// of mesh.dat. Arrays are filled only from records read, so that a count
// larger than its file costs no more memory than the file holds.
#include "mesh/mesh_model.h"

#include <climits>
#include <cstddef>

#include "run/run_context.h"
#include "run/memory_guard.h"
#include "textio/textio.h"

namespace {

// Stops the run before the mesh records are read when the counts ask for
// more memory than the machine has: the mesh, its matrix pattern and values
// and the per-wavenumber element matrices take about 120 bytes a node and
// 220 an element.
void require_mesh_memory(int num_nodes, int num_elements) {
  require_memory(120.0 * num_nodes + 220.0 * num_elements, "the mesh");
}

// Sets the counts and sizes the element arrays and pin flags, once the
// records that justify them have been read. The entry behind the last
// element holds node 1; pin flags start at 0. The node coordinates are
// sized by the callers as they fill them.
void size_mesh(int num_nodes, int num_elements, MeshModel* mesh) {
  std::size_t n = static_cast<std::size_t>(num_nodes);
  std::size_t e = static_cast<std::size_t>(num_elements);
  mesh->num_nodes = num_nodes;
  mesh->num_elements = num_elements;
  mesh->element_nodes.assign(4 * e + 1, 0);
  mesh->element_nodes[4 * e] = 1;
  mesh->element_parameter.assign(e, 0);
  mesh->pin_flags.assign(n, 0);
}

// Grid of mesh_type 4 or 5 from records 3a to 3d. Nodes run down each
// column; element e of column i, row j has the corners n, n + num_y,
// n + num_y + 1, n + 1, going round the cell.
void build_grid(RunContext* ctx, MeshModel* mesh) {
  int nx = 0;
  int ny = 0;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&nx), rd_int(&ny)});
  if (nx < 1 || ny < 1)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL: grid must have at least one column and one row'");
  long long num_nodes = static_cast<long long>(nx) * ny;
  if (num_nodes > INT_MAX)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL: grid has too many nodes for 32-bit node numbers'");
  ctx->num_x = nx;
  ctx->num_y = ny;
  int num_elements = (nx - 1) * (ny - 1);
  require_mesh_memory(static_cast<int>(num_nodes), num_elements);
  const std::size_t n = static_cast<std::size_t>(num_nodes);

  std::vector<double> xs;
  tio_read(CH_CONTROL, READ_PLAIN, {rd_real_grow(&xs, nx)});

  std::vector<double> ys;
  std::vector<double> offset;
  if (ctx->mesh_type == 4) {
    // Surface offset per column, then one list of row depths: each column
    // is shifted up by its offset and keeps the spacing of the rows.
    tio_read(CH_CONTROL, READ_PLAIN, {rd_real_grow(&offset, nx)});
    tio_read(CH_CONTROL, READ_PLAIN, {rd_real_grow(&ys, ny)});
    mesh->node_y.assign(n, 0.0);
    for (int i = 1; i <= nx; ++i)
      for (int j = 1; j <= ny; ++j)
        mesh->node_y[static_cast<std::size_t>(i - 1) * ny + j - 1] =
            ys[j - 1] - offset[i - 1];
  } else {
    // A depth list of its own for each column; an item the list leaves
    // unchanged keeps the depth of the column before.
    mesh->node_y.clear();
    for (int i = 1; i <= nx; ++i) {
      tio_read(CH_CONTROL, READ_PLAIN, {rd_real_grow(&ys, ny)});
      mesh->node_y.insert(mesh->node_y.end(), ys.begin(), ys.begin() + ny);
    }
  }

  size_mesh(static_cast<int>(num_nodes), num_elements, mesh);
  mesh->node_x.assign(n, 0.0);
  for (int i = 1; i <= nx; ++i)
    for (int j = 1; j <= ny; ++j)
      mesh->node_x[static_cast<std::size_t>(i - 1) * ny + j - 1] = xs[i - 1];

  for (int i = 1; i <= nx - 1; ++i) {
    for (int j = 1; j <= ny - 1; ++j) {
      std::size_t e = static_cast<std::size_t>(i - 1) * (ny - 1) + j;
      int n = (i - 1) * ny + j;
      int* slot = &mesh->element_nodes[4 * (e - 1)];
      slot[0] = n;
      slot[1] = n + ny;
      slot[2] = n + ny + 1;
      slot[3] = n + 1;
    }
  }
}

// Triangle mesh from mesh.dat on channel 9, which stays open. Records are
// placed by the number they carry, in file order, once all of their kind
// have been read: a count larger than the file then ends the run at the end
// of the file without arrays of that size. Numbers that would place a
// record or name a node outside the arrays stop the run; so does an element
// that no record placed, since its node slots would be left without nodes.
// An item a record leaves unchanged (null, or after '/') keeps the value of
// the record before, 0 in the first.
void read_mesh_file(RunContext* ctx, MeshModel* mesh) {
  tio_open(CH_MESH, "mesh.dat");
  int num_elements = 0;
  int num_nodes = 0;
  tio_read(CH_MESH, READ_PLAIN, {rd_int(&num_elements), rd_int(&num_nodes)});
  if (num_elements < 0 || num_nodes < 0)
    fatal(CH_LOG, CH_CONSOLE,
          "' FATAL: mesh.dat must give at least zero elements and nodes'");
  require_mesh_memory(num_nodes, num_elements);

  std::vector<int> records;  // 6 per element record, in file order
  int rec[6] = {0, 0, 0, 0, 0, 0};
  for (int r = 0; r < num_elements; ++r) {
    tio_read(CH_MESH, READ_PLAIN, {rd_int(rec, 6)});
    int e = rec[0];
    if (e < 1 || e > num_elements)
      fatal(CH_LOG, CH_CONSOLE,
            "' FATAL: element number out of range in mesh.dat: ', I10",
            {wv_int(e)});
    for (int s = 1; s <= 3; ++s)
      if (rec[s] < 1 || rec[s] > num_nodes)
        fatal(CH_LOG, CH_CONSOLE,
              "' FATAL: node number out of range in mesh.dat: ', I10",
              {wv_int(rec[s])});
    records.insert(records.end(), rec, rec + 6);
  }

  size_mesh(num_nodes, num_elements, mesh);
  std::vector<unsigned char> placed(static_cast<std::size_t>(num_elements), 0);
  for (int r = 0; r < num_elements; ++r) {
    const int* q = &records[6 * static_cast<std::size_t>(r)];
    int e = q[0];
    int* slot = &mesh->element_nodes[4 * static_cast<std::size_t>(e - 1)];
    slot[0] = q[1];
    slot[1] = q[2];
    slot[2] = q[3];
    mesh->element_parameter[e - 1] = q[4];
    slot[3] = q[5];  // zone number of the regularisation, not a node
    placed[e - 1] = 1;
  }
  std::vector<int>().swap(records);
  for (int e = 1; e <= num_elements; ++e)
    if (!placed[e - 1])
      fatal(CH_LOG, CH_CONSOLE,
            "' FATAL: element number missing in mesh.dat: ', I10",
            {wv_int(e)});

  std::vector<int> numbers;   // node number of each record, in file order
  std::vector<double> coords; // x, y of each record
  for (int r = 0; r < num_nodes; ++r) {
    int n = 0;
    double xy[2] = {0.0, 0.0};
    tio_read(CH_MESH, READ_PLAIN, {rd_int(&n), rd_real(xy, 2)});
    if (n < 1 || n > num_nodes)
      fatal(CH_LOG, CH_CONSOLE,
            "' FATAL: node number out of range in mesh.dat: ', I10",
            {wv_int(n)});
    numbers.push_back(n);
    coords.push_back(xy[0]);
    coords.push_back(xy[1]);
  }
  mesh->node_x.assign(static_cast<std::size_t>(num_nodes), 0.0);
  mesh->node_y.assign(static_cast<std::size_t>(num_nodes), 0.0);
  for (int r = 0; r < num_nodes; ++r) {
    mesh->node_x[numbers[r] - 1] = coords[2 * static_cast<std::size_t>(r)];
    mesh->node_y[numbers[r] - 1] = coords[2 * static_cast<std::size_t>(r) + 1];
  }
  ctx->num_x = 1;
  ctx->num_y = num_nodes;
}

}  // namespace

void read_mesh(RunContext* ctx, MeshModel* mesh) {
  switch (ctx->mesh_type) {
    case 3:
      read_mesh_file(ctx, mesh);
      break;
    case 4:
    case 5:
      build_grid(ctx, mesh);
      // From here on mesh_type is the number of nodes per element.
      ctx->mesh_type = 4;
      break;
    default:
      fatal(CH_LOG, 0,
            "' FATAL: Incorrect mesh type specified - must be 3/4/5'");
  }
}

void read_mesh_scale(RunContext* ctx, MeshModel* mesh) {
  tio_read(CH_CONTROL, READ_PLAIN, {rd_real(&ctx->mesh_scale)});
  for (int n = 0; n < mesh->num_nodes; ++n) {
    mesh->node_x[n] = mesh->node_x[n] * ctx->mesh_scale;
    mesh->node_y[n] = mesh->node_y[n] * ctx->mesh_scale;
  }
}

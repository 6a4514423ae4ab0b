// The control file's run-control records: title, job record, inverse
// settings with their banners and checks, plus the memory estimate and the
// dataset stem used by the driver.
#include "run/control_file.h"

#include <cstdint>
#include <cstdio>

#include "run/memory_guard.h"
#include "run/run_context.h"
#include "textio/textio.h"

void read_title(RunContext* ctx) {
  tio_read_line(CH_CONTROL, ctx->job_title, 80);
  message(CH_CONSOLE, CH_LOG, "1X, '>> ', A", {wv_text(ctx->job_title, 80)});
}

void read_job_record(RunContext* ctx) {
  tio_read(CH_CONTROL, READ_PLAIN,
           {rd_int(&ctx->job_type), rd_int(&ctx->mesh_type),
            rd_real(&ctx->flux_type), rd_int(&ctx->Singular_type),
            rd_int(&ctx->res_calc)});
  if (ctx->job_type == 1) {
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> I n v e r s e   S o l u t i o n   S e l e c t e d <<'");
  } else if (ctx->job_type == 0) {
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> F o r w a r d   S o l u t i o n   S e l e c t e d <<'");
  } else {
    fatal(CH_CONSOLE, CH_LOG,
          "1X, 'FATAL: Incorrect job type specified - must be 0/1'");
  }
}

void check_singular_and_res_calc(RunContext* ctx) {
  if (ctx->Singular_type != 0 && ctx->Singular_type != 1)
    fatal(CH_LOG, 0, "1X, 'FATAL: Singular_type must be 0/1'");
  ctx->singularity_removal = ctx->Singular_type == 1;
  if (ctx->res_calc < 0 || ctx->res_calc > 3)
    fatal(CH_LOG, 0, "1X, 'FATAL: res_calc must be 0/1/2/3'");
  ctx->want_sensitivity = ctx->res_calc == 1 || ctx->res_calc == 3;
  ctx->want_resolution = ctx->res_calc == 2;
  ctx->want_matrix_dump = ctx->res_calc == 3;
  ctx->want_post_calc = ctx->want_sensitivity || ctx->want_resolution;
}

void check_flux_type(RunContext* ctx) {
  // flux_type is a real compared exactly with its two legal values.
  if (ctx->flux_type != 2.0 && ctx->flux_type != 3.0)
    fatal(CH_LOG, 0,
          "1X, 'FATAL: Incorrect flux type specified - must be 2 or 3'");
  ctx->num_wavenumbers = ctx->flux_type > 2.0 ? 10 : 1;
}

// Banner of the inverse type; type 4 shows other words on the console than
// in the log, and that difference is kept.
static void write_inverse_type_banner(int inverse_type) {
  const char* regularised = "1X, '>> R e g u l a r i s e d   T y p e <<'";
  const char* linear = "1X, '>>   L i n e a r    F i l t e r    <<'";
  switch (inverse_type) {
    case 0:
      message(CH_LOG, CH_CONSOLE, "1X, '>> M a r q u a r d t   T y p e <<'");
      break;
    case 1:
      message(CH_LOG, CH_CONSOLE, regularised);
      message(CH_LOG, CH_CONSOLE, linear);
      break;
    case 2:
      message(CH_LOG, CH_CONSOLE, regularised);
      message(CH_LOG, CH_CONSOLE,
              "1X, '>> Q u a d r a t i c   F i l t e r <<'");
      break;
    case 3:
      message(CH_LOG, CH_CONSOLE,
              "1X, '>> Q u a l i t a t i v e   T y p e <<'");
      break;
    default:
      message(CH_LOG, 0, regularised);
      message(CH_LOG, 0, linear);
      message(CH_CONSOLE, 0,
              "1X, '>>       R e g u l a r i s e d   T y p e      <<'");
      message(CH_CONSOLE, 0,
              "1X, '>> B l o c k e d   L i n e a r    F i l t e r <<'");
      break;
  }
}

// Record 8f: one row of blocks per line; the table runs along y first. The
// rows are kept as they are read and turned into the table at the end, so
// that counts larger than the file end the run at its end with no more than
// the file's rows in memory. An item a row leaves unchanged (null, or after
// '/') keeps the value of the row before, 0 in the first.
static void read_block_weights(RunContext* ctx, bool blocked) {
  int npx = ctx->num_patch_x, npy = ctx->num_patch_y;
  long long count = (long long)npx * npy;
  if (npx < 0 || npy < 0 || count > 0x7fffffff)
    fatal(CH_LOG, CH_CONSOLE,
          "1X, 'FATAL: block weights - number of parameter blocks out of range'");
  // One weight per parameter: the stop a failed allocation would give.
  require_memory(8.0 * (double)count, "the arrays of this run");
  if (!blocked) {
    ctx->block_weights.assign(count > 0 ? (size_t)count : 1, 1.0);
    return;
  }
  std::vector<double> rows;  // npy rows of npx weights, in file order
  std::vector<double> row;
  for (int k = 1; k <= npy; ++k) {
    tio_read(CH_CONTROL, READ_PLAIN, {rd_real_grow(&row, npx)});
    rows.insert(rows.end(), row.begin(), row.begin() + npx);
  }
  ctx->block_weights.assign(count > 0 ? (size_t)count : 1, 1.0);
  for (int k = 1; k <= npy; ++k)
    for (int a = 0; a < npx; ++a)
      ctx->block_weights[(size_t)a * npy + k - 1] = rows[(size_t)(k - 1) * npx + a];
}

// Record 8c: data_type and reg_mode with their checks, flags and banners.
static void read_data_and_regularisation(RunContext* ctx) {
  tio_read(CH_CONTROL, READ_PLAIN,
           {rd_int(&ctx->data_type), rd_int(&ctx->reg_mode)});
  // Difference regularisation is a true-data inversion whatever the file says.
  if (ctx->reg_mode == 2) ctx->data_type = 0;
  if (ctx->data_type != 0 && ctx->data_type != 1)
    fatal(CH_LOG, CH_CONSOLE,
          "1X, 'FATAL: Incorrect data_type type - must be 0/1'");
  if (ctx->reg_mode < 0 || ctx->reg_mode > 2)
    fatal(CH_LOG, CH_CONSOLE,
          "1X, 'FATAL: Incorrect reg_mode type - must be 0/1/2'");
  ctx->log_data = ctx->data_type == 1;
  if (ctx->log_data)
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> L o g - D a t a   I n v e r s i o n <<'");
  else
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> T r u e - D a t a   I n v e r s i o n <<'");
  if (ctx->reg_mode == 0)
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> N o r m a l   R e g u l a r i s a t i o n <<'");
  else if (ctx->reg_mode == 1)
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> J o i n t     R e g u l a r i s a t i o n <<'");
  else
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> D i f f e r e n c e    R e g u l a r i s a t i o n <<'");
  ctx->joint_reg = ctx->reg_mode == 1;
  ctx->difference_reg = ctx->reg_mode == 2;
}

// Record 8d: tolerance, iteration limit, weight update, anisotropy and, for
// joint regularisation, its weight; the tolerance warning and the checks.
static void read_iteration_settings(RunContext* ctx) {
  ctx->joint_weight = 0.0;
  if (ctx->reg_mode == 1)
    tio_read(CH_CONTROL, READ_PLAIN,
             {rd_real(&ctx->tolerance), rd_int(&ctx->max_iterations),
              rd_int(&ctx->weight_update), rd_real(&ctx->alpha_aniso),
              rd_real(&ctx->joint_weight)});
  else
    tio_read(CH_CONTROL, READ_PLAIN,
             {rd_real(&ctx->tolerance), rd_int(&ctx->max_iterations),
              rd_int(&ctx->weight_update), rd_real(&ctx->alpha_aniso)});
  if (ctx->tolerance != 1.0)
    message(CH_LOG, CH_CONSOLE,
            "1X, 'WARNING: it is recommended that the tolerance is set to 1'");
  if (ctx->alpha_aniso <= 0.0)
    fatal(CH_LOG, CH_CONSOLE,
          "1X, 'FATAL: alpha_aniso is ', E10.3, ' it must be > 0'",
          {wv_real(ctx->alpha_aniso)});
  ctx->min_step = (double)0.001f;
  ctx->weights_modified = ctx->weight_update >= 1;
  if (ctx->weights_modified)
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> D a t a   w e i g h t s   w i l l   b e  m o d i f i e d <<'");
  else
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> D a t a   w e i g h t s   w i l l   n o t   b e   m o d i f i e d <<'");
}

void read_inverse_settings(RunContext* ctx) {
  ctx->difference_reg = false;
  tio_read(CH_CONTROL, READ_PLAIN,
           {rd_int(&ctx->inverse_type), rd_real(&ctx->target_decrease)});
  if (ctx->inverse_type < 0 || ctx->inverse_type > 4)
    fatal(CH_LOG, CH_CONSOLE,
          "1X, 'FATAL: Incorrect inverse type - must be 0/1/2/3/4'");
  write_inverse_type_banner(ctx->inverse_type);
  ctx->regularised = ctx->inverse_type == 1 || ctx->inverse_type == 2 ||
                     ctx->inverse_type == 4;
  ctx->quadratic_filter = ctx->inverse_type == 2;
  ctx->qualitative = ctx->inverse_type == 3;

  if (ctx->qualitative) {
    tio_read(CH_CONTROL, READ_PLAIN, {rd_int(&ctx->qualitative_mode)});
    tio_read(CH_CONTROL, READ_PLAIN,
             {rd_real(&ctx->rho_min), rd_real(&ctx->rho_max)});
    ctx->qualitative_flag = ctx->qualitative_mode == 1;
    ctx->a_wgt = 0.0;
    ctx->b_wgt = 1.0;
    ctx->data_type = 0;
    ctx->log_data = false;
    ctx->reg_mode = 0;
    ctx->joint_reg = false;
    read_block_weights(ctx, false);
    return;
  }

  read_data_and_regularisation(ctx);
  ctx->alpha_max = 1.0e11;
  ctx->alpha_trials = 10;
  ctx->scale_exponent = 0.0;

  read_iteration_settings(ctx);
  tio_read(CH_CONTROL, READ_PLAIN,
           {rd_real(&ctx->a_wgt), rd_real(&ctx->b_wgt), rd_real(&ctx->rho_min),
            rd_real(&ctx->rho_max)});
  if (ctx->rho_max <= ctx->rho_min)
    fatal(CH_LOG, CH_CONSOLE, "1X, 'FATAL: rho_max is < rho_min '");
  if (ctx->a_wgt == 0.0 && ctx->b_wgt == 0.0)
    message(CH_LOG, CH_CONSOLE,
            "1X, '>> D a t a   w e i g h t   t o   b e   r e a d   f r o m   d a t a   f i l e <<'");
  read_block_weights(ctx, ctx->inverse_type == 4);
}

// 32-bit arithmetic that wraps like the machine's integers, without the
// undefined behaviour of signed overflow.
static int32_t wrap_add(int32_t a, int32_t b) {
  return (int32_t)((uint32_t)a + (uint32_t)b);
}
static int32_t wrap_mul(int32_t a, int32_t b) {
  return (int32_t)((uint32_t)a * (uint32_t)b);
}

long long memory_estimate_bytes(int N, int E, int M, int P, int L, int D0,
                                int D, int W, bool inverse_job) {
  // 8-byte items: matrix values, element values, potentials and work
  // vectors, data arrays.
  int32_t R = wrap_add(wrap_add(wrap_add(wrap_add(M, E), wrap_mul(L + 4, N)), D),
                       wrap_mul(4, D0));
  // 4-byte items: a deliberately generous (M + 8) * N, which may wrap.
  int32_t I = wrap_add(wrap_mul(wrap_add(M, 8), N), wrap_mul(8, D0));
  int32_t Q = 0;
  if (inverse_job) {
    R = wrap_add(wrap_add(wrap_add(R, E), wrap_mul(10, P)),
                 wrap_mul(wrap_add(P, 6), D));
    Q = wrap_mul(P, W);
    I = wrap_add(I, Q);
  }
  I = wrap_add(I, Q);
  return (long long)E + (long long)N + 8LL * R + 4LL * I;
}

void write_memory_estimate(long long bytes) {
  float gigabytes = (float)((double)bytes / 1.0e9);
  message(CH_CONSOLE, CH_LOG,
          "/ 1X, '>> Total Memory required is:', F15.3, ' Gb'",
          {wv_real(gigabytes)});
}

// The three digits of n, one character each (out holds 3).
static void three_digits(int n, char* out) {
  const int hundreds = n / 100;
  const int tens = (n - 100 * hundreds) / 10;
  const int ones = n - 100 * hundreds - 10 * tens;
  out[0] = (char)(48 + hundreds);
  out[1] = (char)(48 + tens);
  out[2] = (char)(48 + ones);
}

// The stem is a string of its own, so a digit that comes out as character 0
// ends the stem before the tail; the iteration's digits are characters of
// the name, where such a digit ends the name.
void dataset_file_name(int n, int iteration, const char* tail, char* out) {
  char stem[5] = {'f'};
  three_digits(n, stem + 1);
  if (iteration > 0) {
    char step[3];
    three_digits(iteration, step);
    std::snprintf(out, DATASET_NAME_SIZE, "%s.%c%c%c%s", stem, step[0], step[1],
                  step[2], tail);
  } else {
    std::snprintf(out, DATASET_NAME_SIZE, "%s%s", stem, tail);
  }
}

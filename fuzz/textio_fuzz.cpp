// Fuzz target of the text layer: a script of list-directed reads of the
// three kinds (integers and reals, fixed arrays and growing vectors, repeat
// counts, nulls and slashes, text lines) over a file from the input, and
// edit-form and free-format writes of a form and values from the input.
// Besides crashes it checks two rules: a growing item reads the same values
// as a fixed array, and a data descriptor with a width fills that width.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>
#include <string>
#include <vector>

#include "harness.h"
#include "textio/textio.h"

namespace {

constexpr int kMaxCount = 40;  // values of one item

// Same bits, so that NaNs compare equal to themselves.
bool same(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }
bool same(int a, int b) { return a == b; }

// After one statement of each kind: the vector holds the array's values; a
// good read leaves it at least n long, a failed one with no more than it
// read (the rest of the array still zero).
template <typename T>
void check_grown(int status, const T* fixed, const std::vector<T>& grown, int n) {
  const size_t have = grown.size();
  if (status == READ_OK && have < static_cast<size_t>(n)) __builtin_trap();
  for (int k = 0; k < n; ++k) {
    const T want = fixed[k];
    const T got = static_cast<size_t>(k) < have ? grown[k] : T(0);
    if (!same(want, got)) __builtin_trap();
  }
}

// One read statement, once into fixed arrays on channel 12 and once into
// growing vectors on channel 13, which holds the same file.
void read_statement(FuzzedDataProvider& in) {
  const int kind = in.ConsumeIntegralInRange(0, 2);
  const bool real = in.ConsumeBool();
  const int n = in.ConsumeIntegralInRange(0, kMaxCount);
  int head_fixed = 0, head_grown = 0;
  int ints[kMaxCount] = {0};
  double reals[kMaxCount] = {0.0};
  std::vector<int> int_vec;
  std::vector<double> real_vec;
  int s1, s2;
  if (real) {
    s1 = tio_read(CH_CONTROL, kind, {rd_int(&head_fixed), rd_real(reals, n)});
    s2 = tio_read(CH_PROTOCOL, kind, {rd_int(&head_grown), rd_real_grow(&real_vec, n)});
    if (s1 != s2 || head_fixed != head_grown) __builtin_trap();
    check_grown(s1, reals, real_vec, n);
  } else {
    s1 = tio_read(CH_CONTROL, kind, {rd_int(&head_fixed), rd_int(ints, n)});
    s2 = tio_read(CH_PROTOCOL, kind, {rd_int(&head_grown), rd_int_grow(&int_vec, n)});
    if (s1 != s2 || head_fixed != head_grown) __builtin_trap();
    check_grown(s1, ints, int_vec, n);
  }
}

void line_statement(FuzzedDataProvider& in) {
  const int length = in.ConsumeIntegralInRange(0, 100);
  std::string a(static_cast<size_t>(length) + 1, '\0');
  std::string b(static_cast<size_t>(length) + 1, '\0');
  tio_read_line(CH_CONTROL, a.data(), length);
  tio_read_line(CH_PROTOCOL, b.data(), length);
  if (a != b) __builtin_trap();
}

// The program's forms ask for widths and counts of two digits; larger ones
// would only spend the fuzzer's memory on blanks.
bool form_is_modest(const std::string& form) {
  long value = 0;
  for (char c : form) {
    if (c >= '0' && c <= '9') {
      value = value * 10 + (c - '0');
      if (value > 400) return false;
    } else {
      value = 0;
    }
  }
  return true;
}

WriteValue take_value(FuzzedDataProvider& in, std::vector<std::string>& texts) {
  switch (in.ConsumeIntegralInRange(0, 2)) {
    case 0:
      return wv_int(in.ConsumeIntegral<long long>());
    case 1: {
      const unsigned long long bits = in.ConsumeIntegral<unsigned long long>();
      double v;
      std::memcpy(&v, &bits, sizeof v);
      return wv_real(v);
    }
    default:
      texts.push_back(in.ConsumeRandomLengthString(20));
      return wv_text(texts.back().c_str(), static_cast<int>(texts.back().size()));
  }
}

// A single descriptor of the form Iw, Fw.d, Ew.d or Aw with w of 1 to 400
// renders exactly w characters.
void check_width(const std::string& form, const WriteValue& v) {
  const char k = form.empty() ? '\0' : form[0];
  if (k != 'I' && k != 'F' && k != 'E' && k != 'A') return;
  size_t i = 1;
  int w = 0;
  while (i < form.size() && form[i] >= '0' && form[i] <= '9') w = w * 10 + (form[i++] - '0');
  if (i < form.size() && form[i] == '.' && k != 'A') {
    ++i;
    if (i == form.size()) return;
    while (i < form.size() && form[i] >= '0' && form[i] <= '9') ++i;
  }
  if (i != form.size() || w < 1) return;
  std::vector<char> out(static_cast<size_t>(w) + 2);
  const int n = tio_render(form.c_str(), v, out.data(), static_cast<int>(out.size()));
  if (n != w) __builtin_trap();
}

void write_statements(FuzzedDataProvider& in) {
  const std::string form = in.ConsumeRandomLengthString(60);
  std::vector<std::string> texts;
  texts.reserve(8);
  std::vector<WriteValue> values;
  const int count = in.ConsumeIntegralInRange(0, 6);
  for (int k = 0; k < count; ++k) values.push_back(take_value(in, texts));
  if (!form_is_modest(form)) return;
  tio_write_n(CH_LOG, form.c_str(), values.data(), values.size());
  tio_write_free_n(CH_LOG, values.data(), values.size());
  for (const WriteValue& v : values) check_width(form, v);
  char out[512];
  if (!values.empty()) tio_render(form.c_str(), values[0], out, sizeof out);
}

void script(void* arg) {
  FuzzedDataProvider& in = *static_cast<FuzzedDataProvider*>(arg);
  tio_open(CH_CONTROL, "file");
  tio_open(CH_PROTOCOL, "file");
  tio_open(CH_LOG, "log");
  write_statements(in);
  const int statements = in.ConsumeIntegralInRange(1, 12);
  for (int k = 0; k < statements; ++k) {
    if (in.ConsumeIntegralInRange(0, 4) == 0) line_statement(in);
    else read_statement(in);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The first half of the input drives the script, the rest is the file.
  const size_t split = size / 2;
  FuzzedDataProvider in(data, split);
  const std::vector<FuzzFile> files = {
      {"file", std::string(reinterpret_cast<const char*>(data) + split, size - split)}};
  run_in_memory(files, script, &in);
  return 0;
}

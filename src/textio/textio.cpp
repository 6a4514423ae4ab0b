// Text records: the channel table and its files, the list-directed reads,
// the edit-form and free-format writes, and the stops of the run. Owns every
// FILE* of the program and the layer's own failures (exit status 2), and the
// memory files and stop hook of an in-process harness.
#include "textio/textio.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

namespace {

// ---- channel table ----------------------------------------------------

constexpr int kMaxChannel = 99;
constexpr size_t kFileBuffer = 1 << 16;

enum { OP_NONE = 0, OP_READ = 1, OP_WRITE = 2 };

struct Channel {
  FILE* file = nullptr;   // nullptr: not connected (the console uses stdout)
  bool written = false;   // the first write since the open has happened
  bool line_open = false; // the last character written was not a line end
  int last_op = OP_NONE;  // an update stream needs a seek between read and write
  std::string name;       // as given to the open
  std::string path;       // working directory + "/" + name, for diagnostics
  char* line = nullptr;   // line buffer of getline, kept across statements
  size_t line_cap = 0;
};

Channel g_channels[kMaxChannel + 1];
bool g_failing = false;  // a layer failure is under way: close without checks
std::string g_out;       // text of the write statement being assembled

// In-process harness: memory files in place of the working directory, the
// console dropped unless kept, and a hook that takes the stops.
const TioMemoryFile* g_memory_files = nullptr;  // nullptr: real files
int g_num_memory_files = 0;
FILE* g_sink = nullptr;  // drops the console and stderr of a quiet harness
void (*g_stop_hook)(int status) = nullptr;

void close_channel(int channel);

// A stream over bytes in memory: reads them, drops what is written.
struct MemoryStream {
  const char* data;
  size_t size;
  size_t pos;
};

ssize_t memory_read(void* cookie, char* buf, size_t n) {
  MemoryStream* m = static_cast<MemoryStream*>(cookie);
  const size_t left = m->size - m->pos;
  if (n > left) n = left;
  if (n > 0) std::memcpy(buf, m->data + m->pos, n);
  m->pos += n;
  return static_cast<ssize_t>(n);
}

ssize_t memory_write(void*, const char*, size_t n) { return static_cast<ssize_t>(n); }

int memory_seek(void* cookie, off64_t* offset, int whence) {
  MemoryStream* m = static_cast<MemoryStream*>(cookie);
  off64_t base = 0;
  if (whence == SEEK_CUR) base = static_cast<off64_t>(m->pos);
  else if (whence == SEEK_END) base = static_cast<off64_t>(m->size);
  const off64_t to = base + *offset;
  if (to < 0) return -1;
  m->pos = static_cast<size_t>(to) < m->size ? static_cast<size_t>(to) : m->size;
  *offset = static_cast<off64_t>(m->pos);
  return 0;
}

int memory_close(void* cookie) {
  delete static_cast<MemoryStream*>(cookie);
  return 0;
}

FILE* memory_stream(const char* data, size_t size) {
  MemoryStream* m = new MemoryStream{data, size, 0};
  cookie_io_functions_t io{memory_read, memory_write, memory_seek, memory_close};
  FILE* fp = fopencookie(m, "r+", io);
  if (!fp) delete m;
  return fp;
}

// Where console and error text go: the process's streams, or the sink.
FILE* console_out() { return g_sink ? g_sink : stdout; }
FILE* error_out() { return g_sink ? g_sink : stderr; }

// Ends the process, or hands the stop to the harness's hook with the layer
// set back to its state before the run.
[[noreturn]] void end_process(int status) {
  if (g_stop_hook) {
    g_failing = false;
    g_channels[CH_CONSOLE].line_open = false;
    g_stop_hook(status);
  }
  std::exit(status);
}

// Ends the run on a failure of the layer itself: the diagnostic goes to the
// console and to stderr, files are closed and the status is 2.
[[noreturn]] void layer_failure(const char* words, int channel, const char* path) {
  std::string msg = words;
  msg += ", unit ";
  msg += std::to_string(channel);
  msg += ", file ";
  msg += path;
  msg += '\n';
  g_failing = true;
  for (int c = 0; c <= kMaxChannel; ++c)
    if (g_channels[c].file) std::fflush(g_channels[c].file);
  if (g_channels[CH_CONSOLE].line_open) std::fputc('\n', console_out());
  g_channels[CH_CONSOLE].line_open = false;
  std::fputs(msg.c_str(), console_out());
  std::fflush(console_out());
  std::fputs(msg.c_str(), error_out());
  std::fflush(error_out());
  for (int c = 0; c <= kMaxChannel; ++c) close_channel(c);
  end_process(2);
}

[[noreturn]] void channel_failure(const char* words, int channel) {
  const std::string path = channel == CH_CONSOLE ? "stdout" : g_channels[channel].path;
  layer_failure(words, channel, path.c_str());
}

// A channel number outside the table is a fault of the caller.
void check_channel(int channel) {
  if (channel < 0 || channel > kMaxChannel) {
    const std::string s = "unit " + std::to_string(channel) + " is outside 0 to " +
                          std::to_string(kMaxChannel) + "\n";
    std::fflush(console_out());
    std::fputs(s.c_str(), console_out());
    std::fputs(s.c_str(), error_out());
    std::fflush(console_out());
    g_failing = true;
    for (int c = 0; c <= kMaxChannel; ++c) close_channel(c);
    end_process(2);
  }
}

std::string full_path(const std::string& name) {
  if (!name.empty() && name[0] == '/') return name;
  char cwd[4096];
  if (!getcwd(cwd, sizeof cwd)) return name;
  std::string p = cwd;
  p += '/';
  p += name;
  return p;
}

// Default disposition: an existing file is used as it stands (read-only if
// it cannot be written), a missing one is created empty.
void connect(int channel, const std::string& name, const std::string& path) {
  Channel& c = g_channels[channel];
  FILE* fp = nullptr;
  if (g_memory_files) {
    // A harness's file from memory; a name it does not list is empty.
    const char* data = "";
    size_t size = 0;
    for (int k = 0; k < g_num_memory_files; ++k) {
      if (name == g_memory_files[k].name) {
        data = g_memory_files[k].data;
        size = g_memory_files[k].size;
      }
    }
    fp = memory_stream(data, size);
  } else if (access(name.c_str(), F_OK) == 0) {
    fp = std::fopen(name.c_str(), "r+");
    if (!fp) fp = std::fopen(name.c_str(), "r");
  } else {
    fp = std::fopen(name.c_str(), "w+");
  }
  c.name = name;
  c.path = path;
  if (!fp) channel_failure("cannot open file", channel);
  std::setvbuf(fp, nullptr, _IOFBF, kFileBuffer);
  c.file = fp;
  c.written = false;
  c.line_open = false;
  c.last_op = OP_NONE;
}

// Writes to or reads from an unconnected channel use the file "fort.N".
void connect_default(int channel) {
  const std::string name = "fort." + std::to_string(channel);
  connect(channel, name, full_path(name));
}

void close_channel(int channel) {
  Channel& c = g_channels[channel];
  if (channel == CH_CONSOLE) {
    if (std::fflush(console_out()) != 0 && !g_failing)
      channel_failure("error during write", channel);
    return;
  }
  if (!c.file) return;
  FILE* fp = c.file;
  bool ok = true;
  if (c.line_open) ok = std::fputc('\n', fp) != EOF;
  c.file = nullptr;
  c.line_open = false;
  c.written = false;
  c.last_op = OP_NONE;
  if (std::fclose(fp) != 0) ok = false;
  if (!ok && !g_failing) channel_failure("error during write", channel);
}

// The stream a read statement takes its lines from.
FILE* read_stream(int channel) {
  check_channel(channel);
  if (channel == CH_CONSOLE) return stdin;
  Channel& c = g_channels[channel];
  if (!c.file) connect_default(channel);
  if (c.last_op == OP_WRITE) std::fseek(c.file, 0, SEEK_CUR);
  c.last_op = OP_READ;
  return c.file;
}

// The path named in a read diagnostic.
const char* read_path(int channel) {
  return channel == CH_CONSOLE ? "stdin" : g_channels[channel].path.c_str();
}

[[noreturn]] void read_failure(const char* words, int channel) {
  const std::string path = read_path(channel);
  layer_failure(words, channel, path.c_str());
}

// Next line of the channel into its buffer, without the line end and a
// carriage return before it. False at end of file.
bool fetch_line(int channel, const char** text, size_t* length) {
  FILE* fp = read_stream(channel);
  Channel& c = g_channels[channel];
  const ssize_t n = getline(&c.line, &c.line_cap, fp);
  if (n < 0) return false;
  size_t len = static_cast<size_t>(n);
  if (len > 0 && c.line[len - 1] == '\n') --len;
  if (len > 0 && c.line[len - 1] == '\r') --len;
  *text = c.line;
  *length = len;
  return true;
}

// Appends one write statement's text to the channel. The first write after
// an open cuts the file at the present position, so that a file shows what
// was written, as a sequential write does.
void emit(int channel, const char* data, size_t length) {
  check_channel(channel);
  Channel& c = g_channels[channel];
  FILE* fp = console_out();
  if (channel != CH_CONSOLE) {
    if (!c.file) connect_default(channel);
    fp = c.file;
    if (!c.written) {
      const long pos = std::ftell(fp);
      std::fflush(fp);
      if (pos >= 0) {
        // A device such as /dev/full cannot be cut; that is no failure.
        if (ftruncate(fileno(fp), pos) != 0) errno = 0;
        std::fseek(fp, pos, SEEK_SET);
      }
      c.written = true;
    } else if (c.last_op == OP_READ) {
      std::fseek(fp, 0, SEEK_CUR);
    }
    c.last_op = OP_WRITE;
  }
  if (length > 0) {
    if (std::fwrite(data, 1, length, fp) != length)
      channel_failure("error during write", channel);
    c.line_open = data[length - 1] != '\n';
  }
  // Console and log are flushed per statement so that a crash in the solver
  // leaves every message written so far.
  if ((channel == CH_CONSOLE || channel == CH_LOG) && std::fflush(fp) != 0)
    channel_failure("error during write", channel);
}

// ---- list-directed input ----------------------------------------------

enum { TOK_VALUE, TOK_NULL, TOK_SLASH, TOK_EOF, TOK_BAD };

// Position of one read statement in its lines.
struct ListScan {
  int channel;
  const char* p;
  const char* end;
  bool need_separator;  // a value was taken; a comma now only separates
  int repeat_left;      // items still due from an r*value or r* form
  bool repeat_null;
  const char* repeat_text;
  size_t repeat_length;
};

inline bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
inline bool is_separator(char c) { return is_blank(c) || c == ',' || c == '/'; }
inline bool is_digit(char c) { return c >= '0' && c <= '9'; }

int next_token(ListScan& s, const char** text, size_t* length) {
  if (s.repeat_left > 0) {
    --s.repeat_left;
    if (s.repeat_null) return TOK_NULL;
    *text = s.repeat_text;
    *length = s.repeat_length;
    return TOK_VALUE;
  }
  for (;;) {
    while (s.p < s.end && is_blank(*s.p)) ++s.p;
    if (s.p == s.end) {
      size_t n = 0;
      if (!fetch_line(s.channel, &s.p, &n)) return TOK_EOF;
      s.end = s.p + n;
      continue;
    }
    const char c = *s.p;
    if (c == ',') {
      ++s.p;
      if (s.need_separator) {
        s.need_separator = false;
        continue;
      }
      return TOK_NULL;
    }
    if (c == '/') return TOK_SLASH;
    const char* begin = s.p;
    while (s.p < s.end && !is_separator(*s.p)) ++s.p;
    s.need_separator = true;
    const size_t len = static_cast<size_t>(s.p - begin);
    const char* star = static_cast<const char*>(std::memchr(begin, '*', len));
    if (!star) {
      *text = begin;
      *length = len;
      return TOK_VALUE;
    }
    // Repeat form: a positive count, then a value or nothing.
    if (star == begin) return TOK_BAD;
    long long count = 0;
    for (const char* q = begin; q < star; ++q) {
      if (!is_digit(*q)) return TOK_BAD;
      count = count * 10 + (*q - '0');
      if (count > INT_MAX) return TOK_BAD;
    }
    if (count < 1) return TOK_BAD;
    s.repeat_text = star + 1;
    s.repeat_length = static_cast<size_t>(s.p - star - 1);
    s.repeat_null = s.repeat_length == 0;
    s.repeat_left = static_cast<int>(count);
    return next_token(s, text, length);
  }
}

// Integer item: optional sign and digits, within 32 bits.
bool parse_int(const char* t, size_t n, int* out) {
  size_t i = 0;
  bool neg = false;
  if (i < n && (t[i] == '+' || t[i] == '-')) neg = t[i++] == '-';
  if (i == n) return false;
  long long v = 0;
  for (; i < n; ++i) {
    if (!is_digit(t[i])) return false;
    v = v * 10 + (t[i] - '0');
    if (v > 2147483648LL) return false;
  }
  if (neg) v = -v;
  if (v > INT_MAX || v < INT_MIN) return false;
  *out = static_cast<int>(v);
  return true;
}

// Real item: [sign] digits [. digits] or [sign] . digits, then optionally an
// exponent with letter E or D (either case) or a signed exponent with no
// letter; also the infinity and NaN words the C library reads. The text is
// rewritten with an "e" exponent for strtod, which rounds correctly.
bool parse_real(const char* t, size_t n, double* out) {
  char small[128];
  std::string large;
  char* buf = small;
  if (n + 3 > sizeof small) {
    large.resize(n + 3);
    buf = large.data();
  }
  size_t i = 0, k = 0;
  if (i < n && (t[i] == '+' || t[i] == '-')) buf[k++] = t[i++];
  if (i < n && (t[i] == 'i' || t[i] == 'I' || t[i] == 'n' || t[i] == 'N')) {
    std::memcpy(buf, t, n);
    buf[n] = '\0';
    char* end = nullptr;
    const double v = std::strtod(buf, &end);
    if (end != buf + n) return false;
    *out = v;
    return true;
  }
  size_t digits = 0;
  while (i < n && is_digit(t[i])) { buf[k++] = t[i++]; ++digits; }
  if (i < n && t[i] == '.') {
    buf[k++] = t[i++];
    while (i < n && is_digit(t[i])) { buf[k++] = t[i++]; ++digits; }
  }
  if (digits == 0) return false;
  if (i < n) {
    const char c = t[i];
    if (c == 'e' || c == 'E' || c == 'd' || c == 'D') {
      ++i;
    } else if (c != '+' && c != '-') {
      return false;
    }
    buf[k++] = 'e';
    if (i < n && (t[i] == '+' || t[i] == '-')) buf[k++] = t[i++];
    size_t exp_digits = 0;
    while (i < n && is_digit(t[i])) { buf[k++] = t[i++]; ++exp_digits; }
    if (exp_digits == 0 || i != n) return false;
  }
  buf[k] = '\0';
  *out = std::strtod(buf, nullptr);
  return true;
}

// ---- rendering --------------------------------------------------------

// One data descriptor: kind I, F, E or A; width (-1 absent, A takes the
// declared length, 0 the natural length); d or m (-1 absent).
struct DataDesc {
  char kind;
  int width;
  int digits;
};

void put_stars(std::string& o, int w) { o.append(static_cast<size_t>(w > 0 ? w : 1), '*'); }

// Text right-aligned in w columns, or w asterisks when it does not fit.
void put_right(std::string& o, const char* s, size_t len, int w) {
  if (w <= 0) {
    o.append(s, len);
  } else if (len > static_cast<size_t>(w)) {
    put_stars(o, w);
  } else {
    o.append(static_cast<size_t>(w) - len, ' ');
    o.append(s, len);
  }
}

void put_nan_inf(std::string& o, double v, int w) {
  if (std::isnan(v)) {
    put_right(o, "NaN", 3, w);
    return;
  }
  const bool neg = v < 0;
  const char* word = neg ? "-Infinity" : "Infinity";
  const size_t len = std::strlen(word);
  if (w <= 0 || len <= static_cast<size_t>(w)) {
    put_right(o, word, len, w);
  } else {
    put_right(o, neg ? "-Inf" : "Inf", neg ? 4 : 3, w);
  }
}

// Iw.m: at least m digits with leading zeros; Iw.0 of zero is all blanks.
void render_int(std::string& o, long long v, int w, int m) {
  char digits[24];
  int n = 0;
  unsigned long long u = v < 0 ? 0ULL - static_cast<unsigned long long>(v)
                                : static_cast<unsigned long long>(v);
  if (!(m == 0 && v == 0)) {
    do {
      digits[n++] = static_cast<char>('0' + u % 10);
      u /= 10;
    } while (u != 0);
  }
  const int nd = m > n ? m : n;
  const int len = nd + (v < 0 ? 1 : 0);
  if (w <= 0) w = len;
  if (len > w) {
    put_stars(o, w);
    return;
  }
  o.append(static_cast<size_t>(w - len), ' ');
  if (v < 0) o += '-';
  o.append(static_cast<size_t>(nd - n), '0');
  while (n > 0) o += digits[--n];
}

// snprintf of one double into `buf`, or into `spill` when it is too long.
const char* format_double(char* buf, size_t size, std::string& spill, const char* fmt,
                          int precision, double v, size_t* length) {
  const int n = std::snprintf(buf, size, fmt, precision, v);
  if (n >= 0 && static_cast<size_t>(n) < size) {
    *length = static_cast<size_t>(n);
    return buf;
  }
  spill.resize(static_cast<size_t>(n) + 1);
  std::snprintf(spill.data(), spill.size(), fmt, precision, v);
  *length = static_cast<size_t>(n);
  return spill.data();
}

// Starts a numeric field of `len` characters (sign included) in width w (w
// below 1: the natural width): the leading blanks and the sign. A field too
// narrow is filled with asterisks instead, and false is returned.
bool open_field(std::string& o, size_t len, int w, bool neg) {
  if (w <= 0) w = static_cast<int>(len);
  if (len > static_cast<size_t>(w)) {
    put_stars(o, w);
    return false;
  }
  o.append(static_cast<size_t>(w) - len, ' ');
  if (neg) o += '-';
  return true;
}

// Fw.d: rounded to nearest by the C library; the "0" before the point of a
// value below 1 goes when the width has no room for it. A negative value
// keeps its sign when it rounds to zero; a negative zero shows none.
void render_fixed(std::string& o, double v, int w, int d) {
  if (!std::isfinite(v)) {
    put_nan_inf(o, v, w);
    return;
  }
  if (d < 0) d = 0;
  char buf[400];
  std::string spill;
  size_t n = 0;
  const char* s = format_double(buf, sizeof buf, spill, "%#.*f", d, std::fabs(v), &n);
  const bool neg = v < 0;
  size_t len = n + (neg ? 1 : 0);
  if (w > 0 && len > static_cast<size_t>(w) && d > 0 && s[0] == '0' && s[1] == '.') {
    ++s;
    --n;
    --len;
  }
  if (!open_field(o, len, w, neg)) return;
  o.append(s, n);
}

// Ew.d: mantissa 0.ddd with a non-zero first digit, then E, sign and two
// exponent digits; a three-digit exponent drops the letter. The digits come
// from "%.*e" with d - 1 decimals, which also carries a rounding into the
// exponent (0.99999995 to 0.100E+01).
void render_exponent(std::string& o, double v, int w, int d) {
  if (!std::isfinite(v)) {
    put_nan_inf(o, v, w);
    return;
  }
  if (d <= 0) {
    put_stars(o, w);
    return;
  }
  char buf[400];
  std::string spill;
  const bool neg = v < 0;
  const double a = std::fabs(v);
  // The d mantissa digits are the digits of "%.*e" around its point.
  const char* s = nullptr;
  const char* e = nullptr;
  int exponent = 0;
  if (a != 0.0) {
    size_t n = 0;
    s = format_double(buf, sizeof buf, spill, "%.*e", d - 1, a, &n);
    e = static_cast<const char*>(std::memchr(s, 'e', n));
    exponent = std::atoi(e + 1) + 1;
  }
  char tail[8];
  const int ae = exponent < 0 ? -exponent : exponent;
  if (ae > 999) {
    put_stars(o, w);
    return;
  }
  if (ae <= 99)
    std::snprintf(tail, sizeof tail, "E%c%02d", exponent < 0 ? '-' : '+', ae);
  else
    std::snprintf(tail, sizeof tail, "%c%03d", exponent < 0 ? '-' : '+', ae);
  size_t len = (neg ? 1 : 0) + 2 + static_cast<size_t>(d) + 4;
  bool zero = true;
  if (w > 0 && len > static_cast<size_t>(w)) {
    zero = false;
    --len;
  }
  if (!open_field(o, len, w, neg)) return;
  if (zero) o += '0';
  o += '.';
  if (!s) {
    o.append(static_cast<size_t>(d), '0');
  } else {
    for (const char* q = s; q < e; ++q)
      if (*q != '.') o += *q;
  }
  o += tail;
}

// A: the whole declared length; Aw: right-justified if shorter, else the
// first w characters.
void render_text(std::string& o, const char* s, int len, int w) {
  if (!s) len = 0;
  else if (len < 0) len = static_cast<int>(std::strlen(s));
  if (w < 0) {
    o.append(s ? s : "", static_cast<size_t>(len));
  } else if (len >= w) {
    o.append(s, static_cast<size_t>(w));
  } else {
    o.append(static_cast<size_t>(w - len), ' ');
    o.append(s, static_cast<size_t>(len));
  }
}

void render_value(std::string& o, const DataDesc& d, const WriteValue& v) {
  switch (d.kind) {
    case 'I':
      if (v.type == 'i') render_int(o, v.i, d.width, d.digits);
      else put_stars(o, d.width);
      break;
    case 'F':
    case 'E': {
      double x = 0.0;
      if (v.type == 'r') x = v.r;
      else if (v.type == 'i') x = static_cast<double>(v.i);
      else {
        put_stars(o, d.width);
        break;
      }
      if (d.kind == 'F') render_fixed(o, x, d.width, d.digits);
      else render_exponent(o, x, d.width, d.digits);
      break;
    }
    default:  // 'A'
      if (v.type == 'a') render_text(o, v.s, v.len, d.width);
      else if (d.width > 0) put_stars(o, d.width);
      break;
  }
}

int read_number(const char*& p) {
  long long n = 0;
  while (is_digit(*p)) {
    n = n * 10 + (*p - '0');
    if (n > 1000000000) n = 1000000000;
    ++p;
  }
  return static_cast<int>(n);
}

// Interprets `form` on the fly into `o` with the values in turn, without a
// final line end. Returns true when the statement ended on a '$' (the line
// stays open). If values remain at the end of the form, the form starts
// again on a new line.
bool run_form(std::string& o, const char* form, const WriteValue* values, size_t count) {
  size_t next = 0;
  for (;;) {
    const char* p = form;
    bool took = false;
    bool dollar_last = false;
    while (*p) {
      const char c = *p;
      if (c == ' ' || c == ',' || c == '\t') {
        ++p;
        continue;
      }
      dollar_last = false;
      if (c == '\'' || c == '"') {
        // Literal; a doubled quote stands for one.
        ++p;
        while (*p) {
          if (*p == c) {
            if (p[1] == c) {
              o += c;
              p += 2;
              continue;
            }
            ++p;
            break;
          }
          o += *p++;
        }
        continue;
      }
      if (c == '$') {
        dollar_last = true;
        ++p;
        continue;
      }
      if (c == ':') {
        ++p;
        if (next >= count) return false;
        continue;
      }
      int repeat = 1;
      if (is_digit(c)) {
        repeat = read_number(p);
        while (*p == ' ') ++p;
      }
      const char k = static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
      if (k == '\0') break;
      ++p;
      if (k == 'X') {
        o.append(static_cast<size_t>(repeat), ' ');
      } else if (k == '/') {
        o.append(static_cast<size_t>(repeat), '\n');
      } else if (k == 'I' || k == 'F' || k == 'E' || k == 'A') {
        DataDesc d{k, k == 'A' ? -1 : 0, -1};
        if (is_digit(*p)) d.width = read_number(p);
        if (*p == '.' && is_digit(p[1])) {
          ++p;
          d.digits = read_number(p);
        }
        for (int r = 0; r < repeat; ++r) {
          if (next >= count) return false;
          render_value(o, d, values[next++]);
          took = true;
        }
      }
      // Any other character is passed over.
    }
    if (next >= count || !took) return dollar_last;
    o += '\n';
  }
}

void write_statement(int channel, const char* form, const WriteValue* values, size_t count) {
  g_out.clear();
  const bool keep_open = run_form(g_out, form ? form : "", values, count);
  if (!keep_open) g_out += '\n';
  emit(channel, g_out.data(), g_out.size());
}

}  // namespace

// ---- channels ----------------------------------------------------------

void tio_open(int channel, const char* name) {
  check_channel(channel);
  if (channel == CH_CONSOLE) return;
  // A name padded with blanks (a fixed-length text field) is used without them.
  std::string n = name ? name : "";
  while (!n.empty() && n.back() == ' ') n.pop_back();
  const std::string path = full_path(n);
  Channel& c = g_channels[channel];
  // Opening the file the channel already holds leaves it as it is.
  if (c.file && c.path == path) return;
  if (c.file) close_channel(channel);
  connect(channel, n, path);
}

void tio_close(int channel) {
  check_channel(channel);
  close_channel(channel);
}

void tio_close_all() {
  for (int c = 0; c <= kMaxChannel; ++c) close_channel(c);
}

// ---- reading -----------------------------------------------------------

int tio_read(int channel, int kind, std::initializer_list<ReadItem> items) {
  check_channel(channel);
  ListScan s{channel, nullptr, nullptr, false, 0, false, nullptr, 0};
  int status = READ_OK;
  size_t total = 0;
  for (const ReadItem& item : items) total += item.count > 0 ? static_cast<size_t>(item.count) : 0;
  if (total == 0) {
    // An empty list passes over one line.
    size_t n = 0;
    if (!fetch_line(channel, &s.p, &n)) status = READ_EOF;
  } else {
    bool slash = false;
    for (const ReadItem& item : items) {
      for (int k = 0; k < item.count && status == READ_OK && !slash; ++k) {
        const char* text = nullptr;
        size_t len = 0;
        const int tok = next_token(s, &text, &len);
        if (tok == TOK_EOF) {
          status = READ_EOF;
        } else if (tok == TOK_BAD) {
          status = READ_BAD;
        } else if (tok == TOK_SLASH) {
          slash = true;  // the remaining items keep their values
        } else if (tok == TOK_VALUE) {
          bool good;
          if (item.type == 'i') {
            good = parse_int(text, len, static_cast<int*>(item.target) + k);
          } else if (item.type == 'r') {
            good = parse_real(text, len, static_cast<double*>(item.target) + k);
          } else if (item.type == 'I') {
            std::vector<int>* v = static_cast<std::vector<int>*>(item.target);
            if (v->size() <= static_cast<size_t>(k)) v->resize(static_cast<size_t>(k) + 1);
            good = parse_int(text, len, v->data() + k);
          } else {
            std::vector<double>* v = static_cast<std::vector<double>*>(item.target);
            if (v->size() <= static_cast<size_t>(k)) v->resize(static_cast<size_t>(k) + 1);
            good = parse_real(text, len, v->data() + k);
          }
          if (!good) status = READ_BAD;
        }
        // TOK_NULL leaves the target as it is.
      }
      if (status != READ_OK || slash) break;
    }
  }
  // A growing item the statement completed holds all its values: those left
  // unchanged are the zeros a fixed array would have started with.
  if (status == READ_OK) {
    for (const ReadItem& item : items) {
      if (item.count <= 0) continue;
      const size_t n = static_cast<size_t>(item.count);
      if (item.type == 'I') {
        std::vector<int>* v = static_cast<std::vector<int>*>(item.target);
        if (v->size() < n) v->resize(n);
      } else if (item.type == 'R') {
        std::vector<double>* v = static_cast<std::vector<double>*>(item.target);
        if (v->size() < n) v->resize(n);
      }
    }
  }
  // The rest of the current line is never looked at again: the next
  // statement fetches a new line.
  if (status == READ_EOF) {
    if (kind == READ_PLAIN) read_failure("end-of-file during read", channel);
    return READ_EOF;
  }
  if (status == READ_BAD) {
    if (kind != READ_ERROR_TOLERANT) read_failure("list-directed I/O syntax error", channel);
    return READ_BAD;
  }
  return READ_OK;
}

void tio_read_line(int channel, char* field, int length) {
  check_channel(channel);
  const char* text = nullptr;
  size_t n = 0;
  if (!fetch_line(channel, &text, &n)) read_failure("end-of-file during read", channel);
  if (length < 0) length = 0;
  const size_t take = n < static_cast<size_t>(length) ? n : static_cast<size_t>(length);
  std::memcpy(field, text, take);
  std::memset(field + take, ' ', static_cast<size_t>(length) - take);
  field[length] = '\0';
}

// ---- writing -----------------------------------------------------------

WriteValue wv_text(const char* s, int len) {
  if (len < 0) len = s ? static_cast<int>(std::strlen(s)) : 0;
  return WriteValue{'a', 0, 0.0, s, len};
}

void tio_write(int channel, const char* form, std::initializer_list<WriteValue> values) {
  write_statement(channel, form, values.begin(), values.size());
}

void tio_write_n(int channel, const char* form, const WriteValue* values, std::size_t count) {
  write_statement(channel, form, values, count);
}

void tio_write_free_n(int channel, const WriteValue* values, std::size_t count) {
  g_out.clear();
  if (count == 0 || values[0].type == 'a') g_out += ' ';
  for (std::size_t k = 0; k < count; ++k) {
    const WriteValue& v = values[k];
    if (v.type == 'i') {
      // I12 with room for at least one blank before the digits.
      const long long x = v.i;
      int len = x < 0 ? 2 : 1;
      for (unsigned long long u = x < 0 ? 0ULL - static_cast<unsigned long long>(x)
                                        : static_cast<unsigned long long>(x);
           u >= 10; u /= 10)
        ++len;
      render_int(g_out, x, len + 1 > 12 ? len + 1 : 12, -1);
    } else if (v.type == 'r') {
      // 17 significant digits read back to the same double.
      char buf[64];
      const int n = std::snprintf(buf, sizeof buf, "%25.16E", v.r);
      g_out.append(buf, static_cast<size_t>(n));
    } else {
      render_text(g_out, v.s, v.len, -1);
    }
  }
  g_out += '\n';
  emit(channel, g_out.data(), g_out.size());
}

void tio_write_free(int channel, std::initializer_list<WriteValue> values) {
  tio_write_free_n(channel, values.begin(), values.size());
}

void message(int first, int second, const char* form, std::initializer_list<WriteValue> values) {
  tio_write(first, form, values);
  if (second != 0) tio_write(second, form, values);
}

int tio_render(const char* descriptor, WriteValue value, char* out, int out_size) {
  static std::string scratch;
  scratch.clear();
  run_form(scratch, descriptor ? descriptor : "", &value, 1);
  if (out_size <= 0) return 0;
  size_t n = scratch.size();
  if (n > static_cast<size_t>(out_size - 1)) n = static_cast<size_t>(out_size - 1);
  std::memcpy(out, scratch.data(), n);
  out[n] = '\0';
  return static_cast<int>(n);
}

// ---- stops -------------------------------------------------------------

void tio_stop(const char* text) {
  g_out.clear();
  if (g_channels[CH_CONSOLE].line_open) g_out += '\n';
  g_out += text ? text : "";
  g_out += '\n';
  emit(CH_CONSOLE, g_out.data(), g_out.size());
  tio_close_all();
  end_process(0);
}

void fatal(int first, int second, const char* form, std::initializer_list<WriteValue> values) {
  message(first, second, form, values);
  tio_stop("FATAL error");
}

// ---- in-process use --------------------------------------------------

void tio_use_memory_files(const TioMemoryFile* files, int count, bool keep_console) {
  g_failing = true;  // nothing of a previous input is written back
  tio_close_all();
  g_failing = false;
  for (int c = 0; c <= kMaxChannel; ++c) g_channels[c].line_open = false;
  g_memory_files = files;
  g_num_memory_files = files ? count : 0;
  if (files && !keep_console && !g_sink) g_sink = memory_stream("", 0);
  if ((!files || keep_console) && g_sink) {
    std::fclose(g_sink);
    g_sink = nullptr;
  }
}

void tio_set_stop_hook(void (*hook)(int status)) { g_stop_hook = hook; }

void tio_pause() {
  std::fflush(stdout);
  for (;;) {
    const int c = std::getc(stdin);
    if (c == EOF || c == '\n') break;
  }
}

// Text records: the one layer through which every file and the console are
// read and written. Channels with fixed numbers, list-directed reads of three
// kinds, the text-line read, edit-form writes, free-format writes and the stop.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

// Fixed channel numbers of the run.
enum {
  CH_CONSOLE = 6,     // standard output; never opened or closed
  CH_LOG = 7,         // Q5.out
  CH_MESH = 9,        // mesh.dat
  CH_CONTROL = 12,    // Q5.in
  CH_PROTOCOL = 13,   // protocol.dat
  CH_MODEL = 14,      // forward_model.dat / stem_res.dat
  CH_ERROR = 15,      // stem_err.dat
  CH_MAP = 16,        // Q5_forward.dat / stem_sen.dat / stem_rad.dat
  CH_ITER_TABLE = 17, // stem.III_res.dat
  CH_MODEL_VTK = 18,  // forward_model.vtk / stem_res.vtk
  CH_ITER_VTK = 19,   // stem_diffres.dat / stem.III_res.vtk
  CH_START = 20,      // start model file
  CH_ELECTRODES = 21, // electrodes.dat
  CH_ELECTRODES_VTK = 22, // electrodes.vtk
  CH_MATRIX = 31      // matrix dumps
};

// ---- channels ----------------------------------------------------------

// Connects `channel` to the file `name` in the working directory. The file is
// used if it exists and created empty if not; nothing is truncated until the
// first write. A channel that is still connected is closed first, silently;
// opening the file it already holds leaves it as it is. Trailing blanks of
// `name` are dropped. The console (6) is never opened: the call is ignored.
void tio_open(int channel, const char* name);

// Flushes and disconnects `channel`; a channel with no file is left alone.
void tio_close(int channel);

// Flushes and closes every channel (the console is flushed only).
void tio_close_all();

// ---- reading -----------------------------------------------------------

// The three kinds of list-directed read.
enum { READ_PLAIN = 0, READ_END_TOLERANT = 1, READ_ERROR_TOLERANT = 2 };

// Read status returned by tio_read: 0 good, -1 end of file, 1 bad item.
enum { READ_OK = 0, READ_EOF = -1, READ_BAD = 1 };

// One item (or array of items) of a read list.
struct ReadItem {
  char type;     // 'i' 32-bit integer, 'r' 64-bit real; 'I', 'R' the same
                 // into a growing vector
  void* target;  // int* or double*; std::vector<int>* or std::vector<double>*
  int count;     // number of consecutive values the item takes
};
inline ReadItem rd_int(int* p, int n = 1) { return ReadItem{'i', p, n}; }
inline ReadItem rd_real(double* p, int n = 1) { return ReadItem{'r', p, n}; }
// Items whose `n` values go into a vector that grows as the values come in,
// so that a count larger than the file holds costs only what was read. Value
// k lands in (*v)[k]; an item left unchanged (null, or after '/') keeps what
// the vector held there, 0 where it was shorter. After a good read the
// vector holds at least n entries.
inline ReadItem rd_int_grow(std::vector<int>* v, int n) { return ReadItem{'I', v, n}; }
inline ReadItem rd_real_grow(std::vector<double>* v, int n) { return ReadItem{'R', v, n}; }

// One list-directed read statement on `channel`: starts at the next unread
// line, fills the items in turn (blanks, tabs, commas, line ends separate;
// r*v repeats; r* and ,, leave items unchanged; / ends the list), then skips
// the rest of the line holding the last item. Returns READ_OK, READ_EOF or
// READ_BAD. A plain read never returns anything but READ_OK: end of file or a
// bad item ends the run with the layer's diagnostic and a non-zero status. An
// end-tolerant read returns READ_EOF but ends the run on a bad item. An
// error-tolerant read returns either; after a bad item the rest of its line
// is skipped.
int tio_read(int channel, int kind, std::initializer_list<ReadItem> items);

// Text-line read (plain kind): the next whole line into `field`, `length`
// characters, blank-padded or cut; field[length] is set to '\0'.
void tio_read_line(int channel, char* field, int length);

// ---- writing -----------------------------------------------------------

// One value of a write list.
struct WriteValue {
  char type;        // 'i' integer, 'r' real, 'a' text
  long long i;
  double r;
  const char* s;    // text (not necessarily terminated when len >= 0)
  int len;          // declared length of the text
};
inline WriteValue wv_int(long long v) { return WriteValue{'i', v, 0.0, nullptr, 0}; }
inline WriteValue wv_real(double v) { return WriteValue{'r', 0, v, nullptr, 0}; }
// Text with its declared length; len < 0 takes the C string's length.
WriteValue wv_text(const char* s, int len = -1);

// One edit-form write statement. `form` is written as in the edit notation,
// without the outer parentheses, e.g. "1X, 'Processing dataset ', I3, /" or
// "4E15.5". Descriptors: Iw, Iw.m, Fw.d, Ew.d, A, Aw, nX, /, quoted literals
// in ' or ", and $ at the end to keep the line open; a count in front of a
// descriptor repeats it. Values are taken from `values` in turn; the
// statement ends at the end of the form or at the first data descriptor with
// no value left.
void tio_write(int channel, const char* form,
               std::initializer_list<WriteValue> values = {});

// The same with the values in an array (for long lists).
void tio_write_n(int channel, const char* form, const WriteValue* values,
                 std::size_t count);

// Free-format write: all values on one line behind a leading blank; an
// integer takes 12 columns counting the blank, a real 25.
void tio_write_free(int channel, std::initializer_list<WriteValue> values);
void tio_write_free_n(int channel, const WriteValue* values, std::size_t count);

// The double write of a message: the same form and values to channel
// `first`, then to channel `second` (0 for a message meant for one stream).
void message(int first, int second, const char* form,
             std::initializer_list<WriteValue> values = {});

// Renders one value with one data descriptor ("I5", "I2.2", "F12.3",
// "E15.5", "A") into `out` (no terminator beyond what fits: out must hold
// the field width plus one). Returns the number of characters written.
// Used by tio_write and by tests of the rendering rules.
int tio_render(const char* descriptor, WriteValue value, char* out, int out_size);

// ---- stops -------------------------------------------------------------

// The normal way out: writes `text` as a line of its own on the console,
// flushes and closes all channels and ends the process with status 0.
[[noreturn]] void tio_stop(const char* text);

// A fatal stop: the message to `first` then `second` (0 for one stream),
// then the stop with "FATAL error".
[[noreturn]] void fatal(int first, int second, const char* form,
                        std::initializer_list<WriteValue> values = {});

// ---- in-process use --------------------------------------------------
// A harness that runs the readers inside its own process (the fuzz targets)
// gives the files from memory and takes the stops back. The program itself
// never calls these.

// One file held in memory, under the name the program opens it by.
struct TioMemoryFile {
  const char* name;   // file name as given to tio_open
  const char* data;   // contents, kept alive by the caller while in use
  std::size_t size;   // bytes
};

// Closes every channel and resets the layer; from then on every open looks
// its name up in `files` (`count` entries): a listed name reads the given
// bytes, any other name is an empty file. Whatever is written to any
// channel is dropped, and so is the console and standard error output
// unless `keep_console`. files == nullptr returns to real files.
void tio_use_memory_files(const TioMemoryFile* files, int count, bool keep_console);

// When set, every stop (the normal one, a fatal stop and the layer's own
// failures) calls `hook` with the exit status the process would have had,
// after the same messages and closes, instead of ending the process. The
// hook must not return: it throws or jumps. nullptr restores the exit.
void tio_set_stop_hook(void (*hook)(int status));

// Reads one line from standard input and throws it away; end of input is
// taken as an answer. Used where the run pauses for the user.
void tio_pause();

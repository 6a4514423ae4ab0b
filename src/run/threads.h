// Threads of one run: how many Q5_THREADS asks for, and a team of workers
// that runs one task on every thread at once. With one thread (the default)
// every task runs on the calling thread alone, exactly as a plain call.
#pragma once

enum { MAX_THREADS = 256 };

// The thread count a value of Q5_THREADS asks for: null, empty or "1" give
// 1, "0" every core this process may run on, "2" to "256" that many. Digits
// only, no blanks or signs. Returns -1 for any other value.
int parse_thread_count(const char* value);

// Reads Q5_THREADS and starts the team; an invalid value stops the run
// with its FATAL message. Returns the count in use.
int start_threads_from_environment();

// Starts the team of `num_threads` (1 to MAX_THREADS) threads, the calling
// thread counted as thread 0; a later call replaces the team.
void set_thread_count(int num_threads);

// Threads of the team (1 until set).
int thread_count();

// Runs task(t, arg) for t = 0 .. num_threads - 1 at once, thread 0 on the
// caller, and returns when every one has returned. num_threads is at most
// thread_count(); 1 is a plain call. Tasks must not run tasks, write
// messages or stop the run: they leave their results and failures in
// arrays of their own for the caller. The floating-point mode of the caller
// holds on every thread.
typedef void (*ThreadTask)(int thread, void* arg);
void run_on_threads(int num_threads, ThreadTask task, void* arg);

// The same for a callable f(int thread).
template <class F>
void run_on_threads(int num_threads, F& f) {
  run_on_threads(num_threads, [](int t, void* a) { (*static_cast<F*>(a))(t); },
                 static_cast<void*>(&f));
}

// Items first .. end - 1 (0-based) of `count` that thread t of
// num_threads takes: consecutive ranges in thread order, sizes differing by
// at most one.
void thread_range(int t, int num_threads, int count, int* first, int* end);

// Scaffolding shared by the fuzz targets.
//
// The readers under test open files by name, read their answers from
// standard input, end the process on fatal faults and keep what they read in
// process-wide tables.  A fuzz target runs millions of inputs in one process,
// so this file provides: in-memory files reachable by name, a replaceable
// standard input, a way to survive exit() (the link wraps exit so that a
// call made while a target runs returns to it), and a reset of every table
// to its state at program start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// One-time set-up every target calls from LLVMFuzzerInitialize: standard
// output goes to /dev/null (set FUZZ_VERBOSE=1 to keep it, e.g. to look at
// a crashing input), and standard input becomes an in-memory file.
void fuzz_init();

// Replace the contents of in-memory file `slot` (0..31) by data and return
// a name under which fopen() opens it.  The name stays valid for the whole
// run; only the contents change.
const char *memfile(int slot, const uint8_t *data, size_t size);
const char *memfile(int slot, const std::string &text);

// Make `text` the complete standard input from its start.
void set_stdin(const std::string &text);

// Run fn.  Returns -1 when it came back normally, otherwise the status the
// code under test passed to exit() (a fatal error, end of input, a quit).
// Files that the interrupted code left open are closed afterwards.
int catching_exit(const std::function<void()> &fn);

// Put every process-wide table back to its state at program start, freeing
// what the tables own.
void reset_tables();

// Abort with a message when an invariant that a reader promises is broken;
// the fuzzer records the input as a crash.
void fuzz_check(bool ok, const char *what);

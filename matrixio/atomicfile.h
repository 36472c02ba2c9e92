// Results that appear whole or not at all.
//
// A result is written to a new temporary file in the directory of its target
// and renamed over the target only once every byte is on the disk, so that a
// reader never meets a half-written file, a failed or interrupted run leaves
// the previous file as it was, and two runs writing to one name leave exactly
// one of their two files.  Temporary files still open when the process is
// stopped by SIGINT, SIGTERM or SIGHUP, or ends through exit(), are removed
// before it ends.
//
// A target that is a symbolic link is written through: the file the link
// points to is replaced and the link stays.  A target that is a device or a
// pipe (/dev/null, /dev/stdout, a FIFO), or a path into /proc (an open file
// such as /proc/self/fd/N), is written in place.  A rewritten file keeps
// its permissions, and a file the user may not write is not replaced
// (EACCES), as a plain open for writing would refuse it.
#pragma once

#include <cstdio>

// Create a temporary file beside `target` and open it for binary writing.
//   target  on input: the name the finished file is to have.
// Returns the open stream, or nullptr with errno set (the directory is
// missing or not writable, the file read-only, ...); nothing is created
// then.
FILE *atomic_open(const char *target);

// Finish a stream from atomic_open: flush, sync to the disk, close and
// rename over the target.  Any failure on the way (an earlier write error on
// the stream included) removes the temporary file and leaves the target as
// it was.  Returns 1 on success, or 0 with errno set to the system's reason.
int atomic_commit(FILE *fp);

// Give up a stream from atomic_open: close it and remove its temporary file.
// The target stays as it was.
void atomic_abandon(FILE *fp);

// Give up every stream from atomic_open still open, as atomic_abandon does.
// For a process that goes on after a job in it was cut short.
void atomic_abandon_all();

// The file a stream from atomic_open will replace (a link's destination), or
// nullptr for a stream that did not come from atomic_open.
const char *atomic_target(FILE *fp);

// Reading the user's answers from standard input.
//
// Every answer is one line.  It is stored without its newline (and without a
// carriage return before it, so answer files written on any system work) in
// a buffer of NAMELEN (80) characters.  An answer longer than 79 characters
// is refused rather than cut -- a cut file name could silently name another
// file -- with the message "\nAnswer too long: at most 79 characters\n" on
// standard error, and the question is asked again.  End of input ends the
// process with status 1.
#pragma once

#include "forwinv/forwinv.h"

// Print the prompt (a printf format; no newline is added) on standard output
// and read one answer into `answer` (NAMELEN characters).
void ask(char *answer, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// As ask(), but an empty answer ends the process with status 0: the user's
// way of quitting at a file-name question.
void ask_or_quit(char *answer, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Read one raw line of at most size-1 characters into buf.  Returns 1 on a
// line, 0 at end of input, -1 when the line was longer (the rest of it is
// consumed).  Used by ask() and by tests.
int read_answer_line(char *buf, int size);

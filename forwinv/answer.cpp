#include "forwinv/answer.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

int read_answer_line(char *buf, int size) {
  int n = 0, c;
  bool too_long = false;
  while ((c = getchar()) != EOF && c != '\n') {
    if (n < size - 1)
      buf[n++] = (char)c;
    else
      too_long = true;
  }
  if (c == EOF && n == 0 && !too_long) {
    buf[0] = '\0';
    return 0;
  }
  buf[n] = '\0';
  return too_long ? -1 : 1;
}

namespace {

void ask_v(char *answer, const char *fmt, va_list ap) {
  for (;;) {
    va_list again;
    va_copy(again, ap);
    vprintf(fmt, again);
    va_end(again);
    fflush(stdout);
    int r = read_answer_line(answer, NAMELEN);
    if (r == 0) exit(1);
    if (r == 1) return;
    fputs("\nAnswer too long: at most 79 characters\n", stderr);
  }
}

}  // namespace

void ask(char *answer, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  ask_v(answer, fmt, ap);
  va_end(ap);
}

void ask_or_quit(char *answer, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  ask_v(answer, fmt, ap);
  va_end(ap);
  if (answer[0] == '\0') exit(0);
}

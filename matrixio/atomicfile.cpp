// Temporary files renamed over their targets when complete; see atomicfile.h.
#include "matrixio/atomicfile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

// Open temporaries, looked at by the signal handler.  The handler may only
// call async-signal-safe functions, so the names live in fixed buffers and a
// slot is published (`used`) only after its name is complete.
constexpr int MAX_OPEN = 64;
constexpr size_t NAME_MAX_LEN = 4096;

struct Slot {
  std::atomic<bool> used{false};
  bool direct = false;  // written in place: the target is no regular file
  FILE *fp = nullptr;
  char temp[NAME_MAX_LEN];
  std::string target;
};

Slot slots[MAX_OPEN];
std::mutex slots_lock;

void remove_temporaries(int sig) {
  for (Slot &s : slots)
    if (s.used.load() && !s.direct) unlink(s.temp);
  signal(sig, SIG_DFL);
  raise(sig);
}

void install_handlers() {
  static bool installed = false;
  if (installed) return;
  installed = true;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction old;
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;  // nohup
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = remove_temporaries;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
  }
}

Slot *slot_of(FILE *fp) {
  if (!fp) return nullptr;
  for (Slot &s : slots)
    if (s.used.load() && s.fp == fp) return &s;
  return nullptr;
}

void release(Slot *s) {
  s->used.store(false);
  s->direct = false;
  s->fp = nullptr;
  s->target.clear();
}

}  // namespace

FILE *atomic_open(const char *target) {
  if (!target || !*target) {
    errno = ENOENT;
    return nullptr;
  }
  std::string temp = std::string(target) + ".tmpXXXXXX";
  if (temp.size() + 1 > NAME_MAX_LEN) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  std::lock_guard<std::mutex> guard(slots_lock);
  install_handlers();
  Slot *free_slot = nullptr;
  for (Slot &s : slots)
    if (!s.used.load()) {
      free_slot = &s;
      break;
    }
  if (!free_slot) {
    errno = EMFILE;
    return nullptr;
  }
  // A device or pipe (/dev/null, /dev/stdout, a FIFO) cannot be replaced by
  // renaming, and must not be: it is written in place.
  struct stat st;
  if (stat(target, &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
    FILE *fp = fopen(target, "wb");
    if (fp) {
      free_slot->direct = true;
      free_slot->temp[0] = 0;
      free_slot->fp = fp;
      free_slot->target = target;
      free_slot->used.store(true);
    }
    return fp;
  }
  memcpy(free_slot->temp, temp.c_str(), temp.size() + 1);
  // Block the signals while the name is created and published, so that a
  // file never exists without the handler knowing it.
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGINT);
  sigaddset(&block, SIGTERM);
  sigaddset(&block, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &block, &old);
  int fd = mkstemp(free_slot->temp);
  int saved = errno;
  FILE *fp = nullptr;
  if (fd >= 0) {
    // mkstemp makes the file private (0600); a result gets the usual
    // permissions the user's umask gives new files.
    mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    fp = fdopen(fd, "wb");
    saved = errno;
    if (!fp) {
      close(fd);
      unlink(free_slot->temp);
    } else {
      free_slot->fp = fp;
      free_slot->target = target;
      free_slot->used.store(true);
    }
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  errno = saved;
  return fp;
}

int atomic_commit(FILE *fp) {
  std::lock_guard<std::mutex> guard(slots_lock);
  Slot *s = slot_of(fp);
  if (!s) {
    errno = EBADF;
    return 0;
  }
  int err = 0;
  if (fflush(fp) != 0) err = errno;
  if (!err && ferror(fp)) err = EIO;
  if (!err && !s->direct && fsync(fileno(fp)) != 0 && errno != EINVAL && errno != EROFS) err = errno;
  if (fclose(fp) != 0 && !err) err = errno;
  if (!s->direct) {
    if (!err && rename(s->temp, s->target.c_str()) != 0) err = errno;
    if (err) unlink(s->temp);
  }
  release(s);
  errno = err;
  return err ? 0 : 1;
}

void atomic_abandon(FILE *fp) {
  std::lock_guard<std::mutex> guard(slots_lock);
  Slot *s = slot_of(fp);
  if (!s) return;
  fclose(fp);
  if (!s->direct) unlink(s->temp);
  release(s);
}

const char *atomic_target(FILE *fp) {
  std::lock_guard<std::mutex> guard(slots_lock);
  Slot *s = slot_of(fp);
  return s ? s->target.c_str() : nullptr;
}

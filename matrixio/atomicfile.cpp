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
#include <vector>

#include "matrixio/paths.h"

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

// Also run through atexit: a run that ends through exit() (a fatal error, a
// refused answer) while a result is still being written leaves no temporary
// behind either.
void remove_temporaries() {
  for (Slot &s : slots)
    if (s.used.load() && !s.direct) unlink(s.temp);
}

// The handler of the user's signals: the temporaries go, then the signal
// ends the process as it would have.
void remove_temporaries_and_stop(int sig) {
  remove_temporaries();
  signal(sig, SIG_DFL);
  raise(sig);
}

void install_handlers() {
  static bool installed = false;
  if (installed) return;
  installed = true;
  atexit(remove_temporaries);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction old;
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;  // nohup
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = remove_temporaries_and_stop;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
  }
}

// Links into /proc (/dev/stdout, /proc/self/fd/N) name open files, not
// folder entries: there is nothing to rename over, so they are written in
// place.
bool is_proc_path(const std::string &path) { return path.rfind("/proc/", 0) == 0; }

// The file a chain of symbolic links ends at (which need not exist yet); a
// path that is no link is its own end.  Relative link contents count from
// the link's folder.  The chain stops at a path into /proc.  A loop is cut
// after as many steps as the system itself follows, and the open then
// fails as it would have anyway.
std::string resolve_links(const char *target) {
  std::string path = target;
  for (int step = 0; step < 40 && !is_proc_path(path); step++) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) break;
    std::vector<char> buf(st.st_size > 0 ? (size_t)st.st_size + 1 : (size_t)NAME_MAX_LEN);
    ssize_t n = readlink(path.c_str(), buf.data(), buf.size());
    if (n <= 0 || (size_t)n >= buf.size()) break;  // changed under us: use the link itself
    std::string next(buf.data(), (size_t)n);
    path = next[0] == '/' ? next : folder_of(path) + "/" + next;
  }
  return path;
}

// mkstemp pattern beside the file: its name, shortened if need be so that
// the temporary name still fits a folder entry, then ".tmpXXXXXX".
std::string temp_pattern(const std::string &path) {
  constexpr size_t KEEP = 200;  // of at most 255 bytes per entry
  const std::string name = base_name(path);
  const std::string head = path.substr(0, path.size() - name.size());
  return head + name.substr(0, KEEP) + ".tmpXXXXXX";
}

// Permissions a new file gets from the user's umask.
mode_t new_file_mode() {
  mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// Make a rename in `folder` durable.  Some file systems cannot sync a
// folder; the rename has happened all the same, so failures are ignored.
void sync_folder(const std::string &folder) {
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

// Hold back the signals that remove temporaries; returns the mask to
// restore.
sigset_t block_signals() {
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGINT);
  sigaddset(&block, SIGTERM);
  sigaddset(&block, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &block, &old);
  return old;
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
  // A symbolic link is written through: the file it points to is replaced
  // and the link stays a link.
  const std::string real = resolve_links(target);
  const std::string temp = temp_pattern(real);
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
  const bool exists = stat(real.c_str(), &st) == 0;
  if (is_proc_path(real) || (exists && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode))) {
    FILE *fp = fopen(real.c_str(), "wb");
    if (fp) {
      free_slot->direct = true;
      free_slot->temp[0] = 0;
      free_slot->fp = fp;
      free_slot->target = real;
      free_slot->used.store(true);
    }
    return fp;
  }
  // A file the user may not write stays protected, as it would be from a
  // plain open for writing: renaming over it needs only the folder.
  if (exists && S_ISREG(st.st_mode) && access(real.c_str(), W_OK) != 0) return nullptr;
  memcpy(free_slot->temp, temp.c_str(), temp.size() + 1);
  // Block the signals while the name is created and published, so that a
  // file never exists without the handler knowing it.
  sigset_t old = block_signals();
  int fd = mkstemp(free_slot->temp);
  int saved = errno;
  FILE *fp = nullptr;
  if (fd >= 0) {
    // mkstemp makes the file private (0600).  A rewritten file keeps its
    // permissions; a new one gets those the user's umask gives new files.
    fchmod(fd, exists && S_ISREG(st.st_mode) ? (st.st_mode & 07777) : new_file_mode());
    fp = fdopen(fd, "wb");
    saved = errno;
    if (!fp) {
      close(fd);
      unlink(free_slot->temp);
    } else {
      free_slot->fp = fp;
      free_slot->target = real;
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
  // The signals wait until the temporary name is gone and its slot free,
  // so that the handler never removes a name that is no longer ours.
  sigset_t old = block_signals();
  if (!s->direct) {
    if (!err && rename(s->temp, s->target.c_str()) != 0) err = errno;
    if (err) unlink(s->temp);
  }
  const std::string folder = folder_of(s->target);
  const bool renamed = !err && !s->direct;
  release(s);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (renamed) sync_folder(folder);
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

void atomic_abandon_all() {
  std::lock_guard<std::mutex> guard(slots_lock);
  for (Slot &s : slots)
    if (s.used.load()) {
      fclose(s.fp);
      if (!s.direct) unlink(s.temp);
      release(&s);
    }
}

const char *atomic_target(FILE *fp) {
  std::lock_guard<std::mutex> guard(slots_lock);
  Slot *s = slot_of(fp);
  return s ? s->target.c_str() : nullptr;
}

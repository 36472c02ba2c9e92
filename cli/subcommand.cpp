#include "cli/subcommand.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "cli/failure.h"

bool wants_help(int argc, char **argv) {
  for (int i = 1; i < argc; i++) {
    if (!strcmp(argv[i], "--")) break;
    if (!strcmp(argv[i], "--help") || !strcmp(argv[i], "-h")) return true;
  }
  return false;
}

int run_subcommands(const std::string &program, const std::string &about, const std::vector<Subcommand> &commands,
                    int argc, char **argv) {
  auto list = [&](FILE *to) {
    fprintf(to, "usage: %s COMMAND [options] ...\n\n%s\n\ncommands:\n", program.c_str(), about.c_str());
    for (const auto &c : commands) fprintf(to, "  %-12s %s\n", c.name.c_str(), c.summary.c_str());
    fprintf(to, "\n'%s COMMAND --help' explains a command and its options.\n", program.c_str());
  };
  if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h")) {
    list(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  for (const auto &c : commands) {
    if (c.name != argv[1]) continue;
    try {
      return c.run(argc - 1, argv + 1);
    } catch (const InputError &e) {
      fprintf(stderr, "%s %s: %s\n", program.c_str(), c.name.c_str(), e.what());
      return 2;
    } catch (const std::bad_alloc &) {
      fprintf(stderr, "%s %s: out of memory\n", program.c_str(), c.name.c_str());
      return 2;
    }
  }
  fprintf(stderr, "%s: unknown command '%s'\n\n", program.c_str(), argv[1]);
  list(stderr);
  return 2;
}

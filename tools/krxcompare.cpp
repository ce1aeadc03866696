// krxcompare: compares a new KRX file against a base file block by block and prints the verdict
// lines. Exit status 0 when the files are equivalent, 1 when they differ, 2 for a usage error or
// a file that cannot be read; a missing node or mandatory block ends the run with status -1.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "format/krxread.h"
#include "inspect/krxcompare.h"
#include "model/krxdata.h"

namespace {

constexpr int kUsageError = 2;

void print_help(FILE *out) {
  std::fprintf(out,
               "usage: krxcompare [options] BASE NEW\n"
               "\n"
               "Compares the KRX file NEW against the KRX file BASE, block by block, and prints one\n"
               "verdict line per check. BASE must hold every node of NEW.\n"
               "\n"
               "  -t, --tolerance VALUE   relative tolerance of the numeric checks (default %g)\n"
               "  -v, --verbosity LEVEL   -1 nothing, 0 failures, 1 also warnings, notes and the\n"
               "                          summary (default), 2 also passes and node-map traces\n"
               "  -q, --quiet             the same as --verbosity -1\n"
               "  -h, --help              print this help and exit\n"
               "\n"
               "Exit status: 0 equivalent, 1 different, 2 usage error or unreadable file,\n"
               "255 (-1) when a node or a mandatory block is missing or BASE has fewer nodes.\n",
               krx::kDefaultCompareTolerance);
}

int usage_error(const char *format, const char *argument) {
  std::fprintf(stderr, "krxcompare: ");
  std::fprintf(stderr, format, argument);
  std::fprintf(stderr, "\nTry 'krxcompare --help' for more information.\n");
  return kUsageError;
}

bool parse_double(const char *text, double &out) {
  char *end = nullptr;
  errno = 0;
  out = std::strtod(text, &end);
  return *text != '\0' && *end == '\0' && errno == 0 && std::isfinite(out);
}

bool parse_int(const char *text, int &out) {
  char *end = nullptr;
  errno = 0;
  const long value = std::strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || errno != 0 || value < -1 || value > 100) return false;
  out = (int)value;
  return true;
}

struct Options {
  double tolerance = krx::kDefaultCompareTolerance;
  int verbosity = 1;
  const char *files[2] = {nullptr, nullptr};
  int file_count = 0;
  bool help = false;
};

// An option's value: the rest of "--name=value", else the next argument.
const char *option_value(int argc, char **argv, int &i, const char *arg) {
  if (const char *equals = std::strchr(arg, '='); equals && arg[1] == '-') return equals + 1;
  return i + 1 < argc ? argv[++i] : nullptr;
}

bool is_option(const char *arg, const char *short_name, const char *long_name) {
  if (std::strcmp(arg, short_name) == 0 || std::strcmp(arg, long_name) == 0) return true;
  const std::size_t n = std::strlen(long_name);
  return std::strncmp(arg, long_name, n) == 0 && arg[n] == '=';
}

// 0 when the arguments parse, else the exit status of the usage error (already printed).
int parse(int argc, char **argv, Options &options) {
  bool only_files = false;
  for (int i = 1; i < argc; ++i) {
    const char *arg = argv[i];
    if (only_files || arg[0] != '-' || arg[1] == '\0') {
      if (options.file_count == 2) return usage_error("unexpected argument '%s'", arg);
      options.files[options.file_count++] = arg;
    } else if (std::strcmp(arg, "--") == 0) {
      only_files = true;
    } else if (is_option(arg, "-h", "--help")) {
      options.help = true;
    } else if (is_option(arg, "-q", "--quiet")) {
      options.verbosity = -1;
    } else if (is_option(arg, "-t", "--tolerance")) {
      const char *value = option_value(argc, argv, i, arg);
      if (!value) return usage_error("option '%s' needs a value", arg);
      if (!parse_double(value, options.tolerance) || options.tolerance < 0.0)
        return usage_error("invalid tolerance '%s'", value);
    } else if (is_option(arg, "-v", "--verbosity")) {
      const char *value = option_value(argc, argv, i, arg);
      if (!value) return usage_error("option '%s' needs a value", arg);
      if (!parse_int(value, options.verbosity)) return usage_error("invalid verbosity '%s'", value);
    } else {
      return usage_error("unknown option '%s'", arg);
    }
  }
  if (!options.help && options.file_count != 2)
    return usage_error("%s", "expected two files: BASE NEW");
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (const int status = parse(argc, argv, options)) return status;
  if (options.help) {
    print_help(stdout);
    return 0;
  }
  krx::KRXDATA *models[2] = {nullptr, nullptr};
  for (int i = 0; i < 2; ++i) {
    models[i] = krx::find_or_read_model(options.files[i]);
    if (models[i]) continue;
    std::fprintf(stderr, "krxcompare: cannot read KRX file '%s'\n", options.files[i]);
    krx::release_all_models();
    return kUsageError;
  }
  const int sum = krx::compare_files(models[0], models[1], options.verbosity, options.tolerance);
  krx::release_all_models();
  return sum < 0 ? 1 : 0;
}

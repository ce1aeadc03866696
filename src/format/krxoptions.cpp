#include "format/krxoptions.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/krxmsg.h"

namespace krx {
namespace {

bool has_word(const char *text, const char *word) { return std::strstr(text, word) != nullptr; }

void add_message(WriteOptions *options, int level, const char *text) {
  options->messages.push_back({level, text});
}

void add_conflict(WriteOptions *options, const char *text) {
  add_message(options, kError, text);
  options->failed = true;
}

// The scan sets of the arguments: each argument is the longest run of accepted characters.
bool not_double_quote(char c) { return c != '"'; }
bool not_single_quote(char c) { return c != '\''; }
bool not_close_paren(char c) { return c != ')'; }
bool is_coarsen_char(char c) {
  return c == ' ' || (c >= '0' && c <= '9') || c == '.' || c == ',' || (c != '\0' && std::strchr("preserve_str", c));
}
bool is_number_char(char c) { return c == ' ' || (c >= '0' && c <= '9') || c == '.' || c == 'e' || c == '-'; }

enum class Scan { nothing, found, too_long };

// What the argument scan gives at `at` (the first place of the keyword, or null): `prefix` must
// follow literally, then at least one accepted character. The run is bounded; a longer one is
// too_long and leaves `out` untouched.
Scan scan_argument(const char *at, const char *prefix, bool (*accept)(char), std::string *out) {
  if (!at) return Scan::nothing;
  size_t prefix_length = std::strlen(prefix);
  if (std::strncmp(at, prefix, prefix_length) != 0) return Scan::nothing;
  const char *start = at + prefix_length;
  size_t length = 0;
  while (start[length] != '\0' && accept(start[length])) {
    if (length == size_t(kMaxOptionArgument)) return Scan::too_long;
    ++length;
  }
  if (length == 0) return Scan::nothing;
  out->assign(start, length);
  return Scan::found;
}

void report_too_long(WriteOptions *options, const char *keyword) {
  std::string text = std::string("The argument of the writer option ") + keyword + " is longer than " +
                     std::to_string(kMaxOptionArgument) + " characters.";
  add_conflict(options, text.c_str());
}

// The three forms are tried in order at the first "sketch"; the first that yields a name wins.
void parse_sketch(const char *text, WriteOptions *options) {
  const char *at = std::strstr(text, "sketch");
  Scan scan = scan_argument(at, "sketch(\"", not_double_quote, &options->sketch_file);
  if (scan == Scan::nothing) scan = scan_argument(at, "sketch('", not_single_quote, &options->sketch_file);
  if (scan == Scan::nothing) scan = scan_argument(at, "sketch(", not_close_paren, &options->sketch_file);
  if (scan == Scan::too_long) report_too_long(options, "sketch(");
}

void parse_coarsen(const char *text, WriteOptions *options) {
  const char *at = std::strstr(text, "coarsen(");
  if (scan_argument(at, "coarsen(", is_coarsen_char, &options->coarsen) == Scan::too_long)
    report_too_long(options, "coarsen(");
}

// The scanned text is read as a decimal number the way the C library reads one: leading blanks
// skipped, the longest valid number taken, 0.0 when none. Unlike strtod this ignores the locale.
double to_number(const std::string &scanned) {
  const char *first = scanned.c_str();
  const char *last = first + scanned.size();
  while (first < last && *first == ' ') ++first;
  double value = 0.0;
  std::from_chars_result result = std::from_chars(first, last, value);
  if (result.ec == std::errc::result_out_of_range) return std::strtod(first, nullptr);
  if (result.ec != std::errc()) return 0.0;
  return value;
}

void parse_frequency(const char *text, const char *keyword, double *frequency, WriteOptions *options) {
  std::string scanned;
  Scan scan = scan_argument(std::strstr(text, keyword), keyword, is_number_char, &scanned);
  if (scan == Scan::found) *frequency = to_number(scanned);
  if (scan == Scan::too_long) report_too_long(options, keyword);
}

// The compatibility generations hold no invariants, no single precision and no sparse stress.
void check_compatible(const char *text, WriteOptions *options, const char *const messages[3]) {
  if (has_word(text, "invar")) add_conflict(options, messages[0]);
  if (has_word(text, "single")) add_conflict(options, messages[1]);
  if (has_word(text, "sparse_str")) add_conflict(options, messages[2]);
}

// The steps run in this fixed order whatever the order of the words, each seeing the code that
// the steps before it left.
void settle_version(const char *text, WriteOptions *options) {
  int32_t code = kDefaultVersion;
  if (has_word(text, "full_str")) {
    if (options->sparse_str) add_conflict(options, "Cannot specify full and sparse stress and strain modes.");
    code = 41;
  }
  if (has_word(text, "single")) code = (code & 0xFF) == 41 ? 51 : code | 0x200;
  if (has_word(text, "no_xdr")) {
    if ((code & 0xFF) == 41)
      code = 40;
    else if ((code & 0xFF) == 51)
      code = 50;
    else
      code &= ~0x100;
  }
  if (has_word(text, "82_comp")) {
    static const char *const messages[3] = {"8.2 compatible KRX cannot contain Invariants",
                                            "8.2 compatible KRX cannot be single precision",
                                            "8.2 compatible KRX cannot have sparse stress or strain modes"};
    check_compatible(text, options, messages);
    code = 20;
  }
  if (has_word(text, "81_comp")) {
    static const char *const messages[3] = {"8.1 compatible KRX cannot contain Invariants",
                                            "8.1 compatible KRX cannot be single precision",
                                            "8.1 compatible KRX cannot have sparse stress or strain modes"};
    check_compatible(text, options, messages);
    code = 10;
  }
  options->version = code;
  options->generation = code & 0xFF;
  options->xdr = code == 31 || code == 41 || code == 51 || (code & 0x100) != 0;
  options->single = code == 50 || code == 51 || (code & 0x200) != 0;
}

void parse_invariants(const char *text, WriteOptions *options) {
  if (!has_word(text, "invar")) return;
  if (has_word(text, "full_invar")) {
    options->invariants = Invariants::full;
  } else if (has_word(text, "fast_invar")) {
    options->invariants = Invariants::fast;
  } else {
    options->invariants = Invariants::illegal;
    add_message(options, kWarning, "Illegal invariants option, use full_invar or fast_invar.");
  }
}

// In the order the writer meets the words: face steps, flags, version code, band, invariants.
void parse_words(const char *text, WriteOptions *options) {
  options->lbrf2cm = has_word(text, "lbrf2cm");
  parse_sketch(text, options);
  options->strip_face = has_word(text, "strip_face");
  parse_coarsen(text, options);
  options->no_ortho = has_word(text, "no_ortho");
  options->sparse_str = has_word(text, "sparse_str");
  options->full_str = has_word(text, "full_str");
  settle_version(text, options);
  parse_frequency(text, "lowpass(", &options->lowpass, options);
  parse_frequency(text, "highpass(", &options->highpass, options);
  parse_invariants(text, options);
  options->empty = has_word(text, "empty");
  options->mks = has_word(text, "MKS");
}

}  // namespace

WriteOptions parse_write_options(const char *text) {
  WriteOptions options;
  if (!text) return options;
  try {
    parse_words(text, &options);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC("..\\krxoptions");
    options.failed = true;
  }
  return options;
}

WriteOptions read_write_options() { return parse_write_options(std::getenv("QOR_KRXWRITE_OPTIONS")); }

void report_write_options(const WriteOptions &options) {
  for (const OptionMessage &message : options.messages) {
    if (message.level == kError)
      error("%s", message.text.c_str());
    else if (message.level == kWarning)
      warning("%s", message.text.c_str());
    else
      note("%s", message.text.c_str());
  }
}

ModeBand select_frequency_band(std::span<const double> hertz, std::span<const double> generalized_mass,
                               double highpass, double lowpass) {
  int modes = int(std::min(hertz.size(), generalized_mass.size()));
  int first = 0;
  while (first < modes && !(hertz[first] > highpass)) ++first;
  if (first == modes) first = 0;
  int end = 0;
  while (end < modes && generalized_mass[end] != 0.0 && !(hertz[end] > lowpass)) ++end;
  // A band that closes before it opens (lowpass below highpass, or a massless mode in front)
  // exports nothing rather than a negative count.
  return {first, std::max(0, end - first)};
}

}  // namespace krx

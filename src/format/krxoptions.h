// The writer's option words: the text of QOR_KRXWRITE_OPTIONS turned into the settings of one
// write (version code, encoding, precision, the model processing to run, the frequency band) and
// the messages the words give rise to, and the choice of the modes that the band exports.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "format/krxstream.h"  // kDefaultVersion: generation 60, XDR, double precision

namespace krx {

constexpr double kDefaultHighpass = -1.0;
constexpr double kDefaultLowpass = 1.0e8;
// Longest argument of sketch(, coarsen(, lowpass( and highpass( that is accepted; a longer one is
// malformed: it is reported, ignored, and fails the write.
constexpr int kMaxOptionArgument = 1024;

enum class Invariants { none, fast, full, illegal };

// A message of the parse, kept until the writer reports it: level 0 note, kWarning or kError.
struct OptionMessage {
  int level = 0;
  std::string text;
  bool operator==(const OptionMessage &) const = default;
};

// Everything one write takes from its options. Each option word is found by a case-sensitive
// substring search of the whole text, so words may be run together, repeated or embedded in other
// words ("invar" is found inside "full_invar").
struct WriteOptions {
  // Encoding, settled from the version code after all code steps.
  int32_t version = kDefaultVersion;
  int generation = kDefaultVersion & 0xFF;  // low byte: 10, 20, 40, 50 or 60
  bool xdr = true;                          // 4-byte characters, portable byte order
  bool single = false;                      // reals written as 4-byte floats

  // Model processing before the content is decided, in the order the writer runs it: shift
  // (lbrf2cm), sketch, strip_face, shift again (lbrf2cm, deliberately twice), coarsen.
  bool lbrf2cm = false;
  std::string sketch_file;  // from sketch("..."), sketch('...') or sketch(...); empty: keep faces
  bool strip_face = false;
  std::string coarsen;  // argument after "coarsen(" as scanned; empty: no coarsening

  // Content of the file.
  bool no_ortho = false;    // keep the host's modes: no eigen solution, no band
  bool sparse_str = false;  // stress and strain list only the nodes that carry values
  bool full_str = false;    // stress and strain list every node (dense)
  double highpass = kDefaultHighpass;  // hertz; modes at or below it are not exported
  double lowpass = kDefaultLowpass;    // hertz; the band ends before the first mode above it
  Invariants invariants = Invariants::none;
  bool empty = false;  // rigid-body file without modes
  bool mks = false;    // convert to KILOGRAM, METER, SECOND, NEWTON after the content is settled

  // A conflict or a malformed argument: the writer reports "Problem writing version number." and
  // writes no block. All options are still parsed so that every conflict is reported.
  bool failed = false;
  std::vector<OptionMessage> messages;  // in the order the words gave rise to them
};

// The settings for an option text; null or empty gives the defaults. Prints nothing: the messages
// are kept in the result for report_write_options. Only an allocation failure is reported at once
// (and fails the options).
WriteOptions parse_write_options(const char *text);

// parse_write_options of the environment variable QOR_KRXWRITE_OPTIONS (unset: the defaults).
WriteOptions read_write_options();

// Sends the kept messages to the host at their levels. The writer calls it after the face steps
// and coarsening, where the version code is settled, and before it tests `failed`.
void report_write_options(const WriteOptions &options);

// The contiguous run of modes that the frequency band exports, as positions in the model's mode
// order: it starts at the first mode above the high-pass frequency (the first mode if none is) and
// ends before the first mode, searched from the start, whose generalized mass is exactly 0.0 or
// whose frequency is above the low-pass frequency. count is end minus start, never below 0.
struct ModeBand {
  int first = 0;
  int count = 0;
};
ModeBand select_frequency_band(std::span<const double> hertz, std::span<const double> generalized_mass,
                               double highpass, double lowpass);

}  // namespace krx

// The writer's option words: version code steps, conflicts, arguments and their bounds, the band.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "format/krxoptions.h"
#include "testsupport.h"

using krx::Invariants;
using krx::OptionMessage;
using krx::parse_write_options;
using krx::WriteOptions;
using krxtest::RecordingHost;

namespace {

std::vector<std::string> texts(const WriteOptions &options) {
  std::vector<std::string> out;
  for (const OptionMessage &m : options.messages) out.push_back(m.text);
  return out;
}

TEST(WriteOptions, NoTextGivesXdrDoublePrecisionGeneration60) {
  for (const char *text : {static_cast<const char *>(nullptr), "", "nothing we know"}) {
    WriteOptions options = parse_write_options(text);
    EXPECT_TRUE(options.version == 316 && options.generation == 60 && options.xdr && !options.single);
    EXPECT_TRUE(options.highpass == -1.0 && options.lowpass == 1.0e8 && options.invariants == Invariants::none);
    EXPECT_TRUE(!options.failed && options.messages.empty());
  }
}

TEST(WriteOptions, VersionCodeStepsRunInFixedOrderWhateverTheWordOrder) {
  struct Case {
    const char *text;
    int32_t version;
    bool xdr, single;
  };
  const Case cases[] = {
      {"full_str single no_xdr", 50, false, true},
      {"no_xdr,single,full_str", 50, false, true},
      {"single full_str", 51, true, true},
      {"full_str", 41, true, false},
      {"no_xdr full_str", 40, false, false},
      {"single", 316 | 0x200, true, true},
      {"no_xdr", 60, false, false},
      {"no_xdrsingle", 60 | 0x200, false, true},
      {"82_comp no_xdr", 20, false, false},
      {"full_str 82_comp", 20, false, false},
      {"81_comp 82_comp", 10, false, false},
      {"82_comp81_comp", 10, false, false},
      {"NO_XDR Single", 316, true, false},
  };
  for (const Case &c : cases) {
    WriteOptions options = parse_write_options(c.text);
    EXPECT_EQ(options.version, c.version) << c.text;
    EXPECT_EQ(options.generation, c.version & 0xFF) << c.text;
    EXPECT_TRUE(options.xdr == c.xdr && options.single == c.single && !options.failed) << c.text;
  }
}

// Conflicts fail but still settle the code.
TEST(WriteOptions, EveryConflictIsReportedInStepOrder) {
  EXPECT_EQ(parse_write_options("sparse_str full_str").version, 41);
  WriteOptions options = parse_write_options("81_comp 82_comp fast_invar single full_str sparse_str");
  EXPECT_TRUE(options.failed);
  EXPECT_EQ(options.version, 10);
  EXPECT_EQ(texts(options), (std::vector<std::string>{
                                "Cannot specify full and sparse stress and strain modes.",
                                "8.2 compatible KRX cannot contain Invariants",
                                "8.2 compatible KRX cannot be single precision",
                                "8.2 compatible KRX cannot have sparse stress or strain modes",
                                "8.1 compatible KRX cannot contain Invariants",
                                "8.1 compatible KRX cannot be single precision",
                                "8.1 compatible KRX cannot have sparse stress or strain modes",
                            }));
  for (const OptionMessage &m : options.messages) EXPECT_EQ(m.level, 3);
  EXPECT_EQ(parse_write_options("82_comp single").messages,
            (std::vector<OptionMessage>{{3, "8.2 compatible KRX cannot be single precision"}}));
}

TEST(WriteOptions, InvarAloneIsIllegalAndFullInvarContainsIt) {
  EXPECT_EQ(parse_write_options("full_invar").invariants, Invariants::full);
  EXPECT_EQ(parse_write_options("xfast_invarx").invariants, Invariants::fast);
  EXPECT_TRUE(parse_write_options("full_invar").messages.empty());
  for (const char *text : {"invar", "invariants", "fullinvar"}) {
    WriteOptions options = parse_write_options(text);
    EXPECT_TRUE(options.invariants == Invariants::illegal && !options.failed) << text;
    EXPECT_EQ(options.messages, (std::vector<OptionMessage>{{2, "Illegal invariants option, use full_invar or fast_invar."}}));
  }
  // The compatibility check looks for the word, legal or not.
  EXPECT_TRUE(parse_write_options("81_comp full_invar").failed);
}

TEST(WriteOptions, FlagWordsAreCaseSensitiveSubstrings) {
  WriteOptions o = parse_write_options("lbrf2cmstrip_faceno_ortho sparse_str emptyMKS");
  EXPECT_TRUE(o.lbrf2cm && o.strip_face && o.no_ortho && o.sparse_str && o.empty && o.mks && !o.full_str);
  WriteOptions lower = parse_write_options("mks Empty LBRF2CM");
  EXPECT_FALSE(lower.mks || lower.empty || lower.lbrf2cm);
}

TEST(WriteOptions, FrequenciesReadTheScannedTextAsANumber) {
  WriteOptions band = parse_write_options("highpass(5) lowpass(50)");
  EXPECT_EQ(band.highpass, 5.0);
  EXPECT_EQ(band.lowpass, 50.0);
  EXPECT_EQ(parse_write_options("lowpass(abc)").lowpass, 1.0e8);
  EXPECT_EQ(parse_write_options("lowpass( 2.5e3)").lowpass, 2500.0);
  EXPECT_EQ(parse_write_options("lowpass(1e)").lowpass, 1.0);
  EXPECT_EQ(parse_write_options("lowpass(-)").lowpass, 0.0);
  EXPECT_EQ(parse_write_options("highpass(-1.5e-1,2)").highpass, -0.15);
  EXPECT_EQ(parse_write_options("highpass 5").highpass, -1.0);
}

// Each argument is read at the first place its keyword stands: the sketch name in its first form
// that yields one, the coarsening text as the longest run of its scan set (the letters of
// preserve_str, not the word).
TEST(WriteOptions, ArgumentsAreScannedFromTheirKeywords) {
  const std::vector<std::pair<const char *, const char *>> sketches = {
      {"sketch(\"my faces.skt\") strip_face", "my faces.skt"},
      {"sketch('say \"hi\".skt')", "say \"hi\".skt"},
      {"sketch(plain.skt) no_xdr", "plain.skt"},
      {"sketch(open ended", "open ended"},
      {"sketch", ""},
      {"sketch()", ""},
      {"sketchy sketch(b.skt)", ""}};
  for (auto [text, name] : sketches) EXPECT_EQ(parse_write_options(text).sketch_file, name) << text;
  const std::vector<std::pair<const char *, const char *>> coarsenings = {
      {"coarsen(0.5,preserve_str)", "0.5,preserve_str"},
      {"coarsen(0.05, 10,1,101 102)", "0.05, 10,1,101 102"},
      {"coarsen(0.1 strip_face)", "0.1 str"},
      {"coarsen(x)", ""},
      {"coarsen 0.5", ""}};
  for (auto [text, run] : coarsenings) EXPECT_EQ(parse_write_options(text).coarsen, run) << text;
}

TEST(WriteOptions, ArgumentsUpTo1024CharactersAreTakenLongerOnesFail) {
  const std::string name(1024, 'n');
  EXPECT_EQ(parse_write_options(("sketch(\"" + name + "\")").c_str()).sketch_file, name);
  const std::string args(1024, '1');
  EXPECT_EQ(parse_write_options(("coarsen(" + args + ")").c_str()).coarsen, args);
  EXPECT_EQ(parse_write_options(("lowpass(" + std::string(1023, ' ') + "5)").c_str()).lowpass, 5.0);

  const std::pair<std::string, std::string> cases[] = {
      {"sketch(\"" + name + "n\")", "sketch("}, {"sketch(" + name + "n)", "sketch("}, {"coarsen(" + args + "1", "coarsen("},
      {"lowpass(" + std::string(1024, ' ') + "5)", "lowpass("}, {"highpass(" + std::string(2000, '9'), "highpass("}};
  for (const auto &[text, word] : cases) {
    WriteOptions o = parse_write_options(text.c_str());
    EXPECT_TRUE(o.failed);
    EXPECT_EQ(o.messages, (std::vector<OptionMessage>{
                              {3, "The argument of the writer option " + word + " is longer than 1024 characters."}}));
    EXPECT_TRUE(o.sketch_file.empty() && o.coarsen.empty() && o.lowpass == 1.0e8 && o.highpass == -1.0 && o.version == 316);
  }
}

TEST(WriteOptions, MessagesFollowTheOrderOfEffects) {
  RecordingHost host;
  const std::string text = "invar 82_comp sketch(" + std::string(1100, 'a');
  WriteOptions options = parse_write_options(text.c_str());
  EXPECT_TRUE(host.messages.empty());
  EXPECT_EQ(texts(options), (std::vector<std::string>{
                                "The argument of the writer option sketch( is longer than 1024 characters.",
                                "8.2 compatible KRX cannot contain Invariants",
                                "Illegal invariants option, use full_invar or fast_invar.",
                            }));
  krx::report_write_options(options);
  EXPECT_EQ(host.messages, (std::vector<krxtest::Message>{
                               {3, "The argument of the writer option sketch( is longer than 1024 characters."},
                               {3, "8.2 compatible KRX cannot contain Invariants"},
                               {2, "Illegal invariants option, use full_invar or fast_invar."},
                           }));
}

TEST(WriteOptions, ReadsTheEnvironmentEachTime) {
  ::unsetenv("QOR_KRXWRITE_OPTIONS");
  EXPECT_EQ(krx::read_write_options().version, 316);
  ::setenv("QOR_KRXWRITE_OPTIONS", "81_comp lowpass(12)", 1);
  WriteOptions options = krx::read_write_options();
  ::unsetenv("QOR_KRXWRITE_OPTIONS");
  EXPECT_EQ(options.version, 10);
  EXPECT_EQ(options.lowpass, 12.0);
}

TEST(FrequencyBand, ExportsModesAboveHighpassUpToAndIncludingLowpass) {
  const std::vector<double> spread = {0.0, 0.0, 3.0, 5.0, 7.0, 50.0, 51.0, 60.0}, unit(spread.size(), 1.0);
  auto band = [&](double high, double low) {
    krx::ModeBand b = krx::select_frequency_band(spread, unit, high, low);
    return std::pair(b.first, b.count);
  };
  EXPECT_EQ(band(5.0, 50.0), std::pair(4, 2));
  EXPECT_EQ(band(krx::kDefaultHighpass, krx::kDefaultLowpass), std::pair(0, 8));
  // No mode above the high-pass frequency: the band starts at the first mode.
  EXPECT_EQ(band(100.0, krx::kDefaultLowpass), std::pair(0, 8));
  // The band ends at the first massless mode and never goes negative.
  const std::vector<double> hertz = {1.0, 2.0, 3.0, 4.0};
  EXPECT_EQ(krx::select_frequency_band(hertz, std::vector<double>{1.0, 1.0, 0.0, 1.0}, -1.0, 1.0e8).count, 2);
  // Searched from the first mode, so a massless mode before the high-pass start empties the band.
  EXPECT_EQ(krx::select_frequency_band(hertz, std::vector<double>{0.0, 1.0, 1.0, 1.0}, 2.5, 1.0e8).count, 0);
  EXPECT_EQ(krx::select_frequency_band(hertz, std::vector<double>{1.0, 1.0, 1.0, 1.0}, 3.0, 2.0).count, 0);
  EXPECT_EQ(krx::select_frequency_band({}, {}, -1.0, 1.0e8).count, 0);
}

}  // namespace

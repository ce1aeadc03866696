// The writer's option words and the settings each text settles.
#include <gtest/gtest.h>

#include <charconv>
#include <string>
#include <utility>
#include <vector>

#include "format/krxoptions.h"
#include "testsupport.h"

using krx::OptionMessage;
using krx::parse_write_options;
using krx::WriteOptions;
using krxtest::RecordingHost;

namespace {

// The settings that differ from the defaults, in field order: flags by name, the rest as name=value.
std::string changed_settings(const WriteOptions &o) {
  const WriteOptions d;
  auto number = [](double v) {
    char text[32];
    return std::string(text, std::to_chars(text, text + sizeof text, v).ptr);
  };
  const char *invariants[] = {"none", "fast", "full", "illegal"};
  const std::pair<bool, std::string> words[] = {
      {o.version != d.version, "version=" + std::to_string(o.version)}, {!o.xdr, "no_xdr"}, {o.single, "single"},
      {o.lbrf2cm, "lbrf2cm"}, {!o.sketch_file.empty(), "sketch=" + o.sketch_file}, {o.strip_face, "strip_face"},
      {!o.coarsen.empty(), "coarsen=" + o.coarsen}, {o.no_ortho, "no_ortho"}, {o.sparse_str, "sparse_str"},
      {o.full_str, "full_str"}, {o.highpass != d.highpass, "highpass=" + number(o.highpass)},
      {o.lowpass != d.lowpass, "lowpass=" + number(o.lowpass)},
      {o.invariants != d.invariants, std::string("invariants=") + invariants[int(o.invariants)]},
      {o.empty, "empty"}, {o.mks, "mks"}, {o.failed, "failed"}};
  std::string out;
  for (const auto &[differs, word] : words)
    if (differs) out += (out.empty() ? "" : " ") + word;
  return out;
}

TEST(WriteOptions, EachTextSettlesExactlyTheseSettings) {
  const std::vector<OptionMessage> illegal = {{2, "Illegal invariants option, use full_invar or fast_invar."}};
  struct Case {
    const char *text, *settings;
    std::vector<OptionMessage> messages = {};
  };
  const Case cases[] = {
      {nullptr, ""}, {"", ""}, {"nothing we know", ""},
      // The version code steps run in a fixed order whatever the order of the words.
      {"full_str single no_xdr", "version=50 no_xdr single full_str"},
      {"no_xdr,single,full_str", "version=50 no_xdr single full_str"},
      {"single full_str", "version=51 single full_str"}, {"full_str", "version=41 full_str"},
      {"no_xdr full_str", "version=40 no_xdr full_str"},
      {"single", "version=828 single"}, {"no_xdr", "version=60 no_xdr"}, {"no_xdrsingle", "version=572 no_xdr single"},
      {"82_comp no_xdr", "version=20 no_xdr"}, {"full_str 82_comp", "version=20 no_xdr full_str"},
      {"81_comp 82_comp", "version=10 no_xdr"}, {"82_comp81_comp", "version=10 no_xdr"},
      // Words are case-sensitive substrings.
      {"NO_XDR Single mks Empty LBRF2CM", ""},
      {"lbrf2cmstrip_faceno_ortho sparse_str emptyMKS", "lbrf2cm strip_face no_ortho sparse_str empty mks"},
      {"full_invar", "invariants=full"}, {"xfast_invarx", "invariants=fast"}, {"invar", "invariants=illegal", illegal},
      {"invariants", "invariants=illegal", illegal}, {"fullinvar", "invariants=illegal", illegal},
      // The compatibility check looks for the word, legal or not.
      {"81_comp full_invar", "version=10 no_xdr invariants=full failed",
       {{3, "8.1 compatible KRX cannot contain Invariants"}}},
      {"82_comp single", "version=20 no_xdr failed", {{3, "8.2 compatible KRX cannot be single precision"}}},
      // Frequencies read the scanned text as a number.
      {"highpass(5) lowpass(50)", "highpass=5 lowpass=50"},
      {"lowpass(abc)", ""}, {"lowpass( 2.5e3)", "lowpass=2500"}, {"lowpass(1e)", "lowpass=1"}, {"lowpass(-)", "lowpass=0"},
      {"highpass(-1.5e-1,2)", "highpass=-0.15"}, {"highpass 5", ""},
      // The sketch name in its first form that yields one, at the first place the keyword stands.
      {"sketch(\"my faces.skt\") strip_face", "sketch=my faces.skt strip_face"},
      {"sketch('say \"hi\".skt')", "sketch=say \"hi\".skt"},
      {"sketch(plain.skt) no_xdr", "version=60 no_xdr sketch=plain.skt"},
      {"sketch(open ended", "sketch=open ended"}, {"sketch", ""}, {"sketch()", ""}, {"sketchy sketch(b.skt)", ""},
      // The coarsening text is the longest run of its scan set: the letters of preserve_str.
      {"coarsen(0.5,preserve_str)", "coarsen=0.5,preserve_str"},
      {"coarsen(0.05, 10,1,101 102)", "coarsen=0.05, 10,1,101 102"},
      {"coarsen(0.1 strip_face)", "strip_face coarsen=0.1 str"},
      {"coarsen(x)", ""}, {"coarsen 0.5", ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text ? c.text : "(null)");
    WriteOptions options = parse_write_options(c.text);
    EXPECT_EQ(changed_settings(options), c.settings);
    EXPECT_EQ(options.generation, options.version & 0xFF);
    EXPECT_EQ(options.messages, c.messages);
  }
}

}  // namespace

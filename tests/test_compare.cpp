// The file comparison: verdict lines and results on models filled directly, fatal exits in a
// forked child, and the command-line tool on files written through the exported entries.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "inspect/krxcompare.h"
#include "model/krxdata.h"
#include "model/krxtools.h"
#include "processing/krxunits.h"
#include "krx/krx.h"
#include "testsupport.h"

namespace {

constexpr double kTolerance = 1e-5;
constexpr int kNodes = 12;
constexpr int kStressNodes = 8;
constexpr int kModes = 9;

// Smooth, distinct shapes; modes 7 and 8 share the eigenvalue 400.
double shape_value(int mode, int node, int dof) {
  return std::sin(0.37 * (mode + 1) * (node + 1) + 0.9 * dof + mode) + (dof == mode % 6 ? 0.5 : 0.0);
}
double stress_value(int mode, int node, int dof) {
  return 1e3 * std::cos(0.21 * (mode + 2) * (node + 1) + 0.4 * dof);
}

// What a model is built from; tests change one thing and build the new model.
struct Recipe {
  std::vector<int> ids;
  std::vector<std::array<double, 3>> xyz;
  std::vector<double> eigenvalues{1e-7, -2e-7, 3e-7, 0.0, 1e-7, 2e-7, 400.0, 400.0, 900.0};
  std::function<double(int, int, int)> shape = shape_value;
  std::function<double(int, int, int)> stress = stress_value;
  int stress_nodes = kStressNodes;
  bool eigen_flag = true;
  std::function<void(krx::KRXDATA &)> finish;  // further blocks, set directly

  Recipe() {
    for (int n = 0; n < kNodes; ++n) {
      ids.push_back(101 + n);
      xyz.push_back({0.5 * n, 0.1 * n * n / 10.0, n % 3 - 1.0});
    }
  }
};

// Mode m of a recipe whose modes 7 and 8 (positions 6 and 7) are rotated inside their eigenspace.
std::function<double(int, int, int)> rotated(std::function<double(int, int, int)> f) {
  return [f](int m, int n, int d) {
    const double c = std::cos(0.6), s = std::sin(0.6);
    if (m == 6) return c * f(6, n, d) + s * f(7, n, d);
    if (m == 7) return -s * f(6, n, d) + c * f(7, n, d);
    return f(m, n, d);
  };
}

std::function<double(int, int, int)> flipped(std::function<double(int, int, int)> f) {
  return [f](int m, int n, int d) { return m == 6 || m == 8 ? -f(m, n, d) : f(m, n, d); };
}

krx::KRXDATA *build(const Recipe &recipe) {
  krx::KRXDATA *model = krx::create_model((uint32_t)recipe.ids.size(), kModes);
  for (std::size_t n = 0; n < recipe.ids.size(); ++n) {
    const int32_t p = krx::node_position_or_add(model, recipe.ids[n]);
    model->nodes[p].x = recipe.xyz[n][0];
    model->nodes[p].y = recipe.xyz[n][1];
    model->nodes[p].z = recipe.xyz[n][2];
    model->nodes[p].mass = 0.25 + 0.01 * n;
  }
  model->flags[krx::kFlagNodalCoords] = 1;
  model->flags[krx::kFlagNodalMasses] = 1;
  for (int m = 0; m < (int)recipe.eigenvalues.size(); ++m) {
    krx::EigenRecord record;
    record.number = m + 1;
    record.eigenvalue = recipe.eigenvalues[m];
    record.hertz = std::sqrt(std::fabs(recipe.eigenvalues[m])) / krx::kTwoPi;
    record.radians = std::sqrt(std::fabs(recipe.eigenvalues[m]));
    record.generalized_mass = 1.0;
    record.generalized_stiffness = recipe.eigenvalues[m];
    model->eigen.push_back(record);
    for (std::size_t n = 0; n < recipe.ids.size(); ++n) {
      double v[6];
      for (int d = 0; d < 6; ++d) v[d] = recipe.shape(m, (int)n, d);
      EXPECT_EQ(krx::store_node_vector(model, m + 1, recipe.ids[n], krx::kModeShapes, v), 1);
      if ((int)n >= recipe.stress_nodes) continue;
      for (int d = 0; d < 6; ++d) v[d] = recipe.stress(m, (int)n, d);
      EXPECT_EQ(krx::store_node_vector(model, m + 1, recipe.ids[n], krx::kModalStress, v), 1);
    }
  }
  model->flags[krx::kFlagEigenvalues] = recipe.eigen_flag ? 1 : 0;
  if (recipe.finish) recipe.finish(*model);
  return model;
}

struct Outcome {
  int result = 0;
  std::string out;
};

Outcome compare(const Recipe &base_recipe, const Recipe &new_recipe, int verbosity,
                double tolerance = kTolerance) {
  krxtest::RecordingHost host;  // the store's notes stay off standard output
  krx::KRXDATA *base = build(base_recipe);
  krx::KRXDATA *fresh = build(new_recipe);
  testing::internal::CaptureStdout();
  Outcome outcome;
  outcome.result = krx::compare_files(base, fresh, verbosity, tolerance);
  outcome.out = testing::internal::GetCapturedStdout();
  krx::release_model(fresh);
  krx::release_model(base);
  return outcome;
}

// Runs the comparison in a forked child whose standard output goes to a file; the child's exit
// status and what it printed.
struct Exit {
  int status = -1000;
  std::string out;
};

Exit compare_in_child(const Recipe &base_recipe, const Recipe &new_recipe, int verbosity) {
  krxtest::TempDir dir;
  const std::string path = dir.file("out.txt");
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    if (!std::freopen(path.c_str(), "w", stdout)) _exit(99);
    setenv("TMP", dir.path.c_str(), 1);  // the child's temporary vector files go with the directory
    krxtest::RecordingHost host;
    krx::KRXDATA *base = build(base_recipe);
    krx::KRXDATA *fresh = build(new_recipe);
    krx::compare_files(base, fresh, verbosity, kTolerance);
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  Exit result;
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  result.out = text.str();
  return result;
}

bool contains(const std::string &text, const std::string &piece) {
  return text.find(piece) != std::string::npos;
}

TEST(CompareModels, AModelAgainstItselfPassesAtEveryVerbosity) {
  const Recipe recipe;
  const Outcome full = compare(recipe, recipe, 2);
  EXPECT_EQ(full.result, 0);
  EXPECT_TRUE(contains(full.out, "->Building node map for nodes.\n"));
  EXPECT_TRUE(contains(full.out, "->Building node map for shape modes. \n"));
  EXPECT_TRUE(contains(full.out, "->Building node map for stress modes. \n"));
  EXPECT_TRUE(contains(full.out, "  Pass Version\n"));
  EXPECT_TRUE(contains(full.out, "  Pass NodeCount: 12\n  Pass NodeCoordinates\n  Delta: 0.000000e+00\n"));
  EXPECT_TRUE(contains(full.out, "  Pass EigenVector rotational: #9\n"));
  EXPECT_TRUE(contains(full.out, "  Pass Stress Mode: #9\n"));
  EXPECT_FALSE(contains(full.out, "->Fail"));
  EXPECT_TRUE(full.out.ends_with(" Files are equivalent\n\n"));

  const Outcome summary = compare(recipe, recipe, 1);
  EXPECT_EQ(summary.result, 0);
  EXPECT_EQ(summary.out, "->Note block_6__global_body_props not checked\n"
                         "->Note block_11__units not checked\n"
                         " Files are equivalent\n\n");
  EXPECT_EQ(compare(recipe, recipe, 0).out, "");
  const Outcome silent = compare(recipe, recipe, -1);
  EXPECT_EQ(silent.result, 0);
  EXPECT_EQ(silent.out, "");
}

TEST(CompareModels, FlippedAndRotatedModesOfAnEigenspacePass) {
  const Recipe base;
  Recipe flips;
  flips.shape = flipped(shape_value);
  flips.stress = flipped(stress_value);
  const Outcome a = compare(base, flips, 2);
  EXPECT_EQ(a.result, 0) << a.out;

  Recipe turned;
  turned.shape = rotated(shape_value);
  turned.stress = rotated(stress_value);
  const Outcome b = compare(base, turned, 2);
  EXPECT_EQ(b.result, 0) << b.out;

  // The same rotation between modes of different eigenvalues is a real difference.
  Recipe apart;
  apart.eigenvalues[7] = 401.0;
  Recipe wrong = turned;
  wrong.eigenvalues[7] = 401.0;
  const Outcome c = compare(apart, wrong, 0);
  EXPECT_LT(c.result, 0);
  EXPECT_TRUE(contains(c.out, "->Fail EigenVector translational: #7\n")) << c.out;
  EXPECT_TRUE(contains(c.out, "->Fail ModeShape, 2 times\n")) << c.out;
}

// Perturbs one value of the new model by a relative amount and compares at verbosity 0.
Outcome perturbed(const std::function<void(Recipe &, double)> &change, double amount) {
  const Recipe base;
  Recipe fresh;
  change(fresh, amount);
  return compare(base, fresh, 0);
}

TEST(CompareModels, PerturbationsFailBeyondTheToleranceAndPassBelowIt) {
  // The largest base coordinate is 5.5: a shift of 5.5e-4 is a ratio of 1e-4.
  auto coordinate = [](Recipe &s, double r) { s.xyz[4][0] += 5.5 * r; };
  EXPECT_EQ(perturbed(coordinate, 1e-4).out, "->Fail NodeCoordinates\n  Delta: 1.000000e-04\n");
  EXPECT_EQ(perturbed(coordinate, 1e-4).result, -1);
  EXPECT_EQ(perturbed(coordinate, 1e-6).result, 0);

  auto eigenvalue = [](Recipe &s, double r) { s.eigenvalues[8] *= 1.0 + r; };
  const Outcome e = perturbed(eigenvalue, 1e-4);
  EXPECT_TRUE(e.out.starts_with("->Fail EigenValue: #9\n  Delta: 1.000000e-04\n")) << e.out;
  EXPECT_TRUE(contains(e.out, "->Fail Eigenvalues\n")) << e.out;
  EXPECT_LT(e.result, 0);
  EXPECT_EQ(perturbed(eigenvalue, 1e-7).result, 0);

  auto stress = [](Recipe &s, double r) {
    s.stress = [r](int m, int n, int d) {
      return stress_value(m, n, d) * (m == 8 && n == 2 && d == 0 ? 1.0 + r : 1.0);
    };
  };
  const Outcome s = perturbed(stress, 1e-2);
  EXPECT_TRUE(contains(s.out, "->Fail Stress Mode: #9\n  Delta: ")) << s.out;
  EXPECT_EQ(s.result, -1);
  EXPECT_EQ(perturbed(stress, 1e-7).result, 0);

  auto shape = [](Recipe &s, double r) {
    s.shape = [r](int m, int n, int d) { return shape_value(m, n, d) + (m == 8 && n == 5 && d == 4 ? r : 0.0); };
  };
  const Outcome m = perturbed(shape, 1e-2);
  EXPECT_EQ(m.out.rfind("->Fail EigenVector rotational: #9\n", 0), 0u) << m.out;
  EXPECT_TRUE(contains(m.out, "->Fail ModeShape, 1 times\n"));
  EXPECT_EQ(m.result, -1);
  EXPECT_EQ(perturbed(shape, 1e-8).result, 0);
}

TEST(CompareModels, AZeroRotationalHalfInTheBaseIsNotedAndStillCompared) {
  Recipe base;
  base.shape = [](int m, int n, int d) { return d >= 3 ? 0.0 : shape_value(m, n, d); };
  const Outcome same = compare(base, base, 1);
  EXPECT_EQ(same.result, 0);
  EXPECT_TRUE(contains(same.out, "->Note base EigenVectorRotational=0\n"));
  const Outcome other = compare(base, Recipe(), 0);
  EXPECT_TRUE(contains(other.out, "->Fail EigenVector rotational: #1\n  Delta: 1.000000e+00\n"));
}

// Coordinates in millimetres and masses in grams compare equal to metres and kilograms once both
// models are converted; without the unit names the same numbers differ.
TEST(CompareModels, CoordinatesAndMassesAreComparedInKilogramAndMetre) {
  Recipe scaled;
  for (auto &xyz : scaled.xyz)
    for (double &c : xyz) c *= 1000.0;
  auto grams = [](krx::KRXDATA &model) {
    for (krx::NodeRecord &node : model.nodes) node.mass *= 1000.0;
  };
  scaled.finish = [grams](krx::KRXDATA &model) {
    grams(model);
    model.flags[krx::kFlagUnits] = 1;
    ASSERT_EQ(krx::set_units_by_names(&model, "GRAM", "MILLIMETER", "SECOND", "MICRONEWTON"), 1);
  };
  const Outcome out = compare(Recipe(), scaled, 0);
  EXPECT_FALSE(contains(out.out, "NodeCoordinates")) << out.out;
  EXPECT_FALSE(contains(out.out, "NodalMass")) << out.out;

  scaled.finish = grams;
  const Outcome plain = compare(Recipe(), scaled, 0);
  EXPECT_TRUE(contains(plain.out, "->Fail NodeCoordinates\n")) << plain.out;
  EXPECT_TRUE(contains(plain.out, "->Fail NodalMass\n")) << plain.out;
}

// Modal loads of two cases, generalized stiffness and faces, set directly.
void more_blocks(krx::KRXDATA &model) {
  model.flags[krx::kFlagModalLoads] = 1;
  for (int c = 0; c < 2; ++c) {
    krx::LoadCase load;
    load.label = "case";
    for (int m = 0; m < kModes; ++m) load.values.push_back(10.0 * (m + 1) * (c + 1));
    model.load_cases.push_back(load);
  }
  model.flags[krx::kFlagGeneralizedStiffness] = 1;
  for (int m = 0; m < kModes; ++m) model.stiffness.push_back({m, m, 1.0 + m});
  model.flags[krx::kFlagElementFaces] = 1;
  model.faces = {3, 0, 1, 2, 4, 3, 4, 5, 6};
  model.face_count = 2;
}

TEST(CompareModels, LoadSignsWarnWhileListsAndFacesFailOrPassByTheirRules) {
  Recipe base;
  base.finish = more_blocks;
  Recipe fresh;
  fresh.finish = [](krx::KRXDATA &model) {
    more_blocks(model);
    model.load_cases[1].values[7] = -model.load_cases[1].values[7];
    model.faces = {4, 4, 5, 6, 3, 3, 2, 0, 1};  // the same faces, another order
  };
  const Outcome signs = compare(base, fresh, 1);
  EXPECT_EQ(signs.result, 0) << signs.out;
  EXPECT_TRUE(contains(signs.out, "->Warning: Rigid body components (assumed first 6) won't be checked\n"));
  EXPECT_TRUE(contains(signs.out, "->Warning: Modal load component 8 differs in sign for case #2\n"));
  EXPECT_EQ(compare(base, fresh, 2).out.find("  Pass FaceList A\n"), std::string::npos);
  EXPECT_TRUE(contains(compare(base, fresh, 2).out, "  Pass FaceList B\n"));

  Recipe broken;
  broken.finish = [](krx::KRXDATA &model) {
    more_blocks(model);
    model.load_cases[0].values[8] *= 1.01;
    std::swap(model.stiffness[2].row, model.stiffness[3].row);
    model.faces[3] = 7;
  };
  const Outcome out = compare(base, broken, 0);
  EXPECT_TRUE(contains(out.out, "->Fail SparceStiffnessRowList\nindex: 2  new: 4  base: 3\nindex: 3  new: 3  base: 4\n"))
      << out.out;
  EXPECT_TRUE(contains(out.out, "->Fail SparceStiffness\n"));
  EXPECT_TRUE(contains(out.out, "->Fail Modal Load: Case #1\n"));
  EXPECT_TRUE(contains(out.out, "->Fail Modal Loads\n"));
  EXPECT_TRUE(contains(out.out, "->Fail FaceList\n"));
  EXPECT_FALSE(contains(out.out, "SparceStiffnessList"));  // the values in list order agree
}

TEST(CompareFatal, MissingNodesAndBlocksEndTheProcessWithMinusOne) {
  Recipe base, extra;
  extra.ids.push_back(999);
  extra.xyz.push_back({0.0, 0.0, 0.0});
  Exit missing = compare_in_child(base, extra, 0);
  EXPECT_EQ(missing.status, 255);
  EXPECT_EQ(missing.out, "->Fail Node 999 does not exist in base file (Exit)\n\n");
  // Nothing printed at -1, the exit stays.
  missing = compare_in_child(base, extra, -1);
  EXPECT_EQ(missing.status, 255);
  EXPECT_EQ(missing.out, "");

  // A base with fewer nodes lacks one of the new file's nodes.
  Recipe smaller;
  smaller.ids.pop_back();
  smaller.xyz.pop_back();
  const Exit fewer = compare_in_child(smaller, base, 0);
  EXPECT_EQ(fewer.status, 255);
  EXPECT_EQ(fewer.out, "->Fail Node 112 does not exist in base file (Exit)\n\n");

  Recipe fewer_stress;
  fewer_stress.stress_nodes = 5;
  const Exit stress = compare_in_child(fewer_stress, base, 0);
  EXPECT_EQ(stress.status, 255);
  EXPECT_EQ(stress.out,
            "->Fail Node 106 does not exist for stress modes in base file.\n"
            "->Try transposing input KRXs. (Exit)\n\n");

  Recipe no_eigen;
  no_eigen.eigen_flag = false;
  const Exit block = compare_in_child(base, no_eigen, 1);
  EXPECT_EQ(block.status, 255);
  EXPECT_EQ(block.out, "->Note block 7 eigenvalues: exists new: 0  exists base: 1\n"
                       "->Fail no eigenvalues (Exit)\n");
}

}  // namespace

namespace {

struct ToolRun {
  int status = -1;
  std::string out;  // standard output and standard error together
};

ToolRun run_tool(const std::string &arguments) {
  const std::string command = std::string(KRX_BINARY_DIR) + "/krxcompare " + arguments + " 2>&1";
  ToolRun run;
  FILE *pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, n);
  const int status = pclose(pipe);
  if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
  return run;
}

TEST(CompareTool, UsageErrorsAndUnreadableFilesExitWithTwo) {
  const ToolRun help = run_tool("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.out.starts_with("usage: krxcompare [options] BASE NEW\n")) << help.out;
  EXPECT_EQ(run_tool("-h").out, help.out);

  for (const char *arguments : {"", "only_one.krx", "a.krx b.krx c.krx", "-t", "-t abc a b",
                                "--tolerance=-1 a b", "-v 7x a b", "-x a b"}) {
    const ToolRun run = run_tool(arguments);
    EXPECT_EQ(run.status, 2) << arguments;
    EXPECT_TRUE(contains(run.out, "Try 'krxcompare --help' for more information.\n")) << arguments;
  }
  EXPECT_EQ(run_tool("-x a b").out,
            "krxcompare: unknown option '-x'\nTry 'krxcompare --help' for more information.\n");

  krxtest::TempDir dir;
  const ToolRun missing = run_tool(dir.file("none.krx") + " " + dir.file("none.krx"));
  EXPECT_EQ(missing.status, 2);
  EXPECT_TRUE(contains(missing.out, "krxcompare: cannot read KRX file '" + dir.file("none.krx") + "'\n"))
      << missing.out;
}

}  // namespace

namespace {

// Files of the reader's test data, patched where a test needs a difference. Values of an XDR
// file are big-endian.
struct CompareFiles : ::testing::Test {
  krxtest::TempDir dir;
  const std::string xdr = std::string(KRX_TEST_DATA) + "/bracket_xdr.krx";

  // A copy of the XDR bracket with the 8 bytes at `offset` replaced by a big-endian double (or
  // the 4 bytes by a big-endian int).
  std::string patched(const std::string &name, int64_t offset, double value, bool integer = false) {
    std::ifstream in(xdr, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    unsigned char raw[8];
    int width = integer ? 4 : 8;
    if (integer) {
      const uint32_t v = (uint32_t)(int32_t)value;
      for (int i = 0; i < 4; ++i) raw[i] = (unsigned char)(v >> (24 - 8 * i));
    } else {
      uint64_t v;
      std::memcpy(&v, &value, 8);
      for (int i = 0; i < 8; ++i) raw[i] = (unsigned char)(v >> (56 - 8 * i));
    }
    bytes.replace((std::size_t)offset, width, (const char *)raw, width);
    const std::string path = dir.file(name);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  // Where a block starts in the bracket, as the reader locates it.
  int64_t block_start(int block) {
    krxtest::RecordingHost host;
    krx::KRXDATA *model = krx::find_or_read_model(xdr.c_str());
    EXPECT_NE(model, nullptr);
    const int64_t at = model ? model->block_start[block] : 0;
    krx::release_all_models();
    return at;
  }
};

TEST_F(CompareFiles, AFileAgainstItselfIsEquivalentAtEveryVerbosity) {
  const ToolRun full = run_tool("-v 2 " + xdr + " " + xdr);
  EXPECT_EQ(full.status, 0) << full.out;
  EXPECT_TRUE(full.out.starts_with("->Building node map for nodes.\n->Building node map for shape modes. \n"))
      << full.out;
  EXPECT_TRUE(contains(full.out, "  Pass Version\n"));
  EXPECT_TRUE(contains(full.out, "  Pass EigenVector rotational: #2\n"));
  EXPECT_TRUE(contains(full.out, "  Pass Invar9\n"));
  EXPECT_FALSE(contains(full.out, "->Fail"));
  EXPECT_TRUE(full.out.ends_with(" Files are equivalent\n\n"));
  const ToolRun summary = run_tool(xdr + " " + xdr);
  EXPECT_EQ(summary.status, 0);
  EXPECT_TRUE(summary.out.ends_with(" Files are equivalent\n\n"));
  for (const char *level : {"-v 0", "-v -1", "-q"}) {
    const ToolRun run = run_tool(std::string(level) + " " + xdr + " " + xdr);
    EXPECT_EQ(run.status, 0) << level;
    EXPECT_EQ(run.out, "") << level;
  }
}

TEST_F(CompareFiles, OtherEncodingsOfTheSameModelAreEquivalent) {
  const std::string data = KRX_TEST_DATA;
  const ToolRun single = run_tool("-v 0 " + xdr + " " + data + "/bracket_single.krx");
  EXPECT_EQ(single.status, 0) << single.out;
  const ToolRun old = run_tool("-v 1 " + xdr + " " + data + "/bracket_82.krx");
  EXPECT_EQ(old.status, 0) << old.out;
  EXPECT_TRUE(contains(old.out, "->Warning Version new:  2.0 base:  6.0\n"));
  EXPECT_TRUE(contains(old.out, "->Note block 14 element_faces: exists new: 0  exists base: 1\n"));
}

TEST_F(CompareFiles, PerturbedValuesFailBeyondTheToleranceAndPassBelowIt) {
  // Node 20 sits at (1, 1.5, 2); the largest coordinate is 3.
  const std::string moved = patched("moved.krx", block_start(4) + 8 + 28 + 4, 1.0 + 3e-4);
  const ToolRun far = run_tool("-v 0 -t 1e-5 " + xdr + " " + moved);
  EXPECT_EQ(far.status, 1);
  EXPECT_EQ(far.out, "->Fail NodeCoordinates\n  Delta: 1.000000e-04\n");
  EXPECT_EQ(run_tool("-v 0 --tolerance=1e-3 " + xdr + " " + moved).status, 0);

  // Mode 2 has the eigenvalue 8.
  const std::string stiffer = patched("stiffer.krx", block_start(7) + 4 + 44 + 4, 8.0 * (1.0 + 1e-3));
  const ToolRun e = run_tool("-v 0 " + xdr + " " + stiffer);
  EXPECT_EQ(e.status, 1);
  EXPECT_TRUE(e.out.starts_with("->Fail EigenValue: #2\n  Delta: 1.000000e-03\n")) << e.out;
  EXPECT_EQ(run_tool("-v 0 -t 1e-2 " + xdr + " " + stiffer).status, 0);

  // The first stress value of mode 2: the block's two counts, its two node ids, mode 1's record.
  const int64_t stress = block_start(18) + 8 + 8 + (4 + 2 * 48) + 4;
  const ToolRun s = run_tool("-v 0 " + xdr + " " + patched("stressed.krx", stress, 12345.0));
  EXPECT_EQ(s.status, 1);
  EXPECT_TRUE(s.out.starts_with("->Fail Stress Mode: #2\n  Delta: ")) << s.out;

  // Invariants are read from the files: the first value of invariant 3 is 21, the largest 23.5.
  const ToolRun i = run_tool("-v 0 " + xdr + " " + patched("invariant.krx", block_start(21) + 4, 21.47));
  EXPECT_EQ(i.status, 1);
  EXPECT_EQ(i.out, "->Fail Invar3\n  Delta: 2.000000e-02\n");
}

TEST_F(CompareFiles, ANodeMissingFromTheBaseEndsTheRunWithMinusOne) {
  // Node 30 renamed 31 in the coordinates: the new file holds 31, and 30 from its mode shapes.
  const std::string renamed = patched("renamed.krx", block_start(4) + 8 + 56, 31, true);
  ToolRun run = run_tool(xdr + " " + renamed);
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.out, "->Fail Node 31 does not exist in base file (Exit)\n\n");
  run = run_tool("-v -1 " + xdr + " " + renamed);
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.out, "");
}

}  // namespace

namespace {

// Files written through the exported entries, the way a host writes them: 12 nodes, 4 modes with
// unit generalized mass, modes 1 and 2 sharing the eigenvalue 400.
struct HostModel {
  std::vector<double> eigenvalues{400.0, 400.0, 900.0, 1600.0};
  std::function<double(int, int, int)> shape = shape_value;
  std::function<double(int, int, int)> stress = stress_value;
  std::vector<int> ids;
  std::vector<std::array<double, 3>> xyz;
  HostModel() {
    const Recipe recipe;
    ids = recipe.ids;
    xyz = recipe.xyz;
  }
};

constexpr int kHostModes = 4;

void write_host_model(const HostModel &h, const std::string &path) {
  int nodes = (int)h.ids.size(), modes = kHostModes, status = 1;
  KRX_CREATE(&nodes, &modes, &status);
  ASSERT_EQ(status, 0);
  KRX_SET_HEADER("bracket", "bracket.inp", "velox", "one", "two", "three", &status, 7, 11, 5, 3, 3, 5);
  for (std::size_t n = 0; n < h.ids.size(); ++n) {
    int id = h.ids[n];
    double xyz[3] = {h.xyz[n][0], h.xyz[n][1], h.xyz[n][2]}, mass = 0.25 + 0.01 * n;
    KRX_SET_NODE_COORDINATES_VEC(&id, xyz, &status);
    KRX_SET_NODAL_MASS(&id, &mass, &status);
  }
  for (int m = 0; m < kHostModes; ++m) {
    int number = m + 1;
    double one = 1.0, lambda = h.eigenvalues[m];
    KRX_SET_GENERALIZED_MASS(&number, &number, &one, &status);
    KRX_SET_GENERALIZED_STIFFNESS(&number, &number, &lambda, &status);
    for (std::size_t n = 0; n < h.ids.size(); ++n) {
      int id = h.ids[n];
      double v[6];
      for (int d = 0; d < 6; ++d) v[d] = h.shape(m, (int)n, d);
      KRX_SET_MODE_SHAPE_VEC(&number, &id, v, &status);
      if ((int)n >= kStressNodes) continue;
      for (int d = 0; d < 6; ++d) v[d] = h.stress(m, (int)n, d);
      KRX_SET_MODAL_STRESS_VEC(&number, &id, v, &status);
    }
  }
  KRX_WRITE_KRX(path.c_str(), &status, (int)path.size());
  EXPECT_EQ(status, 0);
  KRX_TERMINATE(&status);
}

std::function<double(int, int, int)> turned_pair(std::function<double(int, int, int)> f) {
  return [f](int m, int n, int d) {
    const double c = std::cos(0.6), s = std::sin(0.6);
    if (m == 0) return c * f(0, n, d) + s * f(1, n, d);
    if (m == 1) return -s * f(0, n, d) + c * f(1, n, d);
    return f(m, n, d);
  };
}

struct CompareWrittenFiles : ::testing::Test {
  krxtest::TempDir dir;
  std::string base;
  void SetUp() override {
    krxtest::RecordingHost host;
    base = dir.file("base.krx");
    write_host_model(HostModel(), base);
  }
  std::string write(const HostModel &h, const std::string &name) {
    krxtest::RecordingHost host;
    write_host_model(h, dir.file(name));
    return dir.file(name);
  }
};

TEST_F(CompareWrittenFiles, AFileAgainstItselfIsEquivalentAtEveryVerbosity) {
  const ToolRun full = run_tool("-v 2 " + base + " " + base);
  EXPECT_EQ(full.status, 0) << full.out;
  EXPECT_TRUE(full.out.starts_with("->Building node map for nodes.\n->Building node map for shape modes. \n"))
      << full.out;
  EXPECT_TRUE(contains(full.out, "  Pass Version\n"));
  EXPECT_TRUE(contains(full.out, "  Pass EigenVector translational: #4\n"));
  EXPECT_FALSE(contains(full.out, "->Fail"));
  EXPECT_TRUE(full.out.ends_with(" Files are equivalent\n\n"));
  for (const char *level : {"-v 1", "-v 0", "-v -1", "-q"}) {
    const ToolRun run = run_tool(std::string(level) + " " + base + " " + base);
    EXPECT_EQ(run.status, 0) << level;
    EXPECT_FALSE(contains(run.out, "->Fail")) << level;
  }
  EXPECT_EQ(run_tool("-v -1 " + base + " " + base).out, "");
  EXPECT_EQ(run_tool("-v 0 " + base + " " + base).out, "");
}

TEST_F(CompareWrittenFiles, FlippedSignsAndARotatedEigenspacePass) {
  HostModel flips;
  flips.shape = [](int m, int n, int d) { return (m == 0 || m == 2 ? -1.0 : 1.0) * shape_value(m, n, d); };
  flips.stress = [](int m, int n, int d) { return (m == 0 || m == 2 ? -1.0 : 1.0) * stress_value(m, n, d); };
  const ToolRun a = run_tool("-v 0 " + base + " " + write(flips, "flips.krx"));
  EXPECT_EQ(a.status, 0) << a.out;
  EXPECT_EQ(a.out, "");

  HostModel turned;
  turned.shape = turned_pair(shape_value);
  turned.stress = turned_pair(stress_value);
  const ToolRun b = run_tool("-v 0 " + base + " " + write(turned, "turned.krx"));
  EXPECT_EQ(b.status, 0) << b.out;
}

TEST_F(CompareWrittenFiles, PerturbationsBeyondTheToleranceFailWithTheirVerdict) {
  HostModel moved;
  moved.xyz[4][0] += 5.5e-4;  // the largest coordinate is 5.5
  const std::string moved_file = write(moved, "moved.krx");
  const ToolRun far = run_tool("-v 0 -t 1e-5 " + base + " " + moved_file);
  EXPECT_EQ(far.status, 1);
  EXPECT_TRUE(contains(far.out, "->Fail NodeCoordinates\n  Delta: 1.000000e-04\n")) << far.out;
  EXPECT_EQ(run_tool("-v 0 --tolerance=1e-3 " + base + " " + moved_file).status, 0);

  HostModel stiffer;
  stiffer.eigenvalues[2] *= 1.0 + 1e-3;
  const std::string stiffer_file = write(stiffer, "stiffer.krx");
  const ToolRun e = run_tool("-v 0 " + base + " " + stiffer_file);
  EXPECT_EQ(e.status, 1);
  EXPECT_TRUE(contains(e.out, "->Fail EigenValue: #3\n  Delta: ")) << e.out;
  EXPECT_EQ(run_tool("-v 0 -t 1e-2 " + base + " " + stiffer_file).status, 0);

  HostModel stressed;
  stressed.stress = [](int m, int n, int d) { return stress_value(m, n, d) * (m == 3 && n == 1 ? 1.01 : 1.0); };
  const std::string stressed_file = write(stressed, "stressed.krx");
  const ToolRun s = run_tool("-v 0 " + base + " " + stressed_file);
  EXPECT_EQ(s.status, 1);
  EXPECT_TRUE(contains(s.out, "->Fail Stress Mode: #4\n  Delta: ")) << s.out;
  EXPECT_EQ(run_tool("-v 0 -t 0.1 " + base + " " + stressed_file).status, 0);
}

TEST_F(CompareWrittenFiles, ANodeMissingFromTheBaseEndsTheRunWithMinusOne) {
  HostModel extra;
  extra.ids.push_back(999);
  extra.xyz.push_back({0.0, 0.0, 0.0});
  const std::string extra_file = write(extra, "extra.krx");
  const ToolRun run = run_tool(base + " " + extra_file);
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.out, "->Fail Node 999 does not exist in base file (Exit)\n\n");
  // The other way round the extra node is only a count warning.
  const ToolRun swapped = run_tool("-v 1 " + extra_file + " " + base);
  EXPECT_TRUE(contains(swapped.out, "->Warning NodeCount base: 13  new: 12\n")) << swapped.out;
}

}  // namespace

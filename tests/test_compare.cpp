// The file comparison: verdict lines and exits on models filled directly, compared in a forked
// child, and the command-line tool on files the writer made from such models.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "host/krx_fortran.h"
#include "inspect/krxcompare.h"
#include "model/krxdata.h"
#include "model/krxtools.h"
#include "processing/krxunits.h"
#include "testsupport.h"

namespace {

using Field = std::function<double(int, int, int)>;  // (mode, node, dof) -> value
constexpr int kModes = 9;

// Smooth, distinct shapes; modes 7 and 8 share the eigenvalue 400.
double shape_value(int mode, int node, int dof) {
  return std::sin(0.37 * (mode + 1) * (node + 1) + 0.9 * dof + mode) + (dof == mode % 6 ? 0.5 : 0.0);
}
double stress_value(int mode, int node, int dof) { return 1e3 * std::cos(0.21 * (mode + 2) * (node + 1) + 0.4 * dof); }

// Shapes without a pattern, so that forty of them stay independent over the 72 components.
double scattered(int mode, int node, int dof) {
  const double x = std::sin(12.9898 * (72 * mode + 6 * node + dof + 1)) * 43758.5453;
  return x - std::floor(x) - 0.5;
}

// Modes 7 and 8 rotated inside their eigenspace, and mode 9 with the other sign.
Field rotated_and_flipped(Field f) {
  return [=](int m, int n, int d) {
    const double c = std::cos(0.6), s = std::sin(0.6);
    if (m == 6) return c * f(6, n, d) + s * f(7, n, d);
    if (m == 7) return -s * f(6, n, d) + c * f(7, n, d);
    return m == 8 ? -f(m, n, d) : f(m, n, d);
  };
}

// What a model is built from: 12 nodes, the first 8 with stresses; a case changes one thing.
struct Recipe {
  std::vector<int> ids;
  std::vector<std::array<double, 3>> xyz;
  std::vector<double> eigenvalues{1e-7, -2e-7, 3e-7, 0.0, 1e-7, 2e-7, 400.0, 400.0, 900.0};
  Field shape = shape_value, stress = stress_value;
  int stress_nodes = 8;
  std::function<void(krx::KRXDATA &)> finish;  // further blocks, set directly
  Recipe() {
    for (int n = 0; n < 12; ++n) ids.push_back(101 + n), xyz.push_back({0.5 * n, 0.01 * n * n, n % 3 - 1.0});
  }
};

// Callers hold a krxtest::RecordingHost, so that the store's notes stay off standard output.
krx::KRXDATA *build(const Recipe &recipe) {
  krx::KRXDATA *model = krx::create_model((uint32_t)recipe.ids.size(), (int32_t)recipe.eigenvalues.size());
  for (std::size_t n = 0; n < recipe.ids.size(); ++n) {
    krx::NodeRecord &node = model->nodes[krx::node_position_or_add(model, recipe.ids[n])];
    node.x = recipe.xyz[n][0], node.y = recipe.xyz[n][1], node.z = recipe.xyz[n][2];
    node.mass = 0.25 + 0.01 * n;
  }
  model->flags[krx::kFlagNodalCoords] = model->flags[krx::kFlagNodalMasses] = 1;
  for (int m = 0; m < (int)recipe.eigenvalues.size(); ++m) {
    const double lambda = recipe.eigenvalues[m], omega = std::sqrt(std::fabs(lambda));
    model->eigen.push_back({m + 1, lambda, omega / krx::kTwoPi, omega, 1.0, lambda});
    for (std::size_t n = 0; n < recipe.ids.size(); ++n) {
      double v[6];
      for (int d = 0; d < 6; ++d) v[d] = recipe.shape(m, (int)n, d);
      EXPECT_EQ(krx::store_node_vector(model, m + 1, recipe.ids[n], krx::kModeShapes, v), 1);
      if ((int)n >= recipe.stress_nodes) continue;
      for (int d = 0; d < 6; ++d) v[d] = recipe.stress(m, (int)n, d);
      EXPECT_EQ(krx::store_node_vector(model, m + 1, recipe.ids[n], krx::kModalStress, v), 1);
    }
  }
  model->flags[krx::kFlagEigenvalues] = 1;
  if (recipe.finish) recipe.finish(*model);
  return model;
}

// Modal loads of two cases, generalized stiffness and two faces, set directly.
void more_blocks(krx::KRXDATA &model) {
  model.flags[krx::kFlagModalLoads] = model.flags[krx::kFlagGeneralizedStiffness] = 1;
  for (int c = 0; c < 2; ++c) {
    model.load_cases.push_back({});
    for (int m = 0; m < kModes; ++m) model.load_cases[c].values.push_back(10.0 * (m + 1) * (c + 1));
  }
  for (int m = 0; m < kModes; ++m) model.stiffness.push_back({m, m, 1.0 + m});
  model.flags[krx::kFlagElementFaces] = 1;
  model.faces = {3, 0, 1, 2, 4, 3, 4, 5, 6};
  model.face_count = 2;
}

// A change that sets blocks directly once the model is built, after those set before.
std::function<void(Recipe &)> then(void (*more)(krx::KRXDATA &)) {
  return [more](Recipe &r) {
    r.finish = [more, earlier = r.finish](krx::KRXDATA &model) {
      if (earlier) earlier(model);
      more(model);
    };
  };
}

// One comparison: the change of the new model and of both models, the expected exit status
// (0 equivalent, 1 different, 255 ended) and output.
struct Case {
  const char *name = "";
  std::function<void(Recipe &)> change{};
  int verbosity = 0;
  std::string options{};  // the tool's, instead of the verbosity
  int status = 0;
  std::string exact{};  // the whole output, when there are no pieces
  std::vector<std::string> pieces{};
  std::vector<std::string> absent{};
  std::function<void(Recipe &)> base_change{};
};

void check(const Case &c, const std::pair<int, std::string> &run) {
  const auto &[status, out] = run;
  EXPECT_EQ(status, c.status) << out;
  if (c.pieces.empty()) { EXPECT_EQ(out, c.exact); }
  for (const std::string &piece : c.pieces) EXPECT_NE(out.find(piece), std::string::npos) << piece << " in\n" << out;
  for (const std::string &piece : c.absent) EXPECT_EQ(out.find(piece), std::string::npos) << piece << " in\n" << out;
}

Recipe recipe_of(const Case &c, bool base) {
  Recipe r;
  if (c.base_change) c.base_change(r);
  if (!base && c.change) c.change(r);
  return r;
}

// Run in a forked child, since a missing node ends the process: its exit status and what it printed.
std::pair<int, std::string> compare(const Case &c) {
  krxtest::TempDir dir;
  const std::string path = dir.file("out.txt");
  const int status = krxtest::in_child([&] {
    if (!std::freopen(path.c_str(), "w", stdout)) return 99;
    setenv("TMP", dir.path.c_str(), 1);  // the child's temporary vector files go with the directory
    krxtest::RecordingHost host;
    const int result = krx::compare_files(build(recipe_of(c, true)), build(recipe_of(c, false)), c.verbosity, 1e-5);
    std::fflush(stdout);
    return result < 0 ? 1 : 0;
  });
  const std::vector<char> out = krxtest::file_bytes(path);
  return {status, std::string(out.begin(), out.end())};
}

void coordinate(Recipe &r, double ratio) { r.xyz[4][0] += 5.5 * ratio; }  // the largest coordinate is 5.5
void eigenvalue(Recipe &r, double ratio) { r.eigenvalues[8] *= 1.0 + ratio; }
void stress(Recipe &r, double ratio) {
  r.stress = [ratio](int m, int n, int d) {
    return stress_value(m, n, d) * (m == 8 && n == 2 && d == 0 ? 1.0 + ratio : 1.0);
  };
}
void shape(Recipe &r, double delta) {
  r.shape = [delta](int m, int n, int d) { return shape_value(m, n, d) + (m == 8 && n == 5 && d == 4 ? delta : 0.0); };
}
auto by(void (*perturb)(Recipe &, double), double amount) {
  return [=](Recipe &r) { perturb(r, amount); };
}
void rotated(Recipe &r) { r.shape = rotated_and_flipped(shape_value), r.stress = rotated_and_flipped(stress_value); }
void zero_rotations(Recipe &r) {
  r.shape = [](int m, int n, int d) { return d >= 3 ? 0.0 : shape_value(m, n, d); };
}
void millimetres_and_grams(Recipe &r) {
  for (auto &xyz : r.xyz)
    for (double &c : xyz) c *= 1000.0;
  then([](krx::KRXDATA &model) {
    for (krx::NodeRecord &node : model.nodes) node.mass *= 1000.0;
  })(r);
}
void extra_node(Recipe &r) { r.ids.push_back(999), r.xyz.push_back({0.0, 0.0, 0.0}); }
void invariant2(krx::KRXDATA &model) {
  model.flags[krx::kFlagInvariant1 + 1] = 1;
  model.invariant2 = {1.0, 2.0, 3.0};
}

TEST(CompareModels, EachCaseGivesItsVerdict) {
  const std::vector<Case> cases = {
      {.name = "itself, everything", .verbosity = 2,
       .pieces = {"->Building node map for stress modes. \n", "  Pass EigenVector rotational: #9\n",
                  "  Pass NodeCount: 12\n  Pass NodeCoordinates\n  Delta: 0.000000e+00\n",
                  "  Pass Stress Mode: #9\n", " Files are equivalent\n\n"},
       .absent = {"->Fail"}},
      {.name = "itself, summary", .verbosity = 1,
       .exact = "->Note block_6__global_body_props not checked\n->Note block_11__units not checked\n"
                " Files are equivalent\n\n"},
      {.name = "itself, nothing", .verbosity = -1},
      {.name = "rotated eigenspace, flipped signs", .change = rotated},
      // The same rotation between modes of different eigenvalues is a real difference.
      {.name = "rotated across eigenvalues", .change = [](Recipe &r) { r.shape = rotated_and_flipped(shape_value); },
       .status = 1, .pieces = {"->Fail EigenVector translational: #7\n", "->Fail ModeShape, 2 times\n"},
       .base_change = [](Recipe &r) { r.eigenvalues[7] = 401.0; }},
      // A run of equal eigenvalues longer than a group is cut, with a note; the rotation of modes
      // 7 and 8 stays inside the first group.
      {.name = "forty equal eigenvalues", .change = [](Recipe &r) {
         r.shape = rotated_and_flipped(r.shape), r.stress = rotated_and_flipped(r.stress); },
       .verbosity = 1,
       .exact = "->Note block_6__global_body_props not checked\n"
                "->Note EigenVector group from #1 cut at 32 modes: #33 starts another\n"
                "->Note block_11__units not checked\n Files are equivalent\n\n",
       .base_change = [](Recipe &r) { r.eigenvalues.assign(40, 400.0), r.shape = scattered; }},
      // Beyond the tolerance (1e-5) each perturbation fails with its verdict; below it nothing shows.
      {.name = "coordinate", .change = by(coordinate, 1e-4), .status = 1,
       .exact = "->Fail NodeCoordinates\n  Delta: 1.000000e-04\n"},
      {.name = "coordinate below", .change = by(coordinate, 1e-6)},
      {.name = "z coordinate", .change = [](Recipe &r) { r.xyz[7][2] += 5.5e-4; }, .status = 1,
       .pieces = {"->Fail NodeCoordinates\n"}},
      {.name = "eigenvalue", .change = by(eigenvalue, 1e-4), .status = 1,
       .pieces = {"->Fail EigenValue: #9\n  Delta: 1.000000e-04\n", "->Fail Eigenvalues\n"}},
      {.name = "eigenvalue below", .change = by(eigenvalue, 1e-7)},
      {.name = "stress", .change = by(stress, 1e-2), .status = 1, .pieces = {"->Fail Stress Mode: #9\n  Delta: "}},
      {.name = "stress below", .change = by(stress, 1e-7)},
      {.name = "shape", .change = by(shape, 1e-2), .status = 1,
       .pieces = {"->Fail EigenVector rotational: #9\n", "->Fail ModeShape, 1 times\n"}},
      {.name = "shape below", .change = by(shape, 1e-8)},
      // A base without rotations is noted and still compared.
      {.name = "no base rotations", .verbosity = 1, .pieces = {"->Note base EigenVectorRotational=0\n"},
       .absent = {"->Fail"}, .base_change = zero_rotations},
      {.name = "new rotations", .change = [](Recipe &r) { r.shape = shape_value; }, .status = 1,
       .pieces = {"->Fail EigenVector rotational: #1\n  Delta: 1.000000e+00\n"}, .base_change = zero_rotations},
      // Millimetres and grams equal metres and kilograms once both models are converted.
      {.name = "other units", .change = [](Recipe &r) {
         millimetres_and_grams(r);
         then([](krx::KRXDATA &model) {
           model.flags[krx::kFlagUnits] = 1;
           ASSERT_EQ(krx::set_units_by_names(&model, "GRAM", "MILLIMETER", "SECOND", "MICRONEWTON"), 1);
         })(r); },
       .status = 1, .pieces = {"->Fail GeneralizedMass\n"},  // set in the new units
       .absent = {"NodeCoordinates", "NodalMass"}},
      {.name = "no unit names", .change = millimetres_and_grams, .status = 1,
       .pieces = {"->Fail NodeCoordinates\n", "->Fail NodalMass\n"}},
      // A load of another sign warns; the same faces in another order pass by the second rule.
      {.name = "load sign and face order", .change = then([](krx::KRXDATA &model) {
         model.load_cases[1].values[7] *= -1.0;
         model.faces = {4, 4, 5, 6, 3, 3, 2, 0, 1}; }),
       .verbosity = 2,
       .pieces = {"->Warning: Rigid body components (assumed first 6) won't be checked\n",
                  "->Warning: Modal load component 8 differs in sign for case #2\n", "  Pass FaceList B\n"},
       .absent = {"->Fail", "  Pass FaceList A\n"}, .base_change = then(more_blocks)},
      {.name = "loads, stiffness list and faces", .change = then([](krx::KRXDATA &model) {
         model.load_cases[0].values[8] *= 1.01;
         std::swap(model.stiffness[2].row, model.stiffness[3].row);
         model.faces[3] = 7; }),
       .status = 1,
       .pieces = {"->Fail SparceStiffnessRowList\nindex: 2  new: 4  base: 3\nindex: 3  new: 3  base: 4\n",
                  "->Fail SparceStiffness\n", "->Fail Modal Load: Case #1\n", "->Fail Modal Loads\n",
                  "->Fail FaceList\n"},
       .absent = {"SparceStiffnessList"},  // the values in list order agree
       .base_change = then(more_blocks)},
      // An invariant that both models hold and that differs fails with its own verdict.
      {.name = "invariant", .change = then([](krx::KRXDATA &model) { model.invariant2[2] = 3.1; }),
       .status = 1, .pieces = {"->Fail Invar2\n  Delta: "}, .base_change = then(invariant2)},
      // A missing node or mandatory block ends the process with -1, printing nothing at -1.
      {.name = "extra node", .change = extra_node, .status = 255,
       .exact = "->Fail Node 999 does not exist in base file (Exit)\n\n"},
      {.name = "fewer base nodes", .change = [](Recipe &r) { r.ids.push_back(112), r.xyz.push_back({}); },
       .status = 255, .exact = "->Fail Node 112 does not exist in base file (Exit)\n\n",
       .base_change = [](Recipe &r) { r.ids.pop_back(), r.xyz.pop_back(); }},
      {.name = "fewer base stress nodes", .change = [](Recipe &r) { r.stress_nodes = 8; }, .status = 255,
       .exact = "->Fail Node 106 does not exist for stress modes in base file.\n"
                "->Try transposing input KRXs. (Exit)\n\n",
       .base_change = [](Recipe &r) { r.stress_nodes = 5; }},
      {.name = "no eigenvalues", .change = then([](krx::KRXDATA &model) { model.flags[krx::kFlagEigenvalues] = 0; }),
       .verbosity = 1, .status = 255,
       .exact = "->Note block 7 eigenvalues: exists new: 0  exists base: 1\n->Fail no eigenvalues (Exit)\n"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    check(c, compare(c));
  }
}

// The tool, with standard output and standard error together.
std::pair<int, std::string> run_tool(const std::string &arguments) {
  const std::string command = std::string(KRX_BINARY_DIR) + "/krxcompare " + arguments + " 2>&1";
  std::string out;
  FILE *pipe = popen(command.c_str(), "r");
  if (!pipe) return {-1, out};
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

// Usage errors and unreadable files exit with 2 (the help text has its golden file).
TEST(CompareTool, UsageErrorsAndUnreadableFilesExitWithTwo) {
  for (const char *arguments : {"", "a.krx b.krx c.krx", "-t abc a b", "--tolerance=-1 a b", "-v 7x a b"}) {
    const auto [code, out] = run_tool(arguments);
    EXPECT_TRUE(code == 2 && out.ends_with("Try 'krxcompare --help' for more information.\n")) << arguments;
  }
  EXPECT_EQ(run_tool("-x a b"), std::make_pair(2, std::string("krxcompare: unknown option '-x'\n"
                                                              "Try 'krxcompare --help' for more information.\n")));
  krxtest::TempDir dir;
  const std::string none = dir.file("none.krx");
  EXPECT_EQ(run_tool(none + " " + none), std::make_pair(2, "krxcompare: cannot read KRX file '" + none + "'\n"));
}

// The built model becomes the current one and is written through the exported entry.
void write_file(const Recipe &recipe, const std::string &path) {
  krxtest::RecordingHost host;
  krx::current_model() = build(recipe);
  EXPECT_EQ(krxtest::write_krx(path), 0);
  krxtest::terminate_model();
}

// Each case writes its new file and runs the tool on the pair.
TEST(CompareFiles, TheToolExitsWithTheVerdict) {
  krxtest::TempDir dir;
  const std::string base = dir.file("base.krx"), fresh = dir.file("new.krx");
  write_file(Recipe(), base);
  const std::vector<Case> cases = {
      {.name = "itself, nothing", .options = "-q"},
      {.name = "coordinate", .change = by(coordinate, 1e-4), .options = "-v 0 -t 1e-5", .status = 1,
       .pieces = {"->Fail NodeCoordinates\n  Delta: 1.000000e-04\n"}},
      {.name = "coordinate below", .change = by(coordinate, 1e-4), .options = "-v 0 --tolerance=1e-3"},
      {.name = "extra node", .change = extra_node, .status = 255,
       .exact = "->Fail Node 999 does not exist in base file (Exit)\n\n"},
      {.name = "extra node, nothing", .change = extra_node, .options = "-v -1", .status = 255},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    if (c.change) write_file(recipe_of(c, false), fresh);
    check(c, run_tool(c.options + " " + base + " " + (c.change ? fresh : base)));
  }
}

}  // namespace

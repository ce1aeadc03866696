// ccx2krx MODEL.inp -o OUT.krx [--modes N] [--stress] [--shell-surface SIDE] [--units SYSTEM]
// [--keep DIR] [--timing] [--quiet] [--interface NSET ...] [--solver own|mpi|calculix]: CalculiX
// assembles the model part of a deck, the tool (or CalculiX) solves it, and its modes (with
// interface points: its component modes) are exported as a KRX file.
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "ccx2krx.h"
#include "parallel.h"
#include "solver.h"

namespace fs = std::filesystem;

namespace {

struct UnitSystem {
  const char *name;
  double mass, length, time, force;  // SI value of one unit
};

// Consistent systems only: force = mass x length / time^2.
const UnitSystem kUnitSystems[] = {
    {"m-kg-s", 1.0, 1.0, 1.0, 1.0},
    {"mm-t-s", 1000.0, 0.001, 1.0, 1.0},
    {"mm-kg-ms", 1.0, 0.001, 0.001, 1000.0},
    {"mm-g-ms", 0.001, 0.001, 0.001, 1.0},
    {"cm-g-s", 0.001, 0.01, 1.0, 1e-5},
};

struct Options {
  std::string deck;
  std::string output;
  int modes = 20;
  bool stress = false;
  int shell_surface = 1;  // -1 bottom, 0 mid-surface, 1 top
  const UnitSystem *units = &kUnitSystems[1];
  std::string keep;
  bool timing = false;
  bool quiet = false;
  std::vector<std::string> interfaces;
  enum Solver { kAny, kOwn, kParallel, kCalculix } solver = kAny;
};

void usage(std::FILE *out) {
  std::fprintf(
      out,
      "usage: ccx2krx MODEL.inp -o OUT.krx [--modes N] [--stress] [--shell-surface SIDE]\n"
      "               [--units SYSTEM] [--keep DIR] [--timing] [--quiet] [--interface NSET ...]\n"
      "               [--solver own|mpi|calculix]\n"
      "\n"
      "Runs CalculiX (the CCX environment variable, else ccx on PATH) on the model part of\n"
      "MODEL.inp (everything before its first *STEP) and writes its normal modes as a KRX file.\n"
      "Solid elements C3D4, C3D10, C3D6, C3D15, C3D8, C3D8R, C3D20, C3D20R, shells S3, S4,\n"
      "S4R, S6, S8, S8R and beams B31, B32, B32R; the deck needs a *DENSITY. CalculiX\n"
      "assembles the stiffness and mass matrices (*FREQUENCY, SOLVER=MATRIXSTORAGE); the\n"
      "tool's own solver computes the modes from them: a sparse Cholesky factor of\n"
      "K - sigma M, shift-invert Lanczos, each mode's residual checked and an LDL' count of\n"
      "the eigenvalues below the last mode, which fails the run when a mode was missed. Where\n"
      "the own solver cannot give the same file (shells and beams among them, but with\n"
      "--solver own), CalculiX solves the model and a note says why. Shell and beam nodes\n"
      "get six components: translations of the reference surface or axis as CalculiX\n"
      "prints them, rotations\n"
      "n x (u_top - u_bottom) / t on shells (no drilling rotation) and the least-squares\n"
      "rotation of the section's corners on beams, taken from CalculiX's expanded nodes;\n"
      "their masses and rotary inertias are the expanded nodes'. The file holds every node of\n"
      "the elements, nodal masses lumped by diagonal scaling of the consistent mass (total\n"
      "mass exact, none negative), the mode shapes, the full generalized mass and stiffness\n"
      "computed from the matrices (mode by mode, two modes in memory at a time), the outer\n"
      "faces of the solids (corner nodes, outward) and the shells' corner polygons.\n"
      "QOR_KRXWRITE_OPTIONS goes to the library.\n"
      "\n"
      "  -o OUT.krx       the file to write (its directory must exist)\n"
      "  --modes N        normal modes, rigid-body modes among them (default 20); with\n"
      "                   --interface, the normal modes with the interfaces held\n"
      "  --stress         also the modal stresses at the nodes, recovered from each shape as\n"
      "                   CalculiX recovers them (one isotropic linear elastic material;\n"
      "                   otherwise CalculiX solves the model and computes them); shells at\n"
      "                   their top surface (the side of the normal), beams at the corner of\n"
      "                   their section at +a/2 on its first axis and +b/2 on its second\n"
      "  --shell-surface SIDE  top (default), bottom or mid: the shells' stresses of that\n"
      "                   side, mid the mean of both\n"
      "  --units SYSTEM   the deck's consistent units: m-kg-s, mm-t-s, mm-kg-ms, mm-g-ms,\n"
      "                   cm-g-s (default mm-t-s: N, mm, tonne, s)\n"
      "  --keep DIR       keep CalculiX's work directory in DIR (created if missing)\n"
      "  --timing         print CalculiX's time, the tool's own time and its peak memory\n"
      "                   (with the own solver, the time of each of its stages)\n"
      "  --quiet          no progress (on a terminal one updating line, else a line per\n"
      "                   stage, on standard error)\n"
      "  --interface NSET make the deck's node set NSET an interface point (repeatable): a\n"
      "                   reference node and a rotation node at the plain mean of the set's\n"
      "                   coordinates, tied to the set by *RIGID BODY, REF NODE, ROT NODE.\n"
      "                   The file then holds the static shape of each interface degree of\n"
      "                   freedom (the others held) and N normal modes with all of them held,\n"
      "                   orthonormalised by the library; the reference nodes are its\n"
      "                   interface nodes, with rotations from the rotation nodes. Shell\n"
      "                   and beam nodes are tied as CalculiX ties them: the mean of a\n"
      "                   shell node's bottom and top (of a beam node's section corners)\n"
      "                   follows the point, the node's own rotation stays free, so such a\n"
      "                   set must not lie on one line\n"
      "  --solver own     the own solver, or fail where it cannot solve the model\n"
      "  --solver mpi     the own solver over MPI: mpirun -n N ccx2krx ... --solver mpi; the\n"
      "                   ranks share the factor and the iteration, each reads only its rows\n"
      "                   of the matrices (the working directory, TMPDIR or --keep, must be\n"
      "                   shared by all ranks); rank 0 writes the file\n"
      "  --solver calculix  CalculiX computes the modes (*FREQUENCY, STORAGE=YES), the\n"
      "                   static shapes and the stresses\n");
}

// 0 when the options are complete, 2 for a usage error, 1 after --help.
int parse_options(int argc, char **argv, Options &o) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    bool has_value = i + 1 < argc;
    if (a == "-h" || a == "--help") {
      usage(stdout);
      return 1;
    }
    if (a == "--stress") {
      o.stress = true;
    } else if (a == "--timing") {
      o.timing = true;
    } else if (a == "--quiet") {
      o.quiet = true;
    } else if (a == "-o" && has_value) {
      o.output = argv[++i];
    } else if (a == "--interface" && has_value) {
      o.interfaces.push_back(argv[++i]);
    } else if (a == "--solver" && has_value) {
      std::string v = argv[++i];
      if (v != "own" && v != "mpi" && v != "calculix") {
        std::fprintf(stderr, "ccx2krx: --solver wants own, mpi or calculix, not %s\n", v.c_str());
        return 2;
      }
      o.solver = v == "own" ? Options::kOwn : v == "mpi" ? Options::kParallel : Options::kCalculix;
    } else if (a == "--shell-surface" && has_value) {
      std::string v = argv[++i];
      o.shell_surface = v == "top" ? 1 : v == "bottom" ? -1 : v == "mid" ? 0 : 2;
      if (o.shell_surface == 2) {
        std::fprintf(stderr, "ccx2krx: --shell-surface wants top, bottom or mid, not %s\n",
                     v.c_str());
        return 2;
      }
    } else if (a == "--keep" && has_value) {
      o.keep = argv[++i];
    } else if (a == "--modes" && has_value) {
      char *end = nullptr;
      long n = std::strtol(argv[++i], &end, 10);
      if (*end || n < 1 || n > 100000) {
        std::fprintf(stderr, "ccx2krx: --modes wants a positive count, not %s\n", argv[i]);
        return 2;
      }
      o.modes = static_cast<int>(n);
    } else if (a == "--units" && has_value) {
      o.units = nullptr;
      for (const UnitSystem &u : kUnitSystems)
        if (u.name == std::string(argv[i + 1])) o.units = &u;
      if (!o.units) {
        std::fprintf(stderr, "ccx2krx: unknown unit system %s (see --help)\n", argv[i + 1]);
        return 2;
      }
      ++i;
    } else if (a[0] != '-' && o.deck.empty()) {
      o.deck = a;
    } else {
      std::fprintf(stderr, "ccx2krx: unexpected argument %s\n", a.c_str());
      usage(stderr);
      return 2;
    }
  }
  if (o.deck.empty() || o.output.empty()) {
    usage(stderr);
    return 2;
  }
  return 0;
}

bool check_output(const std::string &output) {
  if (output.size() > 1023) return ccx::failed("the output name is longer than 1023 characters");
  fs::path dir = fs::path(output).parent_path();
  if (dir.empty()) dir = ".";
  std::error_code ec;
  if (!fs::is_directory(dir, ec))
    return ccx::failed("the output directory %s does not exist", dir.c_str());
  return true;
}

bool make_work_dir(const Options &o, std::string &dir) {
  if (!o.keep.empty()) {
    std::error_code ec;
    fs::create_directories(o.keep, ec);
    if (!fs::is_directory(o.keep, ec))
      return ccx::failed("cannot create the directory %s", o.keep.c_str());
    dir = o.keep;
    return true;
  }
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/ccx2krx.XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back(0);
  if (!mkdtemp(name.data()))
    return ccx::failed("cannot create a work directory in %s", pattern.c_str());
  dir = name.data();
  return true;
}

// The CalculiX side: the jobs, then the row map, the matrices, the lumped masses and the
// eigenvector file.
struct Results {
  ccx::DofMap map;
  ccx::Matrices matrices;
  std::vector<double> nodal_mass;
  std::vector<double> nodal_inertia;  // with shells and beams
  ccx::Expansion expansion;
  double total_mass = 0.0;
  ccx::EigenFile eig;
  ccx::FrdReader frd;
  ccx::DatReader dat;
  std::vector<double> unit_mass;  // with interfaces: the elements' mass diagonal at unit density
  std::vector<double> unit_diagonal;  // with shells and beams: each node's, expanded included
  ccx::ParallelSums sums;         // --solver mpi: what the ranks sent back instead of matrices
};

// Why the own solver cannot give the file CalculiX's solution gives; empty when it can.
std::string own_solver_refusal(const Options &o, const ccx::Deck &deck) {
  // CalculiX expands shells and beams into solids whose rows carry the original node's label.
  // The own solver takes them when asked: the stress recovery and the parallel solver know only
  // the deck's own solids, and thin expanded solids can fail its checks where CalculiX's
  // iteration passes (CalculiX's example shellf: a residual of 3.6e-5 at the eighth mode).
  if (!deck.structures.empty() && (o.solver != Options::kOwn || o.stress)) {
    const ccx::Structure &first = deck.structures.front();
    std::string what = std::string(first.beam ? "beam" : "shell") + " elements (" + first.type +
                       " element " + std::to_string(first.id) + ")";
    if (o.stress)
      return "--stress: the model holds " + what + ", whose stresses only CalculiX gives";
    if (o.solver == Options::kParallel)
      return "the model holds " + what + ", which the parallel solver does not expand";
    return "the model holds " + what + ", which the own solver takes with --solver own only";
  }
  if (!deck.dependent_keyword.empty())
    return "the deck's *" + deck.dependent_keyword +
           " makes degrees of freedom depend on others, which CalculiX's matrices leave out and "
           "the own solver cannot rebuild";
  if (o.stress && !deck.material_refusal.empty())
    return "--stress: " + deck.material_refusal +
           ", and the own solver recovers stresses of isotropic linear elastic materials only";
  return "";
}

// Decides the path: own is false when CalculiX solves. A forced own path that cannot be taken
// fails.
bool choose_solver(const Options &o, const ccx::Deck &deck, bool &own) {
  own = false;
  if (o.solver == Options::kCalculix) return true;
  std::string refusal = own_solver_refusal(o, deck);
  if (refusal.empty()) {
    own = true;
    return true;
  }
  if (o.solver == Options::kOwn || o.solver == Options::kParallel)
    return ccx::failed("--solver %s: %s", o.solver == Options::kOwn ? "own" : "mpi",
                       refusal.c_str());
  ccx::note("note: CalculiX solves the model: %s", refusal.c_str());
  return true;
}

bool write_jobs(const Options &o, const ccx::Deck &deck, const std::string &dir, bool own) {
  std::string modes = o.interfaces.empty() ? ccx::modes_deck(o.modes, o.stress)
                                           : ccx::component_deck(deck, o.modes, o.stress);
  return ccx::write_file(dir + "/model.inp", deck.text) &&
         (own || ccx::write_file(dir + "/modes.inp", modes)) &&
         ccx::write_file(dir + "/matrices.inp", ccx::matrices_deck());
}

// Degrees of freedom held by a *BOUNDARY of the model are not rows of CalculiX's matrices, so the
// mass they carry cannot be lumped: say so once.
// The nodes of interface sets have no rows: they follow their reference and rotation nodes.
void note_held_rows(const ccx::DofMap &map, const ccx::Deck &deck) {
  size_t free_rows = 0;
  for (int dir : map.row_dir) free_rows += dir >= 0 && dir < 3 ? 1 : 0;
  size_t nodes = static_cast<size_t>(deck.solid_nodes - deck.tied_nodes + deck.interfaces.size());
  if (free_rows < 3 * nodes)
    ccx::note(
        "note: %zu translations are held by *BOUNDARY; the mass they carry is left out of "
        "the nodal masses",
        3 * nodes - free_rows);
}

// --solver mpi: no process reads the whole matrices; the ranks' sums of M give the lumped masses,
// and their products the generalized mass and stiffness.
bool solve_in_parallel(const Options &o, const ccx::Deck &deck, const std::string &dir,
                       Results &r) {
  ccx::ParallelJob job;
  job.deck = &deck;
  job.map = &r.map;
  job.mas = dir + "/matrices.mas";
  job.sti = dir + "/matrices.sti";
  job.modes = o.modes;
  job.vectors_path = dir + "/own_modes.bin";
  job.statics_path = dir + "/static_shapes.bin";
  job.timing = o.timing;
  if (!ccx::solve_parallel(job, r.eig, r.sums)) return false;
  int nodes = static_cast<int>(deck.node_ids.size());
  if (!ccx::lump_masses(r.sums.mass, r.map, nodes, r.nodal_mass, r.total_mass)) return false;
  if (!r.unit_mass.empty())
    ccx::share_tied_masses(deck, r.map, r.sums.mass.diagonal, r.unit_mass, r.nodal_mass);
  return true;
}

bool run_and_read(const Options &o, const ccx::Deck &deck, const std::string &dir, bool own,
                  Results &r, double &calculix_seconds) {
  std::vector<std::string> jobs = {"matrices"};
  if (!own) jobs.insert(jobs.begin(), "modes");
  ccx::show_stage(own ? "CalculiX assembles the matrices" : "CalculiX solves the model");
  if (!ccx::run_calculix(dir, jobs, calculix_seconds)) return false;
  ccx::show_stage("reading the matrices");
  if (!ccx::read_dof_map(dir + "/matrices.dof", deck, r.map)) return false;
  note_held_rows(r.map, deck);
  if (own && o.solver == Options::kParallel) return solve_in_parallel(o, deck, dir, r);
  int rows = static_cast<int>(r.map.row_node.size());
  if (!ccx::read_matrices(dir + "/matrices.mas", dir + "/matrices.sti", rows, r.matrices))
    return false;
  int nodes = static_cast<int>(deck.node_ids.size());
  ccx::MassSums mass;
  if (deck.structures.empty()) {
    ccx::sum_masses(r.matrices, r.map, mass);
    if (!ccx::lump_masses(mass, r.map, nodes, r.nodal_mass, r.total_mass)) return false;
  } else if (!ccx::read_knots(dir + "/matrices.12d", deck, r.expansion) ||
             !ccx::map_expanded_rows(deck, r.expansion, r.map) ||
             !ccx::expanded_mass_diagonal(deck, r.expansion, r.unit_diagonal) ||
             !ccx::lump_expanded_masses(r.matrices, r.map, r.expansion, r.unit_diagonal,
                                        r.nodal_mass, r.nodal_inertia, r.total_mass)) {
    return false;
  }
  if (!r.unit_mass.empty() && deck.structures.empty())
    ccx::share_tied_masses(deck, r.map, mass.diagonal, r.unit_mass, r.nodal_mass);
  if (!deck.interfaces.empty() && !deck.structures.empty() &&
      (!ccx::check_interface_rotations(deck, r.map) ||
       (!own && !ccx::write_static_shapes(deck, r.map, r.matrices, dir + "/static_shapes.bin"))))
    return false;
  if (own) {
    ccx::OwnJob job;
    job.deck = &deck;
    job.map = &r.map;
    job.matrices = &r.matrices;
    job.modes = o.modes;
    job.vectors_path = dir + "/own_modes.bin";
    job.statics_path = dir + "/static_shapes.bin";
    job.scratch_dir = dir;
    job.timing = o.timing;
    if (!ccx::solve_own(job, r.eig)) return false;
    r.sums.vectors = 6 * static_cast<int>(deck.interfaces.size()) + o.modes;
    r.sums.generalized_mass = std::move(job.generalized_mass);
    r.sums.generalized_stiffness = std::move(job.generalized_stiffness);
    return true;
  }
  int64_t off_diagonal = static_cast<int64_t>(r.matrices.row.size()) - rows;
  if (!deck.interfaces.empty()) {
    // The normal modes hold the interface rows fixed, which leaves them out of the eigenvectors
    // and of the matrices stored before them.
    for (int node : r.map.row_node) rows -= node >= deck.solid_nodes ? 1 : 0;
    off_diagonal = 0;
    if (!ccx::open_dat(dir + "/modes.dat", r.dat)) return false;
  }
  if (!ccx::open_eigen_file(dir + "/modes.eig", rows, off_diagonal, r.eig)) return false;
  return !o.stress || ccx::open_frd(dir + "/modes.frd", r.frd);
}

bool convert(const Options &o, double &calculix_seconds) {
  if (!check_output(o.output)) return false;
  ccx::Deck deck;
  Results r;
  if (!ccx::read_deck(o.deck, deck)) return false;
  if (!deck.structures.empty() && !ccx::build_expansion(deck, r.expansion)) return false;
  if (!ccx::add_interfaces(deck, o.interfaces)) return false;
  if (!deck.structures.empty() && !ccx::tie_interface_nodes(deck, r.expansion)) return false;
  if (deck.has_steps)
    ccx::note("note: the deck holds steps; only its model part before the first *STEP is used");
  std::vector<ccx::Face> faces;
  if (!deck.elements.empty() && !ccx::collect_skin(deck, faces)) return false;
  ccx::collect_shell_faces(deck, faces);
  bool own = false;
  if (!choose_solver(o, deck, own)) return false;
  std::string dir;
  if (!make_work_dir(o, dir)) return false;
  bool ok = write_jobs(o, deck, dir, own);
  ccx::StressModel stresses;
  // CCX2KRX_RECOVER_STRESSES recovers the stresses of CalculiX's own modes as the own path does,
  // which lets the tests hold the recovery against CalculiX's stresses of the same eigenvectors.
  bool recover = o.stress && deck.structures.empty() &&
                 (own || std::getenv("CCX2KRX_RECOVER_STRESSES"));
  ok = ok && ((!recover && deck.interfaces.empty()) ||
              ccx::prepare_stresses(deck, stresses, recover));
  if (ok && !deck.interfaces.empty()) ccx::mass_diagonal(stresses, deck, r.unit_mass);
  // With shells and beams the solids' diagonal is taken while their elements are here; the
  // expanded elements' joins it once CalculiX has placed the knots.
  if (ok && !deck.structures.empty()) {
    ccx::StressModel solids;
    ok = ccx::prepare_stresses(deck, solids, false);
    if (ok) ccx::mass_diagonal(solids, deck, r.unit_diagonal);
  }
  // The deck's text and elements have served: the model part is written, the skin is known and
  // the stress recovery holds what it needs of the elements.
  std::string().swap(deck.text);
  std::vector<ccx::Element>().swap(deck.elements);
  ok = ok && run_and_read(o, deck, dir, own, r, calculix_seconds);
  if (ok) {
    ccx::ExportJob job;
    job.deck = &deck;
    job.deck_name = fs::path(o.deck).filename().string();
    job.output = o.output;
    job.units_name = o.units->name;
    double u[4] = {o.units->mass, o.units->length, o.units->time, o.units->force};
    std::copy(u, u + 4, job.units);
    job.stress = o.stress;
    job.shell_surface = o.shell_surface;
    job.map = &r.map;
    job.matrices = &r.matrices;
    if (r.sums.vectors > 0) {
      job.generalized_mass = &r.sums.generalized_mass;
      job.generalized_stiffness = &r.sums.generalized_stiffness;
    }
    job.nodal_mass = &r.nodal_mass;
    if (!deck.structures.empty()) {
      job.nodal_inertia = &r.nodal_inertia;
      job.expansion = &r.expansion;
    }
    job.faces = &faces;
    job.eig = &r.eig;
    job.frd = &r.frd;
    job.dat = &r.dat;
    job.scratch = dir + "/static_shapes.bin";
    job.own_solver = own;
    job.statics_written = own || !deck.structures.empty();
    job.stress_model = recover ? &stresses : nullptr;
    ok = ccx::export_model(job);
  }
  ccx::close_eigen_file(r.eig);
  ccx::close_frd(r.frd);
  ccx::close_dat(r.dat);
  if (o.keep.empty()) {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  // A library that the MPI back-end brings along turns the C library's mapped allocations off
  // when it is loaded: every block would then come from the heap, and what the tool frees (the
  // factor before the count, the ASCII matrices' buffers) would never go back to the system.
  // Large blocks get their own mappings again, and the heap keeps the vectors the solves reuse.
  mallopt(M_MMAP_MAX, 65536);
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
  auto begin = std::chrono::steady_clock::now();
  Options o;
  int parsed = parse_options(argc, argv, o);
  if (parsed == 1) return 0;
  if (parsed == 2) return 2;
  // Under --solver mpi every rank runs this program; rank 0 is the tool, the others only take
  // part in the solve.
  bool parallel = o.solver == Options::kParallel;
  int rank = 0;
  if (parallel && !ccx::start_parallel(argc, argv, rank)) return 2;
  if (rank != 0) return ccx::follow_parallel();
  double calculix_seconds = 0.0;
  bool ok = false;
  ccx::start_progress(o.quiet);
  try {
    ok = convert(o, calculix_seconds);
  } catch (const std::bad_alloc &) {
    ok = ccx::failed("out of memory");
  }
  ccx::end_progress_line();
  if (!ok) {
    std::error_code ec;
    fs::remove(o.output, ec);
  }
  if (o.timing) {
    double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    struct rusage usage {}, children {};
    getrusage(RUSAGE_SELF, &usage);
    getrusage(RUSAGE_CHILDREN, &children);
    std::fprintf(stderr,
                 "ccx2krx: CalculiX %.2f s, own %.2f s, peak memory %.1f MB (largest child "
                 "process %.1f MB)\n",
                 calculix_seconds, total - calculix_seconds, usage.ru_maxrss / 1024.0,
                 children.ru_maxrss / 1024.0);
  }
  if (parallel) ccx::finish_parallel();
  return ok ? 0 : 1;
}

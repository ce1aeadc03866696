// The write pipeline: name check and open, options and the model processing they ask for, the
// version code and header, the content flags (eigen solution, frequency band, invariants, loads,
// node reduction, rigid-body file, units), the content summary, the data blocks, and the output
// put in place only when everything succeeded. Every change made to the model stays in it.
#include "format/krxwrite.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "base/krxmsg.h"
#include "format/krxformat.h"
#include "format/krxwrite_state.h"
#include "mesh/krxcoarse.h"
#include "mesh/krxfaces.h"
#include "processing/krxeigen.h"
#include "processing/krxinvar.h"
#include "processing/krxloads.h"
#include "processing/krxshift.h"
#include "processing/krxunits.h"

namespace krx {

namespace {

constexpr const char *kSource = "..\\krxwrite";

// The option words that change the model, in their order of effect. The frame shift is asked for
// twice on purpose: once before the sketch and once after interior-face stripping.
void apply_model_options(WriteState &state) {
  KRXDATA *model = state.model;
  const WriteOptions &o = state.options;
  if (o.lbrf2cm) shift_to_centre_of_mass(model);
  if (!o.sketch_file.empty()) apply_sketch_file(model, o.sketch_file.c_str());
  if (o.strip_face) strip_interior_faces(model);
  if (o.lbrf2cm) shift_to_centre_of_mass(model);
  if (!o.coarsen.empty()) coarsen(model, o.coarsen.c_str());
}

bool has_faces(const KRXDATA *model) { return !model->faces.empty(); }

void set_face_flags(WriteState &state) {
  KRXDATA *model = state.model;
  bool faces = has_faces(model) || model->flags[kFlagElementFaces] || model->flags[kFlagElementTopology];
  bool old_generation = state.generation == 10 || state.generation == 20;
  model->flags[kFlagElementTopology] = faces && old_generation;
  model->flags[kFlagElementFaces] = faces && !old_generation;
}

int32_t retained_count(const KRXDATA *model) {
  return model->retained_set ? model->retained_modes : mode_count(model);
}

// Selects the contiguous run of modes between the high-pass and low-pass frequencies and renumbers
// the exported modes from 1.
void apply_frequency_band(WriteState &state) {
  KRXDATA *model = state.model;
  note("Exporting frequency range [%le,%le]\n", state.options.highpass, state.options.lowpass);
  std::fflush(stdout);
  int32_t n = std::min<int32_t>(retained_count(model), int32_t(model->eigen.size()));
  std::vector<double> hertz(static_cast<std::size_t>(n)), masses(static_cast<std::size_t>(n));
  for (int32_t j = 0; j < n; ++j) {
    hertz[j] = model->eigen[j].hertz;
    masses[j] = model->eigen[j].generalized_mass;
  }
  ModeBand band = select_frequency_band(hertz, masses, state.options.highpass, state.options.lowpass);
  state.band_start = band.first;
  state.band_count = band.count;
  if (band.first >= n) return;
  // Every mode number drops by the number of the first exported mode minus one, so that the
  // first exported mode is mode 1. A second write of the same model finds it so already.
  int32_t shift = model->eigen[band.first].number - 1;
  if (shift == 0) return;
  for (EigenRecord &record : model->eigen) record.number -= shift;
  for (int32_t &number : model->record_numbers) number -= shift;
}

// Without the eigen solution every retained mode is exported under its own number.
void export_all_modes(WriteState &state) {
  state.band_start = 0;
  state.band_count = retained_count(state.model);
}

int decide_modal_flags(WriteState &state) {
  KRXDATA *model = state.model;
  if (state.options.no_ortho) {
    model->flags[kFlagEigenvalues] = 0;
    model->flags[kFlagGeneralizedStiffness] = 1;
    model->flags[kFlagGeneralizedMass] = 1;
    model->flags[kFlagModeTransformation] = 0;
    export_all_modes(state);
    return 1;
  }
  if (mode_count(model) > 0 && !solve_and_orthonormalise(model)) return 0;
  model->flags[kFlagEigenvalues] = mode_count(model) > 0;
  model->flags[kFlagGeneralizedStiffness] = 0;
  model->flags[kFlagGeneralizedMass] = 0;
  model->flags[kFlagModeTransformation] = !model->transformation.empty();
  apply_frequency_band(state);
  return 1;
}

bool has_nodal_masses(const KRXDATA *model) {
  if (!model->flags[kFlagNodalMasses]) return false;
  for (const NodeRecord &node : model->nodes) {
    if (node.mass != 0.0) return true;
  }
  return false;
}

// Mass, centre of mass and inertia tensor from the nodal data (or what invariants the model holds)
// without computing or caching any invariant: no invariants were asked for.
void global_properties_from_nodes(KRXDATA *model) {
  double mass = peek_invariant1(model);
  std::array<double, 3> first = peek_invariant2(model);
  std::array<double, 9> inertia = peek_invariant7(model);
  model->total_mass = mass;
  for (int c = 0; c < 3; ++c) model->centre_of_mass[c] = mass != 0.0 ? first[c] / mass : 0.0;
  for (int i = 0; i < 9; ++i) model->global_inertia[i] = (i % 4 == 0) ? inertia[i] : -inertia[i];
}

void flag_invariants(KRXDATA *model, bool full) {
  for (int f = kFlagInvariant1; f <= kFlagInvariant1 + 3; ++f) model->flags[f] = 1;
  model->flags[kFlagInvariant7] = 1;
  model->flags[kFlagInvariant8] = 1;
  if (full) {
    model->flags[kFlagInvariant1 + 4] = 1;
    model->flags[kFlagInvariant9] = 1;
  }
}

// Invariants, and with invariant 3 the load preparation, the node reduction and the global body
// properties. A failed reduction is remembered but does not stop the write.
void decide_invariant_flags(WriteState &state) {
  KRXDATA *model = state.model;
  Invariants request = state.options.invariants;
  if (request == Invariants::full) {
    compute_full_invariants(model);
    flag_invariants(model, true);
  } else if (request == Invariants::fast) {
    compute_fast_invariants(model);
    flag_invariants(model, false);
  }
  if (model->flags[kFlagInvariant1 + 2]) {
    prepare_loads(model);
    if (request != Invariants::illegal) state.reduction_failed = !reduce_to_face_nodes(model);
    global_properties_from_invariants(model);
    return;
  }
  if (model->flags[kFlagGlobalBodyProps]) return;
  if (node_count(model) > 0 && has_nodal_masses(model)) {
    global_properties_from_nodes(model);
    model->flags[kFlagGlobalBodyProps] = 1;
  }
}

void allocate_statistics(WriteState &state) {
  KRXDATA *model = state.model;
  model->statistics.assign(std::size_t(state.band_count), ModalStatistics{});
  model->flags[kFlagModalStatistics] = 1;
}

bool has_full_nodal_inertia(const KRXDATA *model) {
  if (model->nodes.empty()) return false;
  for (const NodeRecord &node : model->nodes) {
    if (!node.inertia) return false;
  }
  return true;
}

// "empty": the rigid-body file, without modes.
void make_rigid_file(WriteState &state) {
  KRXDATA *model = state.model;
  std::array<uint8_t, kFlagCount> had = model->flags;
  model->flags.fill(0);
  for (int f : {kFlagNodalCoords, kFlagNodalMasses, kFlagNodalInertias, kFlagInterfaceNodes}) {
    model->flags[f] = had[f];
  }
  model->flags[kFlagElementFaces] = had[kFlagElementFaces];
  model->flags[kFlagElementTopology] = had[kFlagElementTopology];
  model->flags[kFlagUnits] = 1;
  model->flags[kFlagGlobalBodyProps] = 1;
  bool own_invariants = model->has_invariant1 && !model->invariant2.empty() && !model->invariant7.empty();
  if (!has_full_nodal_inertia(model) && !own_invariants && !has_nodal_masses(model)) {
    error("There is insufficient mass data to compute a full set of mass invariants.\n"
          "Some or all mass invariants will be set to zero.");
  }
  compute_rigid_invariants(model);
  global_properties_from_invariants(model);
  model->flags[kFlagInvariant1] = 1;
  model->flags[kFlagInvariant1 + 1] = 1;
  model->flags[kFlagInvariant7] = 1;
  state.band_count = 0;
  model->statistics.clear();
}

const char *yes_no(bool value) { return value ? "Yes" : "No"; }

void print_summary(const KRXDATA *model) {
  const auto &f = model->flags;
  note("\nCreating a Korex with the following information:\n");
  note("%30s %s", "Nodal Coords", yes_no(f[kFlagNodalCoords]));
  note("%30s %s", "Element Faces", yes_no(f[kFlagElementFaces] || f[kFlagElementTopology]));
  note("%30s %s", "Eigenvalues", yes_no(f[kFlagEigenvalues]));
  note("%30s %s", "Mode Shapes", yes_no(f[kFlagModeShapes]));
  note("%30s %s", "Global Mass Properties", yes_no(f[kFlagGlobalBodyProps]));
  note("%30s %s", "Nodal Masses", yes_no(f[kFlagNodalMasses]));
  note("%30s %s", "Nodal Inertias", yes_no(f[kFlagNodalInertias]));
  // These two show whether the model holds the matrices, not the block flags; kept as it is.
  note("%30s %s", "Generalized Stiffness", yes_no(!model->stiffness.empty()));
  note("%30s %s", "Generalized Mass", yes_no(!model->mass.empty()));
  note("%30s %s", "Generalized Damping", yes_no(f[kFlagGeneralizedDamping]));
  note("%30s %s", "Mode Transformation", yes_no(f[kFlagModeTransformation]));
  note("%30s %s", "Stress Modes", yes_no(f[kFlagModalStress]));
  note("%30s %s", "Interface Nodes", yes_no(f[kFlagInterfaceNodes]));
  note("%30s %s", "Inertia Invariants", yes_no(f[kFlagInvariant1]));
  note("%30s %s", "Modal Preload", yes_no(f[kFlagPreload]));
  note("%30s %s", "Modal Loads", yes_no(f[kFlagModalLoads]));
  note("%30s %s", "Strain Modes", yes_no(f[kFlagModalStrain]));
  note("%30s %s", "Nodal Pre-Stress", yes_no(f[kFlagPreStress]));
  note("%30s %s", "Nodal Pre-Strain", yes_no(f[kFlagPreStrain]));
}

// The first three steps: the name check and the open. Nothing to remove when they fail.
int open_output(KRXDATA *model, WriteState &state, const char *path) {
  if (!model->own.path.empty() && model->own.path == path) {
    error("The output KRX name must be different than the current KRX name.\n"
          "  Current KRX name:  %s\n  Output KRX name:  %s",
          model->own.path.c_str(), path);
    return 0;
  }
  return open_output_file(state, path);
}

// The encoding of the file once the version code is settled: an XDR stream bound to the open
// file, and for single precision the model's conversion array. A stream record that cannot be
// allocated is reported as a file that cannot be opened.
int prepare_encoding(WriteState &state) {
  FileSlot &out = state.out;
  out.precision = state.options.single ? 0 : 1;
  if (state.options.xdr) {
    try {
      if (!out.xdr) out.xdr = std::make_unique<XDR>();
    } catch (const std::bad_alloc &) {
      error("Unable to open %s for write. Please check write permissions.", state.path.c_str());
      return 0;
    }
    if (!bind_xdr_stream(out, XDR_ENCODE, kSource)) return 0;
  }
  if (state.options.single && !prepare_scratch(*state.model, kSource)) return 0;
  return 1;
}

int write_version_and_header(WriteState &state, bool ready) {
  KRXDATA *model = state.model;
  BlockIo io = state.io();
  if (!ready || !write_version_block(io, state.options.version)) {
    error("Problem writing version number.");
    return 0;
  }
  HeaderBlock header;
  make_header_block(*model, header);
  if (!write_header_block(io, header)) {
    error("Problem writing header information.");
    return 0;
  }
  return 1;
}

int decide_content(WriteState &state) {
  KRXDATA *model = state.model;
  model->flags[kFlagUnits] = 1;
  set_face_flags(state);
  if (!decide_modal_flags(state)) return 0;
  decide_invariant_flags(state);
  allocate_statistics(state);
  if (state.options.empty) make_rigid_file(state);
  if (state.options.mks &&
      !set_units_by_names(model, "KILOGRAM", "METER", "SECOND", "NEWTON")) {
    return 0;
  }
  return 1;
}

int write_body(WriteState &state) {
  KRXDATA *model = state.model;
  print_summary(model);
  BlockIo io = state.io();
  if (!write_content_block(io, model->flags)) {
    error("Problem writing content summary.\n");
    return 0;
  }
  for (int block = 4; block <= kBlockCount; ++block) {
    if (!write_data_block(state, block)) return 0;
  }
  return 1;
}

int run_write(WriteState &state) {
  state.options = read_write_options();
  apply_model_options(state);
  report_write_options(state.options);
  state.generation = state.options.generation;
  state.dense_stress = state.generation != 60;
  bool ready = !state.options.failed && prepare_encoding(state);
  if (!write_version_and_header(state, ready)) return 0;
  return decide_content(state) && write_body(state);
}

}  // namespace

int write_krx(KRXDATA *model, const char *path) {
  if (!model || !path) return 0;
  WriteState state;
  state.model = model;
  if (!open_output(model, state, path)) return 0;
  int ok = 0;
  try {
    ok = run_write(state);
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    ok = 0;
  }
  return close_output_file(state, ok);
}

}  // namespace krx

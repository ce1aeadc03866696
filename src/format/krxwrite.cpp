// The write pipeline: name check and open, options and the model processing they ask for, the
// version code and header, the content flags (eigen solution, frequency band, invariants, loads,
// node reduction, rigid-body file, units), the content summary, the data blocks, and the removal
// of the file when anything failed. Every change made to the model stays in it.
#include "format/krxwrite.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "format/krxwrite_state.h"
#include "host/krxmsg.h"
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
  if (!o.coarsen.empty()) coarsen_mesh(model, o.coarsen.c_str());
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
  int32_t shift = band.first;  // the number of the first exported mode minus one
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

// Mass, centre of mass and inertia tensor straight from the nodes, for a model that has nodal
// masses but neither invariants nor global properties of its own.
void global_properties_from_nodes(KRXDATA *model) {
  double mass = 0.0, first[3] = {0, 0, 0}, inertia[9] = {0};
  for (const NodeRecord &node : model->nodes) {
    double x[3] = {node.x, node.y, node.z};
    mass += node.mass;
    for (int c = 0; c < 3; ++c) first[c] += node.mass * x[c];
    skew_accumulate(inertia, -node.mass, x, x);
    if (node.inertia) {
      const std::array<double, 6> &j = *node.inertia;
      const double tensor[9] = {j[0], j[3], j[4], j[3], j[1], j[5], j[4], j[5], j[2]};
      for (int i = 0; i < 9; ++i) inertia[i] += tensor[i];
    }
  }
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
  model->flags[kFlagModalStatistics] = state.band_count > 0;
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
  note("Computing *rigid* invariants");
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
FILE *open_output(KRXDATA *model, WriteState &state, const char *path) {
  if (!model->own.path.empty() && model->own.path == path) {
    error("The output KRX name must be different than the current KRX name.\n"
          "  Current KRX name:  %s\n  Output KRX name:  %s",
          model->own.path.c_str(), path);
    return nullptr;
  }
  try {
    state.path = path;
  } catch (const std::bad_alloc &) {
    KRX_REPORT_ALLOC(kSource);
    return nullptr;
  }
  FILE *file = std::fopen(path, "wb");
  if (!file) error("Unable to open %s for write. Please check write permissions.", path);
  return file;
}

int write_version_and_header(WriteState &state, bool options_ok, bool stream_ok) {
  KRXDATA *model = state.model;
  if (!options_ok || !stream_ok || !write_version_block(state.stream, state.options.version)) {
    error("Problem writing version number.");
    return 0;
  }
  model->version = state.options.version;
  std::array<char, 32> date = model->date;
  date[31] = '\0';
  std::size_t length = std::strlen(date.data());
  if (length > 0 && date[length - 1] == '\n') date[length - 1] = '\0';
  HeaderTexts header{model->title.data(),      date.data(),           model->input_name.data(),
                     model->input_type.data(), model->comments[0].data(), model->comments[1].data(),
                     model->comments[2].data()};
  if (!write_header_block(state.stream, header)) {
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
  if (!write_content_summary(state.stream, model->flags.data())) {
    error("Problem writing content summary.\n");
    return 0;
  }
  for (int block = 4; block <= kBlockCount; ++block) {
    if (!write_data_block(state, block)) return 0;
  }
  return 1;
}

}  // namespace

int write_krx(KRXDATA *model, const char *path) {
  if (!model || !path) return 0;
  WriteState state;
  state.model = model;
  FILE *file = open_output(model, state, path);
  if (!file) return 0;
  state.options = read_write_options();
  apply_model_options(state);
  report_write_options(state.options);
  state.generation = state.options.generation;
  // Generation 60 lists only the nodes that carry values; the older generations every node.
  state.dense_stress = state.generation != 60;
  bool stream_ok = open_write_stream(state.stream, file, state.path.c_str(), state.options.xdr,
                                     state.options.single);
  int ok = write_version_and_header(state, !state.options.failed, stream_ok) &&
           decide_content(state) && write_body(state);
  ok = close_write_stream(state.stream) && ok;
  if (!stream_ok) std::fclose(file);
  if (!ok) std::remove(state.path.c_str());
  return ok;
}

}  // namespace krx

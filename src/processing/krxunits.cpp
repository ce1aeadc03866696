// Units: the vocabulary of canonical unit names with their SI factors and aliases, the setting of
// a model's units, and the conversion of every stored quantity when the units of a model change.
#include "processing/krxunits.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace krx {
namespace {

struct UnitRow {
  const char *name;
  double factor;
};

// Each table is searched in this order by every lookup; the null row ends it.
constexpr UnitRow kMassUnits[] = {
    {"MEGAGRAM", 1000.0},     {"KILOGRAM", 1.0},          {"GRAM", 0.001},
    {"MILLIGRAM", 1e-06},     {"MICROGRAM", 1e-09},       {"NANOGRAM", 1e-12},
    {"USTON", 907.18474},     {"KPOUND_MASS", 453.59237}, {"POUND_MASS", 0.45359237},
    {"OUNCE_MASS", 0.02834952}, {"SLUG", 14.5939029372},
    // Not twelve slugs exactly; this is the factor files have always been written with.
    {"SLINCH", 175.1271524},  {nullptr, 0.0},
};

constexpr UnitRow kForceUnits[] = {
    {"KNEWTON", 1000.0},          {"NEWTON", 1.0},
    {"MILLINEWTON", 0.001},       {"DYNE", 1e-05},
    {"MICRONEWTON", 1e-06},       {"NANONEWTON", 1e-09},
    {"KPOUND_FORCE", 4448.22161526}, {"POUND_FORCE", 4.44822161526},
    {"KILOGRAM_FORCE", 9.80665},  {"OUNCE_FORCE", 0.2780139},
    {nullptr, 0.0},
};

constexpr UnitRow kLengthUnits[] = {
    {"KILOMETER", 1000.0}, {"METER", 1.0},     {"CENTIMETER", 0.01}, {"MILLIMETER", 0.001},
    {"MICROMETER", 1e-06}, {"NANOMETER", 1e-09}, {"ANGSTROM", 1e-10}, {"MILE", 1609.344},
    {"YARD", 0.9144},      {"FOOT", 0.3048},   {"INCH", 0.0254},     {"MIL", 2.54e-05},
    {"MICROINCH", 2.54e-08}, {nullptr, 0.0},
};

constexpr UnitRow kTimeUnits[] = {
    {"SECOND", 1.0}, {"MILLISECOND", 0.001}, {"MICROSECOND", 1e-06}, {"NANOSECOND", 1e-09},
    {"DAY", 86400.0}, {"HOUR", 3600.0},      {"MINUTE", 60.0},       {nullptr, 0.0},
};

struct Alias {
  const char *spelling;
  const char *canonical;
};

// One list for all four dimensions, searched in order. "mgg" is the megagram while "mg" is the
// milligram, "mn" the millinewton; "kgf" stands twice and the second row is never reached.
constexpr Alias kAliases[] = {
    {"mgg", "MEGAGRAM"},
    {"megagram", "MEGAGRAM"},
    {"tonne", "MEGAGRAM"},
    {"kilogram", "KILOGRAM"},
    {"kg", "KILOGRAM"},
    {"gram", "GRAM"},
    {"microgram", "MICROGRAM"},
    {"ug", "MICROGRAM"},
    {"milligram", "MILLIGRAM"},
    {"mg", "MILLIGRAM"},
    {"nanogram", "NANOGRAM"},
    {"ng", "NANOGRAM"},
    {"uston", "USTON"},
    {"us_ton", "USTON"},
    {"klbm", "KPOUND_MASS"},
    {"kpound_mass", "KPOUND_MASS"},
    {"pound_mass", "POUND_MASS"},
    {"lbm", "POUND_MASS"},
    {"ounce_mass", "OUNCE_MASS"},
    {"ozm", "OUNCE_MASS"},
    {"slug", "SLUG"},
    {"DOZEN_SLUG", "SLINCH"},
    {"dozen_slug", "SLINCH"},
    {"slinch", "SLINCH"},
    {"knewton", "KNEWTON"},
    {"kn", "KNEWTON"},
    {"newton", "NEWTON"},
    {"n", "NEWTON"},
    {"millinewton", "MILLINEWTON"},
    {"mn", "MILLINEWTON"},
    {"dyne", "DYNE"},
    {"micronewton", "MICRONEWTON"},
    {"un", "MICRONEWTON"},
    {"nanonewton", "NANONEWTON"},
    {"nn", "NANONEWTON"},
    {"kpound_force", "KPOUND_FORCE"},
    {"klbf", "KPOUND_FORCE"},
    {"kip", "KPOUND_FORCE"},
    {"pound_force", "POUND_FORCE"},
    {"lbf", "POUND_FORCE"},
    {"kilogram_force", "KILOGRAM_FORCE"},
    {"kgf", "KILOGRAM_FORCE"},
    {"kg_force", "KILOGRAM_FORCE"},
    {"kgf", "KILOGRAM_FORCE"},
    {"ounce_force", "OUNCE_FORCE"},
    {"ozf", "OUNCE_FORCE"},
    {"kilometer", "KILOMETER"},
    {"meter", "METER"},
    {"m", "METER"},
    {"centimeter", "CENTIMETER"},
    {"cm", "CENTIMETER"},
    {"millimeter", "MILLIMETER"},
    {"mm", "MILLIMETER"},
    {"micrometer", "MICROMETER"},
    {"micron", "MICROMETER"},
    {"um", "MICROMETER"},
    {"nanometer", "NANOMETER"},
    {"nm", "NANOMETER"},
    {"angstrom", "ANGSTROM"},
    {"ang", "ANGSTROM"},
    {"mile", "MILE"},
    {"mi", "MILE"},
    {"yard", "YARD"},
    {"yd", "YARD"},
    {"foot", "FOOT"},
    {"ft", "FOOT"},
    {"inch", "INCH"},
    {"in", "INCH"},
    {"mil", "MIL"},
    {"milli_inch", "MIL"},
    {"uin", "MICROINCH"},
    {"uinch", "MICROINCH"},
    {"microinch", "MICROINCH"},
    {"micro_inch", "MICROINCH"},
    {"second", "SECOND"},
    {"sec", "SECOND"},
    {"s", "SECOND"},
    {"millisecond", "MILLISECOND"},
    {"millisec", "MILLISECOND"},
    {"ms", "MILLISECOND"},
    {"microsecond", "MICROSECOND"},
    {"microsec", "MICROSECOND"},
    {"us", "MICROSECOND"},
    {"nanosecond", "NANOSECOND"},
    {"nanosec", "NANOSECOND"},
    {"ns", "NANOSECOND"},
    {"day", "DAY"},
    {"d", "DAY"},
    {"hour", "HOUR"},
    {"hr", "HOUR"},
    {"h", "HOUR"},
    {"minute", "MINUTE"},
    {"min", "MINUTE"},
};

constexpr std::size_t kNameSize = 16;

// C-locale upper case, independent of whatever locale the host has set.
char upper(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }

// Compared up to and including the terminating NUL, so a prefix never matches.
bool same_name(const char *a, const char *b) {
  for (;; ++a, ++b) {
    if (upper(*a) != upper(*b)) return false;
    if (*a == '\0') return true;
  }
}

const UnitRow *table_of(Dimension dimension) {
  switch (dimension) {
    case Dimension::Mass: return kMassUnits;
    case Dimension::Length: return kLengthUnits;
    case Dimension::Time: return kTimeUnits;
    case Dimension::Force: return kForceUnits;
  }
  return kMassUnits;
}

const char *unit_name_of(const KRXDATA *model, Dimension dimension) {
  switch (dimension) {
    case Dimension::Mass: return model->mass_unit.data();
    case Dimension::Length: return model->length_unit.data();
    case Dimension::Time: return model->time_unit.data();
    case Dimension::Force: return model->force_unit.data();
  }
  return model->mass_unit.data();
}

// The first row, in table order, whose factor lies within 0.01 % of the multiplier.
const char *name_for_multiplier(Dimension dimension, double value) {
  for (const UnitRow *row = table_of(dimension); row->name; ++row) {
    double f = row->factor;
    if (std::fabs(f - value) / std::max(f, value) < 0.0001) return row->name;
  }
  return nullptr;
}

// At most size - 1 characters and a NUL; the rest of the buffer is cleared.
void copy_bounded(char *out, const char *name, std::size_t size) {
  std::size_t i = 0;
  for (; name && i + 1 < size && name[i] != '\0'; ++i) out[i] = name[i];
  for (; i < size; ++i) out[i] = '\0';
}

void copy_name(std::array<char, 16> &field, const char *name) {
  copy_bounded(field.data(), name, field.size());
}

void scale_vector(std::vector<double> &values, double factor) {
  scale_array(values.data(), values.size(), factor);
}

void scale_entries(std::vector<MatrixEntry> &entries, double factor) {
  for (MatrixEntry &entry : entries) entry.value *= factor;
}

// A prepared vector holds the resultant forces of the rigid-body modes in front, then moments.
void scale_load_vector(std::vector<double> &values, bool prepared, int32_t rigid, double force,
                       double moment) {
  std::size_t forces = prepared ? std::size_t(std::min(rigid, 3)) : 0;
  for (std::size_t i = 0; i < values.size(); ++i) values[i] *= i < forces ? force : moment;
}

void convert_nodes(KRXDATA *model, double m, double L) {
  for (NodeRecord &node : model->nodes) {
    node.x *= L;
    node.y *= L;
    node.z *= L;
    node.mass *= m;
    if (node.inertia) scale_array(node.inertia->data(), 6, m * L * L);
  }
}

void convert_eigen_records(KRXDATA *model, double eigenvalue, double frequency, double mL2,
                           double FL) {
  for (EigenRecord &record : model->eigen) {
    // An infinite eigenvalue stays infinite: its marker is not a magnitude.
    if (record.eigenvalue != kInfiniteEigenvalue) record.eigenvalue *= eigenvalue;
    record.hertz *= frequency;
    record.radians *= frequency;
    record.generalized_mass *= mL2;
    record.generalized_stiffness *= FL;
  }
}

void convert_invariants(KRXDATA *model, double m, double mL, double mL2) {
  model->invariant1 *= m;
  scale_vector(model->invariant2, mL);
  scale_vector(model->invariant3, mL);
  scale_vector(model->invariant4, mL2);
  scale_vector(model->invariant5, mL2);
  scale_vector(model->invariant7, mL2);
  scale_vector(model->invariant8, mL2);
  scale_vector(model->invariant9, mL2);
}

// Per-mode statistics: real slot 0 holds the largest translation (a length) and slot 2 the largest
// von Mises stress; slot 1 (small rotation) and slot 3 (strain) carry no unit and stay as they are.
void convert_statistics(KRXDATA *model, double L, double stress) {
  for (ModalStatistics &record : model->statistics) {
    record.reals[0] *= L;
    record.reals[2] *= stress;
  }
}

// Scales every stored quantity by the ratios of the change just made. Mode shapes, stresses and
// strains stay in the store as they are: the store applies the length ratio when it hands them out.
void convert_stored_data(KRXDATA *model) {
  const double m = model->mass_ratio, L = model->length_ratio, t = model->time_ratio;
  const double F = model->force_ratio;
  const double FL = F * L, mL = m * L, mL2 = m * L * L;

  convert_nodes(model, m, L);
  scale_entries(model->mass, mL2);
  scale_entries(model->stiffness, FL);
  scale_entries(model->damping, t * FL);
  model->total_mass *= m;
  scale_array(model->centre_of_mass.data(), 3, L);
  scale_array(model->global_inertia.data(), 9, mL2);
  // The rigid-body modes are judged on the frequencies as they stood before the change.
  const int32_t rigid = rigid_body_mode_count(model);
  convert_eigen_records(model, FL / mL2, 1.0 / t, mL2, FL);
  scale_load_vector(model->preload, model->preload_applied != 0, rigid, F, FL);
  for (LoadCase &load : model->load_cases)
    scale_load_vector(load.values, load.applied != 0, rigid, F, FL);

  convert_invariants(model, m, mL, mL2);
  convert_statistics(model, L, F / (L * L));
  // A record held by the store was scaled with the old ratios; the next load reads it afresh.
  for (VectorSlot &slot : model->store) slot.held_mode = -1;
}

}  // namespace

int normalize_unit_name(char *name) {
  if (!name) return 0;
  for (const Alias &alias : kAliases) {
    if (!same_name(name, alias.spelling)) continue;
    std::strcpy(name, alias.canonical);
    return 1;
  }
  return 0;
}

double unit_factor(Dimension dimension, const char *name) {
  if (!name || name[0] == '\0') return 1.0;
  for (const UnitRow *row = table_of(dimension); row->name; ++row)
    if (same_name(name, row->name)) return row->factor;
  return 0.0;
}

double scale_by_unit(const KRXDATA *model, Dimension dimension, double value) {
  return value * unit_factor(dimension, unit_name_of(model, dimension));
}

double force_consistency_factor(const KRXDATA *model) {
  double F = scale_by_unit(model, Dimension::Force, 1.0);
  double t = scale_by_unit(model, Dimension::Time, 1.0);
  double L = scale_by_unit(model, Dimension::Length, 1.0);
  double m = scale_by_unit(model, Dimension::Mass, 1.0);
  return F * t * t / (L * m);
}

void get_unit_names(const KRXDATA *model, char *mass, char *length, char *time, char *force) {
  auto put = [](char *out, const std::array<char, 16> &name, const char *fallback) {
    copy_bounded(out, name[0] ? name.data() : fallback, kNameSize);
  };
  put(mass, model->mass_unit, "KILOGRAM");
  put(length, model->length_unit, "METER");
  put(time, model->time_unit, "SECOND");
  put(force, model->force_unit, "NEWTON");
}

void scale_array(double *values, std::size_t count, double factor) {
  for (std::size_t i = 0; i < count; ++i) values[i] *= factor;
}

int set_units_by_names(KRXDATA *model, const char *mass, const char *length, const char *time,
                       const char *force) {
  if (!model_exists(model)) return 0;
  const char *given[4] = {mass, length, time, force};
  char names[4][kNameSize] = {};
  for (int d = 0; d < 4; ++d) {
    copy_bounded(names[d], given[d], kNameSize);
    if (!normalize_unit_name(names[d])) return 0;
  }
  std::array<char, 16> *fields[4] = {&model->mass_unit, &model->length_unit, &model->time_unit,
                                     &model->force_unit};
  const Dimension dims[4] = {Dimension::Mass, Dimension::Length, Dimension::Time,
                             Dimension::Force};

  bool never_set = true, unchanged = true;
  for (int d = 0; d < 4; ++d) {
    never_set = never_set && (*fields[d])[0] == '\0';
    unchanged = unchanged && std::strcmp(fields[d]->data(), names[d]) == 0;
  }
  if (never_set) {
    // Data stored so far is taken to be in these units already.
    for (int d = 0; d < 4; ++d) copy_name(*fields[d], names[d]);
    model->force_ratio = model->length_ratio = model->mass_ratio = model->time_ratio = 1.0;
    return 1;
  }
  if (unchanged) return 1;

  double old_factor[4], new_factor[4];
  for (int d = 0; d < 4; ++d) {
    old_factor[d] = unit_factor(dims[d], fields[d]->data());
    if (old_factor[d] == 0.0) return 0;
  }
  for (int d = 0; d < 4; ++d) {
    new_factor[d] = unit_factor(dims[d], names[d]);
    if (new_factor[d] == 0.0) return 0;
  }
  for (int d = 0; d < 4; ++d) copy_name(*fields[d], names[d]);
  model->mass_ratio = old_factor[0] / new_factor[0];
  model->length_ratio = old_factor[1] / new_factor[1];
  model->time_ratio = old_factor[2] / new_factor[2];
  model->force_ratio = old_factor[3] / new_factor[3];
  convert_stored_data(model);
  return 1;
}

int set_units_by_multipliers(KRXDATA *model, double mass, double length, double time,
                             double force) {
  const char *m = name_for_multiplier(Dimension::Mass, mass);
  if (!m) return 0;
  const char *L = name_for_multiplier(Dimension::Length, length);
  if (!L) return 0;
  const char *t = name_for_multiplier(Dimension::Time, time);
  if (!t) return 0;
  const char *F = name_for_multiplier(Dimension::Force, force);
  if (!F) return 0;
  return set_units_by_names(model, m, L, t, F);
}

int32_t rigid_body_mode_count(const KRXDATA *model) {
  if (!model) return 0;
  const int32_t n = std::min<int32_t>(model->retained_modes, int32_t(model->eigen.size()));
  if (n < 2) return 0;
  const double first = std::fabs(model->eigen[0].hertz);
  for (int32_t j = 1; j < n; ++j) {
    const double value = std::fabs(model->eigen[j].hertz);
    if (first < 0.1 && value > 10.0) return j;
    if (value > 10000.0 * std::fabs(model->eigen[j - 1].hertz)) return j;
  }
  return 0;
}

}  // namespace krx

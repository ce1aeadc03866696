// Model processing: units. The unit vocabulary with its aliases and SI factors, the setting of a
// model's units by names or by SI multipliers with the conversion of every stored quantity, and
// the force-consistency factor. Also the inertia invariants (krxinvar.h), the dense kernels
// (krxnumerics.h), the eigen solution (krxeigen.h), the loads (krxloads.h) and the frame shift
// (krxshift.h). Builds on model and base; knows nothing of the file format or of mesh.
#pragma once

#include <cstddef>
#include <cstdint>

#include "model/krxdata.h"

namespace krx {

enum class Dimension { Mass, Length, Time, Force };

// Replaces an alias (any case) by its canonical name in place; 1 on a match, 0 otherwise.
int normalize_unit_name(char *name);
// SI factor of a name in one table: 1.0 for an empty name, 0.0 for an unknown one.
double unit_factor(Dimension dimension, const char *name);
// value x the SI factor of the model's unit of that dimension.
double scale_by_unit(const KRXDATA *model, Dimension dimension, double value);
// F t^2 / (L m) of the model's units.
double force_consistency_factor(const KRXDATA *model);
// The model's names, or KILOGRAM, METER, SECOND, NEWTON where unset; each buffer 16 bytes.
void get_unit_names(const KRXDATA *model, char *mass, char *length, char *time, char *force);
void scale_array(double *values, std::size_t count, double factor);
// Sets the model's units from four names (aliases accepted) and converts every stored quantity
// by the ratios of the change; a model without units takes the names and converts nothing.
// 0 when a name or factor is unknown, and then nothing has changed. Prints nothing.
int set_units_by_names(KRXDATA *model, const char *mass, const char *length, const char *time,
                       const char *force);
// The same from the SI value of one unit of each dimension: the first row of each table within
// 0.01 % of the multiplier.
int set_units_by_multipliers(KRXDATA *model, double mass, double length, double time,
                             double force);

// Leading rigid-body modes among the retained modes, judged from the frequencies (Hz) of the
// eigenvalue records: the first j >= 1 where mode 0 is below 0.1 and mode j above 10.0, or mode j
// exceeds 10000 times mode j - 1; 0 with fewer than two records or no such j.
int32_t rigid_body_mode_count(const KRXDATA *model);

}  // namespace krx

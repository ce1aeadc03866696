// Model processing: units. The unit vocabulary with its aliases and SI factors, the setting of a
// model's units by names or by SI multipliers with the conversion of every stored quantity, and
// the force-consistency factor. Also the inertia invariants (krxinvar.h), the dense kernels
// (krxnumerics.h), the eigen solution (krxeigen.h) and the frame shift (krxshift.h).
#pragma once

#include <cstddef>

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
int set_units_by_names(KRXDATA *model, const char *mass, const char *length, const char *time,
                       const char *force);
int set_units_by_multipliers(KRXDATA *model, double mass, double length, double time,
                             double force);

}  // namespace krx

// The host floor, top of the library: the exported KRX_ entries (krx_fortran.cpp,
// krx_write_entries.cpp), the setters behind them (krxset.h) and, here, their frame: the current
// model, host-string trimming, status values, and the declarations of the unexported entries of
// the KRX_ family (built with the same frame, absent from the dynamic symbol table; tests and
// tools reach them through the static core). The host floor may use every folder below it.
#pragma once

#include <cstddef>
#include <new>
#include <string>

#include "base/krxmsg.h"
#include "krx/krx.h"
#include "model/krxdata.h"

namespace krx {

// The one model every entry works on; empty when the library is loaded.
KRXDATA *&current_model();

// A host string cut to at most field - 1 characters at its hidden length, trailing blanks removed.
std::string trim_host_string(const char *text, int length, std::size_t field);

// The frame of every entry but KRX_CREATE: the current-model check, then op(model) turned into the
// status value. No exception leaves: an allocation failure is reported with the entry's source.
template <typename Op>
void run_entry(int *status, Op &&op) {
  KRXDATA *model = current_model();
  if (!model) {
    error("No KRXDATA object.  Call KRX_CREATE first");
    if (status) *status = 1;
    return;
  }
  int ok = 0;
  try {
    ok = op(model);
  } catch (const std::bad_alloc &) {
    report_allocation_failure(__LINE__, "..\\krx_fortran");
    ok = 0;
  } catch (...) {
    ok = 0;
  }
  if (status) *status = ok ? 0 : 1;
}

}  // namespace krx

// Unexported entries of the family.
extern "C" {
void KRX_OPEN_KRX(const char *path, int *status, int path_len);
void KRX_SET_NODE_COORDINATES(int *node_id, double *x, double *y, double *z, int *status);
void KRX_SET_GLOBAL_MASS(double *mass, double *centre, double *inertia, int *status);
void KRX_SET_NODAL_INERTIA_TERM(int *node_id, int *row, int *column, double *value, int *status);
void KRX_SET_NODAL_INERTIA_VEC(int *node_id, double *values, int *status);
void KRX_SET_NODAL_INERTIA_MAT(int *node_id, double *matrix, int *status);
void KRX_SET_MODE_SHAPE(int *mode, int *node_id, double *v1, double *v2, double *v3, double *v4,
                        double *v5, double *v6, int *status);
void KRX_SET_MODE_SHAPE_DOF(int *mode, int *node_id, int *dof, double *value, int *status);
void KRX_SET_MODAL_STRESS(int *mode, int *node_id, double *v1, double *v2, double *v3,
                          double *v4, double *v5, double *v6, int *status);
void KRX_SET_MODAL_STRAIN(int *mode, int *node_id, double *v1, double *v2, double *v3,
                          double *v4, double *v5, double *v6, int *status);
void KRX_SET_MODAL_LOAD(int *load_case, int *mode, double *value, int *status);
void KRX_SET_MODAL_LOAD_LABEL(int *load_case, const char *label, int *status, int label_len);
void KRX_SET_MODAL_PRELOAD(int *mode, double *value, int *status);
void KRX_SET_GENERALIZED_DAMPING(int *row_mode, int *col_mode, double *value, int *status);
void KRX_SET_UNITS(const char *mass, const char *length, const char *time, const char *force,
                   int *status, int mass_len, int length_len, int time_len, int force_len);
void KRX_SET_FACE2(int *n1, int *n2, int *status);
void KRX_SET_FACE3(int *n1, int *n2, int *n3, int *status);
void KRX_SET_FACE4(int *n1, int *n2, int *n3, int *n4, int *status);
void KRX_SET_FACE5(int *n1, int *n2, int *n3, int *n4, int *n5, int *status);
void KRX_SET_FACE6(int *n1, int *n2, int *n3, int *n4, int *n5, int *n6, int *status);
void KRX_SET_FACE7(int *n1, int *n2, int *n3, int *n4, int *n5, int *n6, int *n7, int *status);
void KRX_SET_FACE8(int *n1, int *n2, int *n3, int *n4, int *n5, int *n6, int *n7, int *n8,
                   int *status);
void KRX_GET_MODE_COUNT(int *count, int *status);
void KRX_GET_MODAL_STRESS(int *mode, int *node_id, double *v1, double *v2, double *v3, double *v4,
                          double *v5, double *v6, int *status);
void KRX_GET_MODAL_STRAIN(int *mode, int *node_id, double *v1, double *v2, double *v3, double *v4,
                          double *v5, double *v6, int *status);
void KRX_GET_TRANSFORM_TO_SELMOD(double *t, int *selected, int *count, int *status);
void KRX_SET_INVAR1(double *value, int *status);
void KRX_SET_INVAR2(double *values, int *status);
void KRX_SET_INVAR3(int *mode, double *values, int *status);
void KRX_SET_INVAR4(int *mode, double *values, int *status);
void KRX_SET_INVAR5(int *mode_i, int *mode_j, double *values, int *status);
void KRX_SET_INVAR6(double *values, int *status);
void KRX_SET_INVAR7(double *values, int *status);
void KRX_SET_INVAR8(int *mode, double *values, int *status);
void KRX_SET_INVAR9(int *mode_i, int *mode_j, double *values, int *status);
}

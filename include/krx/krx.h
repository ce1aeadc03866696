/* krxlib: export of the modal model of a flexible component as a KRX file.
 *
 * A host finite-element program calls these entries with Fortran conventions: every argument by
 * reference, and one hidden length (passed by value) per character argument, after all other
 * arguments. Every entry ends by storing 0 (success) or 1 (failure) in its status argument.
 * Notes, warnings and errors reach the host through its callbacks cwVlxmsg, cwVlxerr and cwIopiqr,
 * found in the host program or registered with krx_register_host_callbacks.
 *
 * Fortran hosts: the module krx (libkrxlib_fortran, krxlib-fortran.pc) wraps every entry as a
 * lower-case procedure that passes the lengths itself. A Fortran compiler without that module
 * declares each entry with an interface bind(C, name='KRX_...'), every argument by reference
 * (integer(c_int), real(c_double), character(kind=c_char) arrays), and passes each length as a
 * 32-bit int by value (integer(c_int), value) after all other arguments, in the order of the
 * character arguments; gfortran's own hidden lengths (size_t since version 8) do not match. */
#ifndef KRX_KRX_H
#define KRX_KRX_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(KRX_BUILDING_LIBRARY)
#define KRX_API __attribute__((visibility("default")))
#else
#define KRX_API
#endif

/* The host's callbacks. Levels of cwVlxerr: 2 warning, 3 error. cwIopiqr is asked key 4 only;
 * an answer above zero asks for quiet work. Return values of the first two are ignored. */
typedef int (*krx_msg_callback)(const char *text);
typedef int (*krx_err_callback)(int level, const char *text);
typedef int (*krx_inquiry_callback)(int *key);

/* For hosts that cannot export symbols: the three callbacks as function pointers. They take
 * precedence over callbacks the host program defines; a null pointer restores the default for
 * that one (the host's own symbol if there is one, else standard output or standard error). */
KRX_API void krx_register_host_callbacks(krx_msg_callback msg, krx_err_callback err,
                                         krx_inquiry_callback inquiry);

KRX_API void KRX_CREATE(int *node_capacity, int *mode_capacity, int *status);
KRX_API void KRX_SET_HEADER(const char *title, const char *input_name, const char *input_type,
                            const char *comment1, const char *comment2, const char *comment3,
                            int *status, int title_len, int input_name_len, int input_type_len,
                            int comment1_len, int comment2_len, int comment3_len);
KRX_API void KRX_SET_NODE_COORDINATES_VEC(int *node_id, double *xyz, int *status);
KRX_API void KRX_SET_NODAL_MASS(int *node_id, double *mass, int *status);
KRX_API void KRX_SET_NODAL_INERTIA(int *node_id, double *i11, double *i22, double *i33,
                                   double *i12, double *i13, double *i23, int *status);
KRX_API void KRX_SET_MODE_SHAPE_VEC(int *mode, int *node_id, double *values, int *status);
KRX_API void KRX_SET_MODAL_STRESS_VEC(int *mode, int *node_id, double *values, int *status);
KRX_API void KRX_SET_MODAL_STRAIN_VEC(int *mode, int *node_id, double *values, int *status);
KRX_API void KRX_SET_GENERALIZED_MASS(int *row_mode, int *col_mode, double *value, int *status);
KRX_API void KRX_SET_GENERALIZED_STIFFNESS(int *row_mode, int *col_mode, double *value,
                                           int *status);
KRX_API void KRX_SET_INTERFACE_NODE(int *node_id, int *status);
KRX_API void KRX_SET_FACE(int *vertex_count, int *node_ids, int *status);
KRX_API void KRX_UNITS_SI_MULTIPLIERS(double *mass, double *length, double *time, double *force,
                                      int *status);
KRX_API void KRX_WRITE_KRX(const char *path, int *status, int path_len);
KRX_API void KRX_WRITE_VELOX_KRX(const char *path, int *normal_modes, int *additional_modes,
                                 int *status, int path_len);
KRX_API void KRX_TERMINATE(int *status);

#ifdef __cplusplus
}
#endif

#endif

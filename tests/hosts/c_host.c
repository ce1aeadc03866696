/* A C host program, built two ways. With DLOPEN_HOST it loads the library at run time as the
 * finite-element program does: the callbacks are exported from the program (linked with
 * -rdynamic) and every entry is looked up by its export name (usage: dlopen_host <libkrxlib.so>).
 * Without it the program links the library and registers its callbacks as function pointers,
 * then checks that clearing them falls back to standard output and standard error. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef DLOPEN_HOST
#include <dlfcn.h>
#define CALLBACK
static void (*KRX_CREATE)(int *, int *, int *);
static void (*KRX_SET_HEADER)(const char *, const char *, const char *, const char *, const char *,
                              const char *, int *, int, int, int, int, int, int);
static void (*KRX_SET_NODE_COORDINATES_VEC)(int *, double *, int *);
static void (*KRX_SET_FACE)(int *, int *, int *);
static void (*KRX_TERMINATE)(int *);
#else
#include "krx/krx.h"
#define CALLBACK static
#endif

static int notes, warnings, errors;
static char last_note[1024], last_error[1024];

CALLBACK int cwVlxmsg(const char *text) {
  notes += 1;
  if (strncmp(text, "Title", 5) == 0) snprintf(last_note, sizeof last_note, "%s", text);
  return 0;
}

CALLBACK int cwVlxerr(int level, const char *text) {
  warnings += level == 2;
  errors += level == 3;
  snprintf(last_error, sizeof last_error, "%s", text);
  return 0;
}

CALLBACK int cwIopiqr(int *key) { return *key == 4 ? 0 : -1; }

static void expect(int condition, const char *what) {
  if (condition) return;
  fprintf(stderr, "host: unexpected result: %s\n", what);
  exit(1);
}

#ifdef DLOPEN_HOST
#define RESOLVE(name) expect((*(void **)&name = dlsym(library, #name)) != NULL, "the entry " #name)
#endif

int main(int argc, char **argv) {
#ifdef DLOPEN_HOST
  expect(argc == 2, "the library path as the only argument");
  void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  expect(library != NULL, dlerror());
  /* Entries of the family that are not exported stay out of reach. */
  expect(dlsym(library, "KRX_SET_GLOBAL_MASS") == NULL && dlsym(library, "KRX_SET_INVAR1") == NULL, "hidden");
  RESOLVE(KRX_CREATE);
  RESOLVE(KRX_SET_HEADER);
  RESOLVE(KRX_SET_NODE_COORDINATES_VEC);
  RESOLVE(KRX_SET_FACE);
  RESOLVE(KRX_TERMINATE);
#else
  (void)argc, (void)argv;
  krx_register_host_callbacks(cwVlxmsg, cwVlxerr, cwIopiqr);
#endif
  int status = -1;
  KRX_TERMINATE(&status);
  expect(status == 1 && errors == 1, "KRX_TERMINATE before KRX_CREATE");
  expect(strcmp(last_error, "No KRXDATA object.  Call KRX_CREATE first") == 0, "the error text");

  int nodes = 10, modes = 2;
  KRX_CREATE(&nodes, &modes, &status);
  expect(status == 0, "KRX_CREATE");
  /* Fortran-style fields: blank-padded, their lengths after all other arguments. */
  char title[127], blank[79];
  memset(title, ' ', sizeof title);
  memcpy(title, "Host model", 10);
  memset(blank, ' ', sizeof blank);
  KRX_SET_HEADER(title, blank, blank, blank, blank, blank, &status, (int)sizeof title, 79, 15, 79, 79, 79);
  expect(status == 0 && notes == 6, "KRX_SET_HEADER and its six notes");
  expect(strcmp(last_note, "Title: Host model") == 0, "the title note");

  int ids[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  for (int k = 0; k < 9; ++k) {
    double xyz[3] = {k, 0.0, 0.0};
    KRX_SET_NODE_COORDINATES_VEC(&ids[k], xyz, &status);
    expect(status == 0, "KRX_SET_NODE_COORDINATES_VEC");
  }

  int count = 9;
  KRX_SET_FACE(&count, ids, &status);
  expect(status == 0 && errors == 2, "KRX_SET_FACE with 9 vertices");
  expect(strcmp(last_error, "Unable to create a face with 9 vertices") == 0, "the face error");
  count = 3;
  KRX_SET_FACE(&count, ids, &status);
  expect(status == 0 && errors == 2, "KRX_SET_FACE with 3 vertices");
#ifndef DLOPEN_HOST
  krx_register_host_callbacks(NULL, NULL, NULL);
  count = 1;
  KRX_SET_FACE(&count, ids, &status);
  expect(errors == 2, "no callback after clearing the registration");
#endif
  KRX_TERMINATE(&status);
  expect(status == 0 && warnings == 0, "KRX_TERMINATE, and no warnings");
  printf("host: notes %d, warnings %d, errors %d\n", notes, warnings, errors);
  return 0;
}

/* A host program that loads the library at run time, as the finite-element program does: the
 * callbacks are defined here and exported from the program (linked with -rdynamic), and every
 * entry is looked up by its export name. Usage: dlopen_host <path of libkrxlib.so>. */
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int notes, warnings, errors, inquiries;
static int saw_title, saw_face_error;

int cwVlxmsg(const char *text) {
  notes += 1;
  if (strcmp(text, "Title: Loaded at run time") == 0) saw_title = 1;
  return 0;
}

int cwVlxerr(int level, const char *text) {
  if (level == 2) warnings += 1;
  if (level == 3) errors += 1;
  if (level == 3 && strcmp(text, "Unable to create a face with 9 vertices") == 0)
    saw_face_error = 1;
  return 0;
}

int cwIopiqr(int *key) {
  inquiries += 1;
  return *key == 4 ? 0 : -1;
}

static void expect(int condition, const char *what) {
  if (condition) return;
  fprintf(stderr, "dlopen host: unexpected result: %s\n", what);
  exit(1);
}

static void *entry(void *library, const char *name) {
  void *address = dlsym(library, name);
  if (!address) {
    fprintf(stderr, "dlopen host: missing entry %s\n", name);
    exit(1);
  }
  return address;
}

typedef void (*create_fn)(int *, int *, int *);
typedef void (*header_fn)(const char *, const char *, const char *, const char *, const char *,
                          const char *, int *, int, int, int, int, int, int);
typedef void (*node_fn)(int *, double *, int *);
typedef void (*matrix_fn)(int *, int *, double *, int *);
typedef void (*face_fn)(int *, int *, int *);
typedef void (*status_fn)(int *);

int main(int argc, char **argv) {
  expect(argc == 2, "the library path as the only argument");
  void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    fprintf(stderr, "dlopen host: %s\n", dlerror());
    return 1;
  }
  /* Entries of the family that are not exported stay out of reach. */
  expect(dlsym(library, "KRX_SET_GLOBAL_MASS") == NULL, "KRX_SET_GLOBAL_MASS hidden");
  expect(dlsym(library, "KRX_SET_INVAR1") == NULL, "KRX_SET_INVAR1 hidden");

  create_fn create = (create_fn)entry(library, "KRX_CREATE");
  header_fn header = (header_fn)entry(library, "KRX_SET_HEADER");
  node_fn coordinates = (node_fn)entry(library, "KRX_SET_NODE_COORDINATES_VEC");
  matrix_fn mass = (matrix_fn)entry(library, "KRX_SET_GENERALIZED_MASS");
  face_fn face = (face_fn)entry(library, "KRX_SET_FACE");
  status_fn terminate = (status_fn)entry(library, "KRX_TERMINATE");

  int status = -1;
  terminate(&status);
  expect(status == 1 && errors == 1, "KRX_TERMINATE before KRX_CREATE");

  int nodes = 10, modes = 2;
  create(&nodes, &modes, &status);
  expect(status == 0, "KRX_CREATE");
  char title[127], blank[79];
  memset(title, ' ', sizeof title);
  memcpy(title, "Loaded at run time", 18);
  memset(blank, ' ', sizeof blank);
  header(title, blank, blank, blank, blank, blank, &status, (int)sizeof title, 79, 15, 79, 79, 79);
  expect(status == 0 && saw_title, "KRX_SET_HEADER and its title note");

  int ids[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  for (int k = 0; k < 9; ++k) {
    double xyz[3] = {k, 0.0, 0.0};
    coordinates(&ids[k], xyz, &status);
    expect(status == 0, "KRX_SET_NODE_COORDINATES_VEC");
  }
  int one = 1, two = 2;
  double unit = 1.0;
  mass(&one, &one, &unit, &status);
  expect(status == 0, "KRX_SET_GENERALIZED_MASS");
  mass(&two, &two, &unit, &status);
  expect(status == 0, "KRX_SET_GENERALIZED_MASS");
  int three = 3;
  mass(&three, &three, &unit, &status);
  expect(status == 1 && errors == 2, "a third mode beyond the capacity");

  int count = 9;
  face(&count, ids, &status);
  expect(status == 0 && saw_face_error && errors == 3, "KRX_SET_FACE with 9 vertices");
  count = 3;
  face(&count, ids, &status);
  expect(status == 0 && errors == 3, "KRX_SET_FACE with 3 vertices");

  terminate(&status);
  expect(status == 0, "KRX_TERMINATE");
  expect(warnings == 0, "no warnings");
  printf("dlopen host: notes %d, warnings %d, errors %d\n", notes, warnings, errors);
  dlclose(library);
  return 0;
}

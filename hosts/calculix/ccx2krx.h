// ccx2krx, a host that exports a CalculiX model: the deck reader and the step decks, the CalculiX
// runs, the readers of CalculiX's output (.dof, .sti/.mas, .eig, .dat, .frd), the lumped masses
// and modal products, the interface points, and the skin of the mesh. Each operation reports its
// own failure once on standard error ("ccx2krx: ...") and returns false; callers only pass the
// failure up.
#ifndef CCX2KRX_H
#define CCX2KRX_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace ccx {

// One solid element: its CalculiX type and its node ids in CalculiX's order.
struct Element {
  int id = 0;
  int shape = 0;  // index into the shape table of skin.cpp (tetrahedron, wedge, hexahedron)
  int rule = 0;   // its integration: 1 for the reduced C3D8R and C3D20R, else 0
  std::vector<int> nodes;
};

// A node set of the deck (*NSET, plain or GENERATE), its name in upper case, its ids as listed.
struct NodeSet {
  std::string name;
  std::vector<int> ids;
};

// An interface point: a node set tied by *RIGID BODY to a new reference node (its translations)
// and rotation node (its rotations), both at the plain mean of the set's coordinates.
struct Interface {
  std::string set;
  int ref = 0;  // node ids, above every id of the deck
  int rot = 0;
  std::vector<int> tied;  // the set's nodes of the solid elements, by index into node_ids
};

// A shell or beam element, which CalculiX expands into solids of its own: its type, its node ids
// in CalculiX's order (corners first) and the element sets that hold it.
struct Structure {
  int id = 0;
  std::string type;
  bool beam = false;
  int corners = 0;
  std::vector<int> nodes;
};

// A *SHELL SECTION or *BEAM SECTION / *BEAM GENERAL SECTION: its element set, section name and
// offset parameters as written, and the numbers of its data lines (shell: the thickness; beam:
// the section's sizes, then the direction of its first axis).
struct Section {
  bool beam = false;
  std::string elset;
  std::string shape;    // RECT, CIRC, BOX, ... for beams
  bool offset = false;  // a nonzero OFFSET, OFFSET1 or OFFSET2
  bool nodal = false;   // NODAL THICKNESS: the thickness of each node from *NODAL THICKNESS
  std::vector<double> numbers;
};

// An element set of the deck, its name in upper case, its element ids.
struct ElementSet {
  std::string name;
  std::vector<int> ids;
};

// A *MATERIAL with its name in upper case and the constants of its *ELASTIC (zero without one).
struct Material {
  std::string name;
  double young = 0.0;
  double poisson = 0.0;
  bool elastic = false;  // an *ELASTIC card was read
};

// A *SOLID SECTION: its element set and material, in upper case.
struct SolidSection {
  std::string elset;
  std::string material;
};

// The model part of a deck: everything before the first *STEP, with *INCLUDEs read in.
struct Deck {
  std::string text;        // the model part as written to model.inp
  std::string heading;     // first line after *HEADING, trimmed; empty without one
  bool has_steps = false;  // the deck went on past the model part
  bool has_density = false;
  std::vector<int> node_ids;          // sorted ascending: nodes of the elements, then the
                                      // reference nodes of the interfaces
  std::vector<double> xyz;            // three per entry of node_ids
  std::vector<Element> elements;      // the solid elements
  std::vector<Structure> structures;  // the shell and beam elements
  std::vector<Section> sections;
  std::vector<ElementSet> element_sets;
  std::vector<std::pair<int, double>> nodal_thickness;  // *NODAL THICKNESS, node by node
  std::vector<NodeSet> sets;
  int max_node_id = 0;            // over every node the deck defines
  int solid_nodes = 0;            // entries of node_ids that elements use
  int tied_nodes = 0;             // nodes of the solid elements in interface sets
  std::string dependent_keyword;  // the first *EQUATION, *TIE, *MPC, ... of the model part
  // The materials for stresses: each *MATERIAL's isotropic *ELASTIC constants, each *SOLID
  // SECTION's element set and material, or why the deck's stresses cannot be recovered as
  // CalculiX's (another *ELASTIC type, a temperature table, *ORIENTATION, plasticity).
  std::vector<Material> materials;
  std::vector<SolidSection> solid_sections;
  std::string material_refusal;
  std::vector<Interface> interfaces;
};

// Reads the deck at path; refuses element types it cannot use, a deck without density, a deck
// without solid elements.
bool read_deck(const std::string &path, Deck &deck);
// Reads deck text (no file): the part of read_deck that tests can feed by hand. base_dir resolves
// *INCLUDE names.
bool parse_deck(const std::string &text, const std::string &base_dir, Deck &deck);
// The deck's material of that name (upper case), or null.
const Material *find_material(const Deck &deck, const std::string &name);
// Position of a node id in deck.node_ids, -1 when the node is not used by a solid element.
int node_index(const Deck &deck, int id);

// The shape of a CalculiX element type: 0 tetrahedron, 1 wedge, 2 hexahedron; -1 for a type that
// is not a supported solid.
int element_shape(const std::string &type);
int corner_count(int shape);
int node_count_of_type(const std::string &type);

// Step decks written beside model.inp.
bool write_file(const std::string &path, const std::string &text);
std::string modes_deck(int modes, bool stress);
std::string matrices_deck();

// Makes each named node set an interface point: refuses a set the deck lacks, a set without
// nodes of the solid elements and sets that share a node; appends the reference nodes to
// node_ids and the nodes, rigid bodies and the set of all nodes to the model text.
bool add_interfaces(Deck &deck, const std::vector<std::string> &names);
// The nodes tied to each interface point follow its reference node (translations u, rotations
// theta): u + theta x r, r from the reference node to the tied node.
void expand_rigid_ties(const Deck &deck, std::vector<double> &by_node);
// The component-mode job: one *STATIC step per interface degree of freedom (that one at 1, the
// others held at 0; every node's displacement printed to the .dat), then `modes` normal modes
// with every interface degree of freedom held (*FREQUENCY, STORAGE=YES). With shells and beams
// the static steps are written for --stress alone.
std::string component_deck(const Deck &deck, int modes, bool stress);

// Runs the CalculiX executable (CCX, else ccx on PATH) on job in dir, its standard output to
// job.log; on failure shows its *ERROR lines. Both jobs run at once; seconds is the wall time.
bool run_calculix(const std::string &dir, const std::vector<std::string> &jobs, double &seconds);

// The .dof map: row r of the matrices is node row_node[r] (index into deck.node_ids, -1 for a
// node that is not the file's), direction row_dir[r] (0..2 translations; 3..5 rotations, which
// the rows of an interface's rotation node are, given to its reference node; -1 for others).
struct DofMap {
  std::vector<int> row_node;
  std::vector<int> row_dir;
  std::vector<int> row_id;    // the node id the .dof gives
  std::vector<int> row_slot;  // with shells and beams: see map_expanded_rows
  // With shells and beams: the offset of each row's expanded node from its original node, three
  // per row (zero for rows of the node itself), so that a rigid motion moves every row.
  std::vector<double> row_offset;
};
bool read_dof_map(const std::string &path, const Deck &deck, DofMap &map);
bool parse_dof_map(std::FILE *file, const std::string &name, const Deck &deck, DofMap &map);

// The stiffness and mass matrices of the matrix run, which share one pattern: the upper
// triangle, column by column as CalculiX lists it. Column c holds rows row[start[c]] ..
// row[start[c+1]-1], 0-based, its diagonal among them.
struct Matrices {
  int n = 0;
  std::vector<int64_t> start;
  std::vector<int> row;
  std::vector<double> stiffness;
  std::vector<double> mass;
};
// Reads the .mas and the .sti files of the matrix run (n rows each, n from the .dof map).
bool read_matrices(const std::string &mas, const std::string &sti, int n, Matrices &m);
bool parse_matrix(std::FILE *file, const std::string &name, bool pattern_known, Matrices &m,
                  std::vector<double> &values);

// y = A x over the whole symmetric matrix, A being m.stiffness or m.mass.
void multiply(const Matrices &m, const std::vector<double> &a, const double *x, double *y);
double dot(const std::vector<double> &a, const std::vector<double> &b);

// Values of CalculiX's matrix files this process has parsed so far, by either reader: the ranks
// of a parallel run report theirs, which shows that none reads the whole matrices.
int64_t matrix_values_parsed();
void count_matrix_values(int64_t values);

// What the lumped masses need of M: its diagonal (one value per row of the files) and, for each
// translation direction d, the sum of its entries between rows of direction d (u_d^T M u_d).
struct MassSums {
  std::vector<double> diagonal;
  double direction[3] = {0.0, 0.0, 0.0};
};
void sum_masses(const Matrices &m, const DofMap &map, MassSums &sums);
// Lumped nodal masses: each node's translational diagonal entries of the consistent mass, scaled
// so that their sum is the total mass (the sum of one direction's block of M). Every mass is
// positive where the diagonal is.
bool lump_masses(const MassSums &sums, const DofMap &map, int nodes, std::vector<double> &nodal,
                 double &total);

// The eigenvectors CalculiX stores in double precision (*FREQUENCY, STORAGE=YES): read one mode at
// a time; the file is checked against the counts of the matrix run first.
struct EigenFile {
  std::FILE *file = nullptr;
  std::string name;
  int modes = 0;
  int rows = 0;
  int64_t vectors_at = 0;  // byte offset of the first eigenvector
  std::vector<double> eigenvalues;
};
bool open_eigen_file(const std::string &path, int rows, int64_t off_diagonal, EigenFile &eig);
bool read_eigenvector(EigenFile &eig, int mode, std::vector<double> &vector);
void close_eigen_file(EigenFile &eig);

// The displacement tables that *NODE PRINT writes to the .dat, one after the other: each line a
// node id and three values (for a rotation node its rotations). A node that is not the file's is
// skipped; by_node gets six values per entry of deck.node_ids.
struct DatReader {
  std::FILE *file = nullptr;
  std::string name;
  int table = 0;  // tables read so far
  std::string line;
};
bool open_dat(const std::string &path, DatReader &dat);
bool read_dat_displacements(DatReader &dat, const Deck &deck, std::vector<double> &by_node);
void close_dat(DatReader &dat);

// The nodal stresses of an ASCII .frd, one stress block after the other, as the file lists them.
struct FrdReader {
  std::FILE *file = nullptr;
  std::string name;
  int blocks = 0;  // stress blocks seen so far
  int width = 10;  // characters of a node number: 10 in the long format, 5 in the short
  std::string line;
};
bool open_frd(const std::string &path, FrdReader &frd);
// The STRESS block of the given mode (the mode-th of the file, static steps counted first): node
// ids and six values per node in CalculiX's order SXX SYY SZZ SXY SYZ SZX. Modes must be asked
// in ascending order.
bool read_frd_stresses(FrdReader &frd, int mode, std::vector<int> &nodes,
                       std::vector<double> &values);
void close_frd(FrdReader &frd);
// One " -1" record of a result block: the node and count values of 12 characters each.
bool parse_frd_values(const char *line, int node_width, int &node, double *values, int count);

// The skin: element faces used by one element only, each as its corner nodes (node ids), ordered
// so that the normal points out of the element.
struct Face {
  int count = 0;
  int ids[4] = {0, 0, 0, 0};
};
bool collect_skin(const Deck &deck, std::vector<Face> &faces);

// Shells and beams. CalculiX expands each into solids of its own: three nodes through a shell's
// thickness (bottom, middle, top), eight on a beam's section (four corners, then four edge
// middles), numbered after the deck's nodes. Its matrices label every expanded row with the
// original node; JOB.12d lists each element's expanded nodes and the knots: nodes where normals
// or sections meet at an angle or change, which get a rotation node (rows 1-3: rotations about
// x, y, z) and an expansion node of their own, and whose expanded nodes follow them.
struct Expansion {
  enum Kind : unsigned char { kSolid = 0, kShell = 1, kBeam = 2, kKnot = 3 };
  std::vector<unsigned char> kind;  // per entry of deck.node_ids
  // Shells: the vector from the bottom to the top surface (thickness x normal), then zeros.
  // Beams: the corners' offsets along the section's first and second axis (3 + 3): corner k
  // lies at s1[k] a1 + s2[k] a2 with s1 = (-1, -1, 1, 1), s2 = (1, -1, -1, 1).
  std::vector<double> axes;          // six per entry
  std::vector<double> edge;          // beams: edge middles at edge x a1, edge x a2 (round: sqrt 2)
  std::vector<unsigned char> slots;  // expanded nodes with a row, three directions per entry
  // Shell nodes that solid elements use as well: their first rows are the node's own, and the
  // bottom node follows from the rest (the node is the mean of its expanded nodes).
  std::vector<unsigned char> tied;
  // The expanded nodes whose stresses stand for the node: a shell's bottom and top (from its
  // first element), a beam's section corner at +a1 +a2 twice. Two per entry, 0 for none.
  std::vector<int> surface;
  std::vector<int> knots;           // ids of the knot nodes, ascending
  std::vector<int> rotation_nodes;  // their rotation nodes
  // Shell and beam nodes of interface sets. CalculiX's *RIGID BODY ties the mean of a shell
  // node's bottom and top (of a beam node's four corners) to the reference node and leaves the
  // node's rotation free; the node's first expanded node has no rows and follows from the rest.
  struct Tie {
    int node = 0;  // index into deck.node_ids
    int ref = 0;   // the reference node's index
    double arm[3] = {0.0, 0.0, 0.0};  // from the reference node to the node
  };
  std::vector<Tie> ties;       // ascending by node
  std::vector<int> bare_refs;  // reference nodes of sets without solid nodes: no mass of their own
};
// The reference geometry of every shell and beam node from the deck: each element's normal at
// the node (from its shape functions) averaged over the node's elements, thickness from the
// *SHELL SECTION (or *NODAL THICKNESS with its NODAL THICKNESS parameter), beam axes from the
// section's direction. Refuses elements without a section, offsets, sections it
// cannot place.
bool build_expansion(const Deck &deck, Expansion &e);
// After add_interfaces: the reference nodes join the expansion as nodes with rows of their own,
// and the shell and beam nodes of each set move from its tied nodes (which follow the reference
// node as a whole) to e.ties. Refuses a set node that joins shells to solids.
bool tie_interface_nodes(Deck &deck, Expansion &e);
// Knots and their rotation nodes from JOB.12d (the rotation node follows the knot's last
// expanded node), and the expanded nodes of e.surface.
bool read_knots(const std::string &path, const Deck &deck, Expansion &e);
bool parse_knots(std::FILE *file, const std::string &name, const Deck &deck, Expansion &e);
// Gives each row of an expanded model its slot (the row's expanded node among those of its
// original node and direction, in CalculiX's order: bottom to top, corners first) and moves the
// rows of a knot's rotation node to the knot, directions 3..5. Counts e.slots.
bool map_expanded_rows(const Deck &deck, Expansion &e, DofMap &map);
// Fills map.row_offset from the slots (after map_expanded_rows).
void place_expanded_rows(const Expansion &e, DofMap &map);
// Six components per entry of deck.node_ids from a vector over the matrices' rows: solid nodes
// and knots as the rows give them; shells the mid-surface's translation (CalculiX's own: the mean
// of bottom and top, for three nodes (bottom + 4 middle + top) / 6) and n x (u_top - u_bottom) /
// t, the bottom of a tied node from the node's own rows; beams the mean of the corners and the
// least-squares rotation of the corners. A direction held at a node (fewer rows than the node's
// others) stays zero.
void project_rows(const Expansion &e, const DofMap &map, const double *rows,
                  std::vector<double> &by_node);
// Adds to diagonal (one entry per node, the solids' share in it) the unit-density diagonal of the
// mass of each shell and beam element's solid as CalculiX expands it (after read_knots: a knot's
// expanded nodes lie along each element's own normal), summed onto the original nodes.
bool expanded_mass_diagonal(const Deck &deck, const Expansion &e, std::vector<double> &diagonal);
// Nodal masses and rotary inertias: each expanded node's share (as lump_masses gives it),
// summed onto its original node, whose inertia is that of its expanded nodes turning together
// (their block of the consistent mass, scaled to the node's mass); a knot's inertia is its
// rotation rows' block of the mass matrix, scaled likewise. Where unit (the unit-density diagonal
// of expanded_mass_diagonal) is the rows' diagonal over one density, the shares come from it:
// a knot's rows are condensed, and a node tied to an interface point lacks some.
// inertia: I11, I22, I33, I12, I13, I23 per entry.
bool lump_expanded_masses(const Matrices &m, const DofMap &map, const Expansion &e,
                          const std::vector<double> &unit, std::vector<double> &nodal,
                          std::vector<double> &inertia, double &total);
// Stresses at the original nodes from those of the .frd (node ids, six values each): solid
// nodes and nodes that tie shells to solids their own; shells at the bottom (surface -1) or top
// (1) surface or the mean of both (0), beams at the section corner of e.surface. by_node gets
// six values per entry of deck.node_ids, has 1 for each entry set.
void project_stresses(const Expansion &e, const Deck &deck, int surface,
                      const std::vector<int> &ids, const std::vector<double> &values,
                      std::vector<double> &by_node, std::vector<unsigned char> &has);
// Shell faces: each shell element's corner polygon, in the element's order.
void collect_shell_faces(const Deck &deck, std::vector<Face> &faces);

// What the export hands to the library, read by export.cpp through the KRX_ entries.
struct ExportJob {
  const Deck *deck = nullptr;
  std::string deck_name;  // the deck's file name without its directory
  std::string output;
  std::string units_name;
  double units[4] = {1.0, 1.0, 1.0, 1.0};  // SI value of the model's mass, length, time, force
  bool stress = false;
  int shell_surface = 1;  // -1 bottom, 0 mid-surface, 1 top
  const DofMap *map = nullptr;
  const Matrices *matrices = nullptr;
  // Given, the generalized mass and stiffness of every mode (static shapes first, row-major);
  // otherwise they are formed from matrices.
  const std::vector<double> *generalized_mass = nullptr;
  const std::vector<double> *generalized_stiffness = nullptr;
  const std::vector<double> *nodal_mass = nullptr;
  const std::vector<double> *nodal_inertia = nullptr;  // with shells and beams
  const Expansion *expansion = nullptr;                // with shells and beams
  const std::vector<Face> *faces = nullptr;
  EigenFile *eig = nullptr;
  FrdReader *frd = nullptr;
  // With interfaces: the static shapes come first from the .dat, kept as rows in scratch (a file
  // of the work directory) to be read back; the eigenvectors of the .eig leave out the interface
  // rows of the map.
  DatReader *dat = nullptr;
  std::string scratch;
  std::FILE *scratch_file = nullptr;  // open while the modes are handed over
  // The own solver wrote the static shapes' rows to scratch already, and computed the modes.
  bool own_solver = false;
  // The static shapes' rows are in scratch already (the own solver's, or with shells and beams,
  // whose expanded rows CalculiX's .dat does not give).
  bool statics_written = false;
  // With the own solver the stresses are recovered from each shape (a StressModel of solver.h).
  const struct StressModel *stress_model = nullptr;
};
bool export_model(ExportJob &job);

// Progress on standard error (progress.cpp): a stage, a count within it (on a terminal only),
// and the end of the terminal's line, which every message ends first.
void start_progress(bool quiet);
void show_stage(const char *stage);
void show_count(const char *what, int count, int total);
void end_progress_line();

// Messages: "ccx2krx: " and the text on standard error; failed() returns false for the caller.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));
bool failed(const char *format, ...) __attribute__((format(printf, 1, 2)));
// While into is set, messages go there instead of standard error (the first one only): the ranks
// of a parallel run hand theirs to rank 0, which prints one.
void capture_messages(std::string *into);

}  // namespace ccx

#endif

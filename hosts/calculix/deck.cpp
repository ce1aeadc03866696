// The deck: the model part of a CalculiX input (up to the first *STEP, *INCLUDEs read in), its
// nodes, solid elements, heading and density; and the two step decks written around it.
#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ccx2krx.h"

namespace ccx {

namespace {

std::string *captured = nullptr;

void report(const char *format, std::va_list args) {
  if (captured) {
    // Only the first failure counts: the callers that follow only pass it up.
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    if (captured->empty()) *captured = text;
    return;
  }
  end_progress_line();
  std::fputs("ccx2krx: ", stderr);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
}

}  // namespace

void capture_messages(std::string *into) { captured = into; }

void note(const char *format, ...) {
  std::va_list args;
  va_start(args, format);
  report(format, args);
  va_end(args);
}

bool failed(const char *format, ...) {
  std::va_list args;
  va_start(args, format);
  report(format, args);
  va_end(args);
  return false;
}

namespace {

struct SolidType {
  const char *name;
  int shape;
  int nodes;
};

// Reduced integration changes neither the nodes nor the faces of an element.
const SolidType kSolidTypes[] = {
    {"C3D4", 0, 4}, {"C3D10", 0, 10}, {"C3D6", 1, 6},   {"C3D15", 1, 15},
    {"C3D8", 2, 8}, {"C3D8R", 2, 8},  {"C3D20", 2, 20}, {"C3D20R", 2, 20},
};

// Shells and beams: the corners among their nodes. CalculiX expands them into solids itself.
struct StructureType {
  const char *name;
  bool beam;
  int corners;
  int nodes;
};

const StructureType kStructureTypes[] = {
    {"S3", false, 3, 3}, {"S4", false, 4, 4},  {"S4R", false, 4, 4}, {"S6", false, 3, 6},
    {"S8", false, 4, 8}, {"S8R", false, 4, 8}, {"B31", true, 2, 2},  {"B32", true, 2, 3},
    {"B32R", true, 2, 3},
};

const StructureType *structure_type(const std::string &name) {
  for (const StructureType &t : kStructureTypes)
    if (name == t.name) return &t;
  return nullptr;
}

const int kIncludeDepth = 10;

// A keyword line split into its upper-case name (blanks removed) and its parameters.
struct Keyword {
  std::string name;
  std::vector<std::pair<std::string, std::string>> params;
};

std::string upper_without_blanks(const std::string &s) {
  std::string out;
  for (char c : s)
    if (c != ' ' && c != '\t' && c != '\r') out += static_cast<char>(std::toupper(c));
  return out;
}

Keyword parse_keyword(const std::string &line) {
  Keyword k;
  std::stringstream in(line.substr(1));
  std::string item;
  bool first = true;
  while (std::getline(in, item, ',')) {
    if (first) {
      k.name = upper_without_blanks(item);
      first = false;
      continue;
    }
    size_t eq = item.find('=');
    std::string key = upper_without_blanks(item.substr(0, eq));
    std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back())))
      value.pop_back();
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.front())))
      value.erase(0, 1);
    k.params.emplace_back(key, value);
  }
  return k;
}

std::string param(const Keyword &k, const char *key) {
  for (const auto &p : k.params)
    if (p.first == key) return p.second;
  return "";
}

bool is_keyword(const std::string &line) {
  return line.size() > 1 && line[0] == '*' && line[1] != '*';
}
bool is_comment(const std::string &line) { return line.rfind("**", 0) == 0; }

bool is_blank(const std::string &line) {
  return std::all_of(line.begin(), line.end(),
                     [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
}

// Reads the numbers of a data line; a field that is not a number is skipped. A record longer than
// a line (a trailing comma) is gathered by the caller.
void append_numbers(const std::string &line, std::vector<double> &out) {
  const char *p = line.c_str();
  while (*p) {
    char *end = nullptr;
    double v = std::strtod(p, &end);
    if (end != p) {
      out.push_back(v);
      p = end;
    }
    while (*p && *p != ',') ++p;
    if (*p == ',') ++p;
  }
}

std::string dir_of(const std::string &path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

bool read_text(const std::string &path, std::string &text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return failed("cannot read %s", path.c_str());
  std::ostringstream all;
  all << in.rdbuf();
  text = all.str();
  return true;
}

// Walks the deck line by line, reading *INCLUDE files in place, and stops at the first *STEP.
// The lines seen make the model part; the parser state follows them.
struct Parser {
  Deck &deck;
  std::string block;  // keyword of the data lines being read
  std::string element_type;
  int element_nodes = 0;
  bool want_heading = false;
  bool stopped = false;
  std::vector<double> record;   // the numbers of an element record spread over lines
  NodeSet *set = nullptr;       // the set that *NSET data lines add to
  ElementSet *elset = nullptr;  // the set that *ELSET data lines and *ELEMENT, ELSET= add to
  Section *section = nullptr;   // the section whose data lines are being read
  std::string material;         // the *MATERIAL whose cards are being read
  int elastic_lines = -1;       // data lines of its *ELASTIC so far (-1: not in *ELASTIC)
  bool generate = false;
  std::vector<std::pair<int, size_t>> all_nodes;  // node id, position in all_xyz
  std::vector<double> all_xyz;
};

void refuse_material(Deck &deck, const std::string &why) {
  if (deck.material_refusal.empty()) deck.material_refusal = why;
}

// The material cards that decide whether the tool can recover stresses as CalculiX does.
void take_material_keyword(Parser &p, const Keyword &k) {
  Deck &deck = p.deck;
  p.elastic_lines = -1;
  static const char *const kInelastic[] = {"PLASTIC",      "HYPERELASTIC",
                                           "HYPERFOAM",    "USERMATERIAL",
                                           "CREEP",        "DEFORMATIONPLASTICITY",
                                           "CYCLICHARDENING"};
  if (k.name == "MATERIAL") {
    p.material = upper_without_blanks(param(k, "NAME"));
    deck.materials.push_back(Material{p.material});
  } else if (k.name == "ELASTIC") {
    std::string type = upper_without_blanks(param(k, "TYPE"));
    if (!type.empty() && type != "ISO" && type != "ISOTROPIC")
      refuse_material(deck, "material " + p.material + " has *ELASTIC, TYPE=" + type);
    if (deck.materials.empty()) {
      refuse_material(deck, "an *ELASTIC stands before any *MATERIAL");
    } else {
      if (deck.materials.back().elastic)
        refuse_material(deck, "material " + p.material + " has more than one *ELASTIC");
      deck.materials.back().elastic = true;
      p.elastic_lines = 0;
    }
  } else if (k.name == "ORIENTATION") {
    refuse_material(deck, "the deck has an *ORIENTATION");
  } else if (k.name == "SOLIDSECTION") {
    if (!param(k, "ORIENTATION").empty())
      refuse_material(deck, "a *SOLID SECTION has an ORIENTATION");
    deck.solid_sections.push_back(SolidSection{upper_without_blanks(param(k, "ELSET")),
                                               upper_without_blanks(param(k, "MATERIAL"))});
  }
  for (const char *name : kInelastic)
    if (k.name == name) refuse_material(deck, "material " + p.material + " has *" + k.name);
}

// The element set of that name, made empty when the deck names it first.
ElementSet *element_set(Deck &deck, const std::string &name) {
  for (ElementSet &s : deck.element_sets)
    if (s.name == name) return &s;
  deck.element_sets.push_back(ElementSet{name, {}});
  return &deck.element_sets.back();
}

bool take_section(Parser &p, const Keyword &k) {
  Section s;
  s.beam = k.name != "SHELLSECTION";
  s.elset = upper_without_blanks(param(k, "ELSET"));
  s.shape = upper_without_blanks(param(k, "SECTION"));
  for (const char *name : {"OFFSET", "OFFSET1", "OFFSET2"})
    s.offset = s.offset || std::strtod(param(k, name).c_str(), nullptr) != 0.0;
  for (const auto &kv : k.params) {
    s.nodal = s.nodal || kv.first == "NODALTHICKNESS";
    if (kv.first == "COMPOSITE")
      return failed("*SHELL SECTION, COMPOSITE cannot be exported: its layers are not projected");
  }
  p.deck.sections.push_back(std::move(s));
  p.section = &p.deck.sections.back();
  return true;
}

bool take_keyword(Parser &p, const std::string &line) {
  Keyword k = parse_keyword(line);
  p.block = k.name;
  p.record.clear();
  p.section = nullptr;
  p.set = nullptr;
  if (k.name == "ELEMENT") {
    p.element_type = upper_without_blanks(param(k, "TYPE"));
    int nodes = node_count_of_type(p.element_type);
    if (const StructureType *t = structure_type(p.element_type)) nodes = t->nodes;
    if (nodes == 0)
      return failed(
          "element type %s is not supported: only the solid elements C3D4, C3D10, "
          "C3D6, C3D15, C3D8, C3D8R, C3D20, C3D20R, the shells S3, S4, S4R, S6, S8, S8R "
          "and the beams B31, B32, B32R can be exported",
          p.element_type.empty() ? "(none)" : p.element_type.c_str());
    p.element_nodes = nodes;
    std::string set = upper_without_blanks(param(k, "ELSET"));
    p.elset = set.empty() ? nullptr : element_set(p.deck, set);
  }
  if (k.name == "ELSET") {
    p.elset = element_set(p.deck, upper_without_blanks(param(k, "ELSET")));
    p.generate = false;
    for (const auto &kv : k.params) p.generate = p.generate || kv.first == "GENERATE";
  }
  if ((k.name == "SHELLSECTION" || k.name == "BEAMSECTION" || k.name == "BEAMGENERALSECTION") &&
      !take_section(p, k))
    return false;
  std::string node_set = upper_without_blanks(param(k, "NSET"));
  if (k.name == "NSET" || (k.name == "NODE" && !node_set.empty())) {
    // A set named again goes on where it stopped, as in CalculiX.
    std::string name = node_set;
    auto it = std::find_if(p.deck.sets.begin(), p.deck.sets.end(),
                           [&](const NodeSet &s) { return s.name == name; });
    if (it == p.deck.sets.end()) {
      p.deck.sets.push_back(NodeSet{name, {}});
      it = p.deck.sets.end() - 1;
    }
    p.set = &*it;
    p.generate = false;
    for (const auto &kv : k.params) p.generate = p.generate || kv.first == "GENERATE";
  }
  // Keywords after which CalculiX's matrices leave out degrees of freedom that depend on others.
  static const char *const kDependent[] = {"EQUATION", "TIE", "MPC", "COUPLING", "RIGIDBODY",
                                           "CONTACTPAIR"};
  for (const char *name : kDependent)
    if (k.name == name && p.deck.dependent_keyword.empty())
      p.deck.dependent_keyword = k.name == "RIGIDBODY"     ? "RIGID BODY"
                                 : k.name == "CONTACTPAIR" ? "CONTACT PAIR"
                                                           : k.name;
  take_material_keyword(p, k);
  if (k.name == "NORMAL")
    return failed("*NORMAL cannot be exported: the shells' normals are taken from their elements");
  if (k.name == "HEADING") p.want_heading = true;
  if (k.name == "DENSITY") p.deck.has_density = true;
  return true;
}

// Element ids, ranges with GENERATE, or names of sets defined before.
bool take_element_set_line(Parser &p, const std::string &line) {
  std::vector<double> v;
  append_numbers(line, v);
  if (p.generate) {
    long first = v.size() > 0 ? static_cast<long>(v[0]) : 0;
    long last = v.size() > 1 ? static_cast<long>(v[1]) : first;
    long step = v.size() > 2 ? static_cast<long>(v[2]) : 1;
    if (step < 1 || last < first || last - first > 100000000L)
      return failed("*ELSET, ELSET=%s, GENERATE: bad range \"%s\"", p.elset->name.c_str(),
                    line.c_str());
    for (long id = first; id <= last; id += step) p.elset->ids.push_back(static_cast<int>(id));
    return true;
  }
  std::stringstream in(line);
  std::string item;
  while (std::getline(in, item, ',')) {
    std::string name = upper_without_blanks(item);
    if (name.empty()) continue;
    char *end = nullptr;
    long id = std::strtol(name.c_str(), &end, 10);
    if (*end == 0) {
      p.elset->ids.push_back(static_cast<int>(id));
      continue;
    }
    std::string own = p.elset->name;  // the list may grow, which moves the set
    ElementSet copy = *element_set(p.deck, name);
    p.elset = element_set(p.deck, own);
    p.elset->ids.insert(p.elset->ids.end(), copy.ids.begin(), copy.ids.end());
  }
  return true;
}

bool take_data(Parser &p, const std::string &line) {
  if (p.want_heading) {
    std::string h = line;
    while (!h.empty() && std::isspace(static_cast<unsigned char>(h.back()))) h.pop_back();
    size_t lead = h.find_first_not_of(" \t");
    p.deck.heading = lead == std::string::npos ? "" : h.substr(lead);
    p.want_heading = false;
    return true;
  }
  if (p.elastic_lines >= 0) {
    std::vector<double> v;
    append_numbers(line, v);
    if (++p.elastic_lines > 1)
      refuse_material(p.deck, "material " + p.material + " has a temperature table of *ELASTIC");
    p.deck.materials.back().young = v.size() > 0 ? v[0] : 0.0;
    p.deck.materials.back().poisson = v.size() > 1 ? v[1] : 0.0;
    return true;
  }
  if (p.block == "NODE") {
    std::vector<double> v;
    append_numbers(line, v);
    if (v.empty()) return true;
    v.resize(4, 0.0);
    p.all_nodes.emplace_back(static_cast<int>(v[0]), p.all_xyz.size());
    if (p.set) p.set->ids.push_back(static_cast<int>(v[0]));
    p.all_xyz.insert(p.all_xyz.end(), v.begin() + 1, v.begin() + 4);
    return true;
  }
  if (p.block == "NSET" && p.set) {
    std::vector<double> v;
    append_numbers(line, v);
    if (!p.generate) {
      for (double id : v) p.set->ids.push_back(static_cast<int>(id));
      return true;
    }
    long first = v.size() > 0 ? static_cast<long>(v[0]) : 0;
    long last = v.size() > 1 ? static_cast<long>(v[1]) : first;
    long step = v.size() > 2 ? static_cast<long>(v[2]) : 1;
    if (step < 1 || last < first || last - first > 100000000L)
      return failed("*NSET, NSET=%s, GENERATE: bad range \"%s\"", p.set->name.c_str(),
                    line.c_str());
    for (long id = first; id <= last; id += step) p.set->ids.push_back(static_cast<int>(id));
    return true;
  }
  if (p.block == "ELEMENT") {
    append_numbers(line, p.record);
    if (static_cast<int>(p.record.size()) < p.element_nodes + 1) return true;
    int id = static_cast<int>(p.record[0]);
    std::vector<int> nodes;
    for (int k = 1; k <= p.element_nodes; ++k) nodes.push_back(static_cast<int>(p.record[k]));
    if (p.elset) p.elset->ids.push_back(id);
    if (const StructureType *t = structure_type(p.element_type)) {
      p.deck.structures.push_back(Structure{id, t->name, t->beam, t->corners, std::move(nodes)});
    } else {
      Element e;
      e.id = id;
      e.shape = element_shape(p.element_type);
      e.rule = p.element_type == "C3D8R" || p.element_type == "C3D20R" ? 1 : 0;
      e.nodes = std::move(nodes);
      p.deck.elements.push_back(std::move(e));
    }
    p.record.clear();
    return true;
  }
  if (p.block == "ELSET" && p.elset) return take_element_set_line(p, line);
  if (p.section) {
    append_numbers(line, p.section->numbers);
    return true;
  }
  if (p.block == "NODALTHICKNESS") {
    std::vector<double> v;
    append_numbers(line, v);
    std::string first = upper_without_blanks(line.substr(0, line.find(',')));
    if (v.empty()) return true;
    auto set = std::find_if(p.deck.sets.begin(), p.deck.sets.end(),
                            [&](const NodeSet &s) { return s.name == first; });
    if (set == p.deck.sets.end()) {
      if (v.size() > 1) p.deck.nodal_thickness.emplace_back(static_cast<int>(v[0]), v[1]);
      return true;
    }
    for (int id : set->ids) p.deck.nodal_thickness.emplace_back(id, v.back());
  }
  return true;
}

bool walk_text(Parser &p, const std::string &text, const std::string &base, int depth) {
  std::istringstream in(text);
  std::string line;
  while (!p.stopped && std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (is_comment(line) || is_blank(line)) {
      p.deck.text += line + "\n";
      continue;
    }
    if (!is_keyword(line)) {
      p.deck.text += line + "\n";
      if (!take_data(p, line)) return false;
      continue;
    }
    Keyword k = parse_keyword(line);
    if (k.name == "STEP") {
      p.deck.has_steps = true;
      p.stopped = true;
      break;
    }
    if (k.name == "INCLUDE") {
      std::string name = param(k, "INPUT");
      if (name.size() > 1 && (name.front() == '"' || name.front() == '\''))
        name = name.substr(1, name.size() - 2);
      if (name.empty()) return failed("*INCLUDE without INPUT= in the deck");
      if (depth >= kIncludeDepth) return failed("*INCLUDE nested too deeply at %s", name.c_str());
      std::string path = name[0] == '/' ? name : base + "/" + name;
      std::string included;
      if (!read_text(path, included)) return false;
      // The included lines continue the block they stand in, as if written in its place.
      if (!walk_text(p, included, dir_of(path), depth + 1)) return false;
      continue;
    }
    p.deck.text += line + "\n";
    if (!take_keyword(p, line)) return false;
  }
  return true;
}

// Keeps the nodes that solid elements use, sorted by id; refuses an element naming an unknown node.
bool keep_element_nodes(Parser &p) {
  Deck &deck = p.deck;
  std::sort(p.all_nodes.begin(), p.all_nodes.end());
  std::vector<int> used;
  for (const Element &e : deck.elements) used.insert(used.end(), e.nodes.begin(), e.nodes.end());
  for (const Structure &e : deck.structures)
    used.insert(used.end(), e.nodes.begin(), e.nodes.end());
  std::sort(used.begin(), used.end());
  used.erase(std::unique(used.begin(), used.end()), used.end());
  if (!used.empty() && used.front() < 1)
    return failed("node %d of an element is not a positive node number", used.front());
  deck.node_ids.clear();
  deck.xyz.clear();
  deck.max_node_id = p.all_nodes.empty() ? 0 : p.all_nodes.back().first;
  for (int id : used) {
    auto it =
        std::lower_bound(p.all_nodes.begin(), p.all_nodes.end(), std::make_pair(id, size_t{0}));
    if (it == p.all_nodes.end() || it->first != id)
      return failed("node %d of an element is not defined in the deck", id);
    deck.node_ids.push_back(id);
    deck.xyz.insert(deck.xyz.end(), p.all_xyz.begin() + static_cast<long>(it->second),
                    p.all_xyz.begin() + static_cast<long>(it->second) + 3);
  }
  deck.solid_nodes = static_cast<int>(deck.node_ids.size());
  return true;
}

}  // namespace

int element_shape(const std::string &type) {
  for (const SolidType &t : kSolidTypes)
    if (type == t.name) return t.shape;
  return -1;
}

int node_count_of_type(const std::string &type) {
  for (const SolidType &t : kSolidTypes)
    if (type == t.name) return t.nodes;
  return 0;
}

int corner_count(int shape) { return shape == 0 ? 4 : shape == 1 ? 6 : 8; }

const Material *find_material(const Deck &deck, const std::string &name) {
  for (const Material &m : deck.materials)
    if (m.name == name) return &m;
  return nullptr;
}

int node_index(const Deck &deck, int id) {
  auto it = std::lower_bound(deck.node_ids.begin(), deck.node_ids.end(), id);
  if (it == deck.node_ids.end() || *it != id) return -1;
  return static_cast<int>(it - deck.node_ids.begin());
}

// Every material that a solid section uses needs Young's modulus for the stresses.
void check_section_materials(Deck &deck) {
  if (deck.solid_sections.empty())
    refuse_material(deck, "the deck has no *SOLID SECTION, which names the material");
  for (const SolidSection &section : deck.solid_sections) {
    const Material *used = find_material(deck, section.material);
    if (!used)
      refuse_material(deck, "the *SOLID SECTION of " + section.elset + " names material " +
                                section.material + ", which the deck does not define");
    else if (!(used->young > 0.0))
      refuse_material(
          deck, "material " + used->name + " has no *ELASTIC with a positive Young's modulus");
  }
}

bool parse_deck(const std::string &text, const std::string &base_dir, Deck &deck) {
  Parser p{deck, "", "", 0, false, false, {}, nullptr, nullptr, nullptr, "", -1, false, {}, {}};
  if (!walk_text(p, text, base_dir, 0)) return false;
  check_section_materials(deck);
  if (deck.elements.empty() && deck.structures.empty())
    return failed(
        "the deck holds no element (solid C3D4, C3D10, C3D6, C3D15, C3D8, C3D8R, C3D20, "
        "C3D20R; shell S3, S4, S4R, S6, S8, S8R; beam B31, B32, B32R) before its first *STEP");
  if (!deck.has_density)
    return failed("the deck has no *DENSITY: the mass matrix, and with it the modes, need one");
  return keep_element_nodes(p);
}

bool read_deck(const std::string &path, Deck &deck) {
  std::string text;
  if (!read_text(path, text)) return false;
  return parse_deck(text, dir_of(path), deck);
}

bool write_file(const std::string &path, const std::string &text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
  out.close();
  if (!out) return failed("cannot write %s", path.c_str());
  return true;
}

// STORAGE=YES keeps the eigenvectors in double precision in modes.eig; the ASCII .frd holds the
// same shapes to five digits, and the stresses.
std::string modes_deck(int modes, bool stress) {
  std::string s = "*INCLUDE,INPUT=model.inp\n*STEP\n*FREQUENCY,STORAGE=YES\n" +
                  std::to_string(modes) + "\n*NODE FILE\nU\n";
  if (stress) s += "*EL FILE\nS\n";
  return s + "*END STEP\n";
}

// CalculiX stops after writing the matrices, so this job has a step of its own.
std::string matrices_deck() {
  return "*INCLUDE,INPUT=model.inp\n*STEP\n*FREQUENCY,SOLVER=MATRIXSTORAGE\n1\n*END STEP\n";
}

}  // namespace ccx

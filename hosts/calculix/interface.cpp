// Interface points: node sets of the deck tied by *RIGID BODY to reference and rotation nodes of
// their own, and the job that computes the component modes on them: the static shapes of the
// interface degrees of freedom, then the normal modes with the interface held.
#include <algorithm>
#include <cctype>
#include <cstdio>

#include "ccx2krx.h"

namespace ccx {

namespace {

// Every node of the file and every rotation node, printed by the static steps.
const char *const kAllNodes = "CCX2KRXALL";
// The reference and rotation nodes alone, printed by the frequency step in place of all nodes.
const char *const kInterfaceNodes = "CCX2KRXIF";

std::string upper(const std::string &s) {
  std::string out;
  for (char c : s) out += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

void append_set(std::string &text, const char *name, const std::vector<int> &ids) {
  text += "*NSET,NSET=" + std::string(name) + "\n";
  for (size_t k = 0; k < ids.size(); ++k)
    text += std::to_string(ids[k]) + (k % 16 == 15 || k + 1 == ids.size() ? ",\n" : ",");
}

// The nodes of the solid elements in the set, each once, by their index in deck.node_ids.
bool set_nodes(const Deck &deck, const std::string &name, std::vector<int> &nodes) {
  std::string wanted = upper(name);
  auto it = std::find_if(deck.sets.begin(), deck.sets.end(),
                         [&](const NodeSet &s) { return s.name == wanted; });
  if (it == deck.sets.end())
    return failed("--interface %s: the deck has no node set of that name", name.c_str());
  nodes.clear();
  for (int id : it->ids) {
    int index = node_index(deck, id);
    if (index >= 0 && index < deck.solid_nodes) nodes.push_back(index);
  }
  std::sort(nodes.begin(), nodes.end());
  nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
  if (nodes.empty())
    return failed("--interface %s: the set holds no node of the solid elements", name.c_str());
  return true;
}

// "%.17g": the centroid is written as the double it is.
std::string node_line(int id, const double *xyz) {
  char line[96];
  std::snprintf(line, sizeof line, "%d,%.17g,%.17g,%.17g\n", id, xyz[0], xyz[1], xyz[2]);
  return line;
}

}  // namespace

bool add_interfaces(Deck &deck, const std::vector<std::string> &names) {
  if (names.empty()) return true;
  if (deck.max_node_id > 2000000000 - 2 * static_cast<int>(names.size()))
    return failed("the deck's node ids leave no room for the interface nodes");
  std::vector<int> owner(static_cast<size_t>(deck.solid_nodes), -1);
  std::vector<int> nodes;
  std::string text;
  for (size_t k = 0; k < names.size(); ++k) {
    if (!set_nodes(deck, names[k], nodes)) return false;
    double centroid[3] = {0.0, 0.0, 0.0};
    for (int index : nodes) {
      if (owner[index] >= 0)
        return failed(
            "--interface %s and --interface %s share node %d: each interface point needs a "
            "set of its own",
            names[owner[index]].c_str(), names[k].c_str(), deck.node_ids[index]);
      owner[index] = static_cast<int>(k);
      for (int d = 0; d < 3; ++d) centroid[d] += deck.xyz[3 * static_cast<size_t>(index) + d];
    }
    for (double &c : centroid) c /= static_cast<double>(nodes.size());
    deck.tied_nodes += static_cast<int>(nodes.size());
    Interface point;
    point.set = upper(names[k]);
    point.ref = deck.max_node_id + 1 + 2 * static_cast<int>(k);
    point.rot = point.ref + 1;
    point.tied = nodes;
    text += "*NODE\n" + node_line(point.ref, centroid) + node_line(point.rot, centroid);
    text += "*RIGID BODY,NSET=" + point.set + ",REF NODE=" + std::to_string(point.ref) +
            ",ROT NODE=" + std::to_string(point.rot) + "\n";
    deck.interfaces.push_back(point);
    deck.node_ids.push_back(point.ref);
    deck.xyz.insert(deck.xyz.end(), centroid, centroid + 3);
  }
  std::vector<int> all = deck.node_ids, ends;
  for (const Interface &point : deck.interfaces) {
    all.push_back(point.rot);
    ends.push_back(point.ref);
    ends.push_back(point.rot);
  }
  append_set(text, kAllNodes, all);
  append_set(text, kInterfaceNodes, ends);
  deck.text += text;
  return true;
}

std::string component_deck(const Deck &deck, int modes, bool stress) {
  std::vector<std::pair<int, int>> dofs;  // node, direction 1..3
  for (const Interface &point : deck.interfaces)
    for (int node : {point.ref, point.rot})
      for (int d = 1; d <= 3; ++d) dofs.emplace_back(node, d);
  auto boundary = [&](size_t unit) {
    std::string s = "*BOUNDARY,OP=NEW\n";
    for (size_t k = 0; k < dofs.size(); ++k)
      s += std::to_string(dofs[k].first) + "," + std::to_string(dofs[k].second) + "," +
           std::to_string(dofs[k].second) + (k == unit ? ",1.\n" : ",0.\n");
    return s;
  };
  std::string output = stress ? "*EL FILE\nS\n" : "";
  std::string s = "*INCLUDE,INPUT=model.inp\n";
  // With shells and beams the static shapes come from the expanded matrices (the .dat gives the
  // original nodes only): the static steps remain for their stresses alone.
  bool statics = deck.structures.empty() || stress;
  for (size_t k = 0; statics && k < dofs.size(); ++k)
    s += "*STEP\n*STATIC\n" + boundary(k) + "*NODE PRINT,NSET=" + kAllNodes + "\nU\n" + output +
         "*END STEP\n";
  s += "*STEP\n*FREQUENCY,STORAGE=YES\n" + std::to_string(modes) + "\n" + boundary(dofs.size()) +
       "*NODE PRINT,NSET=" + kInterfaceNodes + "\nU\n" + output + "*END STEP\n";
  return s;
}

}  // namespace ccx
